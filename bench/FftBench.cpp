// SPDX-License-Identifier: Apache-2.0
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <ctime>
#include <opencv2/core.hpp>
#include <vector>

#include "tools/simulator/BurstSimulator.h"
#include "vision/superresolution/SrFloatRegistration1.h"
#include "vision/superresolution/fft/SrFloatFft2d.h"

namespace {

constexpr int benchWidth = 640;
constexpr int benchHeight = 480;

cv::Mat_<float> randomFrame() {
    cv::Mat_<float> frame(benchHeight, benchWidth);
    cv::randu(frame, 0.0f, 1000.0f);
    return frame;
}

struct SrFloatFft2dPair {
    kelvo::vision::SrFloatFft2d fft{benchWidth, benchHeight};
    cv::Mat_<float> frame = randomFrame();
    std::vector<float> spectrum = std::vector<float>(2 * (benchWidth / 2 + 1) * benchHeight);
    cv::Mat_<float> back = cv::Mat_<float>(benchHeight, benchWidth);

    void run() {
        auto* pairs = reinterpret_cast<float(*)[2]>(spectrum.data());
        fft.forward(frame.ptr<float>(), pairs);
        fft.backward(pairs, back.ptr<float>());
    }
};

struct OpenCvDftPair {
    cv::Mat_<float> frame = randomFrame();
    cv::Mat spectrum;
    cv::Mat back;

    void run() {
        cv::dft(frame, spectrum);
        cv::dft(spectrum, back, cv::DFT_INVERSE | cv::DFT_REAL_OUTPUT);
    }
};

// CPU time of the calling thread: both transforms run on it alone, and other processes
// on a shared machine do not distort the comparison.
double threadSeconds() {
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

// Forward and backward 640 x 480 transforms, ours and OpenCV's in the same run; the
// counter "ratio" is our time over OpenCV's.
void BM_Fft2dForwardBackwardAgainstOpenCv(benchmark::State& state) {
    SrFloatFft2dPair ours;
    OpenCvDftPair openCv;
    ours.run();
    openCv.run();
    double oursSeconds = 0.0;
    double openCvSeconds = 0.0;
    for (auto _ : state) {
        const double start = threadSeconds();
        ours.run();
        const double middle = threadSeconds();
        openCv.run();
        const double end = threadSeconds();
        oursSeconds += middle - start;
        openCvSeconds += end - middle;
        benchmark::DoNotOptimize(ours.back.data);
        benchmark::DoNotOptimize(openCv.back.data);
    }
    const double iterations = static_cast<double>(state.iterations());
    state.counters["ours_ms"] = 1e3 * oursSeconds / iterations;
    state.counters["opencv_ms"] = 1e3 * openCvSeconds / iterations;
    state.counters["ratio"] = oursSeconds / openCvSeconds;
}
BENCHMARK(BM_Fft2dForwardBackwardAgainstOpenCv)->Unit(benchmark::kMillisecond);

void BM_SrFloatFft2dForwardBackward(benchmark::State& state) {
    SrFloatFft2dPair ours;
    for (auto _ : state) {
        ours.run();
        benchmark::DoNotOptimize(ours.back.data);
    }
}
BENCHMARK(BM_SrFloatFft2dForwardBackward)->Unit(benchmark::kMillisecond);

void BM_OpenCvDftForwardBackward(benchmark::State& state) {
    OpenCvDftPair openCv;
    for (auto _ : state) {
        openCv.run();
        benchmark::DoNotOptimize(openCv.back.data);
    }
}
BENCHMARK(BM_OpenCvDftForwardBackward)->Unit(benchmark::kMillisecond);

// The whole phase-correlation registration of a simulated five-frame 640 x 480 burst:
// the five forward transforms of the frames' arrival, then doRegistration. The
// counter is the largest error of a recovered shift component, in pixels.
void BM_PhaseCorrelationRegistration(benchmark::State& state) {
    constexpr int frameCount = 5;
    constexpr int referenceIndex = 1;
    kelvo::tools::BurstOptions options;
    options.referenceFrame = referenceIndex;
    options.seed = 11;
    const kelvo::tools::Burst burst =
        kelvo::tools::BurstSimulator(options).simulate(cv::Size(2 * benchWidth, 2 * benchHeight));
    kelvo::vision::SrFloatRegistration1 registration(benchWidth, benchHeight, frameCount);
    std::vector<const float*> frames;
    std::vector<std::vector<char>> masks(frameCount, std::vector<char>(benchWidth * benchHeight));
    std::vector<std::vector<float>> shifted(frameCount,
                                            std::vector<float>(benchWidth * benchHeight));
    std::vector<char*> maskPointers;
    std::vector<float*> shiftedPointers;
    for (int k = 0; k < frameCount; ++k) {
        frames.push_back(burst.frames[k].ptr<float>());
        maskPointers.push_back(masks[k].data());
        shiftedPointers.push_back(shifted[k].data());
    }
    std::vector<cv::Point_<float>> shifts(frameCount);
    for (auto _ : state) {
        for (const float* frame : frames) {
            registration.prepareFrame(frame);
        }
        benchmark::DoNotOptimize(
            registration.doRegistration(frameCount, referenceIndex, frames.data(), shifts.data(),
                                        maskPointers.data(), shiftedPointers.data()));
    }
    std::vector<cv::Point_<float>> complete;
    registration.getCompleteShifts(complete);
    double largestError = 0.0;
    for (int k = 0; k < frameCount; ++k) {
        largestError = std::max(
            {largestError, static_cast<double>(std::fabs(complete[k].x - burst.shifts[k].x)),
             static_cast<double>(std::fabs(complete[k].y - burst.shifts[k].y))});
    }
    state.counters["max_shift_error_px"] = largestError;
}
BENCHMARK(BM_PhaseCorrelationRegistration)->Unit(benchmark::kMillisecond);

}  // namespace
