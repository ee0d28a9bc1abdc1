// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <filesystem>
#include <thread>

#include "platform/kelvo/Exception.h"
#include "platform/kelvo/StopWatch.h"
#include "platform/kelvo/exp/ImageIO.h"
#include "platform/kelvo/exp/TypeObjectInitializer.h"

namespace {

TEST(Platform, ExceptionCarriesMessageAndLocation) {
    const kelvo::SourceLocation site{"vision/superresolution/Example", 42,
                                     "kelvo::vision::Example::run"};
    EXPECT_EQ(site.text(), "vision/superresolution/Example: 42: kelvo::vision::Example::run(..)");
    try {
        throw kelvo::Exception("Broken", site.text());
    } catch (const std::exception& error) {
        EXPECT_STREQ(error.what(), "Broken");
        EXPECT_EQ(dynamic_cast<const kelvo::Exception&>(error).location(), site.text());
    }
}

TEST(Platform, StopWatchMeasuresFromConstructionAndRestart) {
    kelvo::StopWatch watch;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    const double first = watch.stop();
    EXPECT_GE(first, 0.019);
    watch.start();
    EXPECT_LT(watch.stop(), first);
}

TEST(Platform, ImageWriterStaysClosedUntilOpenedOnAFolder) {
    kelvo::exp::ImageIO writer(2);
    EXPECT_FALSE(writer.isOpen());
    writer << cv::Mat::ones(2, 2, CV_32F);
    EXPECT_FALSE(writer.open("/nonexistent/folder"));
    EXPECT_FALSE(writer.isOpen());

    const auto folder = std::filesystem::temp_directory_path() / "kelvo_imageio_test";
    std::filesystem::remove_all(folder);
    std::filesystem::create_directories(folder);
    ASSERT_TRUE(writer.open(folder.string()));
    writer << cv::Mat::ones(2, 3, CV_32F) << cv::Mat::zeros(2, 3, CV_32F);
    EXPECT_TRUE(std::filesystem::exists(folder / "frame_000001.tiff"));
    writer.close();
    EXPECT_FALSE(writer.isOpen());
    std::filesystem::remove_all(folder);
}

TEST(Platform, OneTypeInitializerLivesWhileTheLibraryIsLoaded) {
    EXPECT_EQ(kelvo::exp::TypeObjectInitializer::instanceCount(), 1);
}

}  // namespace
