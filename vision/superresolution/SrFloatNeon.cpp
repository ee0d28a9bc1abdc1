// SPDX-License-Identifier: Apache-2.0
#include "vision/superresolution/SrFloatNeon.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>

#include "vision/superresolution/SrEngineCommon.h"
#include "vision/superresolution/SrFloatNeonRegistration.h"

namespace kelvo::vision {

namespace {

// The largest number of frames per pixel that still raises the quality estimate.
// Computed once per process, from the factor of the first four-lane engine that runs
// a pass (independently of the float engine's).
int srFactorCap(float factor) {
    static const int cap = static_cast<int>(factor * factor + 1.0);
    return cap;
}

// The four-lane operators sample every second column and row: they compute the
// operators of factor 2 only.
float checkedFourLaneFactor(float factor) {
    if (factor != 2.0f) {
        throw std::invalid_argument("Invalid magnification factor specified.");
    }
    return factor;
}

}  // namespace

template <class Registration>
SrFloatNeon<Registration>::SrFloatNeon(int width, int height, int windowSize, float factor)
    : Base(width, height, windowSize, checkedFourLaneFactor(factor),
           SrFloatNeonConvolution::kSpareFloats) {}

template <class Registration>
int SrFloatNeon<Registration>::addFrame(const float* frame) {
    return loadFrame(frame);
}

template <class Registration>
int SrFloatNeon<Registration>::loadFrame(const float* frame) {
    this->registration.prepareFrame(this->storeFrame(frame));
    return 0;
}

template <class Registration>
float SrFloatNeon<Registration>::computeSR(float* out) {
    if (this->storedFrames < 1) {
        return -998.0f;
    }
    const int frameCount = this->storedFrames;
    const int ref = this->getReferencePosition();
    if (this->registration.doRegistration(frameCount, ref, this->framePointers.data(),
                                          this->shifts.data(), this->maskPointers.data(),
                                          this->registeredPointers.data()) < 0) {
        return -998.0f;
    }
    this->registration.getCompleteShifts(this->completeShifts);

    const int status =
        displacementAndMaskStatus(this->completeShifts.data(), this->maskPointers.data(),
                                  frameCount, this->width, this->height);

    const int iterations =
        this->minimization.minimize(frameCount, ref, this->registeredPointers.data(),
                                    this->shifts.data(), this->maskPointers.data(), out);
    if (iterations < 0) {
        return static_cast<float>(iterations);
    }
    this->lastIterations = iterations;
    const float srFactor = this->estimateSrFactor(srFactorCap(this->factor));
    return status != 0 ? static_cast<float>(status) : srFactor;
}

template class SrFloatNeon<SrFloatNeonRegistration>;

}  // namespace kelvo::vision
