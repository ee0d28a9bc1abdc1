// SPDX-License-Identifier: Apache-2.0
// The reconstruction's speed: the two sparse operators of one frame and one whole
// minimisation (5 frames, 8 iterations), optimised and in the plain loops, at the
// input sizes of the cameras.

#include <benchmark/benchmark.h>

#include <cmath>
#include <random>
#include <vector>

#include "tests/vision/superresolution/PlainReconstruction.h"
#include "vision/superresolution/SrFloatConvolution.h"
#include "vision/superresolution/SrFloatMinimization.h"

namespace {

using kelvo::vision::SrFloatConvolution;
using kelvo::vision::SrFloatMinimization;
namespace plain = kelvo::vision::plain;

constexpr int kFrames = 5;
constexpr int kReference = 3;
constexpr float kFactor = 2.0f;

// A smooth scene with some texture and noise, seen through the forward operator of
// five frames with sub-pixel shifts, as registration would deliver them.
struct Scene {
    int w;
    int h;
    std::vector<std::vector<float>> frames;
    std::vector<std::vector<char>> masks;
    std::vector<cv::Point_<float>> shifts;
    std::vector<float> full;
    std::vector<std::vector<float>> psfX;
    std::vector<std::vector<float>> psfY;

    Scene(int w, int h) : w(w), h(h), frames(kFrames), masks(kFrames), shifts(kFrames) {
        plain::Minimization model(w, h, kFactor);
        const int fullWidth = model.fullImageWidth();
        const int fullHeight = model.fullImageHeight();
        std::mt19937 random(17);
        std::normal_distribution<float> noise(0.0f, 4.0f);
        full.resize(fullWidth * fullHeight);
        for (int r = 0; r < fullHeight; ++r) {
            for (int c = 0; c < fullWidth; ++c) {
                full[r * fullWidth + c] = 7000.0f + 300.0f * std::sin(0.05f * c + 0.3f * r) +
                                          150.0f * std::cos(0.31f * c) * std::sin(0.23f * r) +
                                          noise(random);
            }
        }
        const float offsets[kFrames][2] = {
            {0.31f, -0.22f}, {-0.45f, 0.12f}, {0.05f, 0.41f}, {0.0f, 0.0f}, {-0.18f, -0.37f}};
        const plain::SparseGeometry geometry{static_cast<int>(w * kFactor),
                                             static_cast<int>(h * kFactor), 6, 6, kFactor};
        for (int k = 0; k < kFrames; ++k) {
            shifts[k] = {offsets[k][0], offsets[k][1]};
            frames[k].resize(w * h);
            masks[k].assign(w * h, 1);
            psfX.push_back(model.shiftedPsf(kFactor * offsets[k][0]));
            psfY.push_back(model.shiftedPsf(kFactor * offsets[k][1]));
            plain::validCorrToSparse(geometry, full.data(), psfX[k].data(), psfY[k].data(),
                                     frames[k].data());
            for (float& v : frames[k]) {
                v += noise(random);
            }
        }
        for (int k = 0; k < kFrames; k += 2) {
            for (int c = 0; c < w; ++c) {
                masks[k][c] = 0;
            }
        }
    }

    // The tables the five-frame sweeps take.
    template <typename T>
    static std::vector<const T*> table(const std::vector<std::vector<T>>& buffers) {
        std::vector<const T*> pointers;
        for (const std::vector<T>& buffer : buffers) {
            pointers.push_back(buffer.data());
        }
        return pointers;
    }

