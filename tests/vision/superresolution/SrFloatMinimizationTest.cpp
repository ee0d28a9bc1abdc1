// SPDX-License-Identifier: Apache-2.0
#include "vision/superresolution/SrFloatMinimization.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

#include "tests/vision/superresolution/PlainReconstruction.h"

namespace kelvo::vision {
namespace {

// N frames of w x h with their masks and shifts, and the pointer tables minimize takes.
struct Burst {
    int w;
    int h;
    std::vector<std::vector<float>> frames;
    std::vector<std::vector<char>> masks;
    std::vector<cv::Point_<float>> shifts;
    std::vector<float*> framePointers;
    std::vector<char*> maskPointers;

    Burst(int w, int h, int count) : w(w), h(h), frames(count), masks(count), shifts(count) {
        for (int k = 0; k < count; ++k) {
            frames[k].resize(w * h);
            masks[k].assign(w * h, 1);
        }
        refreshPointers();
    }
    void refreshPointers() {
        framePointers.clear();
        maskPointers.clear();
        for (size_t k = 0; k < frames.size(); ++k) {
            framePointers.push_back(frames[k].data());
            maskPointers.push_back(masks[k].data());
        }
    }
    int count() const { return static_cast<int>(frames.size()); }
};

// Random thermal-like frames: a level of a few thousand counts with noise, random
// sub-pixel shifts in [-0.5, 0.5) and about one pixel in eight masked out (none in
// the reference frame).
Burst randomBurst(int w, int h, int count, int refIndex, unsigned seed) {
    Burst burst(w, h, count);
    std::mt19937 random(seed);
    std::uniform_real_distribution<float> pixel(7000.0f, 7600.0f);
    std::uniform_real_distribution<float> shift(-0.5f, 0.5f);
    for (int k = 0; k < count; ++k) {
        for (float& v : burst.frames[k]) {
            v = pixel(random);
        }
        if (k != refIndex) {
            burst.shifts[k] = {shift(random), shift(random)};
            for (char& m : burst.masks[k]) {
                m = random() % 8 == 0 ? 0 : 1;
            }
        }
    }
    return burst;
}

int runOptimised(SrFloatMinimization& minimization, Burst burst, int refIndex,
                 std::vector<float>& result, float factor = 2.0f) {
    burst.refreshPointers();
    result.assign(static_cast<int>(burst.w * factor) * static_cast<int>(burst.h * factor), 0.0f);
    return minimization.minimize(burst.count(), refIndex, burst.framePointers.data(),
                                 burst.shifts.data(), burst.maskPointers.data(), result.data());
}

TEST(SrFloatMinimization, ErrorFunctionApproximation) {
    EXPECT_EQ(approximateErf(0.0f), 0.0f);
    EXPECT_FALSE(std::signbit(approximateErf(0.0f)));
    for (float x = -4.0f; x <= 4.0f; x += 0.0625f) {
        EXPECT_EQ(approximateErf(-x), -approximateErf(x)) << x;
        EXPECT_NEAR(approximateErf(x), std::erf(x), 4e-4) << x;
    }
    EXPECT_EQ(approximateErf(30.0f), 1.0f);
    EXPECT_EQ(approximateErf(-30.0f), -1.0f);
}

TEST(SrFloatMinimization, BasePsfHoldsTheGaussianMassPerPixel) {
    SrFloatMinimization minimization(16, 12, 5, 2.0f);
    EXPECT_EQ(minimization.getPsfSize(), 6);
    EXPECT_FLOAT_EQ(minimization.getPsfSigma(), 0.683f);
    EXPECT_FLOAT_EQ(minimization.getWeightTV(), 400.0f);
    EXPECT_FLOAT_EQ(minimization.getEpsilon(), 0.1f);
    EXPECT_FLOAT_EQ(minimization.getRelRes(), 0.007f);
    EXPECT_EQ(minimization.getMaxIter(), 8);

    const float* psf = minimization.getBasePsf();
    EXPECT_EQ(psf[0], 0.0f);
    EXPECT_EQ(psf[5], 0.0f);
    double sum = 0.0;
    for (int k = 0; k < 6; ++k) {
        EXPECT_EQ(psf[k], psf[5 - k]);
        sum += psf[k];
    }
    EXPECT_NEAR(sum, 1.0, 1e-6);
    EXPECT_GT(psf[2], psf[1]);
    EXPECT_GT(psf[1], 0.0f);
    const std::vector<float> expected = plain::Minimization(16, 12, 2.0f).base();
    EXPECT_EQ(std::memcmp(psf, expected.data(), 6 * sizeof(float)), 0);

    // A wider Gaussian spreads more mass to the outer taps.
    const float inner = psf[1];
    minimization.setPsfSigma(1.5f);
    EXPECT_FLOAT_EQ(minimization.getPsfSigma(), 1.5f);
    EXPECT_GT(minimization.getBasePsf()[1], inner);

    SrFloatMinimization factorThree(10, 8, 5, 3.0f);
    ASSERT_EQ(factorThree.getPsfSize(), 9);
    const std::vector<float> expectedThree = plain::Minimization(10, 8, 3.0f).base();
    EXPECT_EQ(std::memcmp(factorThree.getBasePsf(), expectedThree.data(), 9 * sizeof(float)), 0);
    EXPECT_EQ(factorThree.getBasePsf()[0], 0.0f);
    EXPECT_EQ(factorThree.getBasePsf()[7], 0.0f);
    EXPECT_EQ(factorThree.getBasePsf()[8], 0.0f);
}

// With no iterations the result is the right-hand side sum_k H_k^T M_k y_k of the
// normalised frames, cropped by (psfSize - 1) / 2 = 2 and de-normalised; it shows
// which PSF each shift produced.
TEST(SrFloatMinimization, NoIterationsGiveTheCroppedRightHandSide) {
    const int w = 11;
    const int h = 9;
    Burst burst = randomBurst(w, h, 3, 0, 3);
    burst.shifts[0] = {0.0f, 0.0f};      // non-negative branch, psf = base with last tap 0
    burst.shifts[1] = {-0.25f, 0.375f};  // negative branch horizontally
    burst.shifts[2] = {0.125f, -0.5f};   // negative branch vertically
    burst.masks[1][7] = 2;

    SrFloatMinimization minimization(w, h, 5, 2.0f);
    minimization.setMaxIter(0);
    std::vector<float> result;
    EXPECT_EQ(runOptimised(minimization, burst, 0, result), 0);

    plain::Minimization model(w, h, 2.0f);
    const std::vector<float> unshifted = model.shiftedPsf(0.0f);
    for (int j = 0; j < 5; ++j) {
        EXPECT_EQ(unshifted[j], model.base()[j]);
    }
    EXPECT_EQ(unshifted[5], 0.0f);
    EXPECT_EQ(model.shiftedPsf(-0.5f)[0], 0.0f);

    const int fullWidth = model.fullImageWidth();
    const plain::SparseGeometry geometry{2 * w, 2 * h, 6, 6, 2.0f};
    std::vector<float> rhs(fullWidth * model.fullImageHeight(), 0.0f);
    std::vector<float> conv(rhs.size());
    const std::vector<float>& reference = burst.frames[0];
    const double mean =
        plain::sumInLanes(w * h, [&](int i) { return static_cast<double>(reference[i]); }) /
        (w * h);
    const double variance = plain::sumInLanes(w * h,
                                              [&](int i) {
                                                  const double d = reference[i] - mean;
                                                  return d * d;
                                              }) /
                            (w * h);
    const float deviation = std::sqrt(static_cast<float>(variance));
    for (int k = 0; k < 3; ++k) {
        std::vector<float> normalised = burst.frames[k];
        for (float& v : normalised) {
            v = (v - static_cast<float>(mean)) / deviation;
        }
        const std::vector<float> psfX = model.shiftedPsf(2.0f * burst.shifts[k].x);
        const std::vector<float> psfY = model.shiftedPsf(2.0f * burst.shifts[k].y);
        plain::fullConvFromSparse(geometry, normalised.data(), psfX.data(), psfY.data(),
                                  burst.masks[k].data(), conv.data());
        for (size_t i = 0; i < rhs.size(); ++i) {
            rhs[i] += conv[i];
        }
    }
    for (int r = 0; r < 2 * h; ++r) {
        for (int c = 0; c < 2 * w; ++c) {
            const float expected =
                deviation * rhs[(r + 2) * fullWidth + c + 2] + static_cast<float>(mean);
            ASSERT_EQ(result[r * 2 * w + c], expected) << r << " " << c;
        }
    }

    // A residual test met at the start also stops at once, with the same image.
    minimization.setMaxIter(8);
    minimization.setRelRes(100.0f);
    std::vector<float> immediate;
    EXPECT_EQ(runOptimised(minimization, burst, 0, immediate), 0);
    EXPECT_EQ(immediate, result);
}

TEST(SrFloatMinimization, MatchesThePlainAlgorithmBitForBit) {
    struct Case {
        int w;
        int h;
        int frames;
        int refIndex;
        int maxIter;
        float relRes;
        float factor;
        unsigned seed;
    };
    // Budgets exhausted within a restart, no iteration at all, and loose residuals that
    // make conjugate gradients converge and restart several times; factors 2 and 3, and
    // 2.5, whose base PSF has a non-zero first tap, so that the reference frame's shift
    // of 0 tells the two branches of the PSF shift apart.
    const Case cases[] = {{24, 20, 5, 3, 8, 0.007f, 2.0f, 1}, {24, 20, 5, 0, 3, 0.007f, 2.0f, 2},
                          {13, 9, 4, 2, 12, 0.05f, 2.0f, 3},  {7, 16, 5, 4, 1, 0.007f, 2.0f, 4},
                          {24, 20, 5, 3, 0, 0.007f, 2.0f, 5}, {40, 30, 5, 1, 20, 0.1f, 2.0f, 6},
                          {40, 35, 5, 3, 30, 0.2f, 2.0f, 7},  {11, 9, 5, 3, 8, 0.05f, 3.0f, 8},
                          {14, 10, 5, 3, 6, 0.05f, 2.5f, 9},  {50, 90, 5, 3, 8, 0.05f, 2.0f, 10}};
    int mostRestarts = 0;
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.w << "x" << c.h << " maxIter " << c.maxIter
                                        << " relRes " << c.relRes << " factor " << c.factor);
        const Burst burst = randomBurst(c.w, c.h, c.frames, c.refIndex, c.seed);
        Burst copy = burst;
        copy.refreshPointers();
        std::vector<float> expected(static_cast<int>(c.w * c.factor) *
                                    static_cast<int>(c.h * c.factor));
        plain::Minimization model(c.w, c.h, c.factor);
        const int expectedIterations =
            model.minimize(c.frames, c.refIndex, copy.framePointers.data(), copy.shifts.data(),
                           copy.maskPointers.data(), c.maxIter, c.relRes, expected.data());
        EXPECT_LE(expectedIterations, c.maxIter);
        // Threads share out the bands of rows, three of them unevenly.
        for (int threads : {1, 2, 3, 4}) {
            SrFloatMinimization minimization(c.w, c.h, 5, c.factor);
            minimization.setMaxIter(c.maxIter);
            minimization.setRelRes(c.relRes);
            minimization.setThreads(threads);
            std::vector<float> actual;
            EXPECT_EQ(runOptimised(minimization, burst, c.refIndex, actual, c.factor),
                      expectedIterations)
                << threads << " threads";
            EXPECT_EQ(std::memcmp(expected.data(), actual.data(), actual.size() * sizeof(float)), 0)
                << threads << " threads";
        }
        mostRestarts = std::max(mostRestarts, model.restarts());
    }
    EXPECT_GE(mostRestarts, 3);
}

