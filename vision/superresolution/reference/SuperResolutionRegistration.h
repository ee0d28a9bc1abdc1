// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <vector>

#include "vision/superresolution/SrFloatRegistrationBase.h"
#include "vision/superresolution/reference/Point.h"
#include "vision/superresolution/reference/SuperResolutionConvolution.h"
#include "vision/superresolution/reference/SuperResolutionFft2d.h"

namespace kelvo::vision {

// Registration of the reference engine, by phase correlation on spectra the caller
// keeps: the integer start of each frame's displacement is the peak of the inverse
// transform of the normalised cross-power spectrum; the sub-pixel rest is one global
// Lucas-Kanade step between the reference and the frame, both blurred in the frequency
// domain (Gaussian of radius gaussRadius, wrap-around removed); pixels whose smoothed
// residual stays below regError form the frame's mask; each frame is then moved by the
// whole-pixel part of its shift onto the reference grid.
//
// The gradient rule, overlap geometry, residual mask and whole-pixel move are those
// of the float engine's registrations. Unlike them, every sum of the Lucas-Kanade step
// (the gradient sums included) is one running float sum in row-major order, and the
// residual is smoothed by this class's SuperResolutionConvolution::sameConvOnes.
//
// Needs an even width and 2 gaussRadius + 1 no larger than width and height.
class SuperResolutionRegistration : private SrFloatRegistrationBase {
public:
    // `factor` is handed to the convolution object that smooths the residual.
    SuperResolutionRegistration(int width, int height, float factor, int gaussRadius);

    // Registers frames[0 .. frameCount) against frames[referenceIndex], given their
    // spectra (SuperResolutionFft2d::forward). Leaves in `shifts` the sub-pixel
    // remainder of every shift, in `masks` a 0/1 mask per frame on the reference grid
    // and in `shiftedFrames` each frame moved by the whole-pixel part of its shift.
    // Returns 0, or -9 for a frame count or reference index that does not fit. Throws
    // kelvo::Exception "Too large displacement" for a shift component of half the
    // frame height or more.
    int doRegistration(int frameCount, int referenceIndex, const float* const* frames,
                       float (*const* spectra)[2], PointF* shifts, char** masks,
                       float** shiftedFrames);

    using SrFloatRegistrationBase::getRegErrBlurRadius;
    using SrFloatRegistrationBase::getRegError;
    using SrFloatRegistrationBase::setRegErrBlurRadius;
    using SrFloatRegistrationBase::setRegError;
    int getGaussRadius() const { return gaussRadius; }
    // sigma = sqrt(3 r^2 / 25); prints the taps (SuperResolutionFft2d::gaussFft).
    void setGaussRadius(int radius);
    SuperResolutionFft2d& getFft() { return fft; }
    // The full shifts (whole and sub-pixel parts) of the last doRegistration.
    void getCompleteShifts(std::vector<PointF>& out) const;

private:
    void registerFrames(int frameCount, int referenceIndex, const float* const* frames,
                        float (*const* spectra)[2], PointF* shifts, char** masks);
    void initialize(char** masks, int frameCount);
    void blurFromSpectrum(const float (*spectrum)[2], const float* frame, float* blurred);
    PointI phaseCorrelation();
    PointF opticalFlow(PointI start, char* mask);
    // Running float sums of gx gx, gx gy, gy gy over a region, added to the sums given.
    void addGradientProducts(const cv::Rect& region, float& xx, float& xy, float& yy) const;

    int spectrumLength;
    int gaussRadius = 0;
    SuperResolutionFft2d fft;
    std::vector<float> gaussSpectrum;
    std::vector<float> workSpectrum;
    const float (*referenceSpectrum)[2] = nullptr;
    const float (*frameSpectrum)[2] = nullptr;
    std::vector<float> correlation;
    std::vector<float> blurredReference;
    std::vector<float> blurredFrame;
    std::vector<float> gaussTable;
    SuperResolutionConvolution convolution;
    // The shifts in the float engine's point type, for the shared whole-pixel move.
    std::vector<cv::Point_<float>> workShifts;
};

}  // namespace kelvo::vision
