// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <opencv2/core.hpp>
#include <vector>

#include "vision/superresolution/ConvolutionGeometry.h"

namespace kelvo::vision {

// The linear operators that tie a high-resolution image x (W x H) to one
// low-resolution frame y (w x h) through a separable point-spread function
// (psfX with kx taps, psfY with ky taps):
//
//   validCorrToSparse:   y[r][c] = sum_i sum_j psfY[i] psfX[j] x[2r + i][F c + j]
//   fullConvFromSparse:  x       = H^T (m .* y), a "full" image of
//                        (H + ky - 1) x (W + kx - 1) pixels
//
// with F = (int)factor horizontally and a vertical step fixed at 2, so that the
// pair stays an exact transpose for every factor. Sums run tap by tap in ascending
// order, in float, starting from 0, which fixes their rounding. Both operators work
// through one scratch buffer owned by the instance, so an instance serves one thread.
class SrFloatConvolution : private ConvolutionGeometry {
public:
    SrFloatConvolution(int hrWidth, int hrHeight, int kernelWidth, int kernelHeight, float factor);
    // Copies get scratch storage of their own, so that copies may run on different threads.
    SrFloatConvolution(const SrFloatConvolution& other);
    SrFloatConvolution& operator=(const SrFloatConvolution& other);
    SrFloatConvolution(SrFloatConvolution&& other) = default;
    SrFloatConvolution& operator=(SrFloatConvolution&& other) = default;

    void fullConvFromSparse(float* const lowRes, float* const psfX, float* const psfY, char* mask,
                            float* out);
    void validCorrToSparse(float* const full, float* const psfX, float* const psfY,
                           float* lowResOut);
    // The operators of `count` frames in one sweep over the full image, frame k with
    // lowRes[k], psfX[k], psfY[k] and masks[k], restricted to a band of rows; every
    // element gets exactly the sums of the one-frame operators:
    //   rows [firstRow, endRow) of lowResOut[k] = H_k full
    //   rows [firstRow, endRow) of out += H_0^T (m_0 .* y_0), += H_1^T (m_1 .* y_1), ...
    // A band reads the rows of full, or of the frames, that its sums need, and
    // nothing is carried from one call to the next.
    // With masks, the rows of lowResOut[k] come out multiplied by the mask,
    // m_k .* H_k full, which the adjoint takes with masks == nullptr: a solver that
    // applies both in turn then masks each sample once, as it is produced.
    // With lowResRingRows > 0 the frames' rows (not the masks') live in rings of that
    // many rows, row r of frame k at lowRes[k] + (r mod lowResRingRows) w: a solver that sweeps
    // band by band then keeps only the rows it still reads, and they stay in the cache.
    void validCorrToSparse(int count, const float* full, const float* const* psfX,
                           const float* const* psfY, float* const* lowResOut, int firstRow,
                           int endRow, const char* const* masks = nullptr, int lowResRingRows = 0);
    void accumulateFullConvFromSparse(int count, const float* const* lowRes,
                                      const float* const* psfX, const float* const* psfY,
                                      const char* const* masks, float* out, int firstRow,
                                      int endRow, int lowResRingRows = 0);

    // Box filter of side 2 radius + 1 whose window is clipped at the image border:
    // every output pixel is the mean of the input pixels inside both.
    static void blurImageMeanFilter(cv::Mat_<float>& in, int radius, cv::Mat_<float>& out);
    // The same, with the caller's scratch matrix (reshaped when needed), so that
    // repeated calls on frames of one size allocate nothing.
    static void blurImageMeanFilter(cv::Mat_<float>& in, int radius, cv::Mat_<float>& out,
                                    cv::Mat_<float>& scratch);

    int getFullWidth() const { return fullWidth; }
    int getFullHeight() const { return fullHeight; }

private:
    template <bool Accumulate>
    void convolveFromSparse(int count, const float* const* lowRes, const float* const* psfX,
                            const float* const* psfY, const char* const* masks, float* out,
                            int firstRow, int endRow, int lowResRingRows);
    // Where row r of a frame starts, in a ring of lowResRingRows rows (0: all rows).
    int lowResRowOffset(int r, int lowResRingRows) const {
        return (lowResRingRows > 0 ? r % lowResRingRows : r) * lrWidth;
    }

    // The horizontal sample step F, the factor as a whole number.
    int step;
    // Length of one phase row: the columns p, p + F, p + 2F, ... of a full row.
    int phaseLength;
    // The rows the operators work on: the F phase rows of a full row and a ring of
    // kernelHeight rows of w floats per frame (correlation), or one such row and a
    // ring of (kernelHeight + 1) / 2 per frame (convolution).
    int scratchSize;
    cv::Mat scratch;
    float* scratchData;
    // The rows, taps, targets and masks of one run of taps for up to five frames,
    // gathered for the row kernels, and the vertical taps that land on a full row.
    std::vector<const float*> runRows;
    std::vector<float> runTaps;
    std::vector<int> runTapIndices;
    std::vector<const float*> runTapTables;
    std::vector<float*> runTargets;
    std::vector<const char*> runMasks;
};

}  // namespace kelvo::vision
