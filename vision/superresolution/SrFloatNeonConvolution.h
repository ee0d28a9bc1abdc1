// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <vector>

#include "vision/superresolution/ConvolutionGeometry.h"

namespace kelvo::vision {

// The sparse operators of SrFloatConvolution for factor 2, written with four-lane
// vector operations, and with float masks:
//
//   validCorrToSparse:   y[r][c] = sum_i sum_j psfY[i] psfX[j] x[2r + i][2c + j]
//   fullConvFromSparse:  x       = H^T (m .* y)
//
// Every element sees the same float operations in the same order as in
// SrFloatConvolution (taps in ascending order, products mask * pixel * tap), so the
// results are equal.
//
// Rows are processed in whole groups of four columns, so a frame width that is not a
// multiple of four reads and writes up to three elements past the end of a row:
// every buffer handed to the operators must have kSpareFloats readable (and, for
// outputs, writable) floats past its last element. The scratch rows are padded to
// whole groups.
class SrFloatNeonConvolution : private ConvolutionGeometry {
public:
    static constexpr int kSpareFloats = 8;

    SrFloatNeonConvolution(int hrWidth, int hrHeight, int kernelWidth, int kernelHeight,
                           float factor);

    void fullConvFromSparse(float* const lowRes, float* const psfX, float* const psfY, float* mask,
                            float* out);
    void validCorrToSparse(float* const full, float* const psfX, float* const psfY,
                           float* lowResOut);

    int getFullWidth() const { return fullWidth; }
    int getFullHeight() const { return fullHeight; }

private:
    // The geometry as given, kept with the record though the loops use the derived sizes.
    // The vertical sample step: scratch rows from one frame row to the next.
    int intFactor;
    // Scratch rows hold whole groups of four columns.
    int scratchStride;
    std::vector<float> scratch;
};

}  // namespace kelvo::vision
