// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <opencv2/core.hpp>

#include "vision/superresolution/SrFloatRegistration2.h"

namespace kelvo::vision {

// The corner registration of SrFloatRegistration2 for the four-lane engine, whose
// validity masks are floats (1.0 valid, 0.0 not). Everything else, from frame
// preparation to corner tracking and the sub-pixel step, is SrFloatRegistration2's.
class SrFloatNeonRegistration : public SrFloatRegistration2 {
public:
    using SrFloatRegistration2::SrFloatRegistration2;

    // As SrFloatRegistration2::doRegistration, with one float mask per buffer slot.
    // Throws kelvo::Exception "Too large displacement" located here.
    int doRegistration(int frameCount, int referenceIndex, const float* const* frames,
                       cv::Point_<float>* shifts, float** masks, float** shiftedFrames);
};

}  // namespace kelvo::vision