// Copies work on buffers of their own: a copy, and an object assigned from another,
// reconstruct exactly as the original does while the original works on other frames.
TEST(SrFloatMinimization, CopiesReconstructOnTheirOwnBuffers) {
    const Burst burst = randomBurst(16, 12, 5, 3, 12);
    const Burst other = randomBurst(16, 12, 5, 1, 13);
    SrFloatMinimization original(16, 12, 5, 2.0f);
    original.setMaxIter(4);
    std::vector<float> expected;
    runOptimised(original, burst, 3, expected);
    SrFloatMinimization copy(original);
    SrFloatMinimization assigned(8, 6, 2, 3.0f);
    assigned = original;
    std::vector<float> unused;
    runOptimised(original, other, 1, unused);
    std::vector<float> fromCopy;
    std::vector<float> fromAssigned;
    runOptimised(copy, burst, 3, fromCopy);
    runOptimised(assigned, burst, 3, fromAssigned);
    EXPECT_EQ(fromCopy, expected);
    EXPECT_EQ(fromAssigned, expected);
}

TEST(SrFloatMinimization, RestartsShareTheIterationBudget) {
    const Burst burst = randomBurst(20, 16, 5, 3, 7);
    SrFloatMinimization minimization(20, 16, 5, 2.0f);
    std::vector<float> result;
    // An unreachable residual exhausts the budget inside the first restart.
    minimization.setRelRes(1e-9f);
    for (int maxIter : {1, 2, 5}) {
        minimization.setMaxIter(maxIter);
        EXPECT_EQ(runOptimised(minimization, burst, 3, result), maxIter);
    }
    // A loose one converges after a few steps and restarts, never beyond the budget.
    minimization.setRelRes(0.2f);
    minimization.setMaxIter(100);
    const int unbounded = runOptimised(minimization, burst, 3, result);
    EXPECT_GT(unbounded, 0);
    EXPECT_LT(unbounded, 100);
    for (int maxIter = 1; maxIter <= unbounded + 1; ++maxIter) {
        minimization.setMaxIter(maxIter);
        EXPECT_EQ(runOptimised(minimization, burst, 3, result), std::min(maxIter, unbounded));
    }
}

