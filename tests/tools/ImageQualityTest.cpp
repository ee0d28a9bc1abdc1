// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <opencv2/imgproc.hpp>

#include "tools/simulator/BurstSimulator.h"
#include "tools/simulator/ImageQuality.h"
#include "tools/simulator/ThermalScene.h"

#include <cmath>
#include <stdexcept>

namespace {

using kelvo::tools::ImageQuality;

TEST(ImageQuality, PsnrOverTheInteriorWithTheTruthsRange) {
    cv::Mat_<float> truth(40, 50);
    for (int r = 0; r < 40; ++r) {
        for (int c = 0; c < 50; ++c) {
            truth(r, c) = 0.5f * c + 0.1f * r;
        }
    }
    cv::Mat_<float> image = truth + 0.5f;
    // Interior of border 5: columns 5..44, rows 5..34, range 19.5 + 2.9.
    EXPECT_NEAR(ImageQuality::psnr(image, truth, 5), 10.0 * std::log10(22.4 * 22.4 / 0.25), 1e-4);
    image = truth.clone();
    EXPECT_EQ(ImageQuality::psnr(image, truth, 0), INFINITY);
    image(4, 20) = 100.0f;
    image(20, 45) = 100.0f;
    EXPECT_EQ(ImageQuality::psnr(image, truth, 5), INFINITY);
    EXPECT_LT(ImageQuality::psnr(image, truth, 4), 30.0);
    EXPECT_THROW(ImageQuality::psnr(image, truth, 20), std::invalid_argument);
    EXPECT_THROW(ImageQuality::psnr(image, truth, -1), std::invalid_argument);
    EXPECT_THROW(ImageQuality::psnr(image(cv::Rect(0, 0, 50, 39)), truth, 1),
                 std::invalid_argument);
}

// Frames of a smooth scene, upscaled by cv::resize, agree best with the truth when no
// further offset is applied: half-pixel conventions line up.
TEST(ImageQuality, BicubicUpscalingIsAlignedWithTheTruth) {
    kelvo::tools::BurstOptions options;
    options.noiseSigma = 0.0f;
    options.frameCount = 1;
    const kelvo::tools::BurstSimulator simulator(options);
    const int margin = simulator.sceneMargin();
    cv::Mat_<float> scene =
        kelvo::tools::ThermalScene::render(cv::Size(128 + 2 * margin, 96 + 2 * margin), 12);
    cv::GaussianBlur(scene, scene, cv::Size(), 2.0);
    const kelvo::tools::Burst burst = simulator.simulate(scene);
    const cv::Mat_<float>& frame = burst.frames[0];
    const cv::Mat_<float> upscaled = ImageQuality::upscaleBicubic(frame);
    ASSERT_EQ(upscaled.size(), burst.truth.size());
    const double aligned = ImageQuality::psnr(upscaled, burst.truth);

    // Output pixel X read at frame coordinate X/2 - 1/4 + d/2: the resize for d = 0,
    // the same grid moved by d output pixels otherwise.
    const auto psnrAtOffset = [&](double dx, double dy) {
        const cv::Matx23d map(0.5, 0.0, -0.25 + dx / 2.0, 0.0, 0.5, -0.25 + dy / 2.0);
        cv::Mat_<float> moved;
        cv::warpAffine(frame, moved, map, upscaled.size(), cv::INTER_CUBIC | cv::WARP_INVERSE_MAP,
                       cv::BORDER_REPLICATE);
        return ImageQuality::psnr(moved, burst.truth);
    };
    EXPECT_NEAR(psnrAtOffset(0.0, 0.0), aligned, 0.01);
    for (double offset : {-0.5, -0.25, 0.25, 0.5}) {
        EXPECT_LT(psnrAtOffset(offset, 0.0), aligned - 1.0) << offset;
        EXPECT_LT(psnrAtOffset(0.0, offset), aligned - 1.0) << offset;
    }
}

}  // namespace
