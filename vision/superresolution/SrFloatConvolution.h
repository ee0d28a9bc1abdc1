#pragma once

#include <opencv2/core.hpp>

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
class SrFloatConvolution {
public:
    SrFloatConvolution(int hrWidth, int hrHeight, int kernelWidth, int kernelHeight, float factor);
    // Copies get scratch storage of their own, so that copies may run on different threads.
    SrFloatConvolution(const SrFloatConvolution& other);
    SrFloatConvolution& operator=(const SrFloatConvolution& other);

    void fullConvFromSparse(float* const lowRes, float* const psfX, float* const psfY, char* mask,
                            float* out);
    void validCorrToSparse(float* const full, float* const psfX, float* const psfY,
                           float* lowResOut);
    // out += H^T (m .* y): the same sums as fullConvFromSparse, each added to the
    // element of out already there.
    void accumulateFullConvFromSparse(float* const lowRes, float* const psfX, float* const psfY,
                                      char* mask, float* out);

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
    void convolveFromSparse(const float* lowRes, const float* psfX, const float* psfY,
                            const char* mask, float* out);

    int hrWidth;
    int hrHeight;
    int kernelWidth;
    int kernelHeight;
    int fullWidth;
    int fullHeight;
    float factor;
    // Frame size w x h and horizontal sample step F derived from the above.
    int lrWidth;
    int lrHeight;
    int step;
    // Length of one phase row: the columns p, p + F, p + 2F, ... of a full row.
    int phaseLength;
    // The rows the operators work on: a ring of kernelHeight rows of w floats (or
    // one such row) followed by the F phase rows.
    cv::Mat scratch;
    float* scratchData;
};

}  // namespace kelvo::vision
