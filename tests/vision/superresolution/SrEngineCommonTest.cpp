// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

#include "vision/superresolution/SrEngineCommon.h"

namespace kelvo::vision {
namespace {

// The factor estimate as defined, pixel by pixel: 1 + mean(min(frames seeing, cap) - 1) / 4.
template <typename Mask>
float plainSrFactor(const std::vector<std::vector<Mask>>& masks, int cap) {
    const int size = static_cast<int>(masks[0].size());
    long long sum = 0;
    for (int p = 0; p < size; ++p) {
        int seeing = 0;
        for (const std::vector<Mask>& mask : masks) {
            seeing += mask[p] != Mask(0);
        }
        sum += std::min(seeing, cap) - 1;
    }
    return static_cast<float>(sum) / static_cast<float>(4 * size) + 1.0f;
}

template <typename Mask>
void expectPlainFactor(int frames, int size, int cap, unsigned seed) {
    std::mt19937 random(seed);
    std::vector<std::vector<Mask>> masks(frames, std::vector<Mask>(size));
    std::vector<const Mask*> table;
    for (std::vector<Mask>& mask : masks) {
        for (Mask& value : mask) {
            value = Mask(random() % 4 != 0);
        }
        table.push_back(mask.data());
    }
    EXPECT_EQ(estimateSrFactor(table.data(), frames, size, cap), plainSrFactor(masks, cap))
        << frames << " frames, cap " << cap;
}

// The count of frames per pixel is capped only when more frames than the cap exist;
// both ways give the pixel-by-pixel value, over runs longer than one counting block.
TEST(EstimateSrFactor, MatchesThePixelByPixelDefinition) {
    expectPlainFactor<char>(5, 10007, 5, 1);
    expectPlainFactor<char>(5, 10007, 3, 2);
    expectPlainFactor<char>(7, 333, 5, 3);
    expectPlainFactor<float>(5, 10007, 5, 4);
    expectPlainFactor<float>(6, 4099, 5, 5);
}

}  // namespace
}  // namespace kelvo::vision
