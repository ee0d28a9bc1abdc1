// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <opencv2/imgproc.hpp>

#include "tools/simulator/BurstSimulator.h"
#include "tools/simulator/ThermalScene.h"
#include "vision/superresolution/SrFloatConvolution.h"

#include <cmath>
#include <cstring>
#include <stdexcept>

namespace {

using kelvo::tools::Burst;
using kelvo::tools::BurstOptions;
using kelvo::tools::BurstSimulator;
using kelvo::tools::DefectKind;
using kelvo::tools::ThermalScene;

cv::Mat_<float> sceneFor(const BurstSimulator& simulator, cv::Size truthSize, int seed) {
    const int margin = simulator.sceneMargin();
    return ThermalScene::render(
        cv::Size(truthSize.width + 2 * margin, truthSize.height + 2 * margin), seed);
}

double maxDifference(const cv::Mat& a, const cv::Mat& b) {
    return cv::norm(a, b, cv::NORM_INF);
}

// The reconstruction's six-tap PSF for a factor of 2 and a residual shift `rest` (frame
// pixels): Gaussian masses over single pixels around the centre between taps 2 and 3,
// moved by 2 rest by linear interpolation between neighbouring taps.
std::vector<float> reconstructionPsf(float sigma, float rest) {
    std::vector<float> base(6, 0.0f);
    double sum = 0.0;
    for (int i = 0; i < 2; ++i) {
        const double scale = 1.0 / (std::sqrt(2.0) * sigma);
        const double mass = 0.5 * (std::erf((i + 1) * scale) - std::erf(i * scale));
        base[2 - i] = base[3 + i] = static_cast<float>(mass);
        sum += 2.0 * mass;
    }
    for (float& tap : base) {
        tap = static_cast<float>(tap / sum);
    }
    const float s = 2.0f * rest;
    std::vector<float> psf(6, 0.0f);
    for (int j = 0; j < 6; ++j) {
        if (s >= 0.0f && j < 5) {
            psf[j] = (1.0f - s) * base[j] + s * base[j + 1];
        } else if (s < 0.0f && j > 0) {
            psf[j] = (s + 1.0f) * base[j] + (-s) * base[j - 1];
        }
    }
    return psf;
}

TEST(BurstSimulator, FramesFollowTheReconstructionsForwardModel) {
    BurstOptions options;
    options.noiseSigma = 0.0f;
    options.engineShiftModel = true;
    options.referenceFrame = 2;
    options.seed = 4;
    const BurstSimulator simulator(options);
    const int margin = simulator.sceneMargin();
    const cv::Size truthSize(96, 64);
    const cv::Mat_<float> scene = sceneFor(simulator, truthSize, 4);
    const Burst burst = simulator.simulate(scene);

    ASSERT_EQ(burst.frames.size(), 5u);
    EXPECT_EQ(maxDifference(burst.truth, scene(cv::Rect(margin, margin, 96, 64))), 0.0);
    EXPECT_EQ(burst.shifts[2], cv::Point2f(0.0f, 0.0f));
    // The reconstruction sees the truth with a two-pixel margin on every side.
    cv::Mat_<float> full = scene(cv::Rect(margin - 2, margin - 2, 96 + 5, 64 + 5)).clone();
    kelvo::vision::SrFloatConvolution convolution(96, 64, 6, 6, 2.0f);
    for (int k = 0; k < 5; ++k) {
        const cv::Point2f shift = burst.shifts[k];
        EXPECT_LE(std::abs(shift.x), 1.5f);
        EXPECT_LE(std::abs(shift.y), 1.5f);
        const cv::Point whole(cvFloor(shift.x + 0.5f), cvFloor(shift.y + 0.5f));
        std::vector<float> psfX = reconstructionPsf(0.683f, shift.x - whole.x);
        std::vector<float> psfY = reconstructionPsf(0.683f, shift.y - whole.y);
        cv::Mat_<float> expected(32, 48);
        convolution.validCorrToSparse(full[0], psfX.data(), psfY.data(), expected[0]);
        // Frame pixel p + whole holds the model's pixel p.
        const cv::Rect inside = cv::Rect(0, 0, 48, 32) & (cv::Rect(0, 0, 48, 32) - whole);
        EXPECT_LT(maxDifference(burst.frames[k](inside + whole), expected(inside)), 1e-4) << k;
    }
}

TEST(BurstSimulator, WholeHighResolutionShiftsAreExactInBothShiftModels) {
    BurstOptions options;
    options.noiseSigma = 0.0f;
    options.frameCount = 4;
    options.shifts = {{0.0f, 0.0f}, {0.5f, 0.0f}, {0.0f, -1.0f}, {1.5f, 0.5f}};
    const BurstSimulator fourier(options);
    options.engineShiftModel = true;
    const BurstSimulator bilinear(options);
    const cv::Mat_<float> scene = sceneFor(fourier, cv::Size(80, 64), 8);
    const Burst exact = fourier.simulate(scene);
    const Burst modelled = bilinear.simulate(scene);
    for (int k = 0; k < 4; ++k) {
        EXPECT_LT(maxDifference(exact.frames[k], modelled.frames[k]), 2e-3) << k;
    }
    // A shift of one frame pixel moves the frame content by one pixel.
    EXPECT_LT(maxDifference(exact.frames[2](cv::Rect(0, 0, 40, 31)),
                            exact.frames[0](cv::Rect(0, 1, 40, 31))),
              2e-3);
}

TEST(BurstSimulator, FramesOfARampDifferByTheSlopeTimesTheShift) {
    BurstOptions options;
    options.noiseSigma = 0.0f;
    options.seed = 9;
    const BurstSimulator simulator(options);
    const int margin = simulator.sceneMargin();
    cv::Mat_<float> ramp(48 + 2 * margin, 64 + 2 * margin);
    for (int y = 0; y < ramp.rows; ++y) {
        for (int x = 0; x < ramp.cols; ++x) {
            ramp(y, x) = 10.0f + 0.1f * x + 0.05f * y;
        }
    }
    const Burst burst = simulator.simulate(ramp);
    // Frame pixel p shows the reference at p - s; one frame pixel is two ramp pixels.
    for (int k = 1; k < 5; ++k) {
        const cv::Point2f s = burst.shifts[k];
        const cv::Mat_<float> difference = burst.frames[k] - burst.frames[0];
        EXPECT_LT(maxDifference(difference, cv::Mat_<float>(24, 32, -0.2f * s.x - 0.1f * s.y)),
                  1e-4)
            << k;
    }
}

TEST(BurstSimulator, SameSeedSameBurst) {
    BurstOptions options;
    options.columnNoiseSigma = 0.1f;
    options.markerPixels = 3;
    options.hotPixels = 2;
    options.seed = 21;
    const Burst first = BurstSimulator(options).simulate(cv::Size(64, 48));
    const Burst second = BurstSimulator(options).simulate(cv::Size(64, 48));
    options.seed = 22;
    const Burst other = BurstSimulator(options).simulate(cv::Size(64, 48));

    EXPECT_EQ(first.truth.size(), cv::Size(64, 48));
    EXPECT_EQ(std::memcmp(first.truth[0], second.truth[0], 64 * 48 * sizeof(float)), 0);
    EXPECT_GT(maxDifference(first.truth, other.truth), 1.0);
    ASSERT_EQ(first.frames.size(), 5u);
    for (int k = 0; k < 5; ++k) {
        EXPECT_EQ(first.frames[k].size(), cv::Size(32, 24));
        EXPECT_EQ(std::memcmp(first.frames[k][0], second.frames[k][0], 32 * 24 * sizeof(float)), 0);
        EXPECT_EQ(first.shifts[k], second.shifts[k]);
        EXPECT_NE(first.shifts[k] == other.shifts[k], k != 0);
    }
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(first.defects[i].position, second.defects[i].position);
    }
}

