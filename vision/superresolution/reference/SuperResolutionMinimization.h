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
class SuperResolutionMinimization {
public:
    SuperResolutionMinimization(int lrWidth, int lrHeight, int maxFrames, float factor);

    // Writes the result and returns the conjugate-gradient iterations spent. The frames
    // are normalised in place.
    int minimize(int numFrames, int refIndex, float** const frames, PointF* const shifts,
                 char** masks, float* result);

    float getPsfSigma() const { return psfSigma; }
    void setPsfSigma(float value);
    float getWeightTV() const { return weightTV; }
    void setWeightTV(float value);
    float getEpsilon() const { return epsilon; }
    void setEpsilon(float value);
    float getRelRes() const { return relRes; }
    void setRelRes(float value) { relRes = value; }
    int getMaxIter() const { return maxIter; }
    void setMaxIter(int value) { maxIter = value; }

    int getPsfSize() const { return psfSize; }
    int getFullWidth() const { return fullWidth; }
    int getFullHeight() const { return fullHeight; }
    // The estimate with its PSF margins; de-normalised after minimize.
    const float* getEstimate() const { return estimate.data(); }

private:
    int conjugateGradients(int numFrames, char** masks, int maxIter);
    void computeL();
    void gradient(const float* in, int numFrames, char** masks, float* out);
    bool iteration(int numFrames, char** masks);
    float dot(const float* a, const float* b) const;
    TvWeights tvWeights();

    int lrWidth;
    int lrHeight;
    int psfSize;
    int fullWidth;
    int fullHeight;
    int fullSize;
    float factor;
    float psfSigma = 0.0f;
    float weightTV = 0.0f;
    float relRes = 0.0f;
    int maxIter = 0;
    std::vector<float> basePsf;
    std::vector<std::vector<float>> psfX;
    std::vector<std::vector<float>> psfY;
    SuperResolutionConvolution convolution;
    std::vector<float> lowResScratch;
    std::vector<float> convScratch;
    std::vector<float> rhs;
    std::vector<float> estimate;
    std::vector<float> weightRight;
    std::vector<float> weightDown;
    std::vector<float> weightDownLeft;
    std::vector<float> weightDownRight;
    std::vector<float> residual;
    std::vector<float> direction;
    std::vector<float> operatorDirection;
    float negInvWeightTV = 0.0f;
    float epsilon = 0.0f;
    float invEpsilon = 0.0f;
    float residualNorm2 = 0.0f;
    float invRhsNorm2 = 0.0f;
};

}  // namespace kelvo::vision
