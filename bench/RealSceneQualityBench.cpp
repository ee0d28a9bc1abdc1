// SPDX-License-Identifier: Apache-2.0
// Quality on real thermal scenes: the eight high-resolution stills, moved by known
// sub-pixel shifts, blurred, decimated by two and made noisy by the burst simulator.
// For each kind of blur the table gives the PSNR of bicubic upscaling, of the engine
// with its default PSF sigma, with the sigma estimated from the burst, and with the
// best sigma of a sweep (which needs the truth); the time is that of the estimate.
#include <benchmark/benchmark.h>

#include <filesystem>
#include <iomanip>
#include <iostream>
#include <opencv2/imgcodecs.hpp>

#include "tools/kelvo-sr/QuietStandardOutput.h"
#include "tools/simulator/BurstSimulator.h"
#include "tools/simulator/ImageQuality.h"
#include "vision/superresolution/PsfSigmaEstimator.h"
#include "vision/superresolution/SrFloat.h"
#include "vision/superresolution/SrFloatRegistration2.h"

namespace {

namespace fs = std::filesystem;
using kelvo::tools::Burst;
using kelvo::tools::BurstOptions;
using kelvo::tools::BurstSimulator;
using kelvo::tools::ImageQuality;
using kelvo::vision::PsfSigmaEstimator;
using Engine = kelvo::vision::SrFloat<kelvo::vision::SrFloatRegistration2>;

const fs::path kStills = fs::path(KELVO_SHARED_DATA_DIR) / "hit-uav/hr_stills";
const std::vector<float> kSweep = {0.1f, 0.3f, 0.5f, 0.683f, 0.9f, 1.1f,
                                   1.3f, 1.5f, 1.8f, 2.2f,   3.0f};

// 2 x 2 integration: no optical blur, the sensor pixel alone. Optics: a Gaussian of
// sigma 1.4 high-resolution pixels, cut at four taps on either side of the centre.
BurstOptions blurOptions(int kind, std::uint64_t seed) {
    BurstOptions options;
    options.referenceFrame = 1;  // the C interface's reference index 3
    options.noiseSigma = 0.5f;   // grey levels of the 8-bit stills
    options.seed = seed;
    options.psfSigma = kind == 0 ? 0.05f : 1.4f;
    options.psfHalfTaps = kind == 0 ? 2 : 4;
    return options;
}

Burst stillBurst(const fs::path& still, const BurstOptions& options) {
    const BurstSimulator simulator(options);
    cv::Mat_<float> scene;
    cv::imread(still.string(), cv::IMREAD_GRAYSCALE).convertTo(scene, CV_32F);
    const cv::Size truth(320, 256);
    const int margin = simulator.sceneMargin();
    const cv::Rect area((scene.cols - truth.width) / 2 - margin,
                        (scene.rows - truth.height) / 2 - margin, truth.width + 2 * margin,
                        truth.height + 2 * margin);
    return simulator.simulate(scene(area).clone());
}

double superResolvedPsnr(Engine& engine, float sigma, const Burst& burst) {
    engine.setPsfSigma(sigma);
    cv::Mat_<float> result;
    engine.computeSR(result);
    return ImageQuality::psnr(result, burst.truth);
}

void BM_RealSceneQuality(benchmark::State& state) {
    const int kind = static_cast<int>(state.range(0));
    std::vector<fs::path> stills;
    if (fs::is_directory(kStills)) {
        for (const auto& entry : fs::directory_iterator(kStills)) {
            stills.push_back(entry.path());
        }
    }
    if (stills.empty()) {
        state.SkipWithError("real stills not found");
        return;
    }
    std::sort(stills.begin(), stills.end());
    kelvo::tools::QuietStandardOutput silenced;
    std::vector<Burst> bursts;
    for (std::size_t i = 0; i < stills.size(); ++i) {
        bursts.push_back(stillBurst(stills[i], blurOptions(kind, 7 + i)));
    }
    std::vector<float> estimates(bursts.size());
    for (auto _ : state) {
        for (std::size_t i = 0; i < bursts.size(); ++i) {
            estimates[i] = PsfSigmaEstimator().estimate(bursts[i].frames, 1);
        }
    }
    double bicubic = 0.0, standard = 0.0, estimated = 0.0, best = 0.0, sigmas = 0.0;
    std::ostringstream table;
    table << std::fixed << std::setprecision(2);
    for (std::size_t i = 0; i < bursts.size(); ++i) {
        const Burst& burst = bursts[i];
        Engine engine(burst.frames[0].cols, burst.frames[0].rows, 5, 2.0f);
        engine.setReferenceIndex(3);
        engine.setRegError(0.0001f);
        for (const auto& frame : burst.frames) {
            engine.addFrame(frame);
        }
        const double b =
            ImageQuality::psnr(ImageQuality::upscaleBicubic(burst.frames[1]), burst.truth);
        const double d = superResolvedPsnr(engine, 0.683f, burst);
        const double e = superResolvedPsnr(engine, estimates[i], burst);
        double sweepBest = -1.0;
        float sweepSigma = 0.0f;
        for (float sigma : kSweep) {
            const double p = superResolvedPsnr(engine, sigma, burst);
            if (p > sweepBest) {
                sweepBest = p;
                sweepSigma = sigma;
            }
        }
        table << (kind == 0 ? "2x2 " : "1.4 ") << stills[i].stem().string() << "  bicubic " << b
              << "  default " << d << "  estimated " << e << " (sigma " << estimates[i]
              << ")  best " << sweepBest << " (sigma " << sweepSigma << ")\n";
        bicubic += b;
        standard += d;
        estimated += e;
        best += sweepBest;
        sigmas += estimates[i];
    }
    std::cerr << table.str();
    const double n = static_cast<double>(bursts.size());
    state.counters["bicubic_dB"] = bicubic / n;
    state.counters["default_dB"] = standard / n;
    state.counters["estimated_dB"] = estimated / n;
    state.counters["best_dB"] = best / n;
    state.counters["sigma_est"] = sigmas / n;
}
BENCHMARK(BM_RealSceneQuality)
    ->ArgName("optics")
    ->Arg(0)
    ->Arg(1)
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);

}  // namespace
