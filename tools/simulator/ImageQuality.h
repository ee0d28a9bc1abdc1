// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <opencv2/core.hpp>

namespace kelvo::tools {

class ImageQuality {
public:
    // 10 log10(peak^2 / mean squared error) in dB over the pixels at least `border` away
    // from every image edge, peak = max - min of the truth over the same pixels. Infinite
    // for identical images. Throws std::invalid_argument for different sizes or a border
    // that leaves nothing.
    static double psnr(const cv::Mat_<float>& image, const cv::Mat_<float>& truth, int border = 8);

    // Bicubic upscaling by 2 onto the reconstruction's output grid. cv::resize maps output
    // pixel X to frame coordinate (X + 0.5) / 2 - 0.5 = X/2 - 1/4, which is where frame
    // pixel r, centred at truth coordinate 2r + 1/2, puts it: no further offset is needed.
    static cv::Mat_<float> upscaleBicubic(const cv::Mat_<float>& frame);
};

}  // namespace kelvo::tools
