// SPDX-License-Identifier: Apache-2.0
#include "vision/superresolution/SrFloatNeon.h"

#include <gtest/gtest.h>

#include <opencv2/imgproc.hpp>
#include <stdexcept>
#include <string>

#include "platform/kelvo/Exception.h"
#include "tools/simulator/BurstSimulator.h"
#include "vision/superresolution/SrFloat.h"
#include "vision/superresolution/SrFloatNeonRegistration.h"
#include "vision/superresolution/SrFloatRegistration2.h"

namespace {

using kelvo::tools::Burst;
using kelvo::tools::BurstOptions;
using kelvo::tools::BurstSimulator;
using FloatEngine = kelvo::vision::SrFloat<kelvo::vision::SrFloatRegistration2>;
using NeonEngine = kelvo::vision::SrFloatNeon<kelvo::vision::SrFloatNeonRegistration>;

Burst cleanBurst(cv::Size inputSize, std::uint64_t seed) {
    BurstOptions options;
    options.referenceFrame = 1;
    options.seed = seed;
    return BurstSimulator(options).simulate(inputSize * 2);
}

// Configured as the C interface configures its engine, with the frames added.
template <class Engine>
Engine engineWith(const std::vector<cv::Mat_<float>>& frames) {
    Engine engine(frames[0].cols, frames[0].rows, 5, 2.0f);
    engine.setReferenceIndex(3);
    engine.setRegError(0.0001f);
    for (const auto& frame : frames) {
        engine.addFrame(frame);
    }
    return engine;
}

TEST(SrFloatNeon, EqualsTheFloatEngineOnACleanBurst) {
    // Rows of whole groups of four, and rows whose last group runs into the spare floats.
    for (int width : {64, 62, 61}) {
        const Burst burst = cleanBurst(cv::Size(width, 48), 21);
        FloatEngine floatEngine = engineWith<FloatEngine>(burst.frames);
        NeonEngine neonEngine = engineWith<NeonEngine>(burst.frames);
        cv::Mat_<float> floatResult;
        cv::Mat_<float> neonResult;
        testing::internal::CaptureStdout();
        const float floatStatus = floatEngine.computeSR(floatResult);
        testing::internal::GetCapturedStdout();
        const float neonStatus = neonEngine.computeSR(neonResult);
        EXPECT_EQ(neonStatus, floatStatus);
        EXPECT_GT(neonStatus, 1.0f);

        std::vector<cv::Point_<float>> floatShifts;
        std::vector<cv::Point_<float>> neonShifts;
        floatEngine.getCompleteShifts(floatShifts);
        neonEngine.getCompleteShifts(neonShifts);
        EXPECT_EQ(neonShifts, floatShifts);
        EXPECT_EQ(neonEngine.getShifts(), floatEngine.getShifts());

        std::vector<cv::Mat_<unsigned char>> floatMasks;
        std::vector<cv::Mat_<float>> neonMasks;
        floatEngine.getMasks(floatMasks);
        neonEngine.getMasks(neonMasks);
        for (int k = 0; k < 5; ++k) {
            cv::Mat_<float> asFloat;
            floatMasks[k].convertTo(asFloat, CV_32F);
            EXPECT_EQ(cv::norm(neonMasks[k], asFloat, cv::NORM_INF), 0.0) << k;
        }
        // Same operations in the same order: equal to the last bit.
        ASSERT_EQ(neonResult.size(), floatResult.size());
        EXPECT_EQ(cv::norm(neonResult, floatResult, cv::NORM_INF), 0.0) << "width " << width;
    }
}

TEST(SrFloatNeon, TakesFramesAsTheyAreAndPrintsNothing) {
    const Burst burst = cleanBurst(cv::Size(64, 48), 5);
    cv::Mat_<float> hot = burst.frames[1].clone();
    // A hot pixel stays in the window: this engine has no bad-pixel stage.
    hot(10, 12) += 40.0f;
    testing::internal::CaptureStdout();
    NeonEngine engine(64, 48, 5, 2.0f);
    engine.addFrame(hot);
    EXPECT_EQ(engine.getFrame(0)[10 * 64 + 12], hot(10, 12));
    for (int i = 0; i < 5; ++i) {
        engine.addFrame(burst.frames[1]);
    }
    cv::Mat_<float> result;
    // Identical frames: every mask full, the full factor estimate.
    EXPECT_FLOAT_EQ(engine.computeSR(result), 2.0f);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    std::vector<cv::Mat_<float>> masks;
    engine.getMasks(masks);
    for (const auto& mask : masks) {
        EXPECT_EQ(cv::countNonZero(mask == 1.0f), mask.rows * mask.cols);
    }
}

TEST(SrFloatNeon, ParametersAndWindowBehaveAsInTheFloatEngine) {
    EXPECT_THROW(NeonEngine(64, 48, 0, 2.0f), const char*);
    EXPECT_THROW(NeonEngine(64, 48, 5, 3.0f), std::invalid_argument);
    NeonEngine engine(64, 48, 5, 2.0f);
    EXPECT_EQ(engine.getOutputSize(), 128 * 96);
    try {
        engine.setRelativeResidue(1e-7f);
        FAIL();
    } catch (const char* message) {
        EXPECT_STREQ(message, "Invalid total-variation term weight specified.");
    }
    EXPECT_EQ(engine.getRelativeResidue(), 0.007f);
    EXPECT_THROW(engine.addFrame(static_cast<const float*>(nullptr)), std::invalid_argument);
    cv::Mat_<float> empty;
    EXPECT_EQ(engine.computeSR(empty), -998.0f);
}

TEST(SrFloatNeon, TooLargeDisplacementNamesTheFourLaneRegistration) {
    constexpr int width = 200;
    constexpr int height = 44;
    const Burst burst = cleanBurst(cv::Size(width + 60, height + 60), 5);
    const cv::Mat_<float>& scene = burst.truth;
    auto cut = [&](int dx) {
        cv::Mat_<float> frame;
        cv::resize(scene(cv::Rect(2 * (30 - dx), 60, 2 * width, 2 * height)), frame,
                   cv::Size(width, height), 0.0, 0.0, cv::INTER_AREA);
        return frame;
    };
    NeonEngine engine(width, height, 2, 2.0f);
    engine.addFrame(cut(0));
    engine.addFrame(cut(23));
    engine.setReferenceIndex(1);
    cv::Mat_<float> result;
    try {
        engine.computeSR(result);
        FAIL() << "accepted";
    } catch (const kelvo::Exception& error) {
        EXPECT_STREQ(error.what(), "Too large displacement");
        EXPECT_EQ(error.location(),
                  "vision/superresolution/SrFloatNeonRegistration: 175: "
                  "kelvo::vision::SrFloatNeonRegistration::doRegistration(..)\n");
    }
    std::vector<cv::Point_<float>> shifts;
    engine.getCompleteShifts(shifts);
    EXPECT_NEAR(shifts[1].x, 23.0f, 0.25f);
}

}  // namespace
