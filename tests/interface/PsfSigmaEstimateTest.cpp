// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <filesystem>

#include "interface/SuperResolutionExtensions.h"
#include "tools/kelvo-sr/QuietStandardOutput.h"
#include "tools/simulator/RealFrames.h"
#include "vision/superresolution/PsfSigmaEstimator.h"

namespace {

namespace fs = std::filesystem;

TEST(PsfSigmaEstimate, FromTheFramesAContextHolds) {
    const fs::path still =
        fs::path(KELVO_SHARED_DATA_DIR) / "hit-uav/hr_stills/0_110_30_0_08344.jpg";
    if (!fs::exists(still)) {
        GTEST_SKIP() << "real stills not found; skipping";
    }
    kelvo::tools::BurstOptions options;
    options.psfSigma = 1.1f;
    options.noiseSigma = 0.5f;
    options.referenceFrame = 1;  // reference index 3 of five frames
    const auto burst =
        kelvo::tools::simulateFromImage(still, options, cv::Rect(160, 120, 256, 192));

    const int handle = SuperResolution_init(128, 96);
    ASSERT_GE(handle, 0);
    float sigma = 0.0f;
    const kelvo::tools::QuietStandardOutput silenced;
    for (int k = 0; k < 5; ++k) {
        if (k == 3) {
            EXPECT_EQ(SuperResolution_estimatePsfSigma(handle, &sigma), SR_ERROR);
            char message[256] = {};
            SuperResolution_getErrorMessage(message, sizeof message);
            EXPECT_STREQ(message,
                         "The PSF sigma needs at least four frames and a reference among them.");
        }
        ASSERT_EQ(SuperResolution_addImage(handle, burst.frames[k].ptr<float>()), SR_OK);
    }
    EXPECT_EQ(SuperResolution_estimatePsfSigma(handle, nullptr), SR_ERROR);
    EXPECT_EQ(sigma, 0.0f);
    ASSERT_EQ(SuperResolution_estimatePsfSigma(handle, &sigma), SR_OK);
    // The frames the context holds, with its reference: the library's estimate of them.
    EXPECT_FLOAT_EQ(sigma, kelvo::vision::PsfSigmaEstimator().estimate(burst.frames, 1));
    EXPECT_NEAR(sigma, 1.1f, 0.4f);
    EXPECT_EQ(SuperResolution_release(handle), SR_OK);
    EXPECT_EQ(SuperResolution_estimatePsfSigma(handle, &sigma), SR_ERROR);
}

}  // namespace
