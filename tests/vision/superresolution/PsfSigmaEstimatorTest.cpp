// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <filesystem>
#include <regex>

#include "tools/kelvo-sr/QuietStandardOutput.h"
#include "tools/simulator/BurstSimulator.h"
#include "tools/simulator/ImageQuality.h"
#include "tools/simulator/RealFrames.h"
#include "vision/superresolution/PsfSigmaEstimator.h"
#include "vision/superresolution/SrFloat.h"
#include "vision/superresolution/SrFloatRegistration2.h"

namespace {

namespace fs = std::filesystem;
using kelvo::tools::Burst;
using kelvo::tools::BurstOptions;
using kelvo::tools::ImageQuality;
using kelvo::vision::PsfSigmaEstimator;

const fs::path kStills = fs::path(KELVO_SHARED_DATA_DIR) / "hit-uav/hr_stills";

// A burst of a real thermal scene: a 256 x 192 crop of a still as the truth, moved,
// blurred, decimated and made noisy (grey levels) by the simulator.
Burst stillBurst(const std::string& still, float sigma, int halfTaps, std::uint64_t seed = 3) {
    BurstOptions options;
    options.psfSigma = sigma;
    options.psfHalfTaps = halfTaps;
    options.noiseSigma = 0.5f;
    options.referenceFrame = 1;
    options.seed = seed;
    return kelvo::tools::simulateFromImage(kStills / still, options, cv::Rect(200, 160, 256, 192));
}

class PsfSigmaEstimatorOnStills : public testing::Test {
protected:
    void SetUp() override {
        if (!fs::is_directory(kStills)) {
            GTEST_SKIP() << "real stills not found in " << kStills << "; skipping";
        }
    }
};

TEST_F(PsfSigmaEstimatorOnStills, RecoversAKnownSigmaWithinAFifth) {
    for (float sigma : {0.8f, 1.1f, 1.7f}) {
        const Burst burst = stillBurst("1_90_30_0_04838.jpg", sigma, 2);
        PsfSigmaEstimator estimator;
        EXPECT_NEAR(estimator.estimate(burst.frames, burst.referenceFrame), sigma, 0.2f * sigma);
        EXPECT_LT(estimator.fitError(), 0.5);
        EXPECT_GE(estimator.bands().size(), 4u);
    }
}

// The sigma that matters is the one that gives the best result: a sensor without
// optical blur wants a small one, blurring optics a large one, and the default suits
// neither.
TEST_F(PsfSigmaEstimatorOnStills, EstimatedSigmaIsAsGoodAsTheBestOfASweep) {
    const kelvo::tools::QuietStandardOutput silenced;
    for (bool optics : {false, true}) {
        const Burst burst =
            stillBurst("0_120_40_0_05370.jpg", optics ? 1.1f : 0.05f, optics ? 6 : 2, 5);
        kelvo::vision::SrFloat<kelvo::vision::SrFloatRegistration2> engine(
            burst.frames[0].cols, burst.frames[0].rows, 5, 2.0f);
        engine.setReferenceIndex(3);
        engine.setRegError(1e-4f);
        for (const auto& frame : burst.frames) {
            engine.addFrame(frame);
        }
        auto psnrWith = [&](float sigma) {
            engine.setPsfSigma(sigma);
            cv::Mat_<float> result;
            engine.computeSR(result);
            return ImageQuality::psnr(result, burst.truth);
        };
        const float estimate = PsfSigmaEstimator().estimate(burst.frames, 1);
        const double estimated = psnrWith(estimate);
        double best = 0.0;
        for (float sigma : {0.1f, 0.3f, 0.683f, 1.0f, 1.4f, 2.0f, 3.0f}) {
            best = std::max(best, psnrWith(sigma));
        }
        const double bicubic =
            ImageQuality::psnr(ImageQuality::upscaleBicubic(burst.frames[1]), burst.truth);
        EXPECT_GT(estimated, best - 0.3) << "optics " << optics << ", sigma " << estimate;
        EXPECT_GT(estimated, bicubic + 2.5) << "optics " << optics;
        EXPECT_GT(estimated, psnrWith(0.683f) + 1.0) << "optics " << optics;
    }
}

// What the estimator declines it explains: a frame of another place, and real compressed
// frames whose fine detail drowns in their disagreement.
TEST_F(PsfSigmaEstimatorOnStills, SaysWhyItDeclines) {
    auto messageOf = [](const std::vector<cv::Mat_<float>>& frames) {
        try {
            PsfSigmaEstimator().estimate(frames, 1);
        } catch (const std::runtime_error& error) {
            return std::string(error.what());
        }
        return std::string("an estimate");
    };
    Burst burst = stillBurst("1_90_30_0_04838.jpg", 1.1f, 2);
    burst.frames[3] = stillBurst("0_110_30_0_08344.jpg", 1.1f, 2).frames[3];
    const std::string cut = messageOf(burst.frames);
    EXPECT_TRUE(std::regex_match(
        cut, std::regex(R"(Frame 3 of the 5 \(oldest first, counted from 0\) correlates only )"
                        R"(-?0\.\d+ with the reference: the PSF sigma needs frames of one scene )"
                        R"(with clear detail\.)")))
        << cut;

    const fs::path real = fs::path(KELVO_SHARED_DATA_DIR) / "hit-uav/bursts/A_1_60_30_00047-00056";
    std::vector<cv::Mat_<float>> frames = kelvo::tools::readGreyFrames(real);
    frames.resize(5);
    const std::string compressed = messageOf(frames);
    EXPECT_TRUE(std::regex_match(
        compressed,
        std::regex(R"(The frames agree on detail only up to 0\.1\d* cycles per result pixel )"
                   R"(\(0\.18 needed\), too little to estimate the PSF sigma: finer detail is )"
                   R"(weaker than their disagreement of about [1-4](\.\d)? \(root mean square, )"
                   R"(frame units\), from noise, compression or motion the shifts do not )"
                   R"(describe\.)")))
        << compressed;
}

TEST(PsfSigmaEstimator, RejectsBurstsItCannotUse) {
    const cv::Mat_<float> frame(64, 64, 20.0f);
    PsfSigmaEstimator estimator;
    EXPECT_THROW(estimator.estimate({frame, frame, frame}, 0), std::invalid_argument);
    EXPECT_THROW(estimator.estimate({frame, frame, frame, frame}, 4), std::invalid_argument);
    EXPECT_THROW(estimator.estimate({frame, frame, frame, cv::Mat_<float>(32, 64, 0.0f)}, 0),
                 std::invalid_argument);
    cv::Mat_<float> broken = frame.clone();
    broken(3, 3) = std::numeric_limits<float>::quiet_NaN();
    EXPECT_THROW(estimator.estimate({frame, frame, broken, frame}, 0), std::invalid_argument);
    // Flat frames show no structure to measure (or to register).
    EXPECT_THROW(estimator.estimate({frame, frame, frame, frame, frame}, 0), std::runtime_error);
}

}  // namespace
