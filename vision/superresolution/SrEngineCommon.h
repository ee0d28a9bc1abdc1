// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <cmath>
#include <opencv2/core.hpp>
#include <stdexcept>
#include <vector>

#include "vision/superresolution/SuperResolutionBadPixelHandling.h"

namespace kelvo::vision {

// What the super-resolution engines share around their stages: the checks of their
// geometry and of the ranges of their parameters (a violation throws the message as a
// plain C string, and hosts know these texts), the check of the displacements and
// masks a registration produced, the quality factor estimate of a pass, and the copy
// of the masks handed to callers.

// The largest frame the engines take: beyond it the pixel indices of the stages would overflow.
constexpr long long kMaxFramePixels = 1LL << 26;

// Throws std::invalid_argument for frames smaller than 8 pixels a side, larger than
// kMaxFramePixels, or a magnification outside [1, 4]; returns the width.
int checkedGeometry(int width, int height, float factor);
// Throws "Invalid reference index specified." below 1; returns the window size.
int checkedWindowSize(int windowSize);

// The sizes every engine derives from its frame size, window and magnification, checked
// once as the engine is made: the output is the input times the factor, truncated, and a
// half spectrum has width / 2 + 1 columns.
class EngineGeometry {
public:
    EngineGeometry(int width, int height, int windowSize, float factor)
        : width(checkedGeometry(width, height, factor)),
          height(height),
          inputSize(width * height),
          outputWidth(static_cast<int>(static_cast<float>(width) * factor)),
          outputHeight(static_cast<int>(static_cast<float>(height) * factor)),
          outputSize(outputWidth * outputHeight),
          spectrumSize((width / 2 + 1) * height),
          windowSize(checkedWindowSize(windowSize)),
          factor(factor) {}

