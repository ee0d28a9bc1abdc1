// SPDX-License-Identifier: Apache-2.0
#include "vision/superresolution/reference/SuperResolutionRegistration.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "vision/superresolution/PhaseCorrelation.h"

namespace kelvo::vision {

namespace {

constexpr int kDoRegistrationLine = 91;
const SourceLocation kDoRegistrationSite{
    "vision/superresolution/reference/SuperResolutionRegistration", kDoRegistrationLine,
    "kelvo::vision::SuperResolutionRegistration::doRegistration"};

constexpr int kUnfittingFrames = -9;

float (*pairs(std::vector<float>& values))[2] {
    return reinterpret_cast<float(*)[2]>(values.data());
}

}  // namespace

SuperResolutionRegistration::SuperResolutionRegistration(int width, int height, float factor,
                                                         int gaussRadius)
    : SrFloatRegistrationBase(width, height, 1),
      spectrumLength((width / 2 + 1) * height),
      fft(width, height),
      gaussSpectrum(2 * spectrumLength),
      workSpectrum(2 * spectrumLength),
      correlation(pixelCount),
      blurredReference(pixelCount),
      blurredFrame(pixelCount),
      convolution(width, height, 1, 1, factor) {
    setGaussRadius(gaussRadius);
}

void SuperResolutionRegistration::setGaussRadius(int radius) {
    const float side = static_cast<float>(radius);
    const float sigma = std::sqrt(3.0f * (side * side) / 25.0f);
    std::vector<float> table(std::max(radius, 0) + 1);
    fft.gaussFft(radius, sigma, pairs(gaussSpectrum), table.data());
    gaussTable = std::move(table);
    gaussRadius = radius;
}

void SuperResolutionRegistration::getCompleteShifts(std::vector<PointF>& out) const {
    out.resize(completeShifts.size());
    for (size_t i = 0; i < completeShifts.size(); ++i) {
        out[i] = {completeShifts[i].x, completeShifts[i].y};
    }
}

int SuperResolutionRegistration::doRegistration(int frameCount, int referenceIndex,
                                                const float* const* frames,
                                                float (*const* spectra)[2], PointF* shifts,
                                                char** masks, float** shiftedFrames) {
    if (frameCount < 1 || referenceIndex < 0 || referenceIndex >= frameCount) {
        return kUnfittingFrames;
    }
    registerFrames(frameCount, referenceIndex, frames, spectra, shifts, masks);
    if (workShifts.size() < static_cast<size_t>(frameCount)) {
        workShifts.resize(frameCount);
    }
    for (int k = 0; k < frameCount; ++k) {
        workShifts[k] = cv::Point_<float>(shifts[k].x, shifts[k].y);
    }
    shiftFramesOntoReference(frameCount, frames, workShifts.data(), shiftedFrames,
                             kDoRegistrationSite);
    for (int k = 0; k < frameCount; ++k) {
        shifts[k] = {workShifts[k].x, workShifts[k].y};
    }
    return 0;
}

void SuperResolutionRegistration::registerFrames(int frameCount, int referenceIndex,
                                                 const float* const* frames,
                                                 float (*const* spectra)[2], PointF* shifts,
                                                 char** masks) {
    referenceSpectrum = spectra[referenceIndex];
    blurFromSpectrum(referenceSpectrum, frames[referenceIndex], blurredReference.data());
    initialize(masks, frameCount);
    for (int k = 0; k < frameCount; ++k) {
        if (k == referenceIndex) {
            shifts[k] = {0.0f, 0.0f};
            std::memset(masks[k], 1, pixelCount);
            continue;
        }
        frameSpectrum = spectra[k];
        const PointI start = phaseCorrelation();
        blurFromSpectrum(frameSpectrum, frames[k], blurredFrame.data());
        shifts[k] = opticalFlow(start, masks[k]);
    }
}

// Masks cleared; gradients of the blurred reference and their sums, in float.
void SuperResolutionRegistration::initialize(char** masks, int frameCount) {
    for (int k = 0; k < frameCount; ++k) {
        std::memset(masks[k], 0, pixelCount);
    }
    computeGradientImages(blurredReference.data());
    sumGxx = 0.0f;
    sumGxy = 0.0f;
    sumGyy = 0.0f;
    addGradientProducts(cv::Rect(0, 0, width, height), sumGxx, sumGxy, sumGyy);
}

void SuperResolutionRegistration::blurFromSpectrum(const float (*spectrum)[2], const float* frame,
                                                   float* blurred) {
    float(*work)[2] = pairs(workSpectrum);
    multiplyByConjugate(spectrum, pairs(gaussSpectrum), spectrumLength, work);
    fft.backward(work, blurred);
    fft.repairGaussBlur(frame, blurred, gaussRadius, gaussTable.data());
}

PointI SuperResolutionRegistration::phaseCorrelation() {
    float(*cross)[2] = pairs(workSpectrum);
    crossPowerSpectrum(referenceSpectrum, frameSpectrum, spectrumLength, cross);
    fft.backward(cross, correlation.data());
    const cv::Point_<int> peak = correlationPeak(correlation.data(), width, height);
    return {peak.x, peak.y};
}

void SuperResolutionRegistration::addGradientProducts(const cv::Rect& region, float& xx, float& xy,
                                                      float& yy) const {
    for (int y = region.y; y < region.y + region.height; ++y) {
        const float* gx = refGradX.data() + y * width;
        const float* gy = refGradY.data() + y * width;
        for (int x = region.x; x < region.x + region.width; ++x) {
            xx += gx[x] * gx[x];
            xy += gx[x] * gy[x];
            yy += gy[x] * gy[x];
        }
    }
}

// One Gauss-Newton step for the translation u over the overlap (see
// SrFloatRegistrationBase::opticalFlow), every sum in float.
PointF SuperResolutionRegistration::opticalFlow(PointI start, char* mask) {
    const Overlap overlap = overlapOf(cv::Point_<int>(start.x, start.y));
    float borderXx = 0.0f;
    float borderXy = 0.0f;
    float borderYy = 0.0f;
    addGradientProducts(overlap.rowStrip, borderXx, borderXy, borderYy);
    addGradientProducts(overlap.columnStrip, borderXx, borderXy, borderYy);
    fillUncovered(overlap);
    const float sxx = sumGxx - borderXx;
    const float sxy = sumGxy - borderXy;
    const float syy = sumGyy - borderYy;

    // b = sum over the overlap of (F - R) (gx, gy).
    const float* reference = blurredReference.data();
    const float* frame = blurredFrame.data();
    float bx = 0.0f;
    float by = 0.0f;
    for (int j = 0; j < overlap.reference.height; ++j) {
        const int referenceRow = (overlap.reference.y + j) * width + overlap.reference.x;
        const float* r = reference + referenceRow;
        const float* f = frame + (overlap.frame.y + j) * width + overlap.frame.x;
        const float* gx = refGradX.data() + referenceRow;
        const float* gy = refGradY.data() + referenceRow;
        for (int i = 0; i < overlap.reference.width; ++i) {
            const float mismatch = f[i] - r[i];
            bx += mismatch * gx[i];
            by += mismatch * gy[i];
        }
    }

    // u = -M^-1 b with M = [[Sxx, Sxy], [Sxy, Syy]].
    const float det = syy * sxx - sxy * sxy;
    const float ux = (sxy * by - syy * bx) / det;
    const float uy = (sxy * bx - sxx * by) / det;

    writeResidualImage(reference, frame, overlap, ux, uy, 1.0f / (sxx + syy));
    convolution.sameConvOnes(errorImage.data(), regErrBlurRadius, blurredErrorImage.data());
    const cv::Point_<float> shift(static_cast<float>(start.x) + ux,
                                  static_cast<float>(start.y) + uy);
    markValidPixels(shift, mask);
    return {shift.x, shift.y};
}

}  // namespace kelvo::vision
