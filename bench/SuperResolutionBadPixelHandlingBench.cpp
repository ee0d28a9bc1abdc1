// SPDX-License-Identifier: Apache-2.0
#include <benchmark/benchmark.h>

#include <cstring>
#include <limits>

#include "vision/superresolution/SuperResolutionBadPixelHandling.h"

namespace {

using kelvo::vision::SuperResolutionBadPixelHandling;

constexpr int kWidth = 640;
constexpr int kHeight = 512;
constexpr int kFrames = 5;
constexpr int kDefects = 20;

float markerValue(unsigned int bits) {
    float value;
    std::memcpy(&value, &bits, sizeof value);
    return value;
}

// A temperature frame with scattered defects of every kind.
cv::Mat_<float> frameWithDefects(int seed) {
    cv::Mat_<float> frame(kHeight, kWidth);
    cv::RNG random(seed);
    random.fill(frame, cv::RNG::UNIFORM, 15.0f, 40.0f);
    const float defects[] = {std::numeric_limits<float>::quiet_NaN(),
                             std::numeric_limits<float>::infinity(), 9000.0f,
                             markerValue(SuperResolutionBadPixelHandling::kMarkerMaximum),
                             markerValue(SuperResolutionBadPixelHandling::kMarkerDefect)};
    for (int i = 0; i < kDefects; ++i) {
        frame(random.uniform(1, kHeight - 1), random.uniform(1, kWidth - 1)) = defects[i % 5];
    }
    return frame;
}

// Detection and repair of one incoming frame, as every frame of a stream gets it.
void BM_DetectAndReplaceBadPixel(benchmark::State& state) {
    SuperResolutionBadPixelHandling handler(kFrames);
    const cv::Mat_<float> original = frameWithDefects(1);
    cv::Mat_<float> frame(original.size());
    for (auto _ : state) {
        state.PauseTiming();
        original.copyTo(frame);
        state.ResumeTiming();
        benchmark::DoNotOptimize(handler.detectAndReplaceBadPixel(frame));
    }
}
BENCHMARK(BM_DetectAndReplaceBadPixel)->Unit(benchmark::kMicrosecond);

// Masking and refilling of a twice-enlarged result from a full defect history.
void BM_MaskAndReplaceResult(benchmark::State& state) {
    SuperResolutionBadPixelHandling handler(kFrames);
    std::vector<cv::Mat_<float>> frames;
    std::vector<cv::Point_<float>> shifts;
    for (int i = 0; i < kFrames; ++i) {
        frames.push_back(frameWithDefects(i + 1));
        handler.detectAndReplaceBadPixel(frames.back());
        shifts.emplace_back(0.3f * static_cast<float>(i), -0.2f * static_cast<float>(i));
    }
    cv::Mat_<float> result(2 * kHeight, 2 * kWidth);
    for (auto _ : state) {
        state.PauseTiming();
        result.setTo(25.0f);
        state.ResumeTiming();
        handler.maskBadPixel(result, shifts);
        handler.replaceMaskedPixel(result, shifts, frames);
        benchmark::DoNotOptimize(result.data);
    }
}
BENCHMARK(BM_MaskAndReplaceResult)->Unit(benchmark::kMicrosecond);

}  // namespace
