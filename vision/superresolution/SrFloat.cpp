#include "vision/superresolution/SrFloat.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <ostream>
#include <stdexcept>

#include "platform/kelvo/StopWatch.h"
#include "vision/superresolution/SrEngineCommon.h"
#include "vision/superresolution/SrFloatRegistration1.h"
#include "vision/superresolution/SrFloatRegistration2.h"

namespace kelvo::vision {

namespace {

// More threads than this would only hold scratch rows for bands that do not exist.
constexpr int kMaxThreads = 64;

// The largest number of frames per pixel that still raises the quality estimate.
// Computed once per process, from the factor of the first engine that runs a pass.
int srFactorCap(float factor) {
    static const int cap = static_cast<int>(factor * factor + 1.0);
    return cap;
}

double elapsedMilliseconds(const kelvo::StopWatch& watch) {
    return watch.stop() * 1000.0;
}

}  // namespace

template <class Registration>
SrFloat<Registration>::SrFloat(int width, int height, int windowSize, float factor)
    : width(checkedGeometry(width, height, factor)),
      height(height),
      inputSize(width * height),
      outputWidth(static_cast<int>(static_cast<float>(width) * factor)),
      outputHeight(static_cast<int>(static_cast<float>(height) * factor)),
      outputSize(outputWidth * outputHeight),
      spectrumSize((width / 2 + 1) * height),
      windowSize(checkedWindowSize(windowSize)),
      factor(factor),
      registration(width, height, windowSize),
      minimization(width, height, windowSize, factor),
      badPixelHandling(static_cast<unsigned int>(windowSize)),
      frames(windowSize, std::vector<float>(inputSize, 0.0f)),
      registeredFrames(windowSize, std::vector<float>(inputSize, 0.0f)),
      masks(windowSize, std::vector<char>(inputSize, 0)),
      result(outputSize, 0.0f),
      shifts(windowSize, cv::Point_<float>(0.0f, 0.0f)) {
    frameViews.reserve(windowSize);
    refreshPointers();
}

template <class Registration>
SrFloat<Registration>::SrFloat(const SrFloat& other)
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
      badPixelHandling(other.badPixelHandling),
      timingSink(other.timingSink),
      lastSrFactor(other.lastSrFactor),
      frames(other.frames),
      registeredFrames(other.registeredFrames),
      masks(other.masks),
      result(other.result),
      shifts(other.shifts),
      completeShifts(other.completeShifts),
      storedFrames(other.storedFrames) {
    frameViews.reserve(windowSize);
    refreshPointers();
}

template <class Registration>
SrFloat<Registration>& SrFloat<Registration>::operator=(const SrFloat& other) {
    if (this == &other) {
        return *this;
    }
    width = other.width;
    height = other.height;
    inputSize = other.inputSize;
    outputWidth = other.outputWidth;
    outputHeight = other.outputHeight;
    outputSize = other.outputSize;
    spectrumSize = other.spectrumSize;
    windowSize = other.windowSize;
    factor = other.factor;
    referenceIndex = other.referenceIndex;
    minStructureThreshold = other.minStructureThreshold;
    registration = other.registration;
    minimization = other.minimization;
    badPixelHandling = other.badPixelHandling;
    timingSink = other.timingSink;
    lastSrFactor = other.lastSrFactor;
    frames = other.frames;
    registeredFrames = other.registeredFrames;
    masks = other.masks;
    result = other.result;
    shifts = other.shifts;
    completeShifts = other.completeShifts;
    storedFrames = other.storedFrames;
    frameViews.clear();
    frameViews.reserve(windowSize);
    refreshPointers();
    return *this;
}

template <class Registration>
void SrFloat<Registration>::refreshPointers() {
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
void SrFloat<Registration>::setReferenceIndex(int index) {
    referenceIndex = checkedReferenceIndex(index, windowSize);
}

template <class Registration>
void SrFloat<Registration>::setPsfSigma(float sigma) {
    minimization.setPsfSigma(checkedPsfSigma(sigma));
}

template <class Registration>
void SrFloat<Registration>::setMaxCGIters(int iterations) {
    minimization.setMaxIter(checkedMaxCGIters(iterations));
}

template <class Registration>
void SrFloat<Registration>::setRegError(float error) {
    registration.setRegError(checkedRegError(error));
}

template <class Registration>
void SrFloat<Registration>::setWeightTV(float weight) {
    minimization.setWeightTV(checkedWeightTV(weight));
}

template <class Registration>
void SrFloat<Registration>::setRelativeResidue(float residue) {
    minimization.setRelRes(checkedRelativeResidue(residue));
}

template <class Registration>
void SrFloat<Registration>::setThreads(int count) {
    if (count < 1 || count > kMaxThreads) {
        throw "Invalid number of threads specified.";
    }
    minimization.setThreads(count);
    registration.setThreads(count);
}

template <class Registration>
void SrFloat<Registration>::setValidRange(float minimum, float maximum) {
    if (!(std::isfinite(minimum) && std::isfinite(maximum) && minimum < maximum)) {
        throw "Invalid range of valid values specified.";
    }
    badPixelHandling.setValidRange(minimum, maximum);
}

template <class Registration>
int SrFloat<Registration>::addFrame(const float* frame) {
    const int loaded = loadFrame(checkedFrame(frame));
    return loaded < 0 ? loaded : 0;
}

template <class Registration>
int SrFloat<Registration>::loadFrame(const float* frame) {
    float* newest = slideWindow(frames, storedFrames, frame, inputSize);
    refreshPointers();

    cv::Mat_<float> view(height, width, newest);
    int badPixelResult = 0;
    try {
        badPixelResult = badPixelHandling.detectAndReplaceBadPixel(view);
    } catch (...) {
        // The frame already occupies the newest window slot; keep the registration's
        // slots in step with it before reporting the failure.
        registration.prepareFrame(newest);
        throw;
    }
    registration.prepareFrame(newest);
    return badPixelResult < 0 ? badPixelResult : 0;
}

template <class Registration>
float SrFloat<Registration>::computeSR(cv::Mat_<float>& out) {
    if (!out.isContinuous()) {
        out.release();
    }
    out.create(outputHeight, outputWidth);
    return computeSR(out.ptr<float>());
}

template <class Registration>
float SrFloat<Registration>::computeSR(float* out) {
    std::ostream& timing = timingSink.stream();
    timing << "++++++++++ SrFloat ++++++++++" << std::endl;
    lastSrFactor = 0.0f;
    if (storedFrames < 1) {
        return -998.0f;
    }
    const int ref = getReferencePosition();

    kelvo::StopWatch watch;
    const int registered =
        registration.doRegistration(storedFrames, ref, framePointers.data(), shifts.data(),
                                    maskPointers.data(), registeredPointers.data());
    const double registrationTime = elapsedMilliseconds(watch);
    if (registered < 0) {
        return -998.0f;
    }
    timing << " registration:         " << registrationTime << "[ms]" << std::endl;
    registration.getCompleteShifts(completeShifts);

    watch.start();
    const int status = displacementAndMaskStatus(completeShifts.data(), maskPointers.data(),
                                                 storedFrames, width, height);
    timing << " large_displacement:   " << elapsedMilliseconds(watch) << "[ms]" << std::endl;

    watch.start();
    const int iterations = minimization.minimize(storedFrames, ref, registeredPointers.data(),
                                                 shifts.data(), maskPointers.data(), result.data());
    timing << " minimization:         " << elapsedMilliseconds(watch) << "[ms]" << std::endl;
    if (iterations < 0) {
        return static_cast<float>(iterations);
    }

    repairResultBadPixels(badPixelHandling, result.data(), {outputWidth, outputHeight},
                          completeShifts, framePointers.data(), storedFrames, {width, height},
                          frameViews);

    watch.start();
    saveFrame(out);
    const float srFactor = estimateSrFactor();
    lastSrFactor = srFactor;
    timing << " save+srfactor calc:   " << elapsedMilliseconds(watch) << "[ms]" << std::endl;
    timing << "+++++++++++++++++++++++++++++" << std::endl;
    return status != 0 ? static_cast<float>(status) : srFactor;
}

template <class Registration>
void SrFloat<Registration>::saveFrame(float* out) const {
    std::memcpy(out, result.data(), sizeof(float) * outputSize);
}

template <class Registration>
float SrFloat<Registration>::estimateSrFactor() const {
    return kelvo::vision::estimateSrFactor(maskPointers.data(), storedFrames, inputSize,
                                           srFactorCap(factor));
}

template <class Registration>
void SrFloat<Registration>::getMasks(std::vector<cv::Mat_<unsigned char>>& out) const {
    copyMasks(maskPointers.data(), windowSize, width, height, out);
}

template <class Registration>
void SrFloat<Registration>::getCompleteShifts(std::vector<cv::Point_<float>>& out) const {
    registration.getCompleteShifts(out);
}

template class SrFloat<SrFloatRegistration1>;
template class SrFloat<SrFloatRegistration2>;

}  // namespace kelvo::vision
