// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <vector>

namespace kelvo::vision {

// The sparse operators of SrFloatConvolution in integer arithmetic, for processors
// without floating point (T = short or int), and a 3 x 3 row filter. Taps are fixed
// point numbers: validCorrToSparse divides every product by filterScale, and
// fullConvFromSparse takes Q15 taps (32768 = 1.0).
//
//   validCorrToSparse:  y[r][c] = sum_i psfY[i] (sum_j psfX[j] x[i + f r][F c + j] / s) / s
//
// with F = (int)f; unlike the float operator the vertical step follows the factor.
// Products are formed in int and divided with truncation toward zero, sums wrap
// around in T. The instance owns its scratch planes, so it serves one thread.
template <typename T>
class DSP_Convolution {
public:
    DSP_Convolution(T hrWidth, T hrHeight, T kernelWidth, T kernelHeight, float factor);

    // A filterScale of 0 would divide by zero: set the scale before the first use.
    void setFilterScale(T scale) { filterScale = scale; }
    T getFilterScale() const { return filterScale; }

    void validCorrToSparse(T* const full, T* const psfX, T* const psfY, T* lowResOut);

    // The masked frame convolved with 6-tap Q15 PSFs at factor 2 in polyphase form:
    // each of the four output phases (row parity, column parity) is a 3 x 3
    // convolution of the frame with every second tap of both PSFs. Every phase is
    // min-max normalised to [0, 1] before the phases are interleaved into the
    // (H + ky - 1) x (W + kx - 1) full image `out`, so `out` shows where the frame's
    // samples reach, not their weights. Prints the taps of the four kernels.
    void fullConvFromSparse(T* const lowRes, T* const psfX, T* const psfY, char* mask, T* out);

    // One output row of a 3 x 3 correlation: out[n] = (sum over k, j of
    // in[n + j + k stride] kernel[3 k + j]) >> shift for n < count. For short every
    // input row's sum and the running sum wrap in 16 bits; for int the sum is taken
    // in 32 bits and the shifted result saturated to the 16-bit range.
    void ImgConv3x3I16sC16s(const T* const in, T* const out, short count, short stride,
                            const T* const kernel, T shift);

    int getFullWidth() const { return fullWidth; }
    int getFullHeight() const { return fullHeight; }

private:
    T hrWidth;
    T hrHeight;
    T kernelWidth;
    T kernelHeight;
    T fullWidth;
    T fullHeight;
    float factor;
    std::vector<T> scratch;
    T filterScale = 1;
    // The zero-bordered frame and the four phase planes of fullConvFromSparse.
    std::vector<T> paddedFrame;
    std::vector<T> phasePlanes[4];
};

}  // namespace kelvo::vision
