// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <filesystem>
#include <opencv2/imgproc.hpp>

#include "interface/SuperResolutionContext.h"
#include "interface/SuperResolutionInterface.h"
#include "tools/simulator/RealFrames.h"

namespace {

namespace fs = std::filesystem;

// Ten consecutive 640x512 frames of a drone flight (HIT-UAV, CC BY 4.0), moving by
// 0.1 to 0.65 pixel between neighbours.
const fs::path kBurst = fs::path(KELVO_SHARED_DATA_DIR) / "hit-uav/bursts/A_1_60_30_00047-00056";

TEST(RealBurst, TheWholeInterfaceSuperResolvesARealBurst) {
    if (!fs::is_directory(kBurst)) {
        GTEST_SKIP() << "real frames not found in " << kBurst << "; skipping";
    }
    const std::vector<cv::Mat_<float>> frames = kelvo::tools::readGreyFrames(kBurst);
    ASSERT_EQ(frames.size(), 10u);
    const int handle = SuperResolution_init(640, 512);
    ASSERT_GE(handle, 0);
    testing::internal::CaptureStdout();
    for (const auto& frame : frames) {
        EXPECT_EQ(SuperResolution_addImage(handle, frame.ptr<float>()), SR_OK);
    }
    testing::internal::GetCapturedStdout();
    int width = 0, height = 0;
    EXPECT_EQ(SuperResolution_queryOutputImageSize(handle, &width, &height), SR_OK);
    ASSERT_EQ(width, 1280);
    ASSERT_EQ(height, 1024);
    cv::Mat_<float> result(height, width);
    EXPECT_EQ(SuperResolution_getSuperresolutionImage(handle, result.ptr<float>()), SR_OK);

    // Neighbouring frames of this flight move by well under a pixel.
    std::vector<cv::Point_<float>> shifts;
    kelvo::interface::engineOf(handle)->getCompleteShifts(shifts);
    for (const auto& shift : shifts) {
        EXPECT_LT(std::hypot(shift.x, shift.y), 3.0f);
    }
    EXPECT_EQ(SuperResolution_release(handle), SR_OK);

    // The result, taken back to the sensor grid, reproduces the reference frame (window
    // position 1 of the last five) up to noise and compression artefacts.
    ASSERT_TRUE(cv::checkRange(result));
    cv::Mat_<float> backOnSensorGrid;
    cv::resize(result, backOnSensorGrid, frames[6].size(), 0, 0, cv::INTER_AREA);
    const cv::Rect interior(16, 16, 640 - 32, 512 - 32);
    const double meanDifference =
        cv::mean(cv::abs(backOnSensorGrid(interior) - frames[6](interior)))[0];
    EXPECT_LT(meanDifference, 3.0);
}

}  // namespace
