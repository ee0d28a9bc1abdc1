// SPDX-License-Identifier: Apache-2.0
#include "vision/superresolution/SrFloat.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <opencv2/imgproc.hpp>
#include <stdexcept>
#include <string>

#include "platform/kelvo/Exception.h"
#include "vision/superresolution/SrFloatRegistration2.h"

namespace {

using Engine = kelvo::vision::SrFloat<kelvo::vision::SrFloatRegistration2>;

// A smooth textured frame of temperatures, different for every seed.
cv::Mat_<float> texturedFrame(int width, int height, int seed, float offset = 20.0f) {
    cv::Mat_<float> noise(height, width);
    cv::RNG rng(seed);
    rng.fill(noise, cv::RNG::UNIFORM, 0.0f, 10.0f);
    cv::Mat_<float> frame;
    cv::GaussianBlur(noise, frame, cv::Size(0, 0), 2.0);
    return frame * 4.0f + offset;
}

// Runs the call and returns the C-string message it throws ("" when it does not throw).
template <class Call>
std::string thrownMessage(Call call) {
    try {
        call();
    } catch (const char* message) {
        return message;
    }
    return "";
}

TEST(SrFloat, ParametersAreCheckedAtTheirBoundaries) {
    Engine engine(32, 24, 5, 2.0f);
    const std::string referenceMessage = "Invalid reference index specified.";
    EXPECT_EQ(thrownMessage([&] { engine.setReferenceIndex(5); }), referenceMessage);
    EXPECT_EQ(thrownMessage([&] { engine.setReferenceIndex(-1); }), referenceMessage);
    EXPECT_EQ(thrownMessage([&] { engine.setReferenceIndex(4); }), "");
    EXPECT_EQ(engine.getReferenceIndex(), 4);

    const std::string sigmaMessage = "Invalid standard deviation of the sensor psf specified.";
    EXPECT_EQ(thrownMessage([&] { engine.setPsfSigma(0.0f); }), sigmaMessage);
    EXPECT_EQ(thrownMessage([&] { engine.setPsfSigma(std::nanf("")); }), sigmaMessage);
    EXPECT_EQ(thrownMessage([&] { engine.setPsfSigma(0.5f); }), "");
    EXPECT_FLOAT_EQ(engine.getPsfSigma(), 0.5f);

    const std::string iterationMessage = "Invalid maximum number of iterations specified.";
    EXPECT_EQ(thrownMessage([&] { engine.setMaxCGIters(0); }), iterationMessage);
    EXPECT_EQ(thrownMessage([&] { engine.setMaxCGIters(1); }), "");
    EXPECT_EQ(engine.getMaxCGIters(), 1);

    const std::string errorMessage = "Invalid maximum registration error specified.";
    EXPECT_EQ(thrownMessage([&] { engine.setRegError(0.0f); }), errorMessage);
    EXPECT_EQ(thrownMessage([&] { engine.setRegError(1.5f); }), errorMessage);
    EXPECT_EQ(thrownMessage([&] { engine.setRegError(std::nanf("")); }), errorMessage);
    EXPECT_EQ(thrownMessage([&] { engine.setRegError(1.0f); }), "");
    EXPECT_FLOAT_EQ(engine.getRegError(), 1.0f);

    const std::string weightMessage = "Invalid total-variation term weight specified.";
    EXPECT_EQ(thrownMessage([&] { engine.setWeightTV(0.5f); }), weightMessage);
    EXPECT_EQ(thrownMessage([&] { engine.setWeightTV(1.0f); }), "");
    EXPECT_FLOAT_EQ(engine.getWeightTV(), 1.0f);
    // The relative residue shares the total-variation message.
    EXPECT_EQ(thrownMessage([&] { engine.setRelativeResidue(1e-7f); }), weightMessage);
    // Compared in double: the float nearest 1e-6 lies just below it.
    EXPECT_EQ(thrownMessage([&] { engine.setRelativeResidue(1e-6f); }), weightMessage);
    EXPECT_EQ(thrownMessage([&] { engine.setRelativeResidue(1.0001e-6f); }), "");

    const std::string threadsMessage = "Invalid number of threads specified.";
    EXPECT_EQ(thrownMessage([&] { engine.setThreads(0); }), threadsMessage);
    EXPECT_EQ(thrownMessage([&] { engine.setThreads(65); }), threadsMessage);
    EXPECT_EQ(thrownMessage([&] { engine.setThreads(64); }), "");
    EXPECT_EQ(engine.getThreads(), 64);

    // A rejected value leaves the stored one alone.
    EXPECT_EQ(engine.getReferenceIndex(), 4);
    EXPECT_FLOAT_EQ(engine.getRegError(), 1.0f);
    EXPECT_FLOAT_EQ(engine.getPsfSigma(), 0.5f);
}

TEST(SrFloat, ConstructionFixesSizesAndRejectsImpossibleGeometry) {
    Engine engine(160, 120, 5, 2.0f);
    EXPECT_EQ(engine.getInputSize(), 160 * 120);
    EXPECT_EQ(engine.getOutputSize(), 76800);
    EXPECT_EQ(engine.getSpectrumSize(), 9720);
    EXPECT_EQ(engine.getWindowSize(), 5);
    EXPECT_EQ(engine.getStoredFrames(), 0);

    EXPECT_EQ(thrownMessage([] { Engine(32, 24, 0, 2.0f); }), "Invalid reference index specified.");
    EXPECT_THROW(Engine(0, 24, 5, 2.0f), std::invalid_argument);
    EXPECT_THROW(Engine(32, -3, 5, 2.0f), std::invalid_argument);
    EXPECT_THROW(Engine(1 << 16, 1 << 16, 5, 2.0f), std::invalid_argument);
    EXPECT_THROW(Engine(32, 24, 5, 0.5f), std::invalid_argument);
    EXPECT_THROW(Engine(32, 24, 5, std::nanf("")), std::invalid_argument);
}

TEST(SrFloat, TheWindowSlidesAndEvictsTheOldestFrame) {
    const int width = 40, height = 30;
    Engine engine(width, height, 5, 2.0f);
    std::vector<cv::Mat_<float>> added;
    for (int i = 0; i < 6; ++i) {
        added.push_back(texturedFrame(width, height, i, 10.0f * i));
        EXPECT_EQ(engine.addFrame(added.back()), 0);
        EXPECT_EQ(engine.getStoredFrames(), std::min(i + 1, 5));
    }
    for (int position = 0; position < 5; ++position) {
        const cv::Mat_<float> stored(height, width, const_cast<float*>(engine.getFrame(position)));
        EXPECT_EQ(cv::norm(stored, added[position + 1], cv::NORM_INF), 0.0) << position;
    }
    engine.clearFrames();
    EXPECT_EQ(engine.getStoredFrames(), 0);

    std::vector<cv::Mat_<unsigned char>> masks;
    engine.getMasks(masks);
    ASSERT_EQ(masks.size(), 5u);
    EXPECT_EQ(masks[4].rows, height);
    EXPECT_EQ(masks[4].cols, width);
}

TEST(SrFloat, BadFramesAreRepairedOrRejectedWithoutLosingTheWindow) {
    const int width = 40, height = 30;
    Engine engine(width, height, 5, 2.0f);
    EXPECT_THROW(engine.addFrame(static_cast<const float*>(nullptr)), std::invalid_argument);
    EXPECT_EQ(engine.getStoredFrames(), 0);

    cv::Mat_<float> frame = texturedFrame(width, height, 1);
    frame(10, 10) = std::numeric_limits<float>::quiet_NaN();
    frame(5, 20) = std::numeric_limits<float>::infinity();
    EXPECT_EQ(engine.addFrame(frame), 0);
    const float* stored = engine.getFrame(0);
    EXPECT_TRUE(std::isfinite(stored[10 * width + 10]));
    EXPECT_TRUE(std::isfinite(stored[5 * width + 20]));

    cv::Mat_<float> allNaN(height, width, std::numeric_limits<float>::quiet_NaN());
    EXPECT_THROW(engine.addFrame(allNaN), kelvo::Exception);
    EXPECT_EQ(engine.getStoredFrames(), 2);

    // A flat frame is accepted; the window keeps working afterwards.
    EXPECT_EQ(engine.addFrame(cv::Mat_<float>(height, width, 25.0f)), 0);
    EXPECT_EQ(engine.getStoredFrames(), 3);
}

}  // namespace
