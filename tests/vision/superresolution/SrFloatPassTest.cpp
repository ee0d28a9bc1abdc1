// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <opencv2/imgproc.hpp>
#include <regex>
#include <sstream>

#include "platform/kelvo/Exception.h"
#include "tools/simulator/BurstSimulator.h"
#include "tools/simulator/ImageQuality.h"
#include "vision/superresolution/SrFloat.h"
#include "vision/superresolution/SrFloatRegistration1.h"
#include "vision/superresolution/SrFloatRegistration2.h"

namespace {

using Engine = kelvo::vision::SrFloat<kelvo::vision::SrFloatRegistration2>;
using PhaseCorrelationEngine = kelvo::vision::SrFloat<kelvo::vision::SrFloatRegistration1>;
using kelvo::tools::Burst;
using kelvo::tools::BurstOptions;
using kelvo::tools::BurstSimulator;
using kelvo::tools::ImageQuality;

// An engine configured as the C interface configures it, with the burst added.
template <class EngineType>
struct EnginePass {
    EngineType engine;
    cv::Mat_<float> result;
    float status = 0.0f;
    std::string printed;

    EnginePass(const std::vector<cv::Mat_<float>>& frames, int referenceIndex = 3)
        : engine(frames[0].cols, frames[0].rows, 5, 2.0f) {
        engine.setReferenceIndex(referenceIndex);
        engine.setWeightTV(400.0f);
        engine.setRegError(0.0001f);
        engine.setRelativeResidue(0.007f);
        for (const auto& frame : frames) {
            engine.addFrame(frame);
        }
    }

    float run() {
        testing::internal::CaptureStdout();
        status = engine.computeSR(result);
        printed = testing::internal::GetCapturedStdout();
        return status;
    }
};

using Pass = EnginePass<Engine>;

Burst simulatedBurst(cv::Size inputSize, std::uint64_t seed, float maxShift = 1.5f) {
    BurstOptions options;
    options.referenceFrame = 1;  // reference index 3 of a full window of five
    options.seed = seed;
    options.maxShift = maxShift;
    return BurstSimulator(options).simulate(inputSize * 2);
}

TEST(SrFloatPass, PrintsItsTimingLinesAndRecoversTheShifts) {
    const Burst burst = simulatedBurst(cv::Size(160, 120), 3);
    Pass pass(burst.frames);
    EXPECT_EQ(pass.engine.getLastIterations(), 0);
    const float status = pass.run();
    EXPECT_GT(status, 0.75f);
    EXPECT_LE(status, 2.0f);
    EXPECT_GE(pass.engine.getLastIterations(), 1);
    EXPECT_LE(pass.engine.getLastIterations(), pass.engine.getMaxCGIters());

    const std::regex expected(
        "\\+\\+\\+\\+\\+\\+\\+\\+\\+\\+ SrFloat \\+\\+\\+\\+\\+\\+\\+\\+\\+\\+\n"
        " registration:         [0-9.e+-]+\\[ms\\]\n"
        " large_displacement:   [0-9.e+-]+\\[ms\\]\n"
        " minimization:         [0-9.e+-]+\\[ms\\]\n"
        " save\\+srfactor calc:   [0-9.e+-]+\\[ms\\]\n"
        "\\+{29}\n");
    EXPECT_TRUE(std::regex_match(pass.printed, expected)) << pass.printed;

    std::vector<cv::Point_<float>> shifts;
    pass.engine.getCompleteShifts(shifts);
    ASSERT_EQ(shifts.size(), burst.shifts.size());
    for (std::size_t i = 0; i < shifts.size(); ++i) {
        EXPECT_NEAR(shifts[i].x, burst.shifts[i].x, 0.05) << i;
        EXPECT_NEAR(shifts[i].y, burst.shifts[i].y, 0.05) << i;
    }
    // The pass hands on only the sub-pixel remainders.
    for (const auto& remainder : pass.engine.getShifts()) {
        EXPECT_GE(remainder.x, -0.5f);
        EXPECT_LT(remainder.x, 0.5f);
    }
}

TEST(SrFloatPass, BeatsBicubicUpscalingOnSimulatedBursts) {
    for (std::uint64_t seed : {1u, 2u}) {
        const Burst burst = simulatedBurst(cv::Size(120, 96), seed);
        Pass pass(burst.frames);
        pass.run();
        const double bicubic =
            ImageQuality::psnr(ImageQuality::upscaleBicubic(burst.frames[1]), burst.truth);
        const double superResolved = ImageQuality::psnr(pass.result, burst.truth);
        // The benchmarks measure the full margin; this guards against a regression.
        EXPECT_GT(superResolved, bicubic + 1.0) << "seed " << seed;
    }
}

TEST(SrFloatPass, ThePhaseCorrelationEngineAlsoBeatsBicubic) {
    const Burst burst = simulatedBurst(cv::Size(128, 96), 8);
    EnginePass<PhaseCorrelationEngine> pass(burst.frames);
    EXPECT_GT(pass.run(), 0.0f);
    std::vector<cv::Point_<float>> shifts;
    pass.engine.getCompleteShifts(shifts);
    for (std::size_t i = 0; i < shifts.size(); ++i) {
        // The zero-padded blur darkens the frame borders, which holds the single
        // Lucas-Kanade step back by a fraction of a pixel on frames with a mean level.
        EXPECT_NEAR(shifts[i].x, burst.shifts[i].x, 0.5) << i;
        EXPECT_NEAR(shifts[i].y, burst.shifts[i].y, 0.5) << i;
    }
    const double bicubic =
        ImageQuality::psnr(ImageQuality::upscaleBicubic(burst.frames[1]), burst.truth);
    EXPECT_GT(ImageQuality::psnr(pass.result, burst.truth), bicubic + 0.5);
}

TEST(SrFloatPass, IdenticalFramesGiveTheFullFactorEstimate) {
    const Burst burst = simulatedBurst(cv::Size(64, 48), 5);
    const std::vector<cv::Mat_<float>> same(5, burst.frames[1]);
    Pass pass(same);
    EXPECT_FLOAT_EQ(pass.run(), 2.0f);
    std::vector<cv::Mat_<unsigned char>> masks;
    pass.engine.getMasks(masks);
    for (const auto& mask : masks) {
        EXPECT_EQ(cv::countNonZero(mask), mask.rows * mask.cols);
    }
}

TEST(SrFloatPass, ReportsLargeDisplacementsAndEmptyMasksButWritesTheResult) {
    const Burst burst = simulatedBurst(cv::Size(120, 100), 4, 0.4f);
    // Frame 4 moved by 12 rows: above a tenth of the height, below half of it.
    std::vector<cv::Mat_<float>> frames = burst.frames;
    cv::Mat_<float> moved;
    const cv::Mat translation = (cv::Mat_<double>(2, 3) << 1, 0, 0, 0, 1, -12);
    cv::warpAffine(frames[4], moved, translation, frames[4].size(), cv::INTER_NEAREST,
                   cv::BORDER_REPLICATE);
    frames[4] = moved;
    Pass pass(frames);
    pass.result.create(200, 240);
    pass.result.setTo(-1.0f);
    EXPECT_FLOAT_EQ(pass.run(), -6.0f);
    EXPECT_GT(cv::countNonZero(pass.result != -1.0f), 0);

    // A frame of other content leaves its mask empty.
    frames = burst.frames;
    frames[3] = simulatedBurst(cv::Size(120, 100), 99).frames[0];
    Pass unrelated(frames);
    EXPECT_FLOAT_EQ(unrelated.run(), -3.0f);
}

TEST(SrFloatPass, WithoutFramesRegistrationFailsAndNothingIsWritten) {
    Engine engine(32, 24, 5, 2.0f);
    std::vector<float> out(64 * 48, 7.0f);
    testing::internal::CaptureStdout();
    EXPECT_FLOAT_EQ(engine.computeSR(out.data()), -998.0f);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "++++++++++ SrFloat ++++++++++\n");
    EXPECT_EQ(out[0], 7.0f);
}

