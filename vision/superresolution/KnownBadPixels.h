// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <opencv2/core.hpp>
#include <vector>

namespace kelvo::vision {

// The known defective pixels of a sensor (from a calibration table or a search over a burst),
// written into every frame as the marker bit pattern that the engine's bad-pixel handling repairs
// on the way in, and whose influence on the result it masks and refills. The minimum marker is
// used because its fallback, the frame's lowest valid value, never counts as an unrepairable
// defect: a cluster of known defects thus cannot make a frame fail, and the fallback cannot pose
// as a hot spot.
class KnownBadPixels {
public:
    KnownBadPixels() = default;

    // Takes the positions for frames of the given size. Throws std::invalid_argument, naming the
    // first position outside the frame, and then keeps the previous list.
    void set(const std::vector<cv::Point>& positions, cv::Size frameSize);
    void clear();
    bool empty() const { return pixelIndices.empty(); }
    int count() const { return static_cast<int>(pixelIndices.size()); }

    // The frame with the markers written in: a marked copy held here (its storage is reused from
    // frame to frame), or the frame itself when no pixel is known.
    const float* marked(const float* frame);

    // The float whose bits are the marker.
    static float marker();

private:
    cv::Size frameSize;
    std::vector<int> pixelIndices;
    std::vector<float> markedFrame;
};

}  // namespace kelvo::vision
