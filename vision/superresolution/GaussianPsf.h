// SPDX-License-Identifier: Apache-2.0
#pragma once

namespace kelvo::vision {

// The error function as every Gaussian tap of the library computes it:
//   erf(x) = sign(x) sqrt(1 - exp(-x^2 (4/pi + a x^2) / (1 + a x^2))),  a = 0.1400123,
// with erf(0) = 0 exactly.
float approximateErf(float x);

// The sensor PSF of the reconstruction, one axis of the separable kernel on the
// high-resolution grid: tap k holds the Gaussian's mass over one pixel, taken outward
// from the centre between taps psfSize / 2 - 1 and psfSize / 2, over 2 ceil(factor)
// taps, normalised to sum 1. The taps at both ends beyond them stay 0, which lets
// shiftPsf move the kernel by up to one tap.
void buildBasePsf(float sigma, float factor, int psfSize, float* psf);

// `base` moved by s high-resolution pixels (s in [-1, 1]) by linear interpolation
// between neighbouring taps; the zero tap at the far end absorbs the move. A shift of
// exactly 0 takes the non-negative branch.
void shiftPsf(const float* base, int psfSize, float s, float* psf);

}  // namespace kelvo::vision
