// SPDX-License-Identifier: Apache-2.0
#include "vision/superresolution/SrFloat.h"

#include <algorithm>
#include <cmath>
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
    : Base(width, height, windowSize, factor, 0),
      badPixelHandling(static_cast<unsigned int>(windowSize)) {
    frameViews.reserve(windowSize);
}

template <class Registration>
SrFloat<Registration>::SrFloat(const SrFloat& other)
    : Base(other),
      badPixelHandling(other.badPixelHandling),
      timingSink(other.timingSink),
      lastSrFactor(other.lastSrFactor) {
    frameViews.reserve(windowSize);
}

template <class Registration>
SrFloat<Registration>& SrFloat<Registration>::operator=(const SrFloat& other) {
    if (this == &other) {
        return *this;
    }
    Base::operator=(other);
    badPixelHandling = other.badPixelHandling;
    timingSink = other.timingSink;
    lastSrFactor = other.lastSrFactor;
    frameViews.clear();
    frameViews.reserve(windowSize);
    return *this;
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
    const int loaded = loadFrame(frame);
    return loaded < 0 ? loaded : 0;
}

template <class Registration>
int SrFloat<Registration>::loadFrame(const float* frame) {
    float* newest = this->storeFrame(frame);

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
float SrFloat<Registration>::computeSR(float* out) {
    std::ostream& timing = timingSink.stream();
    timing << "++++++++++ SrFloat ++++++++++" << std::endl;
    lastSrFactor = 0.0f;
    if (storedFrames < 1) {
        return -998.0f;
    }
    const int ref = this->getReferencePosition();

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
                                                 shifts.data(), maskPointers.data(), out);
    timing << " minimization:         " << elapsedMilliseconds(watch) << "[ms]" << std::endl;
    if (iterations < 0) {
        return static_cast<float>(iterations);
    }
    this->lastIterations = iterations;

    repairResultBadPixels(badPixelHandling, out, {outputWidth, outputHeight}, completeShifts,
                          framePointers.data(), storedFrames, {width, height}, frameViews);

    watch.start();
    const float srFactor = this->estimateSrFactor(srFactorCap(this->factor));
    lastSrFactor = srFactor;
    timing << " save+srfactor calc:   " << elapsedMilliseconds(watch) << "[ms]" << std::endl;
    timing << "+++++++++++++++++++++++++++++" << std::endl;
    return status != 0 ? static_cast<float>(status) : srFactor;
}

template class SrFloat<SrFloatRegistration1>;
template class SrFloat<SrFloatRegistration2>;

}  // namespace kelvo::vision
