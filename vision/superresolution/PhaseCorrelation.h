// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <opencv2/core.hpp>

namespace kelvo::vision {

// The spectral pieces of registration by phase correlation, on half spectra of
// `length` (re, im) pairs; both phase-correlation registrations use them.

// out = spectrum . conj(gauss): the spectrum of the image blurred by the Gaussian.
void multiplyByConjugate(const float (*spectrum)[2], const float (*gauss)[2], int length,
                         float (*out)[2]);

// cross = b conj(a) / (|a| |b|), the normalised cross-power spectrum of reference a and
// frame b: its inverse transform peaks at the frame's displacement. A coefficient of
// zero magnitude gives a non-finite value; it is not guarded.
void crossPowerSpectrum(const float (*a)[2], const float (*b)[2], int length, float (*cross)[2]);

// The displacement at the first strictly largest value of a correlation surface
// (width x height, scanned in flat order from index 0; NaN never wins), with peaks
// beyond half the size taken as negative displacements (exactly half stays positive).
cv::Point_<int> correlationPeak(const float* surface, int width, int height);

}  // namespace kelvo::vision
