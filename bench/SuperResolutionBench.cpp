// SPDX-License-Identifier: Apache-2.0
// Whole-pass and registration timings, and the quality gain over bicubic upscaling,
// at the input sizes of common thermal sensors and one larger, with one and two
// engine threads (the third argument).
#include <benchmark/benchmark.h>

#include <type_traits>
#include <utility>
#include <vector>

#include "tools/kelvo-sr/QuietStandardOutput.h"
#include "tools/simulator/BurstSimulator.h"
#include "tools/simulator/ImageQuality.h"
#include "vision/superresolution/SrFloat.h"
#include "vision/superresolution/SrFloatNeon.h"
#include "vision/superresolution/SrFloatNeonRegistration.h"
#include "vision/superresolution/SrFloatRegistration1.h"
#include "vision/superresolution/SrFloatRegistration2.h"

namespace {

using kelvo::tools::Burst;
using kelvo::tools::BurstOptions;
using kelvo::tools::BurstSimulator;
using kelvo::tools::ImageQuality;
using Engine = kelvo::vision::SrFloat<kelvo::vision::SrFloatRegistration2>;

Burst burstFor(int width, int height, std::uint64_t seed = 11) {
    BurstOptions options;
    options.referenceFrame = 1;
    options.seed = seed;
    return BurstSimulator(options).simulate(cv::Size(2 * width, 2 * height));
}

// Configured as the C interface configures it.
template <class EngineType>
void configure(EngineType& engine) {
    engine.setReferenceIndex(3);
    engine.setWeightTV(400.0f);
    engine.setRegError(0.0001f);
    engine.setRelativeResidue(0.007f);
}

// Configured, with `threads` threads, and holding the frames of the burst.
template <class EngineType>
void prime(EngineType& engine, const Burst& burst, int threads) {
    configure(engine);
    // The four-lane engine has one thread only.
    if constexpr (!std::is_same_v<EngineType, kelvo::vision::SrFloatNeon<
                                                  kelvo::vision::SrFloatNeonRegistration>>) {
        engine.setThreads(threads);
    }
    for (const auto& frame : burst.frames) {
        engine.addFrame(frame);
    }
}

// A primed engine on the simulated burst of the benchmark's size (arguments: width, height,
// threads), and the image its passes write.
template <class EngineType>
struct PrimedPass {
    explicit PrimedPass(const benchmark::State& state)
        : width(static_cast<int>(state.range(0))),
          height(static_cast<int>(state.range(1))),
          burst(burstFor(width, height)),
          engine(width, height, 5, 2.0f) {
        prime(engine, burst, static_cast<int>(state.range(2)));
    }

