// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <opencv2/core.hpp>

#include <cstdint>

namespace kelvo::tools {

// A synthetic long-wave infrared view in degrees Celsius, deterministic for a seed:
// a cold sky over warmer ground with smooth gradients and large sun-warmed patches,
// a road, buildings with heated windows, cars and people at 30-40 degC with sharp
// edges, and fine detail near the resolution limit (text, power lines, bar groups).
// Object sizes follow the image size; detail shows from about 64 x 64 up. Throws
// std::invalid_argument for an empty size.
class ThermalScene {
public:
    static cv::Mat_<float> render(cv::Size size, std::uint64_t seed);
};

}  // namespace kelvo::tools