TEST(BurstSimulator, NoiseAndColumnPatternHaveTheRequestedStrength) {
    BurstOptions options;
    options.frameCount = 2;
    options.shifts = {{0.0f, 0.0f}, {0.0f, 0.0f}};
    options.noiseSigma = 0.0f;
    const BurstSimulator clean(options);
    options.noiseSigma = 0.05f;
    options.columnNoiseSigma = 0.2f;
    const BurstSimulator noisy(options);
    const cv::Mat_<float> scene = sceneFor(clean, cv::Size(800, 64), 3);
    const cv::Mat_<float> truthFrame = clean.simulate(scene).frames[0];
    const Burst burst = noisy.simulate(scene);

    cv::Mat_<float> columnMeans[2];
    for (int k = 0; k < 2; ++k) {
        const cv::Mat_<float> residual = burst.frames[k] - truthFrame;
        cv::reduce(residual, columnMeans[k], 0, cv::REDUCE_AVG);
        cv::Scalar mean, deviation;
        cv::meanStdDev(residual - cv::repeat(columnMeans[k], 32, 1), mean, deviation);
        EXPECT_NEAR(deviation[0], 0.05 * std::sqrt(31.0 / 32.0), 0.005);
    }
    cv::Scalar mean, deviation;
    cv::meanStdDev(columnMeans[0], mean, deviation);
    EXPECT_NEAR(deviation[0], 0.2, 0.03);
    // The pattern is fixed: the two frames differ only by temporal noise.
    EXPECT_LT(maxDifference(columnMeans[0], columnMeans[1]), 0.06);
}

