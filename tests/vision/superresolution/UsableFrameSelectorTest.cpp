// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <filesystem>

#include "tools/simulator/RealFrames.h"
#include "vision/superresolution/UsableFrameSelector.h"

namespace {

namespace fs = std::filesystem;
using kelvo::vision::UsableFrameSelector;

const fs::path kBurstE = fs::path(KELVO_SHARED_DATA_DIR) / "hit-uav/bursts/E_1_60_60_00524-00532";

class UsableFramesOfBurstE : public testing::Test {
protected:
    void SetUp() override {
        if (!fs::is_directory(kBurstE)) {
            GTEST_SKIP() << "real frames not found in " << kBurstE << "; skipping";
        }
        frames = kelvo::tools::readGreyFrames(kBurstE, &names);
        ASSERT_EQ(frames.size(), 9u);
    }
    std::vector<std::string> names;
    std::vector<cv::Mat_<float>> frames;
};

// Frame 00529 of this flight shows another place; the other eight one scene moving by
// up to about three pixels.
TEST_F(UsableFramesOfBurstE, TheViewOfAnotherPlaceIsLeftOut) {
    const auto selection = UsableFrameSelector().select(frames);
    ASSERT_EQ(selection.leftOut.size(), 1u);
    EXPECT_EQ(names[selection.leftOut[0].frame], "1_60_60_0_00529");
    EXPECT_EQ(selection.leftOut[0].reason.rfind("correlation ", 0), 0u)
        << selection.leftOut[0].reason;
    EXPECT_EQ(selection.usable, (std::vector<int>{0, 1, 2, 3, 4, 6, 7, 8}));
    EXPECT_NE(selection.reference, 5);
    EXPECT_DOUBLE_EQ(selection.correlation[selection.reference], 1.0);
    for (int k : selection.usable) {
        EXPECT_GT(selection.correlation[k], 0.6) << names[k];
        EXPECT_LT(cv::norm(selection.displacement[k]), 5.0) << names[k];
    }
}

TEST_F(UsableFramesOfBurstE, FailsWhenFewerThanThreeRemainAndSaysWhy) {
    try {
        UsableFrameSelector().select({frames[4], frames[5], frames[6]});
        FAIL() << "two usable frames accepted";
    } catch (const std::runtime_error& error) {
        EXPECT_EQ(std::string(error.what())
                      .rfind("Only 2 usable frames, at least 3 needed: frame 1: "
                             "correlation ",
                             0),
                  0u)
            << error.what();
    }
    EXPECT_THROW(UsableFrameSelector().select({frames[0], frames[1]}), std::invalid_argument);
    cv::Mat_<float> broken = frames[2].clone();
    broken(0, 0) = std::numeric_limits<float>::infinity();
    EXPECT_THROW(UsableFrameSelector().select({frames[0], frames[1], broken}),
                 std::invalid_argument);
    EXPECT_THROW(
        UsableFrameSelector().select({frames[0], frames[1], frames[2](cv::Rect(0, 0, 64, 64))}),
        std::invalid_argument);
}

}  // namespace
