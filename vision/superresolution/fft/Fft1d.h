// SPDX-License-Identifier: Apache-2.0
#pragma once

namespace kelvo::vision {

// One-dimensional single-precision FFTs of any length, after Swarztrauber's FFTPACK:
// mixed-radix passes (radix 4, 2, 3, 5 and a general odd radix), unscaled, in place.
//
//   forward:  X[k] = sum_j x[j] exp(-2 pi i j k / n)
//   backward: x[j] = sum_k X[k] exp(+2 pi i j k / n)   (backward(forward(x)) = n x)
//
// Real tables hold 2 n floats (n scratch, then the twiddles), complex tables 4 n floats
// (2 n scratch, then the twiddles); a factor array holds 15 ints: n, the number of
// factors, and the factors in the order the passes apply them. The initialisers fill
// tables and factors once per length; the transforms allocate nothing.
//
// Packed real spectrum (rfftf output, rfftb input): x[0] = X[0], then Re X[k], Im X[k]
// for k = 1 .. (n - 1) / 2, and for even n the real X[n / 2] last.
void rffti(int n, float* tables, int* factors);
void rfftf(int n, float* data, float* tables, const int* factors);
void rfftb(int n, float* data, float* tables, const int* factors);

// Complex data is interleaved: re, im, re, im, ... (2 n floats).
void cffti(int n, float* tables, int* factors);
void cfftf(int n, float* data, float* tables, const int* factors);
void cfftb(int n, float* data, float* tables, const int* factors);

// Several transforms of one length at once: lane l of every element belongs to
// transform l. Each lane goes through exactly the float operations of the single
// transforms above, so the results agree bit for bit. `scratch` holds as many
// elements as `data`; `twiddles` is the second half of the tables. The passes
// alternate between data and scratch, and the result is left in whichever the last
// pass wrote, the one returned, rather than copied back. Four lanes fill one 128-bit
// vector register; wider vectors than the target's registers run far slower.
constexpr int fftLaneCount = 4;
using FftLanes = float __attribute__((vector_size(fftLaneCount * sizeof(float))));

const FftLanes* rfftfLanes(int n, FftLanes* data, FftLanes* scratch, const float* twiddles,
                           const int* factors);
const FftLanes* rfftbLanes(int n, FftLanes* data, FftLanes* scratch, const float* twiddles,
                           const int* factors);
const FftLanes* cfftfLanes(int n, FftLanes* data, FftLanes* scratch, const float* twiddles,
                           const int* factors);
const FftLanes* cfftbLanes(int n, FftLanes* data, FftLanes* scratch, const float* twiddles,
                           const int* factors);

}  // namespace kelvo::vision