// A smooth scene, frames simulated exactly with the forward operator: the
// reconstruction comes closer to the truth than the right-hand side it starts from.
TEST(SrFloatMinimization, ReconstructsASmoothSceneFromSimulatedFrames) {
    const int w = 32;
    const int h = 24;
    const int frames = 5;
    plain::Minimization model(w, h, 2.0f);
    const int fullWidth = model.fullImageWidth();
    const int fullHeight = model.fullImageHeight();
    std::vector<float> truth(fullWidth * fullHeight);
    for (int r = 0; r < fullHeight; ++r) {
        for (int c = 0; c < fullWidth; ++c) {
            truth[r * fullWidth + c] =
                6000.0f + 400.0f * std::sin(0.21f * c) * std::cos(0.17f * r) +
                300.0f * std::exp(-0.01f * ((c - 30) * (c - 30) + (r - 20) * (r - 20)));
        }
    }
    Burst burst(w, h, frames);
    const float shifts[frames][2] = {
        {0.3f, -0.2f}, {-0.4f, 0.1f}, {0.0f, 0.45f}, {0.0f, 0.0f}, {0.25f, -0.35f}};
    const plain::SparseGeometry geometry{2 * w, 2 * h, 6, 6, 2.0f};
    for (int k = 0; k < frames; ++k) {
        burst.shifts[k] = {shifts[k][0], shifts[k][1]};
        const std::vector<float> psfX = model.shiftedPsf(2.0f * shifts[k][0]);
        const std::vector<float> psfY = model.shiftedPsf(2.0f * shifts[k][1]);
        plain::validCorrToSparse(geometry, truth.data(), psfX.data(), psfY.data(),
                                 burst.frames[k].data());
    }
    auto error = [&](const std::vector<float>& image) {
        double sum = 0.0;
        for (int r = 0; r < 2 * h; ++r) {
            for (int c = 0; c < 2 * w; ++c) {
                const double d = image[r * 2 * w + c] - truth[(r + 2) * fullWidth + c + 2];
                sum += d * d;
            }
        }
        return std::sqrt(sum / (4 * w * h));
    };
    SrFloatMinimization minimization(w, h, 5, 2.0f);
    minimization.setMaxIter(0);
    std::vector<float> start;
    runOptimised(minimization, burst, 3, start);
    minimization.setMaxIter(30);
    std::vector<float> result;
    runOptimised(minimization, burst, 3, result);
    EXPECT_LT(error(result), 0.5 * error(start));
    EXPECT_LT(error(result), 20.0);
}

