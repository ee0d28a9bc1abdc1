// SPDX-License-Identifier: Apache-2.0
// The reference engine's pass at the sensor sizes of SuperResolutionBench.cpp, on the
// same simulated bursts (seed 11), so that its time and PSNR stand beside those of the
// float engine with phase-correlation registration (BM_ComputeSR<SrFloat<
// SrFloatRegistration1>>), which registers the same way with double sums.
#include <benchmark/benchmark.h>

#include "tools/kelvo-sr/QuietStandardOutput.h"
#include "tools/simulator/BurstSimulator.h"
#include "tools/simulator/ImageQuality.h"
#include "vision/superresolution/reference/SuperResolution.h"

namespace {

using kelvo::tools::ImageQuality;

void BM_ReferencePass(benchmark::State& state) {
    const int width = static_cast<int>(state.range(0));
    const int height = static_cast<int>(state.range(1));
    kelvo::tools::BurstOptions options;
    options.referenceFrame = 1;
    options.seed = 11;
    const kelvo::tools::Burst burst =
        kelvo::tools::BurstSimulator(options).simulate(cv::Size(2 * width, 2 * height));
    // The engine prints its blur taps and timing lines; keep them out of the table.
    kelvo::tools::QuietStandardOutput silenced;
    kelvo::vision::SuperResolution engine(width, height, 5, 2.0f);
    engine.setReferenceIndex(3);
    engine.setRegError(0.0001f);
    for (const auto& frame : burst.frames) {
        engine.addFrame(frame.ptr<float>());
    }
    cv::Mat_<float> result(2 * height, 2 * width);
    for (auto _ : state) {
        benchmark::DoNotOptimize(engine.computeSR(result.ptr<float>()));
    }
    const double bicubic =
        ImageQuality::psnr(ImageQuality::upscaleBicubic(burst.frames[1]), burst.truth);
    const double superResolved = ImageQuality::psnr(result, burst.truth);
    state.counters["psnr_bicubic_dB"] = bicubic;
    state.counters["psnr_sr_dB"] = superResolved;
    state.counters["gain_dB"] = superResolved - bicubic;
}

BENCHMARK(BM_ReferencePass)
    ->Args({160, 120})
    ->Args({320, 240})
    ->Args({640, 480})
    ->Args({640, 512})
    ->Unit(benchmark::kMillisecond);

}  // namespace
