// SPDX-License-Identifier: Apache-2.0
// Quality on real thermal scenes: the eight high-resolution stills, moved by known
// sub-pixel shifts, blurred, decimated by two and made noisy by the burst simulator.
// For each kind of blur the table gives the PSNR of bicubic upscaling, of the engine
// with its default PSF sigma, with the sigma estimated from the burst, and with the
// best sigma of a sweep (which needs the truth); the time is that of the estimate.
#include <benchmark/benchmark.h>

#include <chrono>
#include <filesystem>
#include <iomanip>
#include <iostream>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "tools/kelvo-sr/QuietStandardOutput.h"
#include "tools/simulator/BurstSimulator.h"
#include "tools/simulator/ImageQuality.h"
#include "tools/simulator/RealFrames.h"
#include "vision/superresolution/PsfSigmaEstimator.h"
#include "vision/superresolution/SrFloat.h"
#include "vision/superresolution/SrFloatRegistration2.h"
#include "vision/superresolution/UsableFrameSelector.h"

namespace {

namespace fs = std::filesystem;
using kelvo::tools::Burst;
using kelvo::tools::BurstOptions;
using kelvo::tools::ImageQuality;
using kelvo::vision::PsfSigmaEstimator;
using Engine = kelvo::vision::SrFloat<kelvo::vision::SrFloatRegistration2>;

const fs::path kStills = fs::path(KELVO_SHARED_DATA_DIR) / "hit-uav/hr_stills";
const std::vector<float> kSweep = {0.1f, 0.2f, 0.3f, 0.4f, 0.5f, 0.683f, 0.8f, 0.9f, 1.0f,
                                   1.1f, 1.2f, 1.3f, 1.4f, 1.5f, 1.7f,   2.0f, 2.4f, 3.0f};

// The blurs of the table: 2 x 2 integration (no optical blur, the sensor pixel alone),
// and optics of three widths whose Gaussian (high-resolution pixels) is cut only six taps
// either side of the centre, wider than the reconstruction's kernel reaches.
struct Blur {
    const char* name;
    float sigma;
    int halfTaps;
};
const std::vector<Blur> kBlurs = {
    {"2x2", 0.05f, 2}, {"optics 1.1", 1.1f, 6}, {"optics 1.4", 1.4f, 6}, {"optics 1.7", 1.7f, 6}};

BurstOptions blurOptions(const Blur& blur, std::uint64_t seed) {
    BurstOptions options;
    options.referenceFrame = 1;  // the C interface's reference index 3
    options.noiseSigma = 0.5f;   // grey levels of the 8-bit stills
    options.seed = seed;
    options.psfSigma = blur.sigma;
    options.psfHalfTaps = blur.halfTaps;
    return options;
}

// A 320 x 256 truth from the middle of the still.
Burst stillBurst(const fs::path& still, const BurstOptions& options) {
    return kelvo::tools::simulateFromImage(still, options, cv::Rect(160, 128, 320, 256));
}

double superResolvedPsnr(Engine& engine, float sigma, const Burst& burst) {
    engine.setPsfSigma(sigma);
    cv::Mat_<float> result;
    engine.computeSR(result);
    return ImageQuality::psnr(result, burst.truth);
}

// The stills in the order of their names; none when the data are missing.
std::vector<fs::path> sortedStills() {
    std::vector<fs::path> stills;
    if (fs::is_directory(kStills)) {
        for (const auto& entry : fs::directory_iterator(kStills)) {
            stills.push_back(entry.path());
        }
    }
    std::sort(stills.begin(), stills.end());
    return stills;
}

void BM_RealSceneQuality(benchmark::State& state) {
    const Blur& blur = kBlurs[static_cast<std::size_t>(state.range(0))];
    const std::vector<fs::path> stills = sortedStills();
    if (stills.empty()) {
        state.SkipWithError("real stills not found");
        return;
    }
    kelvo::tools::QuietStandardOutput silenced;
    std::vector<Burst> bursts;
    for (std::size_t i = 0; i < stills.size(); ++i) {
        bursts.push_back(stillBurst(stills[i], blurOptions(blur, 7 + i)));
    }
    // A burst the estimator declines keeps the default, as the tool does.
    std::vector<float> estimates(bursts.size());
    int declined = 0;
    for (auto _ : state) {
        declined = 0;
        for (std::size_t i = 0; i < bursts.size(); ++i) {
            try {
                estimates[i] = PsfSigmaEstimator().estimate(bursts[i].frames, 1);
            } catch (const std::runtime_error&) {
                estimates[i] = 0.683f;
                ++declined;
            }
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
        table << blur.name << " " << stills[i].stem().string() << "  bicubic " << b << "  default "
              << d << "  estimated " << e << " (sigma " << estimates[i] << ")  best " << sweepBest
              << " (sigma " << sweepSigma << ")\n";
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
    state.counters["declined"] = declined;
}
BENCHMARK(BM_RealSceneQuality)
    ->ArgName("blur")
    ->Arg(0)
    ->Arg(1)
    ->Arg(2)
    ->Arg(3)
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);

// How close the estimate comes to a known sigma on bursts blurred exactly as the
// reconstruction models it (cut at two taps either side), one burst per still and sigma:
// the table gives the estimates, the counters how many lie within 20 % of the truth.
void BM_PsfSigmaRecovery(benchmark::State& state) {
    const std::vector<fs::path> stills = sortedStills();
    if (stills.empty()) {
        state.SkipWithError("real stills not found");
        return;
    }
    kelvo::tools::QuietStandardOutput silenced;
    int within = 0, total = 0, declined = 0;
    std::ostringstream table;
    table << std::setprecision(3);
    for (auto _ : state) {
        within = total = declined = 0;
        table.str("");
        for (float sigma : {0.5f, 0.8f, 1.1f, 1.4f, 1.7f, 2.0f}) {
            table << "sigma " << sigma << ":";
            for (std::size_t i = 0; i < stills.size(); ++i) {
                BurstOptions options = blurOptions({"", sigma, 2}, 11 + i);
                const Burst burst = kelvo::tools::simulateFromImage(stills[i], options,
                                                                    cv::Rect(200, 160, 256, 192));
                ++total;
                try {
                    const float estimate = PsfSigmaEstimator().estimate(burst.frames, 1);
                    table << " " << estimate;
                    within += std::abs(estimate - sigma) <= 0.2f * sigma;
                } catch (const std::runtime_error&) {
                    table << " declined";
                    ++declined;
                }
            }
            table << "\n";
        }
    }
    std::cerr << table.str();
    state.counters["within_20pct"] = within;
    state.counters["bursts"] = total;
    state.counters["declined"] = declined;
}
BENCHMARK(BM_PsfSigmaRecovery)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace

// Burst E of the real flight, whose frame 00529 shows another place. Without the
// selection the engine's window is the last five frames, with 00529 as its reference;
// with it, the usable frames nearest the most consistent one. The counters give the
// pass's status and how far the result, taken back to the sensor grid, departs from its
// reference frame (grey levels, mean absolute); the time is that of the selection.
namespace {

const fs::path kBurstE = fs::path(KELVO_SHARED_DATA_DIR) / "hit-uav/bursts/E_1_60_60_00524-00532";

void BM_BurstEUsableFrames(benchmark::State& state) {
    const bool select = state.range(0) != 0;
    const std::vector<cv::Mat_<float>> frames = fs::is_directory(kBurstE)
                                                    ? kelvo::tools::readGreyFrames(kBurstE)
                                                    : std::vector<cv::Mat_<float>>();
    if (frames.size() != 9) {
        state.SkipWithError("burst E not found");
        return;
    }
    std::vector<int> window = {4, 5, 6, 7, 8};
    if (!select) {
        // What the sensor blur estimate costs on real 640 x 512 frames (these compressed
        // frames agree on too little fine detail: it declines, after the same work).
        kelvo::tools::QuietStandardOutput silenced;
        const std::vector<cv::Mat_<float>> first(frames.begin(), frames.begin() + 5);
        const auto start = std::chrono::steady_clock::now();
        try {
            state.counters["sigma_est"] = PsfSigmaEstimator().estimate(first, 1);
        } catch (const std::runtime_error&) {
            state.counters["sigma_est"] = 0.0;
        }
        state.counters["estimate_ms"] =
            std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
                .count();
    }
    int reference = 5;  // window position 1: the C interface's reference index 3
    for (auto _ : state) {
        if (select) {
            const auto selection = kelvo::vision::UsableFrameSelector().select(frames);
            reference = selection.reference;
            window = selection.usable;
        }
    }
    // The five usable frames nearest the reference.
    std::stable_sort(window.begin(), window.end(), [&](int a, int b) {
        return std::abs(a - reference) < std::abs(b - reference);
    });
    window.resize(std::min<std::size_t>(window.size(), 5));
    std::sort(window.begin(), window.end());
    const int position =
        static_cast<int>(std::find(window.begin(), window.end(), reference) - window.begin());

    kelvo::tools::QuietStandardOutput silenced;
    Engine engine(frames[0].cols, frames[0].rows, static_cast<int>(window.size()), 2.0f);
    engine.setReferenceIndex(static_cast<int>(window.size()) - 1 - position);
    engine.setRegError(0.0001f);
    for (int k : window) {
        engine.addFrame(frames[k]);
    }
    cv::Mat_<float> result, back;
    const float status = engine.computeSR(result);
    cv::resize(result, back, frames[reference].size(), 0, 0, cv::INTER_AREA);
    const cv::Rect inside(16, 16, back.cols - 32, back.rows - 32);
    state.counters["status"] = status < 0.0f ? status : 0.0;
    state.counters["reference"] = reference;
    state.counters["departure"] = cv::mean(cv::abs(back(inside) - frames[reference](inside)))[0];
}
BENCHMARK(BM_BurstEUsableFrames)
    ->ArgName("usable")
    ->Arg(0)
    ->Arg(1)
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);

}  // namespace
