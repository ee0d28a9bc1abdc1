// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <opencv2/core.hpp>
#include <vector>

#include "vision/superresolution/SrFloatEngineBase.h"
#include "vision/superresolution/SrFloatNeonMinimization.h"

namespace kelvo::vision {

class SrFloatNeonRegistration;

// The four-lane engine: the sliding window and the pass of SrFloat, reconstructing
// with SrFloatNeonMinimization on float validity masks (1.0 usable, 0.0 not). It has
// no bad-pixel stage (frames enter the window as they are) and prints nothing.
// Parameters, window and factor estimate are those of SrFloatEngineBase, shared with
// SrFloat. The factor must be 2. The library instantiates it for
// SrFloatNeonRegistration (include its header as well).
template <class Registration>
class SrFloatNeon : public SrFloatEngineBase<Registration, SrFloatNeonMinimization, float> {
    using Base = SrFloatEngineBase<Registration, SrFloatNeonMinimization, float>;

public:
    SrFloatNeon(int width, int height, int windowSize, float factor);

    // Stores a copy of the frame (width x height floats, row-major); returns 0.
    int addFrame(const float* frame);
    int addFrame(const cv::Mat_<float>& frame) { return addFrame(frame.ptr<float>()); }

    // The pass, as SrFloat::computeSR without the bad-pixel repair and output.
    float computeSR(float* out);
    float computeSR(cv::Mat_<float>& out) { return computeSR(this->outputBuffer(out)); }

private:
    int loadFrame(const float* frame);
};

}  // namespace kelvo::vision
