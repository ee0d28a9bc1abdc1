// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <opencv2/core.hpp>
#include <vector>

#include "vision/superresolution/SrFloatEngineBase.h"
#include "vision/superresolution/SrFloatMinimization.h"
#include "vision/superresolution/SuperResolutionBadPixelHandling.h"
#include "vision/superresolution/TimingSink.h"

namespace kelvo::vision {

class SrFloatRegistration1;
class SrFloatRegistration2;

// The float super-resolution engine. It holds a sliding window of the last
// windowSize frames (oldest first), repairs defective pixels as frames arrive, and
// on computeSR registers the window against a reference frame, reconstructs the
// image `factor` times larger by total-variation minimisation, and repairs result
// pixels that defective input pixels influenced.
//
// Registration is any class with the interface described in
// SrFloatRegistrationBase.h; the library instantiates SrFloatRegistration1 (phase
// correlation) and SrFloatRegistration2 (tracked corners). Parameters, window and
// factor estimate are those of SrFloatEngineBase.
template <class Registration>
class SrFloat : public SrFloatEngineBase<Registration, SrFloatMinimization, char> {
    using Base = SrFloatEngineBase<Registration, SrFloatMinimization, char>;

public:
    SrFloat(int width, int height, int windowSize, float factor);
    SrFloat(const SrFloat& other);
    SrFloat& operator=(const SrFloat& other);
    ~SrFloat() = default;

    void setDataIsNUC(bool isNUC) { badPixelHandling.setDataIsNUC(isNUC); }
    // Threads (OpenCV's parallel_for_) that share a pass: the frames' sub-pixel
    // registration steps and the reconstruction's bands of rows; by
    // default 1, every stage on the caller's thread; at most 64. The result is the same
    // to the bit for any count.
    void setThreads(int count);
    int getThreads() const { return minimization.getThreads(); }
    // Pixels outside [minimum, maximum] count as defective; both finite, minimum below maximum.
    void setValidRange(float minimum, float maximum);

    // Stores a copy of the frame (width x height floats, row-major), repairing its
    // defective pixels. Returns 0, or -2 when some defect could not be repaired from
    // its neighbours; the frame is kept in either case.
    int addFrame(const float* frame);
    int addFrame(const cv::Mat_<float>& frame) { return addFrame(frame.ptr<float>()); }

    // The super-resolution pass: returns the quality factor estimate, or a negative
    // status (-998 registration failed, -6 a displacement above a tenth of the
    // height, -3 a mask at least half empty). `out` receives outputSize floats unless
    // registration or minimisation failed.
    float computeSR(float* out);
    float computeSR(cv::Mat_<float>& out) { return computeSR(this->outputBuffer(out)); }

    // The factor estimate of the last pass, also when it returned -3 or -6; 0 when the pass
    // stopped before the estimate.
    float getLastSrFactor() const { return lastSrFactor; }

    // Where the timing lines of the passes go (standard output unless told otherwise).
    TimingSink& getTimingSink() { return timingSink; }

    SuperResolutionBadPixelHandling& getBadPixelHandling() { return badPixelHandling; }

private:
    using Base::completeShifts;
    using Base::framePointers;
    using Base::height;
    using Base::inputSize;
    using Base::maskPointers;
    using Base::minimization;
    using Base::outputHeight;
    using Base::outputSize;
    using Base::outputWidth;
    using Base::registeredPointers;
    using Base::registration;
    using Base::shifts;
    using Base::storedFrames;
    using Base::width;
    using Base::windowSize;

    int loadFrame(const float* frame);

    SuperResolutionBadPixelHandling badPixelHandling;
    TimingSink timingSink;
    float lastSrFactor = 0.0f;
    std::vector<cv::Mat_<float>> frameViews;
};

}  // namespace kelvo::vision
