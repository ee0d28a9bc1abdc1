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
class SrFloatNeonMinimization : public TvReconstructionBase {
public:
    SrFloatNeonMinimization(int lrWidth, int lrHeight, int maxFrames, float factor);

    // Writes the (int)(h f) x (int)(w f) result and returns the conjugate-gradient
    // iterations spent. The frames are normalised in place.
    int minimize(int numFrames, int refIndex, float** const frames, cv::Point_<float>* const shifts,
                 float** masks, float* result);

private:
    int conjugateGradients(int numFrames, float** masks, int maxIter);
    void computeL();
    void gradient(float* const in, int numFrames, float** masks, float* out);
    bool iteration(int index, int numFrames, float** masks);
    void applyStencil(const float* in, float* out);

    SrFloatNeonConvolution convolution;
    // Image buffers carry spare zero floats past their end for the four-lane loops.
    std::vector<float> lowResScratch;
    std::vector<float> convScratch;
};

}  // namespace kelvo::vision
