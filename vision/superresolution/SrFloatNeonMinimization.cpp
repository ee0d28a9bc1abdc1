// SPDX-License-Identifier: Apache-2.0
#include "vision/superresolution/SrFloatNeonMinimization.h"

#include <algorithm>
#include <cmath>

#include "platform/kelvo/NeonLanes.h"
#include "vision/superresolution/LaneSum.h"

namespace kelvo::vision {

namespace {

constexpr int kLanes = 4;
constexpr int kSpare = SrFloatNeonConvolution::kSpareFloats;

// The groups of four that cover `count` elements; the last one may run into the
// spare floats.
int groupsOfFour(int count) {
    return (count - 1) / kLanes + 1;
}

// a[i] = a[i] + b[i] over whole groups.
void addInto(float* a, const float* b, int count) {
    for (int g = 0; g < groupsOfFour(count); ++g) {
        float* at = a + kLanes * g;
        vst1q_f32(at, vaddq_f32(vld1q_f32(at), vld1q_f32(b + kLanes * g)));
    }
}

}  // namespace

SrFloatNeonMinimization::SrFloatNeonMinimization(int lrWidth, int lrHeight, int maxFrames,
                                                 float factor)
    : TvReconstructionBase(lrWidth, lrHeight, maxFrames, factor, kSpare),
      convolution(highResWidth(), highResHeight(), psfSize, psfSize, factor),
      lowResScratch(static_cast<size_t>(lrWidth) * lrHeight + kSpare, 0.0f),
      convScratch(fullSize + kSpare, 0.0f) {}

int SrFloatNeonMinimization::minimize(int numFrames, int refIndex, float** const frames,
                                      cv::Point_<float>* const shifts, float** masks,
                                      float* result) {
    const int frameSize = lrWidth * lrHeight;
    const float* reference = frames[refIndex];
    const double mean =
        sumInLanes(frameSize, [&](int i) { return static_cast<double>(reference[i]); }) / frameSize;
    const double variance = sumInLanes(frameSize,
                                       [&](int i) {
                                           const double d =
                                               static_cast<double>(reference[i]) - mean;
                                           return d * d;
                                       }) /
                            frameSize;
    const float deviation = std::sqrt(static_cast<float>(variance));
    const float meanValue = static_cast<float>(mean);
    for (int k = 0; k < numFrames; ++k) {
        float* frame = frames[k];
        for (int i = 0; i < frameSize; ++i) {
            frame[i] = (frame[i] - meanValue) / deviation;
        }
    }

    shiftPsfs(basePsf, factor, numFrames, shifts, psfX, psfY);
    std::fill(rhs.begin(), rhs.end(), 0.0f);
    for (int k = 0; k < numFrames; ++k) {
        convolution.fullConvFromSparse(frames[k], psfX[k].data(), psfY[k].data(), masks[k],
                                       convScratch.data());
        addInto(rhs.data(), convScratch.data(), fullSize);
    }
    const float* b = rhs.data();
    invRhsNorm2 = static_cast<float>(
        1.0 / sumInLanes(fullSize, [&](int i) { return static_cast<double>(b[i] * b[i]); }));
    estimate = rhs;

    const int total = runRestarts(
        maxIter, [&](int budgetLeft) { return conjugateGradients(numFrames, masks, budgetLeft); });

    restoreCropped(estimate.data(), fullWidth, (psfSize - 1) / 2, highResWidth(), highResHeight(),
                   deviation, meanValue, result);
    return total;
}

void SrFloatNeonMinimization::computeL() {
    computeTvWeights(estimate.data(), fullWidth, fullHeight, negInvWeightTV, epsilon, invEpsilon,
                     tvWeights(), 0, fullHeight);
}

int SrFloatNeonMinimization::conjugateGradients(int numFrames, float** masks, int maxIter) {
    computeL();
    float* r = residual.data();
    float* p = direction.data();
    const float* b = rhs.data();
    gradient(estimate.data(), numFrames, masks, r);
    for (int g = 0; g < groupsOfFour(fullSize); ++g) {
        const int i = kLanes * g;
        const float32x4_t difference = vsubq_f32(vld1q_f32(b + i), vld1q_f32(r + i));
        vst1q_f32(r + i, difference);
        vst1q_f32(p + i, difference);
    }
    residualNorm2 = static_cast<float>(
        sumInLanes(fullSize, [&](int i) { return static_cast<double>(r[i] * r[i]); }));
    if (relRes * relRes > residualNorm2 * invRhsNorm2) {
        return 0;
    }
    for (int n = 0; n < maxIter; ++n) {
        if (iteration(n, numFrames, masks)) {
            return n + 1;
        }
    }
    return maxIter;
}

bool SrFloatNeonMinimization::iteration(int, int numFrames, float** masks) {
    float* x = estimate.data();
    float* r = residual.data();
    float* p = direction.data();
    float* ap = operatorDirection.data();
    gradient(p, numFrames, masks, ap);
    const double pAp =
        sumInLanes(fullSize, [&](int i) { return static_cast<double>(p[i] * ap[i]); });
    const float alpha = static_cast<float>(residualNorm2 / pAp);
    const float32x4_t alphas = vdupq_n_f32(alpha);
    for (int g = 0; g < groupsOfFour(fullSize); ++g) {
        const int i = kLanes * g;
        vst1q_f32(x + i, vmlaq_f32(vld1q_f32(x + i), vld1q_f32(p + i), alphas));
        vst1q_f32(r + i, vmlsq_f32(vld1q_f32(r + i), vld1q_f32(ap + i), alphas));
    }
    const double newNorm2 =
        sumInLanes(fullSize, [&](int i) { return static_cast<double>(r[i] * r[i]); });
    if (static_cast<double>(relRes * relRes) > static_cast<double>(invRhsNorm2) * newNorm2) {
        return true;
    }
    const float32x4_t beta = vdupq_n_f32(static_cast<float>(newNorm2 / residualNorm2));
    for (int g = 0; g < groupsOfFour(fullSize); ++g) {
        const int i = kLanes * g;
        vst1q_f32(p + i, vmlaq_f32(vld1q_f32(r + i), vld1q_f32(p + i), beta));
    }
    residualNorm2 = static_cast<float>(newNorm2);
    return false;
}

// out = L in + sum_k H_k^T M_k H_k in.
void SrFloatNeonMinimization::gradient(float* const in, int numFrames, float** masks, float* out) {
    applyStencil(in, out);
    for (int k = 0; k < numFrames; ++k) {
        convolution.validCorrToSparse(in, psfX[k].data(), psfY[k].data(), lowResScratch.data());
        convolution.fullConvFromSparse(lowResScratch.data(), psfX[k].data(), psfY[k].data(),
                                       masks[k], convScratch.data());
        addInto(out, convScratch.data(), fullSize);
    }
}

// out = L in. Pixels with all eight neighbours inside the image run four at a time,
// the terms in the order of the float engine's stencil; the first and last row (and
// one pixel more at either end) take the float engine's general path, after the
// interior so that they overwrite what its last group wrote past its end.
void SrFloatNeonMinimization::applyStencil(const float* in, float* out) {
    const int w = fullWidth;
    const float* right = weightRight.data();
    const float* down = weightDown.data();
    const float* downLeft = weightDownLeft.data();
    const float* downRight = weightDownRight.data();
    const int interiorBegin = w + 1;
    const int interiorEnd = fullSize - w - 1;
    for (int g = 0; g < groupsOfFour(interiorEnd - interiorBegin); ++g) {
        const int i = interiorBegin + kLanes * g;
        auto at = [](const float* image, int index) { return vld1q_f32(image + index); };
        float32x4_t neighbours = vaddq_f32(at(right, i - 1), at(right, i));
        neighbours = vaddq_f32(neighbours, at(down, i - w));
        neighbours = vaddq_f32(neighbours, at(down, i));
        neighbours = vaddq_f32(neighbours, at(downRight, i - w - 1));
        neighbours = vaddq_f32(neighbours, at(downRight, i));
        neighbours = vaddq_f32(neighbours, at(downLeft, i - w + 1));
        neighbours = vaddq_f32(neighbours, at(downLeft, i));
        float32x4_t sum = vmulq_f32(vnegq_f32(neighbours), at(in, i));
        sum = vmlaq_f32(sum, at(right, i), at(in, i + 1));
        sum = vmlaq_f32(sum, at(right, i - 1), at(in, i - 1));
        sum = vmlaq_f32(sum, at(down, i), at(in, i + w));
        sum = vmlaq_f32(sum, at(down, i - w), at(in, i - w));
        sum = vmlaq_f32(sum, at(downRight, i), at(in, i + w + 1));
        sum = vmlaq_f32(sum, at(downRight, i - w - 1), at(in, i - w - 1));
        sum = vmlaq_f32(sum, at(downLeft, i), at(in, i + w - 1));
        sum = vmlaq_f32(sum, at(downLeft, i - w + 1), at(in, i - w + 1));
        vst1q_f32(out + i, sum);
    }
    const TvWeights weights = tvWeights();
    for (int i = 0; i < interiorBegin; ++i) {
        out[i] = tvStencilAt(in, i, w, fullSize, weights);
    }
    for (int i = interiorEnd; i < fullSize; ++i) {
        out[i] = tvStencilAt(in, i, w, fullSize, weights);
    }
}

}  // namespace kelvo::vision
