// SPDX-License-Identifier: Apache-2.0
#include "vision/superresolution/SrFloatNeonConvolution.h"

#include <algorithm>

#include "platform/kelvo/NeonLanes.h"

namespace kelvo::vision {

namespace {

constexpr int kLanes = 4;

int groupsOfFour(int count) {
    return (count - 1) / kLanes + 1;
}

}  // namespace

SrFloatNeonConvolution::SrFloatNeonConvolution(int hrWidth, int hrHeight, int kernelWidth,
                                               int kernelHeight, float factor)
    : ConvolutionGeometry(hrWidth, hrHeight, kernelWidth, kernelHeight, factor),
      intFactor(static_cast<int>(factor)),
      scratchStride(groupsOfFour(std::max(lrWidth, 1)) * kLanes),
      scratch(static_cast<size_t>(scratchStride) * fullHeight + kSpareFloats, 0.0f) {}

// Vertical pass: scratch row 2r + i = sum over taps i of mask * frame row r * psfY[i].
// Taps 0 and 1 reach every scratch row 0 .. 2h - 1 exactly once (for factor 2), so
// they store instead of adding to a cleared scratch; the rows below are cleared and
// the remaining taps accumulate. Horizontal pass: two frame columns per step, their
// scratch values spread as (s0, s0, s1, s1) against the taps (k_j, k_j+1, k_j, k_j+1)
// onto the full-image columns 2c + j .. 2c + j + 3, tap pairs in ascending order.
void SrFloatNeonConvolution::fullConvFromSparse(float* const lowRes, float* const psfX,
                                                float* const psfY, float* mask, float* out) {
    const int w = lrWidth;
    const int h = lrHeight;
    const int groups = groupsOfFour(w);
    const int rowAdvance = intFactor * scratchStride;
    for (int i = 0; i < std::min(kernelHeight, 2); ++i) {
        const float32x4_t tap = vdupq_n_f32(psfY[i]);
        for (int r = 0; r < h; ++r) {
            const float* frameRow = lowRes + r * w;
            const float* maskRow = mask + r * w;
            float* target = scratch.data() + i * scratchStride + r * rowAdvance;
            for (int g = 0; g < groups; ++g) {
                const float32x4_t masked =
                    vmulq_f32(vld1q_f32(maskRow + kLanes * g), vld1q_f32(frameRow + kLanes * g));
                vst1q_f32(target + kLanes * g, vmulq_f32(masked, tap));
            }
        }
    }
    std::fill(scratch.begin() + 2 * h * scratchStride,
              scratch.begin() + static_cast<size_t>(fullHeight) * scratchStride, 0.0f);
    for (int i = 2; i < kernelHeight; ++i) {
        const float32x4_t tap = vdupq_n_f32(psfY[i]);
        for (int r = 0; r < h; ++r) {
            const float* frameRow = lowRes + r * w;
            const float* maskRow = mask + r * w;
            float* target = scratch.data() + i * scratchStride + r * rowAdvance;
            for (int g = 0; g < groups; ++g) {
                const float32x4_t masked =
                    vmulq_f32(vld1q_f32(maskRow + kLanes * g), vld1q_f32(frameRow + kLanes * g));
                vst1q_f32(target + kLanes * g,
                          vmlaq_f32(vld1q_f32(target + kLanes * g), masked, tap));
            }
        }
    }
    // An odd width leaves the column after the last one in the pairs of the
    // horizontal pass: it must contribute nothing.
    if (w % 2 != 0) {
        for (int t = 0; t < fullHeight; ++t) {
            scratch[t * scratchStride + w] = 0.0f;
        }
    }

    std::fill(out, out + static_cast<size_t>(fullHeight) * fullWidth, 0.0f);
    const int pairs = (w - 1) / 2 + 1;
    for (int j = 0; j < kernelWidth; j += 2) {
        const float second = j + 1 < kernelWidth ? psfX[j + 1] : 0.0f;
        const float32x2_t tapPair = vset_lane_f32(second, vdup_n_f32(psfX[j]), 1);
        const float32x4_t taps = vcombine_f32(tapPair, tapPair);
        for (int t = 0; t < fullHeight; ++t) {
            const float* source = scratch.data() + t * scratchStride;
            float* target = out + t * fullWidth + j;
            for (int q = 0; q < pairs; ++q) {
                const float32x4_t spread =
                    vcombine_f32(vdup_n_f32(source[2 * q]), vdup_n_f32(source[2 * q + 1]));
                vst1q_f32(target + 4 * q, vmlaq_f32(vld1q_f32(target + 4 * q), spread, taps));
            }
        }
    }
}

// Every output group of four is summed in registers over all taps in ascending order
// and stored once. Horizontal pass: the even columns 2c + j of a full row (j even) or
// the odd ones (j odd) come from one pair load at 2c + (j rounded down to even).
// Vertical pass: scratch rows 2r + i, one store per frame row; a group that runs past
// the end of a row is overwritten by the next row's first group.
void SrFloatNeonConvolution::validCorrToSparse(float* const full, float* const psfX,
                                               float* const psfY, float* lowResOut) {
    const int w = lrWidth;
    const int h = lrHeight;
    const int groups = groupsOfFour(w);
    for (int t = 0; t < fullHeight; ++t) {
        const float* row = full + t * fullWidth;
        float* target = scratch.data() + t * scratchStride;
        for (int g = 0; g < groups; ++g) {
            const float* first = row + 2 * kLanes * g;
            float32x4_t sum = vmulq_f32(vld2q_f32(first).val[0], vdupq_n_f32(psfX[0]));
            for (int j = 1; j < kernelWidth; ++j) {
                const float32x4x2_t pairs = vld2q_f32(first + (j & ~1));
                sum = vmlaq_f32(sum, pairs.val[j & 1], vdupq_n_f32(psfX[j]));
            }
            vst1q_f32(target + kLanes * g, sum);
        }
    }
    const int rowAdvance = intFactor * scratchStride;
    for (int r = 0; r < h; ++r) {
        const float* rows = scratch.data() + r * rowAdvance;
        float* target = lowResOut + r * w;
        for (int g = 0; g < groups; ++g) {
            float32x4_t sum = vmulq_f32(vld1q_f32(rows + kLanes * g), vdupq_n_f32(psfY[0]));
            for (int i = 1; i < kernelHeight; ++i) {
                sum = vmlaq_f32(sum, vld1q_f32(rows + i * scratchStride + kLanes * g),
                                vdupq_n_f32(psfY[i]));
            }
            vst1q_f32(target + kLanes * g, sum);
        }
    }
}

}  // namespace kelvo::vision
