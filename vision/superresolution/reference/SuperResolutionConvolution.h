// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <vector>

#include "vision/superresolution/ConvolutionGeometry.h"

namespace kelvo::vision {

// The blur-and-decimate operator of the reference engine and its masked adjoint, on
// plain row-major arrays: a high-resolution image x (W x H) and one frame y (w x h)
// with a separable PSF (psfX with kx taps, psfY with ky taps):
//
//   validCorrToSparse:   y[r][c] = sum_i sum_j psfY[i] psfX[j] x[S r + i][F c + j]
//   fullConvFromSparse:  x       = H^T (m .* y), a "full" image of
//                        (H + ky - 1) x (W + kx - 1) pixels
//
// with F = (int)factor. The vertical step follows the factor here: the scratch row of
// frame row r starts r (w + (int)((f - 1) w)) elements in, f rows for an integer
// factor (the float engine's operator steps a fixed 2 rows; both agree at factor 2).
// Sums run tap by tap in ascending order, in float, from 0.
//
// sameConvOnes is the border-clipped mean filter of the float engine on plain arrays of
// W x H, through this instance's scratch. One instance serves one thread.
class SuperResolutionConvolution : private ConvolutionGeometry {
public:
    SuperResolutionConvolution(int hrWidth, int hrHeight, int kernelWidth, int kernelHeight,
                               float factor);

    void fullConvFromSparse(float* const lowRes, float* const psfX, float* const psfY, char* mask,
                            float* out);
    void validCorrToSparse(float* const full, float* const psfX, float* const psfY,
                           float* lowResOut);
    void sameConvOnes(float* const in, int radius, float* out);

    int getFullWidth() const { return fullWidth; }
    int getFullHeight() const { return fullHeight; }

private:
    int lowResRowStep() const;

    // fullHeight rows of up to hrWidth floats for the operators, and one row more for
    // the running sums of the mean filter.
    std::vector<float> scratch;
};

}  // namespace kelvo::vision