    int getInputSize() const { return inputSize; }
    int getOutputSize() const { return outputSize; }
    int getWindowSize() const { return windowSize; }
    int getWidth() const { return width; }
    int getHeight() const { return height; }
    int getOutputWidth() const { return outputWidth; }
    int getOutputHeight() const { return outputHeight; }
    int getSpectrumSize() const { return spectrumSize; }

protected:
    int width;
    int height;
    int inputSize;
    int outputWidth;
    int outputHeight;
    int outputSize;
    int spectrumSize;
    int windowSize;
    float factor;
};

// The parameter checks return the value when it is valid and otherwise throw the
// message as a plain C string, which is what hosts of every engine catch.
int checkedReferenceIndex(int index, int windowSize);
float checkedPsfSigma(float sigma);
int checkedMaxCGIters(int iterations);
float checkedRegError(float error);
float checkedWeightTV(float weight);
float checkedRelativeResidue(float residue);
// A frame pointer that is not null (std::invalid_argument otherwise).
template <typename T>
const T* checkedFrame(const T* frame) {
    if (frame == nullptr) {
        throw std::invalid_argument("Frame data pointer is NULL.");
    }
    return frame;
}

// Copies `frame` (frameSize floats) into the newest position of the window
// `frames` (oldest first): once all positions hold a frame, the oldest buffer moves
// to the newest position and is overwritten. Returns the newest buffer.
float* slideWindow(std::vector<std::vector<float>>& frames, int& storedFrames, const float* frame,
                   int frameSize);

// The fraction of a mask's pixels that are not usable (mask 0). Byte masks are counted in
// integers; the four-lane engine's float masks (0 or 1) are summed like any float image.
inline float emptyFraction(const char* mask, int size) {
    const signed char* values = reinterpret_cast<const signed char*>(mask);
    // Runs short enough for their sums to fit an int, which vectorises four times wider
    // than a sum in 64 bits.
    constexpr int kRun = 1 << 23;
    long long validSum = 0;
    for (int first = 0; first < size; first += kRun) {
        const int end = std::min(size - first, kRun) + first;
        int runSum = 0;
        for (int p = first; p < end; ++p) {
            runSum += values[p];
        }
        validSum += runSum;
    }
    return static_cast<float>(size - validSum) / static_cast<float>(size);
}
inline float emptyFraction(const float* mask, int size) {
    const float pixels = static_cast<float>(size);
    const cv::Mat_<float> values(1, size, const_cast<float*>(mask));
    return (pixels - static_cast<float>(cv::sum(values)[0])) / pixels;
}

// The status of a registration's result: -6 when a displacement component exceeds a
// tenth of the frame height (integer division), else -3 when a mask is at least half
// empty, else 0. `shifts` are any points with float members x and y.
template <class Point, typename Mask>
int displacementAndMaskStatus(const Point* shifts, const Mask* const* masks, int count, int width,
                              int height) {
    const float limit = static_cast<float>(height / 10);
    bool tooLarge = false;
    bool tooManyMasked = false;
    for (int i = 0; i < count; ++i) {
        if (std::fabs(shifts[i].x) > limit || std::fabs(shifts[i].y) > limit) {
            tooLarge = true;
        }
        if (emptyFraction(masks[i], width * height) >= 0.5f) {
            tooManyMasked = true;
        }
    }
    return tooLarge ? -6 : (tooManyMasked ? -3 : 0);
}

// Mean number of extra frames that see each input pixel (mask not 0), capped at
// cap - 1, and mapped so that one frame per pixel gives 1 and `cap` frames give
// 1 + (cap - 1) / 4. Masks are bytes in the float engines and floats in the four-lane one.
template <typename Mask>
float estimateSrFactor(const Mask* const* masks, int count, int inputSize, int cap) {
    long long sum = 0;
    if (count <= cap) {
        // No pixel is seen by more than cap frames: the cap never applies, and the
        // sum is the number of mask entries seeing a pixel, less one per pixel.
        for (int i = 0; i < count; ++i) {
            const Mask* mask = masks[i];
            int seen = 0;
            for (int p = 0; p < inputSize; ++p) {
                seen += mask[p] != Mask(0);
            }
            sum += seen;
        }
        sum -= inputSize;
        return static_cast<float>(sum) / static_cast<float>(4 * inputSize) + 1.0f;
    }
    // The frames seeing each pixel are counted a run of pixels at a time, mask after
    // mask, so that the counting runs along contiguous memory.
    constexpr int kRun = 4096;
    int framesSeeing[kRun];
    for (int first = 0; first < inputSize; first += kRun) {
        const int length = std::min(kRun, inputSize - first);
        std::fill(framesSeeing, framesSeeing + length, 0);
        for (int i = 0; i < count; ++i) {
            // Restricted, since 8-bit masks could otherwise alias the counts and keep
            // the loop from running in vector lanes.
            const Mask* __restrict mask = masks[i] + first;
            int* __restrict seeing = framesSeeing;
            for (int p = 0; p < length; ++p) {
                seeing[p] += mask[p] != Mask(0);
            }
        }
        for (int p = 0; p < length; ++p) {
            sum += std::min(framesSeeing[p], cap) - 1;
        }
    }
    return static_cast<float>(sum) / static_cast<float>(4 * inputSize) + 1.0f;
}

// The bad-pixel stage of a pass: marks the pixels of the result (outputSize) that
// defective input pixels influenced and refills them from good pixels of the `count`
// frames (frameSize each, oldest first). frameViews is the caller's storage for the
// frame headers, reused from pass to pass.
void repairResultBadPixels(SuperResolutionBadPixelHandling& handling, float* result,
                           cv::Size outputSize, const std::vector<cv::Point_<float>>& shifts,
                           float* const* frames, int count, cv::Size frameSize,
                           std::vector<cv::Mat_<float>>& frameViews);

// Resizes `out` to `count` height x width 8-bit matrices (reusing those of that shape)
// and copies the masks into them.
void copyMasks(const char* const* masks, int count, int width, int height,
               std::vector<cv::Mat_<unsigned char>>& out);

}  // namespace kelvo::vision
