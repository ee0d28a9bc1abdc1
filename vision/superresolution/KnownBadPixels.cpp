// SPDX-License-Identifier: Apache-2.0
#include "vision/superresolution/KnownBadPixels.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>

#include "vision/superresolution/SuperResolutionBadPixelHandling.h"

namespace kelvo::vision {

float KnownBadPixels::marker() {
    const std::uint32_t bits = SuperResolutionBadPixelHandling::kMarkerMinimum;
    float value;
    std::memcpy(&value, &bits, sizeof value);
    return value;
}

void KnownBadPixels::set(const std::vector<cv::Point>& positions, cv::Size size) {
    std::vector<int> indices;
    indices.reserve(positions.size());
    for (size_t i = 0; i < positions.size(); ++i) {
        const cv::Point& p = positions[i];
        if (p.x < 0 || p.y < 0 || p.x >= size.width || p.y >= size.height) {
            throw std::invalid_argument("Defective pixel " + std::to_string(i) + " at (" +
                                        std::to_string(p.x) + ", " + std::to_string(p.y) +
                                        ") lies outside the " + std::to_string(size.width) + " x " +
                                        std::to_string(size.height) + " frame.");
        }
        indices.push_back(p.y * size.width + p.x);
    }
    markedFrame.resize(indices.empty() ? 0 : static_cast<size_t>(size.area()));
    pixelIndices = std::move(indices);
    frameSize = size;
}

void KnownBadPixels::clear() {
    pixelIndices.clear();
    markedFrame.clear();
}

const float* KnownBadPixels::marked(const float* frame) {
    if (pixelIndices.empty()) {
        return frame;
    }
    std::copy(frame, frame + markedFrame.size(), markedFrame.begin());
    const float value = marker();
    for (int index : pixelIndices) {
        markedFrame[index] = value;
    }
    return markedFrame.data();
}

}  // namespace kelvo::vision
