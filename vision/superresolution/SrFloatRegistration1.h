// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <opencv2/core.hpp>
#include <vector>

#include "vision/superresolution/SrFloatRegistrationBase.h"
#include "vision/superresolution/fft/SrFloatFft2d.h"

namespace kelvo::vision {

// Registration by phase correlation: frames are kept as half spectra, the integer
// start of each frame's displacement is the peak of the inverse transform of the
// normalised cross-power spectrum, and the sub-pixel rest comes from the global
// Lucas-Kanade step of SrFloatRegistrationBase::opticalFlow on frames blurred in the
// frequency domain (Gaussian of radius gaussRadius, wrap-around removed).
//
// Needs an even width, at least one frame slot, and 2 gaussRadius + 1 no larger than
// width and height; the constructor and setGaussRadius throw std::invalid_argument
// otherwise.
class SrFloatRegistration1 : public SrFloatRegistrationBase {
public:
    SrFloatRegistration1(int width, int height, int frameCount);

    // Transforms the frame into the newest slot and blurs it there; once all
    // frameCount slots are full, the oldest is dropped and its storage reused.
    void prepareFrame(const float* frame);

    // 0, or -9 when frameCount exceeds the prepared frames or the reference index lies
    // outside them. Throws kelvo::Exception "Too large displacement".
    int doRegistration(int frameCount, int referenceIndex, const float* const* frames,
                       cv::Point_<float>* shifts, char** masks, float** shiftedFrames);

    int getGaussRadius() const { return gaussRadius; }
    // sigma = sqrt(3 r^2 / 25), as the blur of the corner registration.
    void setGaussRadius(int radius);

    // The one-sided Gaussian taps k[0 .. gaussRadius] and the frequency-blurred
    // reference and last frame of the last registration, for inspection and tests.
    const std::vector<float>& getGaussTable() const { return gaussTable; }
    const std::vector<float>& getBlurredReference() const { return slots[referenceSlot].blurred; }
    const std::vector<float>& getBlurredFrame() const { return slots[frameSlot].blurred; }

private:
    void registerFrames(int frameCount, int referenceIndex, const float* const* frames,
                        cv::Point_<float>* shifts, char** masks);
    void initialize(char** masks, const float* blurredReference, int frameCount);
    // The slot's frame blurred: repaired backward(spectrum . conj(gaussSpectrum)), with
    // `frame` the spectrum's image. Every frame takes part in several passes while it
    // stays in the window, so the blur is kept with the frame it was made from and
    // made again only when that frame or the Gaussian changes.
    const float* blurredImageOf(int index, const float* frame);
    cv::Point_<int> phaseCorrelation();

    // What is kept of one prepared frame.
    struct Slot {
        std::vector<float> spectrum;  // pairs (re, im)
        std::vector<float> frame;     // the image the blur was made from
        std::vector<float> blurred;
        bool blurCurrent = false;  // blurred is that of frame with the current Gaussian
    };

    int spectrumLength;
    int gaussRadius = 5;
    std::vector<Slot> slots;
    SrFloatFft2d fft;
    std::vector<float> gaussSpectrum;
    int referenceSlot = 0;
    int frameSlot = 0;
    std::vector<float> workSpectrum;
    std::vector<float> correlation;
    std::vector<float> gaussTable;
};

}  // namespace kelvo::vision
