#include "vision/superresolution/SrFloatRegistration1.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <stdexcept>

namespace kelvo::vision {

namespace {

constexpr int kDoRegistrationLine = 144;
const SourceLocation kDoRegistrationSite{"vision/superresolution/SrFloatRegistration1",
                                         kDoRegistrationLine,
                                         "kelvo::vision::SrFloatRegistration1::doRegistration"};

constexpr int kUnpreparedFrames = -9;
constexpr int kDefaultGaussRadius = 5;

float (*pairs(std::vector<float>& values))[2] {
    return reinterpret_cast<float(*)[2]>(values.data());
}

int checkedFrameCount(int frameCount) {
    if (frameCount < 1) {
        throw std::invalid_argument("SrFloatRegistration1 needs room for at least one frame");
    }
    return frameCount;
}

}  // namespace

SrFloatRegistration1::SrFloatRegistration1(int width, int height, int frameCount)
    : SrFloatRegistrationBase(width, height, checkedFrameCount(frameCount)),
      spectrumLength((width / 2 + 1) * height),
      spectrumSlots(frameCount, std::vector<float>(2 * spectrumLength, 0.0f)),
      fft(width, height),
      gaussSpectrum(2 * spectrumLength),
      workSpectrum(2 * spectrumLength),
      correlation(pixelCount),
      blurredReference(pixelCount),
      blurredFrame(pixelCount) {
    setGaussRadius(kDefaultGaussRadius);
}

void SrFloatRegistration1::setGaussRadius(int radius) {
    const float side = static_cast<float>(radius);
    const float sigma = std::sqrt(3.0f * (side * side) / 25.0f);
    std::vector<float> table(std::max(radius, 0) + 1);
    fft.gaussFft(radius, sigma, pairs(gaussSpectrum), table.data());
    gaussTable = std::move(table);
    gaussRadius = radius;
}

void SrFloatRegistration1::prepareFrame(const float* frame) {
    if (storedFrames < frameCount) {
        ++storedFrames;
    } else {
        std::rotate(spectrumSlots.begin(), spectrumSlots.begin() + 1, spectrumSlots.end());
    }
    fft.forward(frame, pairs(spectrumSlots[storedFrames - 1]));
}

int SrFloatRegistration1::doRegistration(int registeredFrames, int referenceIndex,
                                         const float* const* frames, cv::Point_<float>* shifts,
                                         char** masks, float** shiftedFrames) {
    if (registeredFrames < 1 || registeredFrames > storedFrames || referenceIndex < 0 ||
        referenceIndex >= registeredFrames) {
        return kUnpreparedFrames;
    }
    registerFrames(registeredFrames, referenceIndex, frames, shifts, masks);
    shiftFramesOntoReference(registeredFrames, frames, shifts, shiftedFrames, kDoRegistrationSite);
    return 0;
}

void SrFloatRegistration1::registerFrames(int registeredFrames, int referenceIndex,
                                          const float* const* frames, cv::Point_<float>* shifts,
                                          char** masks) {
    referenceSlot = referenceIndex;
    blurFromSpectrum(referenceSlot, frames[referenceIndex], blurredReference.data());
    initialize(masks, registeredFrames);
    if (lastShifts.size() < static_cast<size_t>(registeredFrames)) {
        lastShifts.resize(registeredFrames);
    }
    for (int k = 0; k < registeredFrames; ++k) {
        if (k == referenceIndex) {
            shifts[k] = cv::Point_<float>(0.0f, 0.0f);
            std::memset(masks[k], 1, pixelCount);
            continue;
        }
        frameSlot = k;
        const cv::Point_<int> start = phaseCorrelation();
        blurFromSpectrum(frameSlot, frames[k], blurredFrame.data());
        shifts[k] = opticalFlow(blurredReference.data(), blurredFrame.data(), start, masks[k]);
    }
    std::copy(shifts, shifts + registeredFrames, lastShifts.begin());
}

void SrFloatRegistration1::initialize(char** masks, int registeredFrames) {
    for (int k = 0; k < registeredFrames; ++k) {
        std::memset(masks[k], 0, pixelCount);
    }
    computeReferenceGradients(blurredReference.data());
}

void SrFloatRegistration1::blurFromSpectrum(int slot, const float* frame, float* blurred) {
    const float(*spectrum)[2] = pairs(spectrumSlots[slot]);
    const float(*gauss)[2] = pairs(gaussSpectrum);
    float(*work)[2] = pairs(workSpectrum);
    for (int k = 0; k < spectrumLength; ++k) {
        const float gr = gauss[k][0];
        const float gi = gauss[k][1];
        const float sr = spectrum[k][0];
        const float si = spectrum[k][1];
        work[k][0] = gr * sr + gi * si;
        work[k][1] = si * gr - gi * sr;
    }
    fft.backward(work, blurred);
    fft.repairGaussBlur(frame, blurred, gaussRadius, gaussTable.data());
}

cv::Point_<int> SrFloatRegistration1::phaseCorrelation() {
    // Cross-power spectrum b conj(a) / (|a| |b|) of reference a and frame b: its
    // inverse transform peaks at the displacement of the frame.
    const float(*a)[2] = pairs(spectrumSlots[referenceSlot]);
    const float(*b)[2] = pairs(spectrumSlots[frameSlot]);
    float(*cross)[2] = pairs(workSpectrum);
    for (int k = 0; k < spectrumLength; ++k) {
        const float m = std::sqrt((b[k][0] * b[k][0] + b[k][1] * b[k][1]) *
                                  (a[k][0] * a[k][0] + a[k][1] * a[k][1]));
        cross[k][0] = (b[k][0] * a[k][0] + b[k][1] * a[k][1]) / m;
        cross[k][1] = (b[k][1] * a[k][0] - b[k][0] * a[k][1]) / m;
    }
    fft.backward(cross, correlation.data());

    // The first strictly largest value; NaN never wins, so a non-finite surface
    // gives index 0.
    int peak = 0;
    float peakValue = correlation[0];
    for (int i = 1; i < pixelCount; ++i) {
        if (correlation[i] > peakValue) {
            peakValue = correlation[i];
            peak = i;
        }
    }
    int x = peak % width;
    int y = peak / width;
    // Peaks beyond half the size are negative displacements; exactly half stays positive.
    if (y > height / 2) {
        y -= height;
    }
    if (x > width / 2) {
        x -= width;
    }
    return cv::Point_<int>(x, y);
}

}  // namespace kelvo::vision
