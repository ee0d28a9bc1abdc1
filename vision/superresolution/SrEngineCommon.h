// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cmath>
#include <opencv2/core.hpp>
#include <vector>

#include "vision/superresolution/SuperResolutionBadPixelHandling.h"

namespace kelvo::vision {

// What the super-resolution engines share around their stages: the checks of their
// geometry and of the ranges of their parameters (a violation throws the message as a
// plain C string, and hosts know these texts), the check of the displacements and
// masks a registration produced, the quality factor estimate of a pass, and the copy
// of the masks handed to callers.

// Throws std::invalid_argument for frames smaller than 8 pixels a side, larger than
// 2^26 pixels, or a magnification outside [1, 4]; returns the width.
int checkedGeometry(int width, int height, float factor);
// Throws "Invalid reference index specified." below 1; returns the window size.
int checkedWindowSize(int windowSize);

void checkReferenceIndex(int index, int windowSize);
void checkPsfSigma(float sigma);
void checkMaxCGIters(int iterations);
void checkRegError(float error);
void checkWeightTV(float weight);
void checkRelativeResidue(float residue);

// The status of a registration's result: -6 when a displacement component exceeds a
// tenth of the frame height (integer division), else -3 when a mask is at least half
// empty, else 0. `shifts` are any points with float members x and y.
template <class Point>
int displacementAndMaskStatus(const Point* shifts, const char* const* masks, int count, int width,
                              int height) {
    const int inputSize = width * height;
    const float limit = static_cast<float>(height / 10);
    bool tooLarge = false;
    bool tooManyMasked = false;
    for (int i = 0; i < count; ++i) {
        if (std::fabs(shifts[i].x) > limit || std::fabs(shifts[i].y) > limit) {
            tooLarge = true;
        }
        const signed char* mask = reinterpret_cast<const signed char*>(masks[i]);
        long long validSum = 0;
        for (int p = 0; p < inputSize; ++p) {
            validSum += mask[p];
        }
        const float emptyFraction =
            static_cast<float>(inputSize - validSum) / static_cast<float>(inputSize);
        if (emptyFraction >= 0.5f) {
            tooManyMasked = true;
        }
    }
    return tooLarge ? -6 : (tooManyMasked ? -3 : 0);
}

// Mean number of extra frames that see each input pixel, capped at cap - 1 and mapped
// so that one frame per pixel gives 1 and cap frames give 1 + (cap - 1) / 4.
float estimateSrFactor(const char* const* masks, int count, int inputSize, int cap);

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
