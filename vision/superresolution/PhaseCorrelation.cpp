// SPDX-License-Identifier: Apache-2.0
#include "vision/superresolution/PhaseCorrelation.h"

#include <cmath>

namespace kelvo::vision {

void multiplyByConjugate(const float (*spectrum)[2], const float (*gauss)[2], int length,
                         float (*out)[2]) {
    for (int k = 0; k < length; ++k) {
        const float gr = gauss[k][0];
        const float gi = gauss[k][1];
        const float sr = spectrum[k][0];
        const float si = spectrum[k][1];
        out[k][0] = gr * sr + gi * si;
        out[k][1] = si * gr - gi * sr;
    }
}

void crossPowerSpectrum(const float (*a)[2], const float (*b)[2], int length, float (*cross)[2]) {
    for (int k = 0; k < length; ++k) {
        const float m = std::sqrt((b[k][0] * b[k][0] + b[k][1] * b[k][1]) *
                                  (a[k][0] * a[k][0] + a[k][1] * a[k][1]));
        cross[k][0] = (b[k][0] * a[k][0] + b[k][1] * a[k][1]) / m;
        cross[k][1] = (b[k][1] * a[k][0] - b[k][0] * a[k][1]) / m;
    }
}

cv::Point_<int> correlationPeak(const float* surface, int width, int height) {
    const int pixelCount = width * height;
    int peak = 0;
    float peakValue = surface[0];
    for (int i = 1; i < pixelCount; ++i) {
        if (surface[i] > peakValue) {
            peakValue = surface[i];
            peak = i;
        }
    }
    int x = peak % width;
    int y = peak / width;
    if (y > height / 2) {
        y -= height;
    }
    if (x > width / 2) {
        x -= width;
    }
    return cv::Point_<int>(x, y);
}

}  // namespace kelvo::vision