TEST(BurstSimulator, DefectsSitWhereReported) {
    BurstOptions options;
    options.markerPixels = 7;
    options.hotPixels = 4;
    options.seed = 5;
    const Burst burst = BurstSimulator(options).simulate(cv::Size(48, 48));
    ASSERT_EQ(burst.defects.size(), 11u);
    const std::uint32_t expectedBits[] = {129, 130, 132, 129, 130, 132, 129};
    for (int k = 0; k < 5; ++k) {
        cv::Mat_<float> frame = burst.frames[k].clone();
        for (size_t i = 0; i < burst.defects.size(); ++i) {
            const cv::Point p = burst.defects[i].position;
            EXPECT_TRUE(p.x >= 1 && p.y >= 1 && p.x <= 22 && p.y <= 22) << p;
            for (size_t j = 0; j < i; ++j) {
                const cv::Point gap = burst.defects[j].position - p;
                EXPECT_TRUE(std::abs(gap.x) >= 2 || std::abs(gap.y) >= 2) << p;
            }
            std::uint32_t bits = 0;
            std::memcpy(&bits, &frame(p), sizeof bits);
            if (i < 7) {
                EXPECT_EQ(bits, expectedBits[i]);
                EXPECT_EQ(static_cast<int>(burst.defects[i].kind), static_cast<int>(i % 3));
            } else {
                EXPECT_EQ(burst.defects[i].kind, DefectKind::Hot);
                EXPECT_EQ(frame(p), 10000.0f);
            }
            frame(p) = 20.0f;
        }
        for (float value : frame) {
            EXPECT_TRUE(std::isnormal(value) && value > 0.0f && value < 45.0f) << value;
        }
    }
}

TEST(BurstSimulator, RejectsInvalidOptionsAndScenes) {
    const auto invalid = [](void (*change)(BurstOptions&)) {
        BurstOptions options;
        change(options);
        EXPECT_THROW(BurstSimulator{options}, std::invalid_argument);
    };
    invalid([](BurstOptions& o) { o.frameCount = 0; });
    invalid([](BurstOptions& o) { o.referenceFrame = 5; });
    invalid([](BurstOptions& o) { o.referenceFrame = -1; });
    invalid([](BurstOptions& o) { o.maxShift = -0.1f; });
    invalid([](BurstOptions& o) { o.maxShift = NAN; });
    invalid([](BurstOptions& o) { o.maxShift = 64.5f; });
    invalid([](BurstOptions& o) { o.shifts = {{0, 0}, {1, 1}}; });
    invalid([](BurstOptions& o) { o.shifts = {{0, 0}, {1, 1}, {0, 0}, {0, 0}, {0, NAN}}; });
    invalid([](BurstOptions& o) { o.shifts = {{0, 0}, {1, 1}, {0, 0}, {0, 0}, {-65, 0}}; });
    invalid([](BurstOptions& o) { o.shifts = {{0.5f, 0}, {1, 1}, {0, 0}, {0, 0}, {0, 0}}; });
    invalid([](BurstOptions& o) { o.psfSigma = 0.0f; });
    invalid([](BurstOptions& o) { o.psfSigma = NAN; });
    invalid([](BurstOptions& o) { o.psfHalfTaps = 0; });
    invalid([](BurstOptions& o) { o.noiseSigma = -1.0f; });
    invalid([](BurstOptions& o) { o.columnNoiseSigma = NAN; });
    invalid([](BurstOptions& o) { o.hotPixels = -1; });

    BurstOptions options;
    const BurstSimulator simulator(options);
    const int margin = simulator.sceneMargin();
    EXPECT_THROW(simulator.simulate(cv::Size(63, 48)), std::invalid_argument);
    EXPECT_THROW(simulator.simulate(cv::Size(2, 48)), std::invalid_argument);
    EXPECT_THROW(simulator.simulate(cv::Mat_<float>(2 * margin + 3, 2 * margin + 40, 1.0f)),
                 std::invalid_argument);
    cv::Mat_<float> scene(2 * margin + 8, 2 * margin + 8, 1.0f);
    EXPECT_EQ(simulator.simulate(scene).truth.size(), cv::Size(8, 8));
    scene(3, 3) = NAN;
    EXPECT_THROW(simulator.simulate(scene), std::invalid_argument);
    EXPECT_THROW(ThermalScene::render(cv::Size(0, 5), 1), std::invalid_argument);
    options.hotPixels = 20;
    EXPECT_THROW(BurstSimulator(options).simulate(cv::Size(8, 8)), std::invalid_argument);
}

}  // namespace
