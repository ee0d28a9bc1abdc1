// SPDX-License-Identifier: Apache-2.0
#include "vision/superresolution/reference/SuperResolutionConvolution.h"

#include <algorithm>
#include <opencv2/core.hpp>

#include "vision/superresolution/SrFloatConvolution.h"

namespace kelvo::vision {

SuperResolutionConvolution::SuperResolutionConvolution(int hrWidth, int hrHeight, int kernelWidth,
                                                       int kernelHeight, float factor)
    : ConvolutionGeometry(hrWidth, hrHeight, kernelWidth, kernelHeight, factor),
      scratch(static_cast<size_t>(hrWidth) * (std::max(fullHeight, hrHeight) + 1)) {}

int SuperResolutionConvolution::lowResRowStep() const {
    const int w = lrWidth;
    return w + static_cast<int>((factor - 1.0f) * static_cast<float>(w));
}

void SuperResolutionConvolution::fullConvFromSparse(float* const lowRes, float* const psfX,
                                                    float* const psfY, char* mask, float* out) {
    const int w = lrWidth;
    const int h = lrHeight;
    const int step = static_cast<int>(factor);
    const int rowStep = lowResRowStep();
    float* s = scratch.data();
    std::fill(out, out + fullHeight * fullWidth, 0.0f);
    std::fill(s, s + fullHeight * w, 0.0f);

    // Vertical: frame row r spreads over scratch rows (r f) + i.
    for (int i = 0; i < kernelHeight; ++i) {
        const float k = psfY[i];
        for (int r = 0; r < h; ++r) {
            float* target = s + r * rowStep + i * w;
            const float* source = lowRes + r * w;
            const signed char* valid = reinterpret_cast<const signed char*>(mask) + r * w;
            for (int c = 0; c < w; ++c) {
                target[c] += static_cast<float>(valid[c]) * source[c] * k;
            }
        }
    }
    // Horizontal: scratch column c spreads over full columns F c + j.
    for (int j = 0; j < kernelWidth; ++j) {
        const float k = psfX[j];
        for (int t = 0; t < fullHeight; ++t) {
            float* target = out + t * fullWidth + j;
            const float* source = s + t * w;
            for (int c = 0; c < w; ++c) {
                target[step * c] += k * source[c];
            }
        }
    }
}

void SuperResolutionConvolution::validCorrToSparse(float* const full, float* const psfX,
                                                   float* const psfY, float* lowResOut) {
    const int w = lrWidth;
    const int h = lrHeight;
    const int step = static_cast<int>(factor);
    const int rowStep = lowResRowStep();
    float* s = scratch.data();
    std::fill(lowResOut, lowResOut + h * w, 0.0f);
    std::fill(s, s + fullHeight * w, 0.0f);

    for (int j = 0; j < kernelWidth; ++j) {
        const float k = psfX[j];
        for (int t = 0; t < fullHeight; ++t) {
            float* target = s + t * w;
            const float* source = full + t * fullWidth + j;
            for (int c = 0; c < w; ++c) {
                target[c] += k * source[step * c];
            }
        }
    }
    for (int i = 0; i < kernelHeight; ++i) {
        const float k = psfY[i];
        for (int r = 0; r < h; ++r) {
            float* target = lowResOut + r * w;
            const float* source = s + r * rowStep + i * w;
            for (int c = 0; c < w; ++c) {
                target[c] += k * source[c];
            }
        }
    }
}

void SuperResolutionConvolution::sameConvOnes(float* const in, int radius, float* out) {
    cv::Mat_<float> input(hrHeight, hrWidth, in);
    cv::Mat_<float> output(hrHeight, hrWidth, out);
    cv::Mat_<float> passes(hrHeight + 1, hrWidth, scratch.data());
    SrFloatConvolution::blurImageMeanFilter(input, radius, output, passes);
}

}  // namespace kelvo::vision
