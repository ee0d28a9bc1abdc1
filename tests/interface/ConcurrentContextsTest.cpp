// SPDX-License-Identifier: Apache-2.0
// Contexts share nothing but the handle table and the message: four of them, opened in turn
// and fed on four threads at once, give exactly the results they give one after the other,
// also when each shares its passes among threads of its own. The checked build runs this under
// ThreadSanitizer.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <opencv2/core/parallel/parallel_backend.hpp>
#include <opencv2/core/utility.hpp>
#include <thread>
#include <vector>

#include "interface/SuperResolutionExtensions.h"
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

// OpenCV's parallel loops on threads started for each loop and joined at its end. The
// sanitizer sees how work is handed to plain threads, not how an uninstrumented pool hands
// it over, so with this backend it checks the engine's own threads as well.
class PlainThreads : public cv::parallel::ParallelForAPI {
public:
    void parallel_for(int tasks, FN_parallel_for_body_cb_t body, void* data) override {
        std::atomic<int> next{0};
        auto drain = [&] {
            for (int task = next++; task < tasks; task = next++) {
                body(task, task + 1, data);
            }
        };
        std::vector<std::thread> helpers;
        for (int helper = 1; helper < std::min(threads.load(), tasks); ++helper) {
            helpers.emplace_back(drain);
        }
        drain();
        for (std::thread& helper : helpers) {
            helper.join();
        }
    }
    int getThreadNum() const override { return 0; }
    int getNumThreads() const override { return threads; }
    int setNumThreads(int count) override { return threads.exchange(std::max(count, 1)); }
    const char* getName() const override { return "plain threads"; }

private:
    std::atomic<int> threads{1};
};

cv::Mat_<float> superResolve(int handle, const std::vector<cv::Mat_<float>>& frames) {
    for (const cv::Mat_<float>& frame : frames) {
        EXPECT_EQ(SuperResolution_addImage(handle, frame.ptr<float>()), SR_OK);
    }
    cv::Mat_<float> result(2 * frames[0].rows, 2 * frames[0].cols);
    EXPECT_EQ(SuperResolution_getSuperresolutionImage(handle, result.ptr<float>()), SR_OK);
    return result;
}

// Four contexts on four threads, each context with threadsPerContext threads of its own,
// against the same contexts one after the other on one thread each.
void expectSerialResults(int threadsPerContext) {
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
        ASSERT_EQ(SuperResolution_setThreads(handles.back(), threadsPerContext), SR_OK);
    }
    std::vector<std::thread> callers;
    for (int context = 0; context < kContexts; ++context) {
        callers.emplace_back(
            [&, context] { parallel[context] = superResolve(handles[context], bursts[context]); });
    }
    for (std::thread& caller : callers) {
        caller.join();
    }
    for (int context = 0; context < kContexts; ++context) {
        EXPECT_EQ(cv::norm(parallel[context], serial[context], cv::NORM_INF), 0.0) << context;
        EXPECT_EQ(SuperResolution_release(handles[context]), SR_OK);
    }
}

TEST(ConcurrentContexts, FourThreadsGiveTheSerialResults) {
    expectSerialResults(1);
}

// The solve's 53 full rows make two bands, one per thread, which meet at a seam; the
// registration's frames are shared out as well.
TEST(ConcurrentContexts, FourContextsOfTwoThreadsEachGiveTheSerialResults) {
    cv::parallel::setParallelForBackend(std::make_shared<PlainThreads>());
    cv::setNumThreads(2);
    expectSerialResults(2);
}

}  // namespace
