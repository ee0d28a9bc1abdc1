// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <vector>

#include "vision/superresolution/fft/Fft1d.h"

namespace kelvo::vision {

// Two-dimensional real FFT of a width x height image (width even) into its half
// spectrum, and Gaussian blurring by one product in the frequency domain.
//
// Half spectrum: height rows of width / 2 + 1 pairs (re, im), row-major; row y holds
// the column frequencies 0 .. width / 2 of row frequency y (unshifted). Both transforms
// are unscaled, so backward(forward(x)) = width * height * x; the Gaussian spectrum
// carries the 1 / (width * height).
//
// Rows go through the real transform, then every spectrum column through the complex
// one; fftLaneCount of them are transformed at once (the rest one by one), each with
// exactly the float operations of a single transform. One instance serves one thread: the
// transforms work in buffers of the instance and allocate nothing.
class SrFloatFft2d {
public:
    // Throws std::invalid_argument unless width is even and positive and height is
    // positive.
    SrFloatFft2d(int width, int height);

    int getWidth() const { return width; }
    int getHeight() const { return height; }

    void forward(const float* image, float (*spectrum)[2]);
    void backward(const float (*spectrum)[2], float* image);

    // Spectrum of the normalised separable Gaussian k[|dx|] k[|dy|] with the one-sided
    // taps k[0 .. radius] (each the Gaussian's mass over one pixel), scaled by
    // 1 / (width * height); the taps are left in `kernel` (radius + 1 floats). A blur is
    // then forward, a pointwise complex product with this spectrum, backward: the
    // circular convolution with the kernel. Throws std::invalid_argument for a negative
    // or non-finite sigma, a negative radius, or 2 radius + 1 beyond width or height.
    void gaussFft(int radius, float sigma, float (*spectrum)[2], float* kernel);

    // Turns the circular blur of `input` into the linear one in which pixels outside the
    // image count as zero, by removing what wrapped across the borders; only the
    // 2 radius rows and columns along the borders change. The kernel is not
    // renormalised there, so the image darkens towards its edges.
    void repairGaussBlur(const float* input, float* blurred, int radius, const float* kernel);

private:
    void checkRadius(int radius) const;
    void loadRows(const float* firstRow);
    void storeRows(const FftLanes* lanes, float* firstRow) const;
    void storeRowSpectra(const FftLanes* lanes, float (*firstRow)[2]) const;
    void loadColumns(const float (*spectrum)[2], int firstColumn);
    void storePackedColumn(int column, int y, float re, float im, float* image) const;
    void convolveRowCircular(const float* row, const float* kernel, int radius, float* out) const;
    void convolveColumnZeroPadded(const float* image, int column, const float* kernel, int radius,
                                  float* out);

    int width;
    int height;
    std::vector<float> rowTables;  // real-transform tables for length width
    std::vector<float> colTables;  // complex-transform tables for length height
    std::vector<int> rowFactors;
    std::vector<int> colFactors;
    std::vector<float> scratch;  // one real row, then one complex column
    std::vector<FftLanes> laneData;
    std::vector<FftLanes> laneScratch;
};

}  // namespace kelvo::vision
