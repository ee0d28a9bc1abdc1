// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <opencv2/core.hpp>
#include <string>
#include <vector>

namespace kelvo::vision {

// Chooses, from a burst, the frames a super-resolution pass can use and the reference it
// should use: one bad frame (a cut to another view, a frame torn by a fast move) puts a
// ghost of another place into the result, or, as the reference, spoils every frame.
//
// 1. Every pair of frames is aligned by phase correlation (at half resolution, which is
//    plenty for the whole-pixel part) and compared by the correlation coefficient of
//    their overlap, which ignores the camera's automatic gain and offset.
// 2. The reference is the frame most consistent with the others: the highest median
//    coefficient (ties: the earlier frame). The median lets one bad frame in the burst
//    not spoil the scores of the good ones.
// 3. A frame is left out when its coefficient with the reference is below
//    minCorrelation, when its displacement exceeds a tenth of the frame height (the
//    pass's own limit), or when the engine's registration against the reference leaves
//    at least half of its mask empty (or finds the displacement too large after all).
// At least minimumFrames must remain; otherwise the selection fails.
class UsableFrameSelector {
public:
    struct Settings {
        double minCorrelation = 0.4;
        int minimumFrames = 3;
        float regError = 1e-4f;  // registration threshold, as the C interface sets it
    };
    struct LeftOut {
        int frame;
        std::string reason;
    };
    struct Selection {
        int reference = 0;
        std::vector<int> usable;  // ascending, the reference among them
        std::vector<LeftOut> leftOut;
        // Correlation coefficient and displacement (frame(p + d) ~ reference(p), in frame
        // pixels) of every frame against the reference.
        std::vector<double> correlation;
        std::vector<cv::Point2f> displacement;
    };

    UsableFrameSelector() = default;
    explicit UsableFrameSelector(const Settings& settings) : settings(settings) {}

    // Frames of one size with finite values, oldest first. Throws std::invalid_argument
    // for unusable input and std::runtime_error, naming every frame left out and why,
    // when fewer than minimumFrames remain.
    Selection select(const std::vector<cv::Mat_<float>>& frames) const;

private:
    Settings settings;
};

}  // namespace kelvo::vision