    plain::SparseGeometry geometry() const {
        return {static_cast<int>(w * kFactor), static_cast<int>(h * kFactor), 6, 6, kFactor};
    }
};

void sizes(benchmark::internal::Benchmark* bench) {
    bench->Args({160, 120})->Args({320, 240})->Args({640, 480})->Args({640, 512});
    bench->Unit(benchmark::kMillisecond);
}

void BM_ValidCorrToSparse(benchmark::State& state) {
    Scene scene(state.range(0), state.range(1));
    const plain::SparseGeometry g = scene.geometry();
    SrFloatConvolution convolution(g.hrWidth, g.hrHeight, 6, 6, kFactor);
    std::vector<float> out(scene.w * scene.h);
    for (auto _ : state) {
        convolution.validCorrToSparse(scene.full.data(), scene.psfX[0].data(), scene.psfY[0].data(),
                                      out.data());
        benchmark::DoNotOptimize(out.data());
    }
}
BENCHMARK(BM_ValidCorrToSparse)->Apply(sizes);

void BM_ValidCorrToSparsePlain(benchmark::State& state) {
    Scene scene(state.range(0), state.range(1));
    std::vector<float> out(scene.w * scene.h);
    for (auto _ : state) {
        plain::validCorrToSparse(scene.geometry(), scene.full.data(), scene.psfX[0].data(),
                                 scene.psfY[0].data(), out.data());
        benchmark::DoNotOptimize(out.data());
    }
}
BENCHMARK(BM_ValidCorrToSparsePlain)->Apply(sizes);

void BM_FullConvFromSparse(benchmark::State& state) {
    Scene scene(state.range(0), state.range(1));
    const plain::SparseGeometry g = scene.geometry();
    SrFloatConvolution convolution(g.hrWidth, g.hrHeight, 6, 6, kFactor);
    std::vector<float> out(scene.full.size());
    for (auto _ : state) {
        convolution.fullConvFromSparse(scene.frames[0].data(), scene.psfX[0].data(),
                                       scene.psfY[0].data(), scene.masks[0].data(), out.data());
        benchmark::DoNotOptimize(out.data());
    }
}
BENCHMARK(BM_FullConvFromSparse)->Apply(sizes);

void BM_FullConvFromSparsePlain(benchmark::State& state) {
    Scene scene(state.range(0), state.range(1));
    std::vector<float> out(scene.full.size());
    for (auto _ : state) {
        plain::fullConvFromSparse(scene.geometry(), scene.frames[0].data(), scene.psfX[0].data(),
                                  scene.psfY[0].data(), scene.masks[0].data(), out.data());
        benchmark::DoNotOptimize(out.data());
    }
}
BENCHMARK(BM_FullConvFromSparsePlain)->Apply(sizes);

// Both operators for the five frames in one sweep each, as the solver applies them:
// the samples masked as they are produced.
void BM_FiveFrameSweeps(benchmark::State& state) {
    Scene scene(state.range(0), state.range(1));
    const plain::SparseGeometry g = scene.geometry();
    SrFloatConvolution convolution(g.hrWidth, g.hrHeight, 6, 6, kFactor);
    std::vector<std::vector<float>> lowRes = scene.frames;
    std::vector<float*> lowResOut;
    for (std::vector<float>& frame : lowRes) {
        lowResOut.push_back(frame.data());
    }
    const std::vector<const float*> lowResIn = Scene::table(lowRes);
    const std::vector<const float*> psfX = Scene::table(scene.psfX);
    const std::vector<const float*> psfY = Scene::table(scene.psfY);
    const std::vector<const char*> masks = Scene::table(scene.masks);
    std::vector<float> out(scene.full.size(), 0.0f);
    for (auto _ : state) {
        convolution.validCorrToSparse(kFrames, scene.full.data(), psfX.data(), psfY.data(),
                                      lowResOut.data(), 0, scene.h, masks.data());
        convolution.accumulateFullConvFromSparse(kFrames, lowResIn.data(), psfX.data(), psfY.data(),
                                                 nullptr, out.data(), 0,
                                                 convolution.getFullHeight());
        benchmark::DoNotOptimize(out.data());
    }
}
BENCHMARK(BM_FiveFrameSweeps)->Apply(sizes);

void BM_FiveFrameSweepsPlain(benchmark::State& state) {
    Scene scene(state.range(0), state.range(1));
    std::vector<float> lowRes(scene.w * scene.h);
    std::vector<float> conv(scene.full.size());
    std::vector<float> out(scene.full.size(), 0.0f);
    for (auto _ : state) {
        for (int k = 0; k < kFrames; ++k) {
            plain::validCorrToSparse(scene.geometry(), scene.full.data(), scene.psfX[k].data(),
                                     scene.psfY[k].data(), lowRes.data());
            plain::fullConvFromSparse(scene.geometry(), lowRes.data(), scene.psfX[k].data(),
                                      scene.psfY[k].data(), scene.masks[k].data(), conv.data());
            for (size_t i = 0; i < out.size(); ++i) {
                out[i] += conv[i];
            }
        }
        benchmark::DoNotOptimize(out.data());
    }
}
BENCHMARK(BM_FiveFrameSweepsPlain)->Apply(sizes);

// One whole reconstruction; the frames are restored before each run because
// minimize normalises them in place.
template <typename Run>
void minimizeBench(benchmark::State& state, Run run) {
    Scene scene(state.range(0), state.range(1));
    std::vector<std::vector<float>> frames = scene.frames;
    std::vector<float*> framePointers;
    std::vector<char*> maskPointers;
    for (int k = 0; k < kFrames; ++k) {
        framePointers.push_back(frames[k].data());
        maskPointers.push_back(scene.masks[k].data());
    }
    std::vector<float> result(scene.w * scene.h * 4);
    int iterations = 0;
    for (auto _ : state) {
        state.PauseTiming();
        frames = scene.frames;
        state.ResumeTiming();
        iterations = run(scene, framePointers.data(), maskPointers.data(), result.data());
        benchmark::DoNotOptimize(result.data());
    }
    state.counters["iterations"] = iterations;
}

void BM_Minimize(benchmark::State& state) {
    SrFloatMinimization minimization(state.range(0), state.range(1), kFrames, kFactor);
    minimizeBench(state, [&](Scene& scene, float** frames, char** masks, float* result) {
        return minimization.minimize(kFrames, kReference, frames, scene.shifts.data(), masks,
                                     result);
    });
}
BENCHMARK(BM_Minimize)->Apply(sizes);

// The worst case: a residual test never met, so that all 8 iterations run.
void BM_MinimizeWholeBudget(benchmark::State& state) {
    SrFloatMinimization minimization(state.range(0), state.range(1), kFrames, kFactor);
    minimization.setRelRes(1e-9f);
    minimizeBench(state, [&](Scene& scene, float** frames, char** masks, float* result) {
        return minimization.minimize(kFrames, kReference, frames, scene.shifts.data(), masks,
                                     result);
    });
}
BENCHMARK(BM_MinimizeWholeBudget)->Apply(sizes);

void BM_MinimizePlain(benchmark::State& state) {
    plain::Minimization minimization(state.range(0), state.range(1), kFactor);
    minimizeBench(state, [&](Scene& scene, float** frames, char** masks, float* result) {
        return minimization.minimize(kFrames, kReference, frames, scene.shifts.data(), masks, 8,
                                     0.007f, result);
    });
}
BENCHMARK(BM_MinimizePlain)->Apply(sizes);

}  // namespace
