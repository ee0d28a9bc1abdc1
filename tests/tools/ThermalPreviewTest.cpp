// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <opencv2/imgproc.hpp>

#include "tools/simulator/ThermalPreview.h"

#include <cmath>
#include <stdexcept>

namespace {

using kelvo::tools::ThermalPreview;

TEST(ThermalPreview, RobustRangeIgnoresOutliersAndNonFiniteValues) {
    cv::Mat_<float> image(10, 100);
    for (int i = 0; i < 1000; ++i) {
        image(i / 100, i % 100) = 0.1f * i;
    }
    image(0, 0) = 10000.0f;
    image(0, 1) = NAN;
    image(0, 2) = -INFINITY;
    // 998 finite values, 0.3 .. 99.9 and 10000: the 1st percentile is the 11th smallest.
    const ThermalPreview::Range range = ThermalPreview::robustRange(image);
    EXPECT_NEAR(range.low, 1.3f, 1e-4f);
    EXPECT_NEAR(range.high, 99.0f, 1e-4f);

    const ThermalPreview::Range flat = ThermalPreview::robustRange(cv::Mat_<float>(4, 4, 20.0f));
    EXPECT_FLOAT_EQ(flat.low, 19.5f);
    EXPECT_FLOAT_EQ(flat.high, 20.5f);
    const ThermalPreview::Range none = ThermalPreview::robustRange(cv::Mat_<float>(4, 4, NAN));
    EXPECT_FLOAT_EQ(none.low, 0.0f);
    EXPECT_FLOAT_EQ(none.high, 1.0f);
}

TEST(ThermalPreview, RendersThePaletteAndPutsLabelledTilesSideBySide) {
    cv::Mat_<float> image(20, 30, 5.0f);
    image(cv::Rect(10, 0, 10, 20)) = 15.0f;
    image(cv::Rect(20, 0, 10, 20)) = 99.0f;
    const cv::Mat preview = ThermalPreview::render(image, {5.0f, 25.0f});
    ASSERT_EQ(preview.type(), CV_8UC3);
    ASSERT_EQ(preview.size(), image.size());
    cv::Mat ends;
    cv::applyColorMap(cv::Mat1b({1, 3}, {0, 128, 255}), ends, cv::COLORMAP_INFERNO);
    EXPECT_EQ(preview.at<cv::Vec3b>(5, 5), ends.at<cv::Vec3b>(0, 0));
    EXPECT_EQ(preview.at<cv::Vec3b>(5, 15), ends.at<cv::Vec3b>(0, 1));
    EXPECT_EQ(preview.at<cv::Vec3b>(5, 25), ends.at<cv::Vec3b>(0, 2));

    cv::Mat_<float> small;
    cv::resize(image, small, cv::Size(15, 10), 0.0, 0.0, cv::INTER_NEAREST);
    const cv::Mat strip = ThermalPreview::sideBySide({{"truth", image}, {"frame", small}});
    ASSERT_EQ(strip.size(), cv::Size(60, 20));
    // Below the label both tiles show the same colours: one range, pixels replicated.
    EXPECT_EQ(cv::norm(strip(cv::Rect(0, 15, 30, 5)), strip(cv::Rect(30, 15, 30, 5)), cv::NORM_INF),
              0.0);
    EXPECT_EQ(strip.at<cv::Vec3b>(1, 1), cv::Vec3b(0, 0, 0));
    EXPECT_THROW(ThermalPreview::sideBySide({}), std::invalid_argument);
    EXPECT_THROW(ThermalPreview::sideBySide({{"empty", cv::Mat_<float>()}}), std::invalid_argument);
}

}  // namespace
