#include <benchmark/benchmark.h>

#include <vector>

#include "tests/vision/superresolution/ShiftedTexture.h"
#include "vision/superresolution/SrFloatRegistration2.h"

namespace {

using kelvo::vision::SrFloatRegistration2;

constexpr int kWidth = 640;
constexpr int kHeight = 480;
constexpr int kFrames = 5;
constexpr int kReferenceIndex = 1;

// A burst of five 640 x 480 frames moved by sub-pixel and small whole-pixel amounts.
std::vector<cv::Mat_<float>> makeBurst() {
    constexpr int margin = 16;
    const cv::Mat_<float> scene = kelvo::vision::testing::makeDoubleSizeTexture(
        kWidth + 2 * margin, kHeight + 2 * margin, 42);
    const cv::Point2f shifts[kFrames] = {
        {0.3f, -0.2f}, {0.0f, 0.0f}, {-1.4f, 0.6f}, {2.2f, 1.7f}, {-0.6f, -3.1f}};
    std::vector<cv::Mat_<float>> frames;
    for (const cv::Point2f& shift : shifts) {
        frames.push_back(kelvo::vision::testing::cutShiftedFrame(scene, shift, margin));
    }
    return frames;
}

void BM_Registration2PrepareFrame(benchmark::State& state) {
    const std::vector<cv::Mat_<float>> frames = makeBurst();
    SrFloatRegistration2 registration(kWidth, kHeight, kFrames);
    int next = 0;
    for (auto _ : state) {
        registration.prepareFrame(frames[next].ptr<float>());
        next = (next + 1) % kFrames;
    }
}
BENCHMARK(BM_Registration2PrepareFrame)->Unit(benchmark::kMillisecond);

void BM_Registration2DoRegistration(benchmark::State& state) {
    const std::vector<cv::Mat_<float>> frames = makeBurst();
    SrFloatRegistration2 registration(kWidth, kHeight, kFrames);
    std::vector<const float*> framePointers;
    for (const cv::Mat_<float>& frame : frames) {
        registration.prepareFrame(frame.ptr<float>());
        framePointers.push_back(frame.ptr<float>());
    }
    std::vector<std::vector<char>> maskStore(kFrames, std::vector<char>(kWidth * kHeight));
    std::vector<std::vector<float>> shiftedStore(kFrames, std::vector<float>(kWidth * kHeight));
    std::vector<char*> masks;
    std::vector<float*> shifted;
    for (int k = 0; k < kFrames; ++k) {
        masks.push_back(maskStore[k].data());
        shifted.push_back(shiftedStore[k].data());
    }
    std::vector<cv::Point2f> shifts(kFrames);
    for (auto _ : state) {
        const int result =
            registration.doRegistration(kFrames, kReferenceIndex, framePointers.data(),
                                        shifts.data(), masks.data(), shifted.data());
        benchmark::DoNotOptimize(result);
    }
}
BENCHMARK(BM_Registration2DoRegistration)->Unit(benchmark::kMillisecond);

}  // namespace
