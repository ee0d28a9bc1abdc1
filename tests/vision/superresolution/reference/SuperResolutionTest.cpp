// SPDX-License-Identifier: Apache-2.0
#include "vision/superresolution/reference/SuperResolution.h"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <limits>

#include "platform/kelvo/Exception.h"
#include "tools/simulator/BurstSimulator.h"
#include "tools/simulator/ImageQuality.h"
#include "vision/superresolution/SrFloat.h"
#include "vision/superresolution/SrFloatRegistration1.h"

namespace kelvo::vision {
namespace {

using tools::Burst;
using tools::BurstOptions;
using tools::BurstSimulator;
using tools::ImageQuality;

Burst simulatedBurst(cv::Size inputSize, std::uint64_t seed) {
    BurstOptions options;
    options.referenceFrame = 1;
    options.seed = seed;
    return BurstSimulator(options).simulate(inputSize * 2);
}

template <class Engine>
void configure(Engine& engine) {
    engine.setReferenceIndex(3);
    engine.setRegError(0.0001f);
}

std::string locationOf(const std::function<void()>& call, std::string& message) {
    try {
        call();
    } catch (const kelvo::Exception& e) {
        message = e.message();
        return e.location();
    }
    return "no exception";
}

TEST(SuperResolution, AgreesWithTheFloatEngineAndBeatsBicubic) {
    const Burst burst = simulatedBurst(cv::Size(96, 72), 8);
    SrFloat<SrFloatRegistration1> floatEngine(96, 72, 5, 2.0f);
    SuperResolution reference(96, 72, 5, 2.0f);
    configure(floatEngine);
    configure(reference);
    testing::internal::CaptureStdout();
    for (const auto& frame : burst.frames) {
        floatEngine.addFrame(frame);
        reference.addFrame(frame.ptr<float>());
    }
    cv::Mat_<float> floatResult;
    cv::Mat_<float> referenceResult(144, 192);
    const float floatStatus = floatEngine.computeSR(floatResult);
    const float referenceStatus = reference.computeSR(referenceResult.ptr<float>());
    const std::string printed = testing::internal::GetCapturedStdout();
    EXPECT_EQ(floatStatus, referenceStatus);
    EXPECT_NE(printed.find("++++++++++ SuperResolution ++++++++++\n registration:         "),
              std::string::npos);
    EXPECT_NE(printed.find("[ms]\n+++++++++++++++++++++++++++++\n"), std::string::npos);

    std::vector<cv::Point_<float>> floatShifts;
    std::vector<PointF> referenceShifts;
    floatEngine.getCompleteShifts(floatShifts);
    reference.getCompleteShifts(referenceShifts);
    ASSERT_EQ(referenceShifts.size(), 5u);
    for (int i = 0; i < 5; ++i) {
        EXPECT_NEAR(referenceShifts[i].x, floatShifts[i].x, 0.01) << i;
        EXPECT_NEAR(referenceShifts[i].y, floatShifts[i].y, 0.01) << i;
    }
    const double floatPsnr = ImageQuality::psnr(floatResult, burst.truth);
    const double referencePsnr = ImageQuality::psnr(referenceResult, burst.truth);
    EXPECT_NEAR(referencePsnr, floatPsnr, 0.05);
    EXPECT_GT(referencePsnr,
              ImageQuality::psnr(ImageQuality::upscaleBicubic(burst.frames[1]), burst.truth) + 0.5);

    // The quality map of the pass: one unit of weight, spread over the 3 x 3 grid.
    cv::Mat_<float> quality;
    reference.getQuality(quality);
    ASSERT_EQ(quality.size(), cv::Size(3, 3));
    EXPECT_NEAR(cv::sum(quality)[0], 1.0, 1e-6);
    EXPECT_LT(quality(1, 1), 1.0f);
}

TEST(SuperResolution, QualityMapSpreadsEachPhaseBilinearly) {
    cv::Mat_<float> map;
    const PointF still[3] = {{0.0f, 0.0f}, {0.0f, 0.0f}, {0.0f, 0.0f}};
    computeQualityMap(still, 3, map);
    EXPECT_EQ(cv::countNonZero(map), 1);
    EXPECT_EQ(map(1, 1), 1.0f);
    const PointF moved[2] = {{0.25f, -0.25f}, {-0.5f, 0.0f}};
    computeQualityMap(moved, 1, map);
    const float expected[3][3] = {{0, 0.25f, 0.25f}, {0, 0.25f, 0.25f}, {0, 0, 0}};
    for (int r = 0; r < 3; ++r) {
        for (int c = 0; c < 3; ++c) {
            EXPECT_EQ(map(r, c), expected[r][c]) << r << "," << c;
        }
    }
    computeQualityMap(moved, 2, map);
    EXPECT_EQ(map(1, 0), 0.5f);
    EXPECT_EQ(map(0, 2), 0.125f);
}

TEST(SuperResolution, CalibrationRepairsMissingCoefficientsInPlace) {
    SuperResolution engine(16, 16, 5, 2.0f);
    // Gain 2, offset 10 everywhere, except: equal counts at (2, 2); a gain of exactly
    // 1000 at (5, 5), whose left neighbour (5, 4) has equal counts too, repaired first.
    cv::Mat_<short> nucA(8, 8, short(100));
    cv::Mat_<short> nucB(8, 8, short(200));
    cv::Mat_<float> radA(8, 8, 210.0f);
    cv::Mat_<float> radB(8, 8, 410.0f);
    nucB(2, 2) = 100;
    nucB(5, 4) = 100;
    radB(5, 5) = 210.0f + 100 * 1000.0f;
    radB(0, 1) = 210.0f + 100 * 3.0f;  // gain 3, offset -90 beside a valid pixel
    engine.setNucToRad(nucA, radA, nucB, radB);
    const cv::Mat_<float>& gain = engine.getGainMap();
    const cv::Mat_<float>& offset = engine.getOffsetMap();
    EXPECT_EQ(gain(2, 2), 2.0f);
    EXPECT_EQ(offset(2, 2), 10.0f);
    EXPECT_EQ(gain(5, 4), 2.0f);
    EXPECT_EQ(gain(5, 5), 2.0f);
    EXPECT_EQ(gain(1, 1), 2.0f);
    EXPECT_EQ(gain(0, 1), 3.0f);

    engine.NucToRad(cv::Mat_<short>(8, 8, short(150)));
    EXPECT_EQ(engine.getRadianceImage()(4, 4), 310.0f);
    EXPECT_EQ(engine.getRadianceImage()(0, 1), 360.0f);

    // A lone pixel without usable neighbours becomes NaN; -1000 itself is out of range.
    SuperResolution tiny(16, 16, 5, 2.0f);
    tiny.setNucToRad(cv::Mat_<short>(1, 1, short(5)), cv::Mat_<float>(1, 1, 1.0f),
                     cv::Mat_<short>(1, 1, short(5)), cv::Mat_<float>(1, 1, 2.0f));
    EXPECT_TRUE(std::isnan(tiny.getGainMap()(0, 0)));
    EXPECT_TRUE(std::isnan(tiny.getOffsetMap()(0, 0)));
    tiny.setNucToRad(cv::Mat_<short>(1, 2, short(0)), cv::Mat_<float>(1, 2, -1000.0f),
                     cv::Mat_<short>(1, 2, short(1)), cv::Mat_<float>(1, 2, -999.0f));
    EXPECT_EQ(tiny.getGainMap()(0, 0), 1.0f);
    EXPECT_TRUE(std::isnan(tiny.getOffsetMap()(0, 0)));

    EXPECT_THROW(engine.setNucToRad(nucA, radA, cv::Mat_<short>(8, 7), radB),
                 std::invalid_argument);
    EXPECT_EQ(engine.getGainMap()(0, 1), 3.0f);
}

TEST(SuperResolution, RefusesRawCountsWithoutCalibration) {
    SuperResolution engine(16, 12, 5, 2.0f);
    std::vector<short> counts(16 * 12, 7);
    std::vector<float> out(32 * 24);
    std::string message;
    EXPECT_EQ(locationOf([&] { engine.processFrame2(counts.data(), out.data()); }, message),
              "vision/superresolution/reference/SuperResolution: 377: "
              "kelvo::vision::SuperResolution::processFrame2(..)");
    EXPECT_EQ(message, "NucToRad() not initialized");
    engine.setNucToRad(cv::Mat_<short>(12, 15, short(0)), cv::Mat_<float>(12, 15, 0.0f),
                       cv::Mat_<short>(12, 15, short(1)), cv::Mat_<float>(12, 15, 1.0f));
    EXPECT_THROW(engine.processFrame2(counts.data(), out.data()), kelvo::Exception);
    EXPECT_EQ(engine.getStoredFrames(), 0);
}

TEST(SuperResolution, RawCountsBecomeRadiance) {
    const Burst burst = simulatedBurst(cv::Size(96, 72), 8);
    SuperResolution engine(96, 72, 5, 2.0f);
    configure(engine);
    // Counts = radiance * 4 + 1000, undone by the calibration.
    engine.setNucToRad(cv::Mat_<short>(72, 96, short(1000)), cv::Mat_<float>(72, 96, 0.0f),
                       cv::Mat_<short>(72, 96, short(5000)), cv::Mat_<float>(72, 96, 1000.0f));
    std::vector<float> out(192 * 144);
    testing::internal::CaptureStdout();
    float status = 0.0f;
    for (const auto& frame : burst.frames) {
        cv::Mat_<short> counts;
        frame.convertTo(counts, CV_16S, 4.0, 1000.0);
        status = engine.processFrame2(counts.ptr<short>(), out.data());
    }
    testing::internal::GetCapturedStdout();
    EXPECT_GT(status, 0.0f);
    EXPECT_EQ(engine.getBadPixelHandling().getDefectMaps().size(), 5u);
    const cv::Mat_<float> radiance(144, 192, out.data());
    EXPECT_GT(ImageQuality::psnr(radiance, burst.truth),
              ImageQuality::psnr(ImageQuality::upscaleBicubic(burst.frames[1]), burst.truth) + 0.5);
}

TEST(SuperResolution, ShortFramesSkipTheBadPixelStage) {
    const Burst burst = simulatedBurst(cv::Size(32, 24), 6);
    SuperResolution engine(32, 24, 5, 2.0f);
    configure(engine);
    for (const auto& frame : burst.frames) {
        cv::Mat_<short> counts;
        frame.convertTo(counts, CV_16S, 100.0);
        engine.addFrame(counts.ptr<short>());
    }
    EXPECT_TRUE(engine.getBadPixelHandling().getDefectMaps().empty());
    std::vector<short> shortOut(64 * 48);
    std::vector<float> floatOut(64 * 48);
    testing::internal::CaptureStdout();
    const float status = engine.computeSR(shortOut.data());
    // The float pass repairs the result from the defect maps, which 16-bit frames lack.
    bool refused = false;
    try {
        engine.computeSR(floatOut.data());
    } catch (const kelvo::Exception&) {
        refused = true;
    }
    testing::internal::GetCapturedStdout();
    EXPECT_GE(status, -3.0f);  // written, if with sparse masks on such small frames
    EXPECT_TRUE(refused);
    const float mean = static_cast<float>(cv::mean(burst.frames[1])[0]) * 100.0f;
    EXPECT_NEAR(cv::mean(cv::Mat_<short>(48, 64, shortOut.data()))[0], mean, 0.05 * mean);
}

TEST(SuperResolution, KnownBadPixelsAreRepairedAsFloatFramesArrive) {
    SuperResolution engine(16, 16, 5, 2.0f);
    EXPECT_THROW(engine.setKnownBadPixels({{16, 0}}), std::invalid_argument);
    engine.setKnownBadPixels({{5, 7}});
    cv::Mat_<float> frame(16, 16, 20.0f);
    frame(7, 5) = 3000.0f;  // a valid value, but a stuck pixel
    engine.addFrame(frame.ptr<float>());
    const cv::Mat& defects = engine.getBadPixelHandling().getDefectMaps().back();
    EXPECT_EQ(cv::countNonZero(defects), 1);
    EXPECT_NE(defects.at<unsigned char>(7, 5), 0);
    // 16-bit frames are stored as they are.
    cv::Mat_<short> counts(16, 16, short(20));
    engine.addFrame(counts.ptr<short>());
    EXPECT_EQ(engine.getBadPixelHandling().getDefectMaps().size(), 1u);
}

TEST(SuperResolution, SimpleCombineSamplesHalvedCoordinatesForEveryFactor) {
    for (const float factor : {2.0f, 3.0f}) {
        SuperResolution engine(16, 16, 2, factor);
        cv::Mat_<float> frame(16, 16);
        for (int i = 0; i < 256; ++i) {
            frame(i) = static_cast<float>(i % 16 * 16 + i / 16);
        }
        testing::internal::CaptureStdout();
        engine.addFrame(frame.ptr<float>());
        engine.addFrame(frame.ptr<float>());
        testing::internal::GetCapturedStdout();
        std::vector<float> out(engine.getOutputSize());
        engine.simpleCombine();
        engine.saveFrame(out.data());
        const int outWidth = engine.getOutputWidth();
        EXPECT_EQ(out[5 * outWidth + 7], frame(2, 3)) << factor;
        // Beyond the frame (factor 3): the nearest frame pixel.
        EXPECT_EQ(out.back(), frame(15, 15)) << factor;
        EXPECT_EQ(out[outWidth - 1], frame(0, 15)) << factor;
    }
}

TEST(SuperResolution, ParametersKeepTheFloatEngineRangesAndMessages) {
    EXPECT_THROW(SuperResolution(16, 16, 0, 2.0f), const char*);
    SuperResolution engine(16, 16, 5, 2.0f);
    auto messageOf = [](const std::function<void()>& call) -> std::string {
        try {
            call();
        } catch (const char* message) {
            return message;
        }
        return "accepted";
    };
    EXPECT_EQ(messageOf([&] { engine.setReferenceIndex(5); }),
              "Invalid reference index specified.");
    EXPECT_EQ(messageOf([&] { engine.setReferenceIndex(4); }), "accepted");
    EXPECT_EQ(messageOf([&] { engine.setRegError(1.5f); }),
              "Invalid maximum registration error specified.");
    EXPECT_EQ(messageOf([&] { engine.setRelativeResidue(1e-7f); }),
              "Invalid total-variation term weight specified.");
    EXPECT_EQ(messageOf([&] { engine.setPsfSigma(0.0f); }),
              "Invalid standard deviation of the sensor psf specified.");
    EXPECT_EQ(engine.getPsfSigma(), 0.683f);
    EXPECT_EQ(engine.getSpectrumSize(), 9 * 16);
    EXPECT_TRUE(engine.checkImageStructureQuality(cv::Mat_<short>(4, 4, short(2))) == false);
    cv::Mat_<float> ramp(1, 2);
    ramp << 0.0f, 2.0f;
    EXPECT_TRUE(engine.checkImageStructureQuality(ramp));
}

}  // namespace
}  // namespace kelvo::vision
