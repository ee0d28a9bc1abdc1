// SPDX-License-Identifier: Apache-2.0
#include "vision/superresolution/SrFloatNeon.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <stdexcept>

#include "vision/superresolution/SrEngineCommon.h"
#include "vision/superresolution/SrFloatNeonRegistration.h"

namespace kelvo::vision {

namespace {

constexpr int kSpare = SrFloatNeonConvolution::kSpareFloats;

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
    : width(checkedGeometry(width, height, factor)),
      height(height),
      inputSize(width * height),
      outputWidth(static_cast<int>(static_cast<float>(width) * factor)),
      outputHeight(static_cast<int>(static_cast<float>(height) * factor)),
      outputSize(outputWidth * outputHeight),
      spectrumSize((width / 2 + 1) * height),
      windowSize(checkedWindowSize(windowSize)),
      factor(checkedFourLaneFactor(factor)),
      registration(width, height, windowSize),
      minimization(width, height, windowSize, factor),
      frames(windowSize, std::vector<float>(inputSize + kSpare, 0.0f)),
      registeredFrames(windowSize, std::vector<float>(inputSize + kSpare, 0.0f)),
      masks(windowSize, std::vector<float>(inputSize + kSpare, 0.0f)),
      result(outputSize, 0.0f),
      shifts(windowSize, cv::Point_<float>(0.0f, 0.0f)) {
    refreshPointers();
}

template <class Registration>
SrFloatNeon<Registration>::SrFloatNeon(const SrFloatNeon& other)
    : width(other.width),
      height(other.height),
      inputSize(other.inputSize),
      outputWidth(other.outputWidth),
      outputHeight(other.outputHeight),
      outputSize(other.outputSize),
      spectrumSize(other.spectrumSize),
      windowSize(other.windowSize),
      factor(other.factor),
      referenceIndex(other.referenceIndex),
      minStructureThreshold(other.minStructureThreshold),
      registration(other.registration),
      minimization(other.minimization),
      frames(other.frames),
      registeredFrames(other.registeredFrames),
      masks(other.masks),
      result(other.result),
      shifts(other.shifts),
      completeShifts(other.completeShifts),
      storedFrames(other.storedFrames) {
    refreshPointers();
}

template <class Registration>
SrFloatNeon<Registration>& SrFloatNeon<Registration>::operator=(const SrFloatNeon& other) {
    if (this != &other) {
        *this = SrFloatNeon(other);
    }
    return *this;
}

template <class Registration>
void SrFloatNeon<Registration>::refreshPointers() {
    framePointers.resize(windowSize);
    registeredPointers.resize(windowSize);
    maskPointers.resize(windowSize);
    for (int i = 0; i < windowSize; ++i) {
        framePointers[i] = frames[i].data();
        registeredPointers[i] = registeredFrames[i].data();
        maskPointers[i] = masks[i].data();
    }
}

template <class Registration>
void SrFloatNeon<Registration>::setReferenceIndex(int index) {
    referenceIndex = checkedReferenceIndex(index, windowSize);
}

template <class Registration>
void SrFloatNeon<Registration>::setPsfSigma(float sigma) {
    minimization.setPsfSigma(checkedPsfSigma(sigma));
}

template <class Registration>
void SrFloatNeon<Registration>::setMaxCGIters(int iterations) {
    minimization.setMaxIter(checkedMaxCGIters(iterations));
}

template <class Registration>
void SrFloatNeon<Registration>::setRegError(float error) {
    registration.setRegError(checkedRegError(error));
}

template <class Registration>
void SrFloatNeon<Registration>::setWeightTV(float weight) {
    minimization.setWeightTV(checkedWeightTV(weight));
}

template <class Registration>
void SrFloatNeon<Registration>::setRelativeResidue(float residue) {
    minimization.setRelRes(checkedRelativeResidue(residue));
}

template <class Registration>
int SrFloatNeon<Registration>::addFrame(const float* frame) {
    return loadFrame(checkedFrame(frame));
}

template <class Registration>
int SrFloatNeon<Registration>::loadFrame(const float* frame) {
    const float* newest = slideWindow(frames, storedFrames, frame, inputSize);
    refreshPointers();
    registration.prepareFrame(newest);
    return 0;
}

template <class Registration>
float SrFloatNeon<Registration>::computeSR(cv::Mat_<float>& out) {
    if (!out.isContinuous()) {
        out.release();
    }
    out.create(outputHeight, outputWidth);
    return computeSR(out.ptr<float>());
}

template <class Registration>
float SrFloatNeon<Registration>::computeSR(float* out) {
    if (storedFrames < 1) {
        return -998.0f;
    }
    const int ref = std::max(storedFrames - referenceIndex - 1, 0);
    if (registration.doRegistration(storedFrames, ref, framePointers.data(), shifts.data(),
                                    maskPointers.data(), registeredPointers.data()) < 0) {
        return -998.0f;
    }
    registration.getCompleteShifts(completeShifts);

    const float limit = static_cast<float>(height / 10);
    bool tooLarge = false;
    bool tooManyMasked = false;
    for (int i = 0; i < storedFrames; ++i) {
        const cv::Point_<float>& shift = completeShifts[i];
        if (std::fabs(shift.x) > limit || std::fabs(shift.y) > limit) {
            tooLarge = true;
        }
        const cv::Mat_<float> mask(height, width, maskPointers[i]);
        const float pixels = static_cast<float>(mask.rows * mask.cols);
        const float emptyFraction = (pixels - static_cast<float>(cv::sum(mask)[0])) / pixels;
        if (emptyFraction >= 0.5f) {
            tooManyMasked = true;
        }
    }
    int status = tooManyMasked ? -3 : 0;
    if (tooLarge) {
        status = -6;
    }

    const int iterations = minimization.minimize(storedFrames, ref, registeredPointers.data(),
                                                 shifts.data(), maskPointers.data(), result.data());
    if (iterations < 0) {
        return static_cast<float>(iterations);
    }
    std::memcpy(out, result.data(), sizeof(float) * outputSize);
    const float srFactor =
        estimateSrFactor(maskPointers.data(), storedFrames, inputSize, srFactorCap(factor));
    return status != 0 ? static_cast<float>(status) : srFactor;
}

template <class Registration>
void SrFloatNeon<Registration>::getMasks(std::vector<cv::Mat_<float>>& out) const {
    out.resize(windowSize);
    for (int i = 0; i < windowSize; ++i) {
        if (out[i].rows != height || out[i].cols != width || !out[i].isContinuous()) {
            out[i].release();
            out[i].create(height, width);
        }
        std::memcpy(out[i].ptr<float>(), masks[i].data(), sizeof(float) * inputSize);
    }
}

template <class Registration>
void SrFloatNeon<Registration>::getCompleteShifts(std::vector<cv::Point_<float>>& out) const {
    registration.getCompleteShifts(out);
}

template class SrFloatNeon<SrFloatNeonRegistration>;

}  // namespace kelvo::vision
