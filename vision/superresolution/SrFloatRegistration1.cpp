// SPDX-License-Identifier: Apache-2.0
#include "vision/superresolution/SrFloatRegistration1.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <stdexcept>

#include "vision/superresolution/PhaseCorrelation.h"

namespace kelvo::vision {

namespace {

constexpr int kDoRegistrationLine = 144;
const SourceLocation kDoRegistrationSite{"vision/superresolution/SrFloatRegistration1",
                                         kDoRegistrationLine,
                                         "kelvo::vision::SrFloatRegistration1::doRegistration"};

constexpr int kUnpreparedFrames = -9;
constexpr int kDefaultGaussRadius = 5;

float (*pairs(std::vector<float>& values))[2] {
    return reinterpret_cast<float(*)[2]>(values.data());
}

int checkedFrameCount(int frameCount) {
    if (frameCount < 1) {
        throw std::invalid_argument("SrFloatRegistration1 needs room for at least one frame");
    }
    return frameCount;
}

}  // namespace

SrFloatRegistration1::SrFloatRegistration1(int width, int height, int frameCount)
    : SrFloatRegistrationBase(width, height, checkedFrameCount(frameCount)),
      spectrumLength((width / 2 + 1) * height),
      slots(frameCount),
      fft(width, height),
      gaussSpectrum(2 * spectrumLength),
      workSpectrum(2 * spectrumLength),
      correlation(pixelCount) {
    for (Slot& slot : slots) {
        slot.spectrum.assign(2 * spectrumLength, 0.0f);
        slot.frame.assign(pixelCount, 0.0f);
        slot.blurred.assign(pixelCount, 0.0f);
    }
    setGaussRadius(kDefaultGaussRadius);
}

void SrFloatRegistration1::setGaussRadius(int radius) {
    const float side = static_cast<float>(radius);
    const float sigma = std::sqrt(3.0f * (side * side) / 25.0f);
    std::vector<float> table(std::max(radius, 0) + 1);
    fft.gaussFft(radius, sigma, pairs(gaussSpectrum), table.data());
    gaussTable = std::move(table);
    gaussRadius = radius;
    for (Slot& slot : slots) {
        slot.blurCurrent = false;
    }
}

void SrFloatRegistration1::prepareFrame(const float* frame) {
    if (storedFrames < frameCount) {
        ++storedFrames;
    } else {
        std::rotate(slots.begin(), slots.begin() + 1, slots.end());
    }
    const int newest = storedFrames - 1;
    fft.forward(frame, pairs(slots[newest].spectrum));
    slots[newest].blurCurrent = false;
    blurredImageOf(newest, frame);
}

int SrFloatRegistration1::doRegistration(int registeredFrames, int referenceIndex,
                                         const float* const* frames, cv::Point_<float>* shifts,
                                         char** masks, float** shiftedFrames) {
    if (registeredFrames < 1 || registeredFrames > storedFrames || referenceIndex < 0 ||
        referenceIndex >= registeredFrames) {
        return kUnpreparedFrames;
    }
    registerFrames(registeredFrames, referenceIndex, frames, shifts, masks);
    shiftFramesOntoReference(registeredFrames, frames, shifts, shiftedFrames, kDoRegistrationSite);
    return 0;
}

void SrFloatRegistration1::registerFrames(int registeredFrames, int referenceIndex,
                                          const float* const* frames, cv::Point_<float>* shifts,
                                          char** masks) {
    referenceSlot = referenceIndex;
    const float* blurredReference = blurredImageOf(referenceSlot, frames[referenceIndex]);
    initialize(masks, blurredReference, registeredFrames);
    if (lastShifts.size() < static_cast<size_t>(registeredFrames)) {
        lastShifts.resize(registeredFrames);
    }
    for (int k = 0; k < registeredFrames; ++k) {
        if (k == referenceIndex) {
            shifts[k] = cv::Point_<float>(0.0f, 0.0f);
            std::memset(masks[k], 1, pixelCount);
            continue;
        }
        frameSlot = k;
        const cv::Point_<int> start = phaseCorrelation();
        shifts[k] =
            opticalFlow(blurredReference, blurredImageOf(frameSlot, frames[k]), start, masks[k]);
    }
    std::copy(shifts, shifts + registeredFrames, lastShifts.begin());
}

void SrFloatRegistration1::initialize(char** masks, const float* blurredReference,
                                      int registeredFrames) {
    for (int k = 0; k < registeredFrames; ++k) {
        std::memset(masks[k], 0, pixelCount);
    }
    computeReferenceGradients(blurredReference);
}

const float* SrFloatRegistration1::blurredImageOf(int index, const float* frame) {
    Slot& slot = slots[index];
    const size_t bytes = sizeof(float) * pixelCount;
    if (!slot.blurCurrent || std::memcmp(slot.frame.data(), frame, bytes) != 0) {
        std::memcpy(slot.frame.data(), frame, bytes);
        float(*work)[2] = pairs(workSpectrum);
        multiplyByConjugate(pairs(slot.spectrum), pairs(gaussSpectrum), spectrumLength, work);
        fft.backward(work, slot.blurred.data());
        fft.repairGaussBlur(frame, slot.blurred.data(), gaussRadius, gaussTable.data());
        slot.blurCurrent = true;
    }
    return slot.blurred.data();
}

cv::Point_<int> SrFloatRegistration1::phaseCorrelation() {
    float(*cross)[2] = pairs(workSpectrum);
    crossPowerSpectrum(pairs(slots[referenceSlot].spectrum), pairs(slots[frameSlot].spectrum),
                       spectrumLength, cross);
    fft.backward(cross, correlation.data());
    return correlationPeak(correlation.data(), width, height);
}

}  // namespace kelvo::vision
