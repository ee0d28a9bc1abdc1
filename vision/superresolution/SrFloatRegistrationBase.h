// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <opencv2/core.hpp>
#include <vector>

#include "platform/kelvo/Exception.h"
#include "vision/superresolution/ParallelRuns.h"

namespace kelvo::vision {

// What the registration classes of the float engine share: the frame geometry, the
// sub-pixel Lucas-Kanade step over the whole overlap with its validity mask, and the
// whole-pixel move of every frame onto the reference grid.
//
// Shift convention: the content at reference pixel p is found at p + s in frame k;
// the reference has s = (0, 0).
//
// A registration class usable by SrFloat<Registration> provides
//   Registration(int width, int height, int frameCount);
//   void prepareFrame(const float* frame);     // once per arriving frame, oldest first
//   int doRegistration(int frameCount, int referenceIndex, const float* const* frames,
//                      cv::Point_<float>* shifts, char** masks, float** shiftedFrames);
//   void getCompleteShifts(std::vector<cv::Point_<float>>& out) const;
//   float getRegError() const;  void setRegError(float);
// and is copyable. doRegistration leaves the sub-pixel remainder of every shift in
// `shifts`, a 0/1 mask per frame on the reference grid in `masks`, and each frame
// moved by the whole-pixel part of its shift in `shiftedFrames`.
class SrFloatRegistrationBase {
public:
    SrFloatRegistrationBase(int width, int height, int frameCount);
    // A copy has its own buffers; scratch space is not shared with the original.
    SrFloatRegistrationBase(const SrFloatRegistrationBase& other);
    SrFloatRegistrationBase(SrFloatRegistrationBase&&) = default;
    SrFloatRegistrationBase& operator=(const SrFloatRegistrationBase& other);
    SrFloatRegistrationBase& operator=(SrFloatRegistrationBase&&) = default;

    float getRegError() const { return regError; }
    void setRegError(float value) { regError = value; }
    int getRegErrBlurRadius() const { return regErrBlurRadius; }
    void setRegErrBlurRadius(int value) { regErrBlurRadius = value; }

    // The full shifts (whole and sub-pixel parts) of the last doRegistration.
    void getCompleteShifts(std::vector<cv::Point_<float>>& out) const;

    // Threads that share the sub-pixel steps of the frames (1: the caller's thread). Each
    // frame's step is computed alone, so the count changes nothing in the results.
    int getThreads() const { return threads; }
    void setThreads(int count);

protected:
    // Gradients of the (blurred) reference: central differences inside, one-sided
    // and not halved on the border rows and columns; and their whole-image sums
    // Sxx = sum gx gx, Sxy = sum gx gy, Syy = sum gy gy (products in float, sums in
    // double, stored as float).
    void computeReferenceGradients(const float* reference);
    // The gradient images alone, without their sums.
    void computeGradientImages(const float* reference);

    // One Gauss-Newton step for a pure translation u over the overlap of reference R
    // and frame F displaced by the integer start s0:
    //   u = -M^-1 b,  M = [[Sxx, Sxy], [Sxy, Syy]],  b = sum (F - R) (gx, gy),
    // with M's overlap sums obtained from the whole-image sums minus two border strips.
    // The normalised squared residual of the linearised model, mean filtered, marks
    // the mask's valid pixels (below regError); the mask is only ever set to 1, so
    // the caller clears it first. The gradients and sums must be those of
    // computeReferenceGradients(reference). Returns s0 + u. Masks are bytes or floats
    // (1 valid). `worker` names the residual images it works in: 0 those of the object,
    // w > 0 the w-th of the threads' own, so that the steps of different frames may run
    // at once.
    template <typename Mask>
    cv::Point_<float> opticalFlow(const float* reference, const float* frame, cv::Point_<int> start,
                                  Mask* mask, int worker = 0);
    // step(frame, worker) for every frame in `frameIndices`, the frames dealt out in
    // getThreads() runs of consecutive entries, run w with worker w.
    template <typename Step>
    void forEachFrame(const std::vector<int>& frameIndices, Step step);

    // Moves `source` by the whole-pixel part of `shift` as one flat array (pixels
    // carry across row ends; only the ends of the array are zero-filled) and leaves
    // the remainder, each component in [-0.5, 0.5), in `shift`.
    void shiftFrame(const float* source, cv::Point_<float>& shift, float* destination) const;

    // Copies every frame, records its full shift, rejects displacements of half the
    // frame height or more (both components; the width plays no part) by throwing
    // "Too large displacement" with the caller's location, and shifts the frame.
    void shiftFramesOntoReference(int frameCount, const float* const* frames,
                                  cv::Point_<float>* shifts, float** shiftedFrames,
                                  const SourceLocation& throwSite);

    struct GradientSums {
        double xx = 0.0;
        double xy = 0.0;
        double yy = 0.0;
    };
    // The reference grid split for an integer shift s: the overlap in the reference
    // and in the frame (pixel for pixel), and the two strips of the reference that
    // the frame does not cover (rows, then columns). Shifts of the whole frame size
    // or more leave an empty overlap.
    struct Overlap {
        cv::Rect reference;
        cv::Rect frame;
        cv::Rect rowStrip;
        cv::Rect columnStrip;
    };
    Overlap overlapOf(cv::Point_<int> shift) const;
    // Sums of gx gx, gx gy, gy gy over a region of the reference gradients.
    GradientSums sumGradientProducts(const cv::Rect& region) const;

    // The pieces of opticalFlow's residual mask. The reference pixels the frame does
    // not cover count as residual regError, so that the smoothed residual rises towards
    // the threshold near the overlap edge; the overlap gets the squared residual of the
    // step u = (ux, uy) times energyNorm; once errorImage is smoothed into
    // blurredErrorImage, the pixels below regError inside the overlap of the rounded
    // shift are set to 1 in the mask. `worker` as in opticalFlow.
    void fillUncovered(const Overlap& overlap, int worker = 0);
    void writeResidualImage(const float* reference, const float* frame, const Overlap& overlap,
                            float ux, float uy, float energyNorm, int worker = 0);
    template <typename Mask>
    void markValidPixels(cv::Point_<float> shift, Mask* mask, int worker = 0);

    // The residual images of a worker (see opticalFlow).
    struct ResidualImages {
        std::vector<float> error;
        std::vector<float> blurredError;
        cv::Mat_<float> meanFilterScratch;
    };
    float* errorImageOf(int worker);
    float* blurredErrorImageOf(int worker);

    int width;
    int height;
    int pixelCount;
    int frameCount;
    int storedFrames = 0;
    float regError = 1e-4f;
    int regErrBlurRadius = 3;

    std::vector<float> refGradX;
    std::vector<float> refGradY;
    std::vector<float> errorImage;
    std::vector<float> blurredErrorImage;
    cv::Mat_<float> meanFilterScratch;
    int threads = 1;
    // The residual images of the threads beyond the first.
    std::vector<ResidualImages> workerResiduals;
    float sumGxx = 0.0f;
    float sumGxy = 0.0f;
    float sumGyy = 0.0f;

    std::vector<cv::Point_<float>> completeShifts;
    std::vector<cv::Point_<float>> lastShifts;
};

template <typename Step>
void SrFloatRegistrationBase::forEachFrame(const std::vector<int>& frameIndices, Step step) {
    forEachInRuns(static_cast<int>(frameIndices.size()),
                  std::min(threads, static_cast<int>(workerResiduals.size()) + 1),
                  [&](int entry, int worker) { step(frameIndices[entry], worker); });
}

}  // namespace kelvo::vision
