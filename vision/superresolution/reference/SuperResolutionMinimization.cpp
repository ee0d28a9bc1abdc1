// SPDX-License-Identifier: Apache-2.0
#include "vision/superresolution/reference/SuperResolutionMinimization.h"

#include <algorithm>
#include <cmath>

#include "vision/superresolution/SrFloatMinimization.h"

namespace kelvo::vision {

SuperResolutionMinimization::SuperResolutionMinimization(int lrWidth, int lrHeight, int maxFrames,
                                                         float factor)
    : TvReconstructionBase(lrWidth, lrHeight, maxFrames, factor),
      convolution(highResWidth(), highResHeight(), psfSize, psfSize, factor),
      lowResScratch(static_cast<size_t>(lrWidth) * lrHeight),
      convScratch(fullSize) {}

// One running float sum in flat order.
float SuperResolutionMinimization::dot(const float* a, const float* b) const {
    float sum = 0.0f;
    for (int i = 0; i < fullSize; ++i) {
        sum += a[i] * b[i];
    }
    return sum;
}

int SuperResolutionMinimization::minimize(int numFrames, int refIndex, float** const frames,
                                          PointF* const shifts, char** masks, float* result) {
    const int frameSize = lrWidth * lrHeight;
    const float* reference = frames[refIndex];
    float sum = 0.0f;
    for (int i = 0; i < frameSize; ++i) {
        sum += reference[i];
    }
    const float mean = sum / static_cast<float>(frameSize);
    float squares = 0.0f;
    for (int i = 0; i < frameSize; ++i) {
        const float d = reference[i] - mean;
        squares += d * d;
    }
    const float deviation = std::sqrt(squares / static_cast<float>(frameSize));
    for (int k = 0; k < numFrames; ++k) {
        float* frame = frames[k];
        for (int i = 0; i < frameSize; ++i) {
            frame[i] = (frame[i] - mean) / deviation;
        }
    }

    shiftPsfs(basePsf, factor, numFrames, shifts, psfX, psfY);
    std::fill(rhs.begin(), rhs.end(), 0.0f);
    for (int k = 0; k < numFrames; ++k) {
        convolution.fullConvFromSparse(frames[k], psfX[k].data(), psfY[k].data(), masks[k],
                                       convScratch.data());
        for (int i = 0; i < fullSize; ++i) {
            rhs[i] += convScratch[i];
        }
    }
    invRhsNorm2 = 1.0f / dot(rhs.data(), rhs.data());
    estimate = rhs;

    const int total = runRestarts(
        maxIter, [&](int budgetLeft) { return conjugateGradients(numFrames, masks, budgetLeft); });

    // De-normalise everything, margins included, then copy the crop that starts
    // (off, off) into the full image.
    for (float& value : estimate) {
        value = deviation * value + mean;
    }
    const int offset = (psfSize - 1) / 2;
    const int outWidth = highResWidth();
    const int outHeight = highResHeight();
    const float* source = estimate.data() + offset * (fullWidth + 1);
    for (int r = 0; r < outHeight; ++r) {
        std::copy(source, source + outWidth, result + r * outWidth);
        source += outWidth + psfSize - 1;
    }
    return total;
}

// The TV weights of the current estimate, those of the float engine.
void SuperResolutionMinimization::computeL() {
    computeTvWeights(estimate.data(), fullWidth, fullHeight, negInvWeightTV, epsilon, invEpsilon,
                     tvWeights(), 0, fullHeight);
}

// out = L in + sum_k H_k^T M_k H_k in.
void SuperResolutionMinimization::gradient(const float* in, int numFrames, char** masks,
                                           float* out) {
    const TvWeights weights = tvWeights();
    for (int i = 0; i < fullSize; ++i) {
        out[i] = tvStencilAt(in, i, fullWidth, fullSize, weights);
    }
    float* full = const_cast<float*>(in);
    for (int k = 0; k < numFrames; ++k) {
        convolution.validCorrToSparse(full, psfX[k].data(), psfY[k].data(), lowResScratch.data());
        convolution.fullConvFromSparse(lowResScratch.data(), psfX[k].data(), psfY[k].data(),
                                       masks[k], convScratch.data());
        for (int i = 0; i < fullSize; ++i) {
            out[i] += convScratch[i];
        }
    }
}

int SuperResolutionMinimization::conjugateGradients(int numFrames, char** masks, int budget) {
    computeL();
    gradient(estimate.data(), numFrames, masks, residual.data());
    for (int i = 0; i < fullSize; ++i) {
        residual[i] = rhs[i] - residual[i];
    }
    direction = residual;
    residualNorm2 = dot(residual.data(), residual.data());
    if (relRes * relRes > residualNorm2 * invRhsNorm2) {
        return 0;
    }
    for (int n = 0; n < budget; ++n) {
        if (iteration(numFrames, masks)) {
            return n + 1;
        }
    }
    return budget;
}

// One step of conjugate gradients; true once r.r falls below relRes^2 b.b.
bool SuperResolutionMinimization::iteration(int numFrames, char** masks) {
    float* x = estimate.data();
    float* r = residual.data();
    float* p = direction.data();
    float* ap = operatorDirection.data();
    gradient(p, numFrames, masks, ap);
    const float alpha = residualNorm2 / dot(p, ap);
    for (int i = 0; i < fullSize; ++i) {
        x[i] += alpha * p[i];
        r[i] -= alpha * ap[i];
    }
    const float newNorm2 = dot(r, r);
    if (relRes * relRes > newNorm2 * invRhsNorm2) {
        return true;
    }
    const float beta = newNorm2 / residualNorm2;
    for (int i = 0; i < fullSize; ++i) {
        p[i] = beta * p[i] + r[i];
    }
    residualNorm2 = newNorm2;
    return false;
}

}  // namespace kelvo::vision
