// SPDX-License-Identifier: Apache-2.0
#include "vision/superresolution/PhaseCorrelation.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "vision/superresolution/VectorClones.h"

namespace kelvo::vision {

namespace {

// The largest value of a run, NaN ignored (-infinity for a run without numbers). Kept
// in lanes that compare independently, so that the loop runs at the vector width.
KELVO_VECTOR_CLONES float largestOf(const float* values, int count) {
    constexpr int kLanes = 16;
    float lanes[kLanes];
    std::fill(lanes, lanes + kLanes, -std::numeric_limits<float>::infinity());
    int i = 0;
    for (; i + kLanes <= count; i += kLanes) {
        for (int lane = 0; lane < kLanes; ++lane) {
            lanes[lane] = values[i + lane] > lanes[lane] ? values[i + lane] : lanes[lane];
        }
    }
    for (; i < count; ++i) {
        lanes[0] = values[i] > lanes[0] ? values[i] : lanes[0];
    }
    float largest = lanes[0];
    for (int lane = 1; lane < kLanes; ++lane) {
        largest = lanes[lane] > largest ? lanes[lane] : largest;
    }
    return largest;
}

}  // namespace

KELVO_VECTOR_CLONES void multiplyByConjugate(const float (*spectrum)[2], const float (*gauss)[2],
                                             int length, float (*out)[2]) {
    for (int k = 0; k < length; ++k) {
        const float gr = gauss[k][0];
        const float gi = gauss[k][1];
        const float sr = spectrum[k][0];
        const float si = spectrum[k][1];
        out[k][0] = gr * sr + gi * si;
        // si gr - gi sr, written as a sum: GCC 12 fuses an alternating add and
        // subtract of products into one multiply-add instruction even where the build
        // forbids contraction, which would round differently.
        out[k][1] = si * gr + (-gi) * sr;
    }
}

KELVO_VECTOR_CLONES void crossPowerSpectrum(const float (*a)[2], const float (*b)[2], int length,
                                            float (*cross)[2]) {
    for (int k = 0; k < length; ++k) {
        const float m = std::sqrt((b[k][0] * b[k][0] + b[k][1] * b[k][1]) *
                                  (a[k][0] * a[k][0] + a[k][1] * a[k][1]));
        cross[k][0] = (b[k][0] * a[k][0] + b[k][1] * a[k][1]) / m;
        cross[k][1] = (b[k][1] * a[k][0] - b[k][0] * a[k][1]) / m;
    }
}

cv::Point_<int> correlationPeak(const float* surface, int width, int height) {
    const int pixelCount = width * height;
    // A block whose largest value does not beat the peak so far holds no strictly larger
    // value; only the few blocks that do are scanned value by value for the first one.
    constexpr int kBlock = 1024;
    int peak = 0;
    float peakValue = surface[0];
    for (int first = 1; first < pixelCount; first += kBlock) {
        const int end = std::min(first + kBlock, pixelCount);
        if (!(largestOf(surface + first, end - first) > peakValue)) {
            continue;
        }
        for (int i = first; i < end; ++i) {
            if (surface[i] > peakValue) {
                peakValue = surface[i];
                peak = i;
            }
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
