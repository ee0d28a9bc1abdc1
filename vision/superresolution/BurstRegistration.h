// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <opencv2/core.hpp>
#include <vector>

namespace kelvo::vision {

// A whole burst registered at once, as the float engine's pass registers its window:
// corner tracking and one Lucas-Kanade step against the reference (SrFloatRegistration2).
// For the tools that look at a burst before (or besides) a pass.
struct BurstRegistration {
    // 0, or the registration's negative code (no corner could be tracked into a frame).
    int status = 0;
    // Per frame: moved onto the reference grid by whole pixels, the 0/1 validity mask,
    // the sub-pixel rest of the shift and the complete shift (frame(p + s) ~ reference(p),
    // frame pixels).
    std::vector<cv::Mat_<float>> moved;
    std::vector<cv::Mat_<signed char>> masks;
    std::vector<cv::Point2f> subPixelShifts;
    std::vector<cv::Point2f> completeShifts;

    // Frames of one size, oldest first. Throws kelvo::Exception "Too large displacement"
    // when a frame moved by half the frame height or more.
    static BurstRegistration of(const std::vector<cv::Mat_<float>>& frames, int referencePosition,
                                float regError);
};

}  // namespace kelvo::vision
