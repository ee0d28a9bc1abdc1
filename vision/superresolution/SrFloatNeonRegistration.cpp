// SPDX-License-Identifier: Apache-2.0
#include "vision/superresolution/SrFloatNeonRegistration.h"

namespace kelvo::vision {

namespace {

// Hosts match on the location text; it names this function and keeps its line.
constexpr int kDoRegistrationLine = 175;
const SourceLocation kDoRegistrationSite{"vision/superresolution/SrFloatNeonRegistration",
                                         kDoRegistrationLine,
                                         "kelvo::vision::SrFloatNeonRegistration::doRegistration"};

}  // namespace

int SrFloatNeonRegistration::doRegistration(int registeredFrames, int referenceIndex,
                                            const float* const* frames, cv::Point_<float>* shifts,
                                            float** masks, float** shiftedFrames) {
    const int result = registerFrames(registeredFrames, referenceIndex, frames, shifts, masks);
    if (result != 0) {
        return result;
    }
    shiftFramesOntoReference(registeredFrames, frames, shifts, shiftedFrames, kDoRegistrationSite);
    return 0;
}

}  // namespace kelvo::vision
