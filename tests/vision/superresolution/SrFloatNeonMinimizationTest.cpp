// SPDX-License-Identifier: Apache-2.0
#include "vision/superresolution/SrFloatNeonMinimization.h"

#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "tests/vision/superresolution/PlainReconstruction.h"
#include "vision/superresolution/SrFloatNeonConvolution.h"

namespace kelvo::vision {
namespace {

constexpr int kSpare = SrFloatNeonConvolution::kSpareFloats;

// A buffer of `size` random values followed by the spare floats the four-lane loops
// may touch, filled with NaN so that anything read from there shows in the result.
std::vector<float> randomBuffer(int size, std::mt19937& random, float low, float high) {
    std::uniform_real_distribution<float> value(low, high);
    std::vector<float> buffer(size + kSpare, std::numeric_limits<float>::quiet_NaN());
    for (int i = 0; i < size; ++i) {
        buffer[i] = value(random);
    }
    return buffer;
}

TEST(SrFloatNeonConvolution, OperatorsEqualTheScalarDefinitionsForAnyWidthAndMask) {
    std::mt19937 random(13);
    const float choices[] = {0.0f, 0.5f, 1.0f, 2.0f};
    // A width of a multiple of four, an even one and an odd one.
    for (int w : {8, 6, 5}) {
        const int h = 5;
        const plain::SparseGeometry g{2 * w, 2 * h, 6, 6, 2.0f};
        SrFloatNeonConvolution convolution(g.hrWidth, g.hrHeight, 6, 6, 2.0f);
        const int fullSize = g.fullWidth() * g.fullHeight();
        std::vector<float> full = randomBuffer(fullSize, random, -2.0f, 3.0f);
        std::vector<float> lowRes = randomBuffer(w * h, random, -2.0f, 3.0f);
        std::vector<float> psfX = randomBuffer(6, random, 0.0f, 1.0f);
        std::vector<float> psfY = randomBuffer(6, random, 0.0f, 1.0f);
        std::vector<float> mask(w * h + kSpare, 1.0f);
        for (int i = 0; i < w * h; ++i) {
            mask[i] = choices[random() % 4];
        }
        // Spare floats past the last frame row are zero in the engine's buffers.
        std::fill(lowRes.begin() + w * h, lowRes.end(), 0.0f);

        std::vector<float> expected(w * h);
        std::vector<float> actual(w * h + kSpare);
        plain::validCorrToSparse(g, full.data(), psfX.data(), psfY.data(), expected.data());
        convolution.validCorrToSparse(full.data(), psfX.data(), psfY.data(), actual.data());
        for (int i = 0; i < w * h; ++i) {
            ASSERT_EQ(actual[i], expected[i]) << "width " << w << " sample " << i;
        }

        std::vector<float> expectedFull(fullSize);
        std::vector<float> actualFull(fullSize + kSpare);
        plain::fullConvFromSparse(g, lowRes.data(), psfX.data(), psfY.data(), mask.data(),
                                  expectedFull.data());
        convolution.fullConvFromSparse(lowRes.data(), psfX.data(), psfY.data(), mask.data(),
                                       actualFull.data());
        for (int i = 0; i < fullSize; ++i) {
            ASSERT_EQ(actualFull[i], expectedFull[i]) << "width " << w << " pixel " << i;
        }

        // A mask of 0.5 halves every contribution, exactly.
        std::vector<float> ones(w * h + kSpare, 1.0f);
        std::vector<float> halves(w * h + kSpare, 0.5f);
        std::vector<float> halved(fullSize + kSpare);
        convolution.fullConvFromSparse(lowRes.data(), psfX.data(), psfY.data(), ones.data(),
                                       actualFull.data());
        convolution.fullConvFromSparse(lowRes.data(), psfX.data(), psfY.data(), halves.data(),
                                       halved.data());
        for (int i = 0; i < fullSize; ++i) {
            ASSERT_EQ(halved[i], 0.5f * actualFull[i]);
        }
    }
}

// Five registered frames with float masks (one pixel in eight excluded, or weighted
// 0.5 when `halfWeights`), shifts in [-0.5, 0.5).
struct FloatBurst {
    std::vector<std::vector<float>> frames;
    std::vector<std::vector<float>> masks;
    std::vector<cv::Point_<float>> shifts;

