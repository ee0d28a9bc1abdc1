// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "vision/superresolution/fft/SrFloatFft2d.h"

namespace kelvo::vision {

// The two-dimensional FFT of the reference engine. Transforms, Gaussian spectrum and
// border repair are those of SrFloatFft2d, float for float; the only difference is
// that gaussFft also prints the normalised taps k[0 .. radius] to standard output, one
// per line, so that a run's log shows the blur the registration used.
class SuperResolutionFft2d {
public:
    // Throws std::invalid_argument unless width is even and positive and height is
    // positive.
    SuperResolutionFft2d(int width, int height) : transform(width, height) {}

    int getWidth() const { return transform.getWidth(); }
    int getHeight() const { return transform.getHeight(); }

    void forward(const float* image, float (*spectrum)[2]) { transform.forward(image, spectrum); }
    void backward(const float (*spectrum)[2], float* image) { transform.backward(spectrum, image); }
    void gaussFft(int radius, float sigma, float (*spectrum)[2], float* kernel);
    void repairGaussBlur(const float* input, float* blurred, int radius, const float* kernel) {
        transform.repairGaussBlur(input, blurred, radius, kernel);
    }

private:
    SrFloatFft2d transform;
};

}  // namespace kelvo::vision
