#pragma once

#include <opencv2/core.hpp>
#include <vector>

#include "platform/kelvo/Exception.h"

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
    // computeReferenceGradients(reference). Returns s0 + u.
    cv::Point_<float> opticalFlow(const float* reference, const float* frame, cv::Point_<int> start,
                                  char* mask);

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
    // shift are set to 1 in the mask.
    void fillUncovered(const Overlap& overlap);
    void writeResidualImage(const float* reference, const float* frame, const Overlap& overlap,
                            float ux, float uy, float energyNorm);
    void markValidPixels(cv::Point_<float> shift, char* mask) const;

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
    float sumGxx = 0.0f;
    float sumGxy = 0.0f;
    float sumGyy = 0.0f;

    std::vector<cv::Point_<float>> completeShifts;
    std::vector<cv::Point_<float>> lastShifts;
};

}  // namespace kelvo::vision