    FloatBurst(int w, int h, bool halfWeights, unsigned seed) : shifts(5) {
        std::mt19937 random(seed);
        std::uniform_real_distribution<float> shift(-0.5f, 0.5f);
        for (int k = 0; k < 5; ++k) {
            frames.push_back(randomBuffer(w * h, random, 7000.0f, 7600.0f));
            std::fill(frames[k].begin() + w * h, frames[k].end(), 0.0f);
            masks.emplace_back(w * h + kSpare, 1.0f);
            if (k != 1) {
                shifts[k] = {shift(random), shift(random)};
                for (int i = 0; i < w * h; ++i) {
                    if (random() % 8 == 0) {
                        masks[k][i] = halfWeights ? 0.5f : 0.0f;
                    }
                }
            }
        }
    }
    std::vector<float*> framePointers() {
        std::vector<float*> pointers;
        for (auto& frame : frames) {
            pointers.push_back(frame.data());
        }
        return pointers;
    }
    std::vector<float*> maskPointers() {
        std::vector<float*> pointers;
        for (auto& mask : masks) {
            pointers.push_back(mask.data());
        }
        return pointers;
    }
};

TEST(SrFloatNeonMinimization, SolverEqualsTheLiteralOneAndTheFloatEngine) {
    const int w = 12;
    const int h = 10;
    for (bool halfWeights : {false, true}) {
        FloatBurst burst(w, h, halfWeights, halfWeights ? 5u : 4u);
        FloatBurst copy = burst;
        FloatBurst bytes = burst;

        SrFloatNeonMinimization neon(w, h, 5, 2.0f);
        std::vector<float> result(4 * w * h);
        std::vector<float*> frames = burst.framePointers();
        std::vector<float*> masks = burst.maskPointers();
        const int iterations =
            neon.minimize(5, 1, frames.data(), burst.shifts.data(), masks.data(), result.data());

        plain::BasicMinimization<float> literal(w, h, 2.0f);
        std::vector<float> expected(4 * w * h);
        std::vector<float*> literalFrames = copy.framePointers();
        std::vector<float*> literalMasks = copy.maskPointers();
        const int literalIterations =
            literal.minimize(5, 1, literalFrames.data(), copy.shifts.data(), literalMasks.data(),
                             neon.getMaxIter(), neon.getRelRes(), expected.data());
        EXPECT_EQ(iterations, literalIterations);
        EXPECT_GT(iterations, 0);
        for (size_t i = 0; i < result.size(); ++i) {
            ASSERT_EQ(result[i], expected[i]) << "pixel " << i;
        }
        if (halfWeights) {
            continue;
        }

        // The float engine with the same masks as bytes.
        std::vector<std::vector<char>> byteMasks;
        std::vector<char*> bytePointers;
        for (const auto& mask : bytes.masks) {
            byteMasks.emplace_back(mask.begin(), mask.begin() + w * h);
        }
        for (auto& mask : byteMasks) {
            bytePointers.push_back(mask.data());
        }
        SrFloatMinimization floatEngine(w, h, 5, 2.0f);
        std::vector<float> floatResult(4 * w * h);
        std::vector<float*> floatFrames = bytes.framePointers();
        EXPECT_EQ(floatEngine.minimize(5, 1, floatFrames.data(), bytes.shifts.data(),
                                       bytePointers.data(), floatResult.data()),
                  iterations);
        EXPECT_EQ(floatResult, result);
    }
}

}  // namespace
}  // namespace kelvo::vision
