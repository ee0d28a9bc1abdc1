// SPDX-License-Identifier: Apache-2.0
#include "vision/superresolution/DSP_Convolution.h"

#include <algorithm>
#include <cstdint>
#include <iostream>
#include <limits>
#include <opencv2/core.hpp>
#include <type_traits>

namespace kelvo::vision {

namespace {

// Q15 taps: 1.0 is 32768.
constexpr int kQ15One = 32768;
constexpr int kQ15Shift = 15;
// The polyphase convolution's frame margin: a 3 x 3 kernel per phase reads two
// samples beyond the frame on every side.
constexpr int kMargin = 2;

// Two's complement sums and products, wrapping like the 16- and 32-bit registers of
// the processors this is written for (signed overflow is not defined in C++).
template <typename T>
T wrapped(std::int64_t value) {
    using Unsigned = std::make_unsigned_t<T>;
    return static_cast<T>(static_cast<Unsigned>(static_cast<std::uint64_t>(value)));
}

int wrappedProduct(int a, int b) {
    return wrapped<int>(static_cast<std::int64_t>(a) * b);
}

// (a * b) / scale with the product in int, the quotient truncated toward zero.
int scaledProduct(int a, int b, int scale) {
    const int product = wrappedProduct(a, b);
    // The one quotient that leaves the int range wraps as the processor's would.
    if (scale == -1) {
        return wrapped<int>(-static_cast<std::int64_t>(product));
    }
    return product / scale;
}

template <typename T>
int cvDepth();
template <>
int cvDepth<short>() {
    return CV_16S;
}
template <>
int cvDepth<int>() {
    return CV_32S;
}

}  // namespace

template <typename T>
DSP_Convolution<T>::DSP_Convolution(T hrWidth, T hrHeight, T kernelWidth, T kernelHeight,
                                    float factor)
    : hrWidth(hrWidth),
      hrHeight(hrHeight),
      kernelWidth(kernelWidth),
      kernelHeight(kernelHeight),
      fullWidth(static_cast<T>(hrWidth + kernelWidth - 1)),
      fullHeight(static_cast<T>(hrHeight + kernelHeight - 1)),
      factor(factor),
      scratch(static_cast<size_t>(std::max<int>(hrWidth, 0)) * std::max<int>(fullHeight, 0)) {
    const int w = static_cast<T>(static_cast<float>(hrWidth) / factor);
    const int h = static_cast<T>(static_cast<float>(hrHeight) / factor);
    const size_t paddedSize =
        static_cast<size_t>(std::max(w + 2 * kMargin, 0)) * std::max(h + 2 * kMargin, 0);
    paddedFrame.resize(paddedSize);
    for (std::vector<T>& plane : phasePlanes) {
        plane.resize(paddedSize);
    }
}

template <typename T>
void DSP_Convolution<T>::validCorrToSparse(T* const full, T* const psfX, T* const psfY,
                                           T* lowResOut) {
    const int w = static_cast<T>(static_cast<float>(hrWidth) / factor);
    const int h = static_cast<T>(static_cast<float>(hrHeight) / factor);
    const int step = static_cast<int>(factor);
    // Scratch elements from one low-resolution row to the next: f rows of w.
    const int rowAdvance = w + static_cast<int>((factor - 1.0f) * static_cast<float>(w));
    const int scale = filterScale;

    std::fill_n(scratch.data(), static_cast<size_t>(fullHeight) * w, T(0));
    for (int j = 0; j < kernelWidth; ++j) {
        const int k = psfX[j];
        for (int t = 0; t < fullHeight; ++t) {
            const T* row = full + t * fullWidth + j;
            T* target = scratch.data() + t * w;
            for (int c = 0; c < w; ++c) {
                target[c] =
                    wrapped<T>(std::int64_t{target[c]} + scaledProduct(row[step * c], k, scale));
            }
        }
    }
    std::fill_n(lowResOut, static_cast<size_t>(h) * w, T(0));
    for (int i = 0; i < kernelHeight; ++i) {
        const int k = psfY[i];
        for (int r = 0; r < h; ++r) {
            const T* row = scratch.data() + i * w + r * rowAdvance;
            T* target = lowResOut + r * w;
            for (int c = 0; c < w; ++c) {
                target[c] = wrapped<T>(std::int64_t{target[c]} + scaledProduct(row[c], k, scale));
            }
        }
    }
}

template <>
void DSP_Convolution<short>::ImgConv3x3I16sC16s(const short* const in, short* const out,
                                                short count, short stride,
                                                const short* const kernel, short shift) {
    for (int n = 0; n < count; ++n) {
        short sum = 0;
        for (int k = 0; k < 3; ++k) {
            const short* row = in + n + k * stride;
            const int rowSum = wrapped<int>(std::int64_t{row[0]} * kernel[3 * k] +
                                            std::int64_t{row[1]} * kernel[3 * k + 1] +
                                            std::int64_t{row[2]} * kernel[3 * k + 2]);
            sum = wrapped<short>(std::int64_t{sum} + wrapped<short>(rowSum));
        }
        out[n] = static_cast<short>(sum >> shift);
    }
}

template <>
void DSP_Convolution<int>::ImgConv3x3I16sC16s(const int* const in, int* const out, short count,
                                              short stride, const int* const kernel, int shift) {
    for (int n = 0; n < count; ++n) {
        std::int64_t sum = 0;
        for (int k = 0; k < 3; ++k) {
            const int* row = in + n + k * stride;
            for (int j = 0; j < 3; ++j) {
                sum += wrappedProduct(row[j], kernel[3 * k + j]);
            }
        }
        const int shifted = wrapped<int>(sum) >> shift;
        out[n] = std::clamp(shifted, static_cast<int>(std::numeric_limits<short>::min()),
                            static_cast<int>(std::numeric_limits<short>::max()));
    }
}

template <typename T>
void DSP_Convolution<T>::fullConvFromSparse(T* const lowRes, T* const psfX, T* const psfY,
                                            char* mask, T* out) {
    const int w = static_cast<T>(static_cast<float>(hrWidth) / factor);
    const int h = static_cast<T>(static_cast<float>(hrHeight) / factor);
    const int paddedWidth = w + 2 * kMargin;
    const int paddedHeight = h + 2 * kMargin;

    std::fill(paddedFrame.begin(), paddedFrame.end(), T(0));
    for (int r = 0; r < h; ++r) {
        for (int c = 0; c < w; ++c) {
            paddedFrame[(r + kMargin) * paddedWidth + c + kMargin] = wrapped<T>(
                std::int64_t{lowRes[r * w + c]} * static_cast<signed char>(mask[r * w + c]));
        }
    }

    // Full-image pixel (2y + py, 2x + px) sums the samples (y - m, x - n) weighted by
    // psfY[2m + py] psfX[2n + px], m, n = 0..2: per phase a 3 x 3 convolution, run as
    // a correlation with both PSFs reversed.
    for (int phase = 0; phase < 4; ++phase) {
        const int py = (phase >> 1) & 1;
        const int px = phase & 1;
        T kernel[9];
        for (int a = 0; a < 3; ++a) {
            for (int b = 0; b < 3; ++b) {
                const int rowTap = 2 * (2 - a) + py;
                const int columnTap = 2 * (2 - b) + px;
                kernel[3 * a + b] =
                    static_cast<T>(wrappedProduct(psfX[columnTap], psfY[rowTap]) / kQ15One);
                std::cout << "H" << phase << "(" << a << "," << b << ") :" << +kernel[3 * a + b]
                          << std::endl;
                std::cout << " cm: " << rowTap << ", rm: " << columnTap << std::endl;
            }
        }
        std::vector<T>& plane = phasePlanes[phase];
        std::fill(plane.begin(), plane.end(), T(0));
        for (int y = 0; y + 2 < paddedHeight; ++y) {
            ImgConv3x3I16sC16s(paddedFrame.data() + y * paddedWidth, plane.data() + y * paddedWidth,
                               static_cast<short>(paddedWidth - 2), static_cast<short>(paddedWidth),
                               kernel, static_cast<T>(kQ15Shift));
        }
        cv::Mat planeView(paddedHeight, paddedWidth, cvDepth<T>(), plane.data());
        cv::normalize(planeView, planeView, 1.0, 0.0, cv::NORM_MINMAX);
    }

    // Row y of a phase plane holds full row 2y + py; the last full row and column
    // (2h + 4, 2w + 4 for 6 taps) lie beyond every sample's reach.
    std::fill_n(out, static_cast<size_t>(fullHeight) * fullWidth, T(0));
    for (int phase = 0; phase < 4; ++phase) {
        const int py = (phase >> 1) & 1;
        const int px = phase & 1;
        const T* plane = phasePlanes[phase].data();
        for (int y = 0; y < paddedHeight - 2 && 2 * y + py < fullHeight; ++y) {
            for (int x = 0; x < paddedWidth - 2 && 2 * x + px < fullWidth; ++x) {
                out[(2 * y + py) * fullWidth + 2 * x + px] = plane[y * paddedWidth + x];
            }
        }
    }
}

template class DSP_Convolution<short>;
template class DSP_Convolution<int>;

}  // namespace kelvo::vision
