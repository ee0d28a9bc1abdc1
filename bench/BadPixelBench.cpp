// SPDX-License-Identifier: Apache-2.0
#include <benchmark/benchmark.h>

#include <set>

#include "vision/superresolution/BadPixel.h"

namespace {

using kelvo::vision::BadPixel;

constexpr int kWidth = 640;
constexpr int kHeight = 512;
constexpr int kBadPixels = 1000;
constexpr short kLowLimit = 0;
constexpr short kHighLimit = 16383;
constexpr unsigned short kMaxNeighbourCount = 3;
constexpr unsigned short kBinSpan = 4;
constexpr unsigned int kReplacementRadius = 3;

// A 14-bit raw frame: noisy gradients over counts 2000 to 5999, with half of the bad
// pixels stuck at the ends of the range and half at isolated values far above the scene.
cv::Mat_<short> rawFrameWithBadPixels() {
    cv::Mat_<short> frame(kHeight, kWidth);
    cv::RNG random(2024);
    for (int y = 0; y < kHeight; ++y) {
        for (int x = 0; x < kWidth; ++x) {
            // Folded into the range, so that no scene value is rare enough to look isolated.
            frame(y, x) = static_cast<short>(2000 + (5 * x + 2 * y + random.uniform(0, 50)) % 4000);
        }
    }
    std::set<int> positions;
    while (static_cast<int>(positions.size()) < kBadPixels) {
        positions.insert(random.uniform(0, kWidth * kHeight));
    }
    int k = 0;
    for (int position : positions) {
        short& value = frame(position / kWidth, position % kWidth);
        if (k < kBadPixels / 2) {
            value = k % 2 == 0 ? kLowLimit : kHighLimit;
        } else {
            value = static_cast<short>(9000 + 8 * (k - kBadPixels / 2));
        }
        ++k;
    }
    return frame;
}

// Histogram, search, replacement choice and repair of a whole frame.
void BM_BadPixelFindReplaceRepair(benchmark::State& state) {
    const cv::Mat_<short> original = rawFrameWithBadPixels();
    cv::Mat_<short> frame(original.size());
    cv::Mat_<int> histogram;
    cv::Mat_<unsigned short> table;
    for (auto _ : state) {
        state.PauseTiming();
        original.copyTo(frame);
        table.create(2 * kBadPixels, BadPixel::kTableColumns);
        state.ResumeTiming();
        BadPixel::buildValueHistogram(frame, histogram, kLowLimit, kHighLimit);
        const bool complete = BadPixel::performNeighbourSearch(
            frame, histogram, table, kLowLimit, kHighLimit, kMaxNeighbourCount, kBinSpan);
        const bool replaced =
            BadPixel::calculateReplacePixels(table, frame.size(), kReplacementRadius);
        const bool repaired = BadPixel::removeBadPixel(frame, table);
        if (!complete || !replaced || !repaired || table.rows != kBadPixels) {
            state.SkipWithError("the bad pixels were not all found and repaired");
            break;
        }
        benchmark::DoNotOptimize(frame.data);
    }
    state.counters["badPixels"] = kBadPixels;
}
BENCHMARK(BM_BadPixelFindReplaceRepair)->Unit(benchmark::kMillisecond);

}  // namespace
