// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <vector>

#include "vision/superresolution/SrFloatMinimization.h"
#include "vision/superresolution/reference/Point.h"
#include "vision/superresolution/reference/SuperResolutionConvolution.h"

namespace kelvo::vision {

// The reconstruction of the reference engine: the total-variation regularised least
// squares of SrFloatMinimization (same PSFs, TV weights, restarts, parameters and
// defaults), written as the literal algorithm with plain loops over raw arrays:
//
//   minimise  sum_k || M_k (H_k x - y_k) ||^2  +  TV(x) / weightTV
//
// solved by lagged diffusivity, each restart of conjugate gradients solving
//   (L + sum_k H_k^T M_k H_k) x = sum_k H_k^T M_k y_k.
//
// Where its arithmetic differs from the float engine's: every sum over pixels (the
// reference frame's mean and deviation, b.b, r.r, p.Ap) is one running float sum in
// flat pixel order, so results are the same on every build; the operators step
// vertically by the factor (SuperResolutionConvolution); and after the solve the whole
// estimate, margins included, is de-normalised in place before the crop is copied out.
// The crop covers the (int)(h f) x (int)(w f) result, whatever the factor.
class SuperResolutionMinimization : public TvReconstructionBase {
public:
    SuperResolutionMinimization(int lrWidth, int lrHeight, int maxFrames, float factor);

    // Writes the result and returns the conjugate-gradient iterations spent. The frames
    // are normalised in place.
    int minimize(int numFrames, int refIndex, float** const frames, PointF* const shifts,
                 char** masks, float* result);

    // The estimate with its PSF margins; de-normalised after minimize.
    const float* getEstimate() const { return estimate.data(); }

private:
    int conjugateGradients(int numFrames, char** masks, int maxIter);
    void computeL();
    void gradient(const float* in, int numFrames, char** masks, float* out);
    bool iteration(int numFrames, char** masks);
    float dot(const float* a, const float* b) const;

    SuperResolutionConvolution convolution;
    std::vector<float> lowResScratch;
    std::vector<float> convScratch;
};

}  // namespace kelvo::vision
