// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <opencv2/core.hpp>
#include <vector>

#include "vision/superresolution/SrFloatMinimization.h"
#include "vision/superresolution/SrFloatNeonConvolution.h"

namespace kelvo::vision {

// The reconstruction of SrFloatMinimization with its element-wise loops, the TV
// stencil and the sparse operators (SrFloatNeonConvolution) written with four-lane
// vector operations, and with float masks (1 valid, 0 excluded; any other value
// scales the pixel). PSFs, TV weights and the double sums are those of the float
// engine, so that for factor 2 the result equals SrFloatMinimization's.
//
// Frames and masks handed to minimize need SrFloatNeonConvolution::kSpareFloats
// readable floats past their end.
class SrFloatNeonMinimization {
public:
    SrFloatNeonMinimization(int lrWidth, int lrHeight, int maxFrames, float factor);

    // Writes the (int)(h f) x (int)(w f) result and returns the conjugate-gradient
    // iterations spent. The frames are normalised in place.
    int minimize(int numFrames, int refIndex, float** const frames, cv::Point_<float>* const shifts,
                 float** masks, float* result);

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
    const float* getBasePsf() const { return basePsf.data(); }

private:
    int conjugateGradients(int numFrames, float** masks, int maxIter);
    void computeL();
    void gradient(float* const in, int numFrames, float** masks, float* out);
    bool iteration(int index, int numFrames, float** masks);
    void applyStencil(const float* in, float* out);

    int lrWidth;
    int lrHeight;
    int psfSize;
    int fullWidth;
    int fullHeight;
    int fullSize;
    [[maybe_unused]] int maxFrames;  // the PSF tables are sized by it
    float factor;
    float psfSigma = 0.0f;
    float weightTV = 0.0f;
    float relRes = 0.0f;
    int maxIter = 0;
    std::vector<float> basePsf;
    std::vector<std::vector<float>> psfX;
    std::vector<std::vector<float>> psfY;
    SrFloatNeonConvolution convolution;
    // Image buffers carry spare zero floats past their end for the four-lane loops.
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