    int width;
    int height;
    Burst burst;
    EngineType engine;
    cv::Mat_<float> result;
    // The engine prints its timing lines on every pass; keep them out of the table.
    kelvo::tools::QuietStandardOutput silenced;
};

template <class EngineType>
void BM_ComputeSR(benchmark::State& state) {
    PrimedPass<EngineType> pass(state);
    for (auto _ : state) {
        benchmark::DoNotOptimize(pass.engine.computeSR(pass.result));
    }
    const Burst& burst = pass.burst;
    const double bicubic =
        ImageQuality::psnr(ImageQuality::upscaleBicubic(burst.frames[1]), burst.truth);
    const double superResolved = ImageQuality::psnr(pass.result, burst.truth);
    state.counters["psnr_bicubic_dB"] = bicubic;
    state.counters["psnr_sr_dB"] = superResolved;
    state.counters["gain_dB"] = superResolved - bicubic;
    // Time per input megapixel: flat when the cost grows with the pixel count and the
    // bursts take as many conjugate-gradient iterations.
    const double megapixels = static_cast<double>(pass.width) * pass.height / 1e6;
    state.counters["per_MPixel"] = benchmark::Counter(
        megapixels, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
    state.counters["cg_iterations"] = pass.engine.getLastIterations();
}

// The cheapest upscaling of the same reference frame, the yardstick of the pass's time.
void BM_BicubicUpscale(benchmark::State& state) {
    const Burst burst =
        burstFor(static_cast<int>(state.range(0)), static_cast<int>(state.range(1)));
    for (auto _ : state) {
        benchmark::DoNotOptimize(ImageQuality::upscaleBicubic(burst.frames[1]));
    }
}

void BM_AddFrame(benchmark::State& state) {
    const int width = static_cast<int>(state.range(0));
    const int height = static_cast<int>(state.range(1));
    const Burst burst = burstFor(width, height);
    Engine engine(width, height, 5, 2.0f);
    configure(engine);
    std::size_t next = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(engine.addFrame(burst.frames[next]));
        next = (next + 1) % burst.frames.size();
    }
}

// One result per arriving frame, as a camera runs the engine: each iteration adds the
// next frame of the burst (in turn, so that the reference changes from pass to pass)
// and computes the whole pass.
void BM_VideoFrame(benchmark::State& state) {
    PrimedPass<Engine> pass(state);
    const std::vector<cv::Mat_<float>>& frames = pass.burst.frames;
    std::size_t next = 0;
    double iterations = 0.0;
    for (auto _ : state) {
        pass.engine.addFrame(frames[next]);
        benchmark::DoNotOptimize(pass.engine.computeSR(pass.result));
        iterations += pass.engine.getLastIterations();
        next = (next + 1) % frames.size();
    }
    // The mean over the windows: each reference converges at its own pace.
    state.counters["cg_iterations"] =
        benchmark::Counter(iterations, benchmark::Counter::kAvgIterations);
}

void BM_Registration(benchmark::State& state) {
    const int width = static_cast<int>(state.range(0));
    const int height = static_cast<int>(state.range(1));
    const Burst burst = burstFor(width, height);
    kelvo::vision::SrFloatRegistration2 registration(width, height, 5);
    std::vector<const float*> frames;
    for (const auto& frame : burst.frames) {
        registration.prepareFrame(frame.ptr<float>());
        frames.push_back(frame.ptr<float>());
    }
    std::vector<cv::Point_<float>> shifts(5);
    std::vector<std::vector<char>> masks(5, std::vector<char>(width * height));
    std::vector<std::vector<float>> shifted(5, std::vector<float>(width * height));
    std::vector<char*> maskPointers;
    std::vector<float*> shiftedPointers;
    for (int i = 0; i < 5; ++i) {
        maskPointers.push_back(masks[i].data());
        shiftedPointers.push_back(shifted[i].data());
    }
    for (auto _ : state) {
        benchmark::DoNotOptimize(registration.doRegistration(
            5, 1, frames.data(), shifts.data(), maskPointers.data(), shiftedPointers.data()));
    }
}

void sensorSizes(benchmark::internal::Benchmark* benchmark) {
    benchmark->Args({160, 120})->Args({320, 240})->Args({640, 480})->Args({640, 512});
    benchmark->Unit(benchmark::kMillisecond);
}

// Input sizes from 160x120 to 1280x1024 with one engine thread, and with two.
void sizesAndThreads(benchmark::internal::Benchmark* benchmark) {
    for (int threads : {1, 2}) {
        for (const auto& [width, height] :
             {std::pair{160, 120}, {320, 240}, {640, 480}, {640, 512}, {1280, 1024}}) {
            benchmark->Args({width, height, threads});
        }
    }
    // Wall-clock time: with two threads the caller's processor time says little.
    benchmark->Unit(benchmark::kMillisecond)->UseRealTime();
}

void sensorSizesOneThread(benchmark::internal::Benchmark* benchmark) {
    benchmark->Args({160, 120, 1})->Args({320, 240, 1})->Args({640, 480, 1})->Args({640, 512, 1});
    benchmark->Unit(benchmark::kMillisecond);
}

BENCHMARK_TEMPLATE(BM_ComputeSR, Engine)->Apply(sizesAndThreads);
BENCHMARK_TEMPLATE(BM_ComputeSR, kelvo::vision::SrFloat<kelvo::vision::SrFloatRegistration1>)
    ->Apply(sensorSizesOneThread);
// The four-lane engine: NEON on ARM, its SIMDe translation elsewhere.
BENCHMARK_TEMPLATE(BM_ComputeSR, kelvo::vision::SrFloatNeon<kelvo::vision::SrFloatNeonRegistration>)
    ->Apply(sensorSizesOneThread);
BENCHMARK(BM_Registration)->Apply(sensorSizes);
BENCHMARK(BM_BicubicUpscale)->Apply(sensorSizes);
BENCHMARK(BM_AddFrame)->Apply(sensorSizes);
BENCHMARK(BM_VideoFrame)
    ->Args({640, 512, 1})
    ->Args({640, 512, 2})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace
