// SPDX-License-Identifier: Apache-2.0
// The machine's memory bandwidth, against which bench/README.md sets the bytes each
// stage of a pass moves: a streaming copy and a streaming read of arrays far larger
// than the caches. Bytes per second count every byte read and written.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <vector>

namespace {

constexpr std::size_t kFloats = std::size_t{16} << 20;  // 64 MB per array

void BM_StreamCopy(benchmark::State& state) {
    std::vector<float> source(kFloats, 1.0f);
    std::vector<float> target(kFloats, 0.0f);
    for (auto _ : state) {
        std::copy(source.begin(), source.end(), target.begin());
        benchmark::DoNotOptimize(target.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * 2 * kFloats * sizeof(float));
}
BENCHMARK(BM_StreamCopy)->Unit(benchmark::kMillisecond);

void BM_StreamRead(benchmark::State& state) {
    std::vector<float> source(kFloats, 1.0f);
    constexpr int kLanes = 16;
    for (auto _ : state) {
        float sums[kLanes] = {};
        for (std::size_t i = 0; i < kFloats; i += kLanes) {
            for (int lane = 0; lane < kLanes; ++lane) {
                sums[lane] += source[i + lane];
            }
        }
        benchmark::DoNotOptimize(sums);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kFloats * sizeof(float));
}
BENCHMARK(BM_StreamRead)->Unit(benchmark::kMillisecond);

}  // namespace