TEST(SrFloatPass, ACopiedEngineComputesTheSameImageIndependently) {
    const Burst burst = simulatedBurst(cv::Size(64, 48), 6);
    Pass pass(burst.frames);
    Engine copy(pass.engine);
    pass.run();
    cv::Mat_<float> copied;
    testing::internal::CaptureStdout();
    copy.computeSR(copied);
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(cv::norm(pass.result, copied, cv::NORM_INF), 0.0);

    // Frames added to a copy must not reach the original's buffers.
    Engine assigned(32, 24, 5, 2.0f);
    assigned = pass.engine;
    EXPECT_EQ(assigned.getInputSize(), 64 * 48);
    for (int i = 0; i < 5; ++i) {
        assigned.addFrame(simulatedBurst(cv::Size(64, 48), 60 + i).frames[0]);
    }
    const cv::Mat_<float> before = pass.result.clone();
    pass.run();
    EXPECT_EQ(cv::norm(pass.result, before, cv::NORM_INF), 0.0);
}

// The pass's result does not depend on how many threads share it, to the bit.
TEST(SrFloatPass, ThreadsChangeNothingInTheResult) {
    const Burst burst = simulatedBurst(cv::Size(96, 80), 7);
    Pass single(burst.frames);
    single.run();
    for (int threads : {2, 4}) {
        Pass shared(burst.frames);
        shared.engine.setThreads(threads);
        EXPECT_EQ(shared.run(), single.status);
        EXPECT_EQ(std::memcmp(shared.result.ptr(), single.result.ptr(),
                              single.result.total() * sizeof(float)),
                  0)
            << threads << " threads";
    }
}

}  // namespace
