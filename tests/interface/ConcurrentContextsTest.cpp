// SPDX-License-Identifier: Apache-2.0
// Contexts share nothing but the handle table and the message: four of them, opened in turn
// and fed on four threads at once, give exactly the results they give one after the other.
// The checked build runs this under ThreadSanitizer.
#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "interface/SuperResolutionInterface.h"
#include "tools/simulator/BurstSimulator.h"

namespace {

constexpr int kContexts = 4;
constexpr int kFrames = 6;

std::vector<cv::Mat_<float>> burstOf(int context) {
    kelvo::tools::BurstOptions options;
    options.frameCount = kFrames;
    options.seed = 11 + context;
    return kelvo::tools::BurstSimulator(options).simulate(cv::Size(64, 48)).frames;
}

cv::Mat_<float> superResolve(int handle, const std::vector<cv::Mat_<float>>& frames) {
    for (const cv::Mat_<float>& frame : frames) {
        EXPECT_EQ(SuperResolution_addImage(handle, frame.ptr<float>()), SR_OK);
    }
    cv::Mat_<float> result(2 * frames[0].rows, 2 * frames[0].cols);
    EXPECT_EQ(SuperResolution_getSuperresolutionImage(handle, result.ptr<float>()), SR_OK);
    return result;
}

TEST(ConcurrentContexts, FourThreadsGiveTheSerialResults) {
    std::vector<std::vector<cv::Mat_<float>>> bursts;
    std::vector<cv::Mat_<float>> serial, parallel(kContexts);
    std::vector<int> handles;
    for (int context = 0; context < kContexts; ++context) {
        bursts.push_back(burstOf(context));
        const int handle = SuperResolution_init(32, 24);
        ASSERT_GE(handle, 0);
        serial.push_back(superResolve(handle, bursts.back()));
        ASSERT_EQ(SuperResolution_release(handle), SR_OK);
    }
    for (int context = 0; context < kContexts; ++context) {
        handles.push_back(SuperResolution_init(32, 24));
        ASSERT_GE(handles.back(), 0);
    }
    std::vector<std::thread> threads;
    for (int context = 0; context < kContexts; ++context) {
        threads.emplace_back(
            [&, context] { parallel[context] = superResolve(handles[context], bursts[context]); });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    for (int context = 0; context < kContexts; ++context) {
        EXPECT_EQ(cv::norm(parallel[context], serial[context], cv::NORM_INF), 0.0) << context;
        EXPECT_EQ(SuperResolution_release(handles[context]), SR_OK);
    }
}

}  // namespace
