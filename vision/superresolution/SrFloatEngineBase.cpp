// SPDX-License-Identifier: Apache-2.0
#include "vision/superresolution/SrFloatEngineBase.h"

#include <cstring>

#include "vision/superresolution/SrEngineCommon.h"
#include "vision/superresolution/SrFloatMinimization.h"
#include "vision/superresolution/SrFloatNeonMinimization.h"
#include "vision/superresolution/SrFloatNeonRegistration.h"
#include "vision/superresolution/SrFloatRegistration1.h"
#include "vision/superresolution/SrFloatRegistration2.h"

namespace kelvo::vision {

template <class Registration, class Minimization, typename Mask>
SrFloatEngineBase<Registration, Minimization, Mask>::SrFloatEngineBase(int width, int height,
                                                                       int windowSize, float factor,
                                                                       int spareElements)
    : EngineGeometry(width, height, windowSize, factor),
      registration(width, height, windowSize),
      minimization(width, height, windowSize, factor),
      frames(windowSize, std::vector<float>(inputSize + spareElements, 0.0f)),
      registeredFrames(windowSize, std::vector<float>(inputSize + spareElements, 0.0f)),
      masks(windowSize, std::vector<Mask>(inputSize + spareElements, Mask(0))),
      shifts(windowSize, cv::Point_<float>(0.0f, 0.0f)) {
    refreshPointers();
}

template <class Registration, class Minimization, typename Mask>
SrFloatEngineBase<Registration, Minimization, Mask>::SrFloatEngineBase(
    const SrFloatEngineBase& other)
    : EngineGeometry(other),
      referenceIndex(other.referenceIndex),
      minStructureThreshold(other.minStructureThreshold),
      registration(other.registration),
      minimization(other.minimization),
      frames(other.frames),
      registeredFrames(other.registeredFrames),
      masks(other.masks),
      shifts(other.shifts),
      completeShifts(other.completeShifts),
      storedFrames(other.storedFrames) {
    refreshPointers();
}

template <class Registration, class Minimization, typename Mask>
SrFloatEngineBase<Registration, Minimization, Mask>&
SrFloatEngineBase<Registration, Minimization, Mask>::operator=(const SrFloatEngineBase& other) {
    if (this != &other) {
        *this = SrFloatEngineBase(other);
    }
    return *this;
}

template <class Registration, class Minimization, typename Mask>
void SrFloatEngineBase<Registration, Minimization, Mask>::refreshPointers() {
    framePointers.resize(windowSize);
    registeredPointers.resize(windowSize);
    maskPointers.resize(windowSize);
    for (int i = 0; i < windowSize; ++i) {
        framePointers[i] = frames[i].data();
        registeredPointers[i] = registeredFrames[i].data();
        maskPointers[i] = masks[i].data();
    }
}

template <class Registration, class Minimization, typename Mask>
void SrFloatEngineBase<Registration, Minimization, Mask>::setReferenceIndex(int index) {
    referenceIndex = checkedReferenceIndex(index, windowSize);
}

template <class Registration, class Minimization, typename Mask>
void SrFloatEngineBase<Registration, Minimization, Mask>::setPsfSigma(float sigma) {
    minimization.setPsfSigma(checkedPsfSigma(sigma));
}

template <class Registration, class Minimization, typename Mask>
void SrFloatEngineBase<Registration, Minimization, Mask>::setMaxCGIters(int iterations) {
    minimization.setMaxIter(checkedMaxCGIters(iterations));
}

template <class Registration, class Minimization, typename Mask>
void SrFloatEngineBase<Registration, Minimization, Mask>::setRegError(float error) {
    registration.setRegError(checkedRegError(error));
}

template <class Registration, class Minimization, typename Mask>
void SrFloatEngineBase<Registration, Minimization, Mask>::setWeightTV(float weight) {
    minimization.setWeightTV(checkedWeightTV(weight));
}

template <class Registration, class Minimization, typename Mask>
void SrFloatEngineBase<Registration, Minimization, Mask>::setRelativeResidue(float residue) {
    minimization.setRelRes(checkedRelativeResidue(residue));
}

template <class Registration, class Minimization, typename Mask>
float* SrFloatEngineBase<Registration, Minimization, Mask>::storeFrame(const float* frame) {
    float* newest = slideWindow(frames, storedFrames, checkedFrame(frame), inputSize);
    refreshPointers();
    return newest;
}

template <class Registration, class Minimization, typename Mask>
float* SrFloatEngineBase<Registration, Minimization, Mask>::outputBuffer(
    cv::Mat_<float>& out) const {
    if (!out.isContinuous()) {
        out.release();
    }
    out.create(outputHeight, outputWidth);
    return out.template ptr<float>();
}

template <class Registration, class Minimization, typename Mask>
float SrFloatEngineBase<Registration, Minimization, Mask>::estimateSrFactor(int cap) const {
    return kelvo::vision::estimateSrFactor(maskPointers.data(), storedFrames, inputSize, cap);
}

template <class Registration, class Minimization, typename Mask>
void SrFloatEngineBase<Registration, Minimization, Mask>::getMasks(
    std::vector<MaskMatrix>& out) const {
    out.resize(windowSize);
    for (int i = 0; i < windowSize; ++i) {
        if (out[i].rows != height || out[i].cols != width || !out[i].isContinuous()) {
            out[i].release();
            out[i].create(height, width);
        }
        std::memcpy(out[i].data, masks[i].data(), sizeof(Mask) * inputSize);
    }
}

template <class Registration, class Minimization, typename Mask>
void SrFloatEngineBase<Registration, Minimization, Mask>::getCompleteShifts(
    std::vector<cv::Point_<float>>& out) const {
    registration.getCompleteShifts(out);
}

template class SrFloatEngineBase<SrFloatRegistration1, SrFloatMinimization, char>;
template class SrFloatEngineBase<SrFloatRegistration2, SrFloatMinimization, char>;
template class SrFloatEngineBase<SrFloatNeonRegistration, SrFloatNeonMinimization, float>;

}  // namespace kelvo::vision
