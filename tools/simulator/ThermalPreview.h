// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <opencv2/core.hpp>

#include <string>
#include <utility>
#include <vector>

namespace kelvo::tools {

// 8-bit colour previews of temperature images for demos and reports.
class ThermalPreview {
public:
    struct Range {
        float low;
        float high;
    };

    // Percentiles of the finite pixels, so that hot pixels and markers do not stretch
    // the palette; a flat or empty image gives a range one kelvin wide.
    static Range robustRange(const cv::Mat_<float>& image, float lowPercent = 1.0f,
                             float highPercent = 99.0f);
    // How values map to colours: from cold to hot.
    enum class Palette { kIron, kInferno, kGrey, kWhiteHot, kBlackHot };
    // The palette of a name ("iron", "inferno", "grey", "white-hot", "black-hot");
    // throws std::invalid_argument for any other.
    static Palette paletteNamed(const std::string& name);

    // The palette over the range (clipped outside), BGR CV_8UC3.
    static cv::Mat render(const cv::Mat_<float>& image, Range range,
                          Palette palette = Palette::kInferno);
    // The preview with a colour bar on its right: the palette from the range's low end at
    // the bottom to its high end at the top, labelled with both ends and the unit.
    static cv::Mat withColourBar(const cv::Mat& preview, Range range, Palette palette,
                                 const std::string& unit);
    // White text on a dark box in the top left corner, sized after the image width.
    static void label(cv::Mat& preview, const std::string& text);
    // The images side by side, in the range of the first (or the range given), each
    // scaled to the largest height by pixel replication and labelled.
    static cv::Mat sideBySide(const std::vector<std::pair<std::string, cv::Mat_<float>>>& images,
                              const Range* range = nullptr, Palette palette = Palette::kInferno);
};

}  // namespace kelvo::tools