TEST(SrFloatMinimization, NormalisesFramesInPlaceAndSurvivesDegenerateInput) {
    Burst burst = randomBurst(12, 10, 5, 3, 9);
    SrFloatMinimization minimization(12, 10, 5, 2.0f);
    std::vector<float> result(24 * 20);
    minimization.minimize(5, 3, burst.framePointers.data(), burst.shifts.data(),
                          burst.maskPointers.data(), result.data());
    double mean = 0.0;
    double square = 0.0;
    for (float v : burst.frames[3]) {
        mean += v;
        square += static_cast<double>(v) * v;
    }
    EXPECT_NEAR(mean / 120.0, 0.0, 1e-5);
    EXPECT_NEAR(square / 120.0, 1.0, 1e-4);

    // A flat reference frame or no valid pixel at all give no usable image, but no crash.
    Burst flat(12, 10, 5);
    for (auto& frame : flat.frames) {
        std::fill(frame.begin(), frame.end(), 100.0f);
    }
    minimization.minimize(5, 3, flat.framePointers.data(), flat.shifts.data(),
                          flat.maskPointers.data(), result.data());
    EXPECT_TRUE(std::isnan(result[0]));
    Burst masked = randomBurst(12, 10, 5, 3, 10);
    for (auto& mask : masked.masks) {
        std::fill(mask.begin(), mask.end(), 0);
    }
    masked.refreshPointers();
    minimization.minimize(5, 3, masked.framePointers.data(), masked.shifts.data(),
                          masked.maskPointers.data(), result.data());
    EXPECT_FALSE(std::isfinite(result[0]));
    // A NaN or infinite pixel spreads through the image.
    for (float bad : {std::nanf(""), std::numeric_limits<float>::infinity()}) {
        Burst broken = randomBurst(12, 10, 5, 3, 11);
        broken.frames[1][17] = bad;
        broken.refreshPointers();
        minimization.minimize(5, 3, broken.framePointers.data(), broken.shifts.data(),
                              broken.maskPointers.data(), result.data());
        EXPECT_FALSE(std::isfinite(result[24 * 10 + 12])) << bad;
    }
}

}  // namespace
}  // namespace kelvo::vision
