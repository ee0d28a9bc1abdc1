// SPDX-License-Identifier: Apache-2.0
#include "vision/superresolution/GaussianPsf.h"

#include <algorithm>
#include <cmath>

namespace kelvo::vision {

namespace {

constexpr float kFourOverPi = 1.2732395f;
constexpr float kErfA = 0.1400123f;

}  // namespace

float approximateErf(float x) {
    if (x == 0.0f) {
        return 0.0f;
    }
    const float x2 = x * x;
    const float ax2 = kErfA * x2;
    const float magnitude = std::sqrt(1.0f - std::exp(-x2 * (kFourOverPi + ax2) / (1.0f + ax2)));
    return x < 0.0f ? -magnitude : magnitude;
}

// Tap k: (erf((k + 1) c) - erf(k c)) / 2 with c = 1 / (sqrt(2) sigma).
void buildBasePsf(float sigma, float factor, int psfSize, float* psf) {
    std::fill(psf, psf + psfSize, 0.0f);
    const int half = psfSize / 2;
    const float c = 1.0f / (std::sqrt(2.0f) * sigma);
    float sum = 0.0f;
    for (int i = 0; factor > static_cast<float>(i) && i < half; ++i) {
        const float v = 0.5f * (approximateErf(static_cast<float>(i + 1) * c) -
                                approximateErf(static_cast<float>(i) * c));
        psf[half - 1 - i] = v;
        psf[half + i] = v;
        sum += 2.0f * v;
    }
    for (int i = 0; i < psfSize; ++i) {
        psf[i] /= sum;
    }
}

void shiftPsf(const float* base, int psfSize, float s, float* psf) {
    const int n = psfSize;
    if (s < 0.0f) {
        psf[0] = 0.0f;
        for (int j = 1; j < n; ++j) {
            psf[j] = (s + 1.0f) * base[j] + (-s) * base[j - 1];
        }
    } else {
        for (int j = 0; j < n - 1; ++j) {
            psf[j] = (1.0f - s) * base[j] + s * base[j + 1];
        }
        psf[n - 1] = 0.0f;
    }
}

}  // namespace kelvo::vision
