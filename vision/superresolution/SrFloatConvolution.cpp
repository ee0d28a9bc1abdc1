// SPDX-License-Identifier: Apache-2.0
#include "vision/superresolution/SrFloatConvolution.h"

#include <algorithm>
#include <type_traits>

#include "vision/superresolution/SixteenFloats.h"
#include "vision/superresolution/VectorClones.h"

namespace kelvo::vision {

namespace {

// The vertical sample step of both sparse operators, whatever the factor.
constexpr int kVerticalStep = 2;

// Frames whose rows one sweep of the sparse operators handles together.
constexpr int kFramesAtOnce = 5;

// out[c] = 0 + taps[0] rows[0][c] + taps[1] rows[1][c] + ..., added in this order.
// Count is the number of taps when known at compile time (0: taken from `count`),
// which lets the compiler keep the sum in registers and vectorise along c.
template <int Count>
KELVO_VECTOR_CLONES void sumScaledRows(const float* const* rows, const float* taps, int count,
                                       int length, float* out) {
    const int n = Count > 0 ? Count : count;
    const float* source[Count > 0 ? Count : 1];
    float k[Count > 0 ? Count : 1];
    for (int q = 0; Count > 0 && q < n; ++q) {
        source[q] = rows[q];
        k[q] = taps[q];
    }
    for (int c = 0; c < length; ++c) {
        float sum = 0.0f;
        for (int q = 0; q < n; ++q) {
            sum += Count > 0 ? k[q] * source[q][c] : taps[q] * rows[q][c];
        }
        out[c] = sum;
    }
}

// The same sums for Frames frames at once, frame f with its own taps taps[f]:
// out[f][c] = 0 + taps[f][0] rows[f][0][c] + taps[f][1] rows[f][1][c] + ...
// (rows[f][q] = rows[f * Count + q], or rows[q] for all frames when SharedRows),
// multiplied by the mask byte masks[f][c] when Masked. The frames' sums, independent
// of each other, overlap in the pipeline instead of each waiting on its own chain of
// additions, and shared rows are loaded once for all frames.
template <int Count, int Frames, bool SharedRows, bool Masked>
KELVO_VECTOR_CLONES void sumScaledRowsOfFrames(const float* const* rows, const float* const* taps,
                                               const char* const* masks, int length,
                                               float* const* out) {
    const float* source[Frames][Count];
    const signed char* valid[Frames];
    float k[Frames][Count];
    float* target[Frames];
    for (int f = 0; f < Frames; ++f) {
        target[f] = out[f];
        valid[f] = Masked ? reinterpret_cast<const signed char*>(masks[f]) : nullptr;
        for (int q = 0; q < Count; ++q) {
            source[f][q] = rows[SharedRows ? q : f * Count + q];
            k[f][q] = taps[f][q];
        }
    }
    KELVO_INDEPENDENT_ITERATIONS
    for (int c = 0; c < length; ++c) {
        float sum[Frames];
        for (int f = 0; f < Frames; ++f) {
            sum[f] = 0.0f;
        }
        for (int q = 0; q < Count; ++q) {
            for (int f = 0; f < Frames; ++f) {
                sum[f] += k[f][q] * source[SharedRows ? 0 : f][q][c];
            }
        }
        for (int f = 0; f < Frames; ++f) {
            target[f][c] = Masked ? static_cast<float>(valid[f][c]) * sum[f] : sum[f];
        }
    }
}

// Calls kernel(std::integral_constant<int, count>) for the tap counts of the
// engine's PSFs, kernel(std::integral_constant<int, 0>) for any other.
template <typename Kernel>
void dispatchTapCount(int count, Kernel kernel) {
    switch (count) {
        case 1:
            return kernel(std::integral_constant<int, 1>());
        case 2:
            return kernel(std::integral_constant<int, 2>());
        case 3:
            return kernel(std::integral_constant<int, 3>());
        case 6:
            return kernel(std::integral_constant<int, 6>());
        default:
            return kernel(std::integral_constant<int, 0>());
    }
}

void sumScaledRows(const float* const* rows, const float* taps, int count, int length, float* out) {
    dispatchTapCount(count, [&](auto fixed) {
        sumScaledRows<decltype(fixed)::value>(rows, taps, count, length, out);
    });
}

// out[c] = mask[c] * row[c], the mask byte read as a signed number.
KELVO_VECTOR_CLONES void maskRow(const float* row, const char* mask, int length, float* out) {
    const signed char* valid = reinterpret_cast<const signed char*>(mask);
    for (int c = 0; c < length; ++c) {
        out[c] = static_cast<float>(valid[c]) * row[c];
    }
}

// The row sums of up to kFramesAtOnce frames, `count` taps each: out[f] = sum over q
// of taps[f][q] rows[f * count + q] (rows[q] for every frame when sharedRows), masked
// by masks[f] unless masks is null. Five frames with the tap counts of the engine's
// PSFs at factor 2 run at once, others frame by frame.
void sumScaledRowsOfFrames(int count, int frames, bool sharedRows, const float* const* rows,
                           const float* const* taps, const char* const* masks, int length,
                           float* const* out) {
    auto fiveAtOnce = [&](auto fixedCount) {
        constexpr int kCount = decltype(fixedCount)::value;
        if (sharedRows) {
            sumScaledRowsOfFrames<kCount, kFramesAtOnce, true, false>(rows, taps, masks, length,
                                                                      out);
        } else if (masks != nullptr) {
            sumScaledRowsOfFrames<kCount, kFramesAtOnce, false, true>(rows, taps, masks, length,
                                                                      out);
        } else {
            sumScaledRowsOfFrames<kCount, kFramesAtOnce, false, false>(rows, taps, masks, length,
                                                                       out);
        }
    };
    if (frames == kFramesAtOnce && count == 3 && !sharedRows) {
        return fiveAtOnce(std::integral_constant<int, 3>());
    }
    if (frames == kFramesAtOnce && count == 6) {
        return fiveAtOnce(std::integral_constant<int, 6>());
    }
    for (int f = 0; f < frames; ++f) {
        sumScaledRows(sharedRows ? rows : rows + f * count, taps[f], count, length, out[f]);
        if (masks != nullptr) {
            maskRow(out[f], masks[f], length, out[f]);
        }
    }
}

// phases[p * length + m] = row[p + step m] for every column of the row. Step is the
// sample step when known at compile time (0: taken from `step`).
template <int Step>
KELVO_VECTOR_CLONES void splitPhases(const float* row, int rowLength, int step, int length,
                                     float* phases) {
    const int s = Step > 0 ? Step : step;
    const int whole = rowLength / s;
    for (int m = 0; m < whole; ++m) {
        for (int p = 0; p < s; ++p) {
            phases[p * length + m] = row[s * m + p];
        }
    }
    for (int p = 0; whole * s + p < rowLength; ++p) {
        phases[p * length + whole] = row[whole * s + p];
    }
}

// The interior columns of the horizontal pass below (convolveRows) for the engine's
// PSFs of six taps at factor 2 and five frames, added to the row, sixteen columns m of
// the sparse rows (thirty-two of the row) at a time, from m = 2 on; returns the first m
// it leaves to the plain loop. Every element sees the plain loop's operations in their
// order: the row value, then per frame 0 + psfX[f][p] s_f[m] + psfX[f][p + 2] s_f[m - 1] +
// psfX[f][p + 4] s_f[m - 2] for its phase p. The row is split into its even and odd
// columns and interleaved again by shuffles, and s_f[m - 1], s_f[m - 2] are shuffled
// out of consecutive vectors of the sparse row.
KELVO_VECTOR_CLONES int addRowOfFiveFrames(const float* sparse, int w, const float* const* psfX,
                                           int end, float* row) {
    constexpr int kTaps = 6;
    constexpr int n = kSixteenLanes;
    constexpr int first = 2;
    float k[kFramesAtOnce][kTaps];
    SixteenFloats previous[kFramesAtOnce];
    for (int f = 0; f < kFramesAtOnce; ++f) {
        std::copy(psfX[f], psfX[f] + kTaps, k[f]);
        previous[f] = SixteenFloats{};
        previous[f][n - 2] = sparse[f * w + first - 2];
        previous[f][n - 1] = sparse[f * w + first - 1];
    }
    int m = first;
    for (; m + n <= end; m += n) {
        SixteenFloats low, high;
        loadSixteen(row + 2 * m, low);
        loadSixteen(row + 2 * m + n, high);
        SixteenFloats even = __builtin_shufflevector(low, high, 0, 2, 4, 6, 8, 10, 12, 14, 16, 18,
                                                     20, 22, 24, 26, 28, 30);
        SixteenFloats odd = __builtin_shufflevector(low, high, 1, 3, 5, 7, 9, 11, 13, 15, 17, 19,
                                                    21, 23, 25, 27, 29, 31);
        for (int f = 0; f < kFramesAtOnce; ++f) {
            SixteenFloats current;
            loadSixteen(sparse + f * w + m, current);
            const SixteenFloats back1 =
                __builtin_shufflevector(previous[f], current, 15, 16, 17, 18, 19, 20, 21, 22, 23,
                                        24, 25, 26, 27, 28, 29, 30);
            const SixteenFloats back2 =
                __builtin_shufflevector(previous[f], current, 14, 15, 16, 17, 18, 19, 20, 21, 22,
                                        23, 24, 25, 26, 27, 28, 29);
            const SixteenFloats zero{};
            even = even + (zero + k[f][0] * current + k[f][2] * back1 + k[f][4] * back2);
            odd = odd + (zero + k[f][1] * current + k[f][3] * back1 + k[f][5] * back2);
            previous[f] = current;
        }
        low = __builtin_shufflevector(even, odd, 0, 16, 1, 17, 2, 18, 3, 19, 4, 20, 5, 21, 6, 22, 7,
                                      23);
        high = __builtin_shufflevector(even, odd, 8, 24, 9, 25, 10, 26, 11, 27, 12, 28, 13, 29, 14,
                                       30, 15, 31);
        storeSixteen(low, row + 2 * m);
        storeSixteen(high, row + 2 * m + n);
    }
    return m;
}

// The horizontal pass of the adjoint for one full row and `count` frames, frame f
// with the sparse row sparse + f * w and the taps psfX[f]:
//   row[p + F m] (+)= c_0, += c_1, ...  with  c_f = 0 + sum over d of
//   psfX[f][p + F d] * sparse_f[m - d],
// d ascending over the taps p + F d < kx whose column m - d lies in [0, w); with Put
// the first frame's sum replaces the row's value. Each element of the row is loaded
// and stored once for all frames. Step, PhaseTaps and Frames are F, the taps per
// phase kx / F and the frame count when known at compile time (0: taken from `step`,
// `kernelWidth` and `count`). Columns near either end, where some taps fall outside
// the sparse row, are summed one by one.
template <int Step, int PhaseTaps, int Frames, bool Put>
KELVO_VECTOR_CLONES void convolveRows(const float* sparse, int w, const float* const* psfX,
                                      int count, int kernelWidth, int step, int rowLength,
                                      float* row) {
    const int s = Step > 0 ? Step : step;
    const int kx = Step > 0 ? Step * PhaseTaps : kernelWidth;
    const int frames = Frames > 0 ? Frames : count;
    const int phaseTaps = (kx + s - 1) / s;
    auto add = [](float value, float sum, int frame) {
        return Put && frame == 0 ? sum : value + sum;
    };
    auto edge = [&](int x) {
        const int phase = x % s;
        const int m = x / s;
        float value = Put ? 0.0f : row[x];
        for (int f = 0; f < frames; ++f) {
            float sum = 0.0f;
            for (int d = 0; phase + s * d < kx; ++d) {
                if (m - d >= 0 && m - d < w) {
                    sum += psfX[f][phase + s * d] * sparse[f * w + m - d];
                }
            }
            value = add(value, sum, f);
        }
        row[x] = value;
    };
    const int begin = std::min(phaseTaps - 1, rowLength / s);
    const int end = std::max(std::min(w, rowLength / s), begin);
    for (int x = 0; x < s * begin; ++x) {
        edge(x);
    }
    constexpr bool kFixed = Step > 0 && Frames > 0;
    float k[kFixed ? Frames : 1][kFixed ? Step * PhaseTaps : 1];
    for (int f = 0; kFixed && f < frames; ++f) {
        for (int j = 0; j < kx; ++j) {
            k[f][j] = psfX[f][j];
        }
    }
    int vectorsEnd = begin;
    if constexpr (Step == 2 && PhaseTaps == 3 && Frames == kFramesAtOnce && !Put) {
        vectorsEnd = begin == 2 ? addRowOfFiveFrames(sparse, w, psfX, end, row) : begin;
    }
    for (int m = vectorsEnd; m < end; ++m) {
        for (int phase = 0; phase < s; ++phase) {
            float value = Put ? 0.0f : row[phase + s * m];
            for (int f = 0; f < frames; ++f) {
                float sum = 0.0f;
                for (int d = 0; d < phaseTaps; ++d) {
                    if (phase + s * d < kx) {
                        sum += (kFixed ? k[f][phase + s * d] : psfX[f][phase + s * d]) *
                               sparse[f * w + m - d];
                    }
                }
                value = add(value, sum, f);
            }
            row[phase + s * m] = value;
        }
    }
    for (int x = s * end; x < rowLength; ++x) {
        edge(x);
    }
}

// The engine's PSFs of six taps at factor 2 run in fives of frames with everything
// fixed at compile time, other counts and geometries one frame at a time.
template <bool Accumulate>
void convolveRows(const float* sparse, int w, const float* const* psfX, int count, int kernelWidth,
                  int step, int rowLength, float* row) {
    int f = 0;
    const bool fixed = step == 2 && kernelWidth == 6;
    auto one = [&](auto put) {
        constexpr bool kPut = decltype(put)::value;
        if (fixed) {
            convolveRows<2, 3, 1, kPut>(sparse + f * w, w, psfX + f, 1, kernelWidth, step,
                                        rowLength, row);
        } else {
            convolveRows<0, 0, 1, kPut>(sparse + f * w, w, psfX + f, 1, kernelWidth, step,
                                        rowLength, row);
        }
    };
    for (; fixed && f + kFramesAtOnce <= count; f += kFramesAtOnce) {
        if (!Accumulate && f == 0) {
            convolveRows<2, 3, kFramesAtOnce, true>(sparse, w, psfX, count, kernelWidth, step,
                                                    rowLength, row);
        } else {
            convolveRows<2, 3, kFramesAtOnce, false>(sparse + f * w, w, psfX + f, count,
                                                     kernelWidth, step, rowLength, row);
        }
    }
    for (; f < count; ++f) {
        if (!Accumulate && f == 0) {
            one(std::true_type());
        } else {
            one(std::false_type());
        }
    }
}

// The mean filter's pieces. A clipped running mean along each of Rows consecutive
// image rows (row stride `length`): the sum enters pixel c + radius and leaves pixel
// c - radius; divided by the clipped window's pixel count at both ends, multiplied by
// norm = 1 / (2 radius + 1) in between.
constexpr int kMeanFilterRows = 8;

template <int Rows>
void meanFilterRows(const float* source, float* target, int length, int radius, float norm) {
    float sum[Rows];
    for (int row = 0; row < Rows; ++row) {
        sum[row] = 0.0f;
        for (int c = 0; c < radius; ++c) {
            sum[row] += source[row * length + c];
        }
    }
    for (int c = 0; c < radius; ++c) {
        for (int row = 0; row < Rows; ++row) {
            sum[row] += source[row * length + c + radius];
            target[row * length + c] = sum[row] / static_cast<float>(c + radius + 1);
        }
    }
    for (int c = radius; c < length - radius; ++c) {
        for (int row = 0; row < Rows; ++row) {
            sum[row] += source[row * length + c + radius];
            target[row * length + c] = sum[row] * norm;
            sum[row] -= source[row * length + c - radius];
        }
    }
    for (int c = length - radius; c < length; ++c) {
        for (int row = 0; row < Rows; ++row) {
            target[row * length + c] = sum[row] / static_cast<float>(length - c + radius);
            sum[row] -= source[row * length + c - radius];
        }
    }
}

// The vertical running sums of all columns at once, one image row at a time.
KELVO_VECTOR_CLONES void addRow(const float* row, int length, float* sum) {
    for (int c = 0; c < length; ++c) {
        sum[c] += row[c];
    }
}

KELVO_VECTOR_CLONES void subtractRow(const float* row, int length, float* sum) {
    for (int c = 0; c < length; ++c) {
        sum[c] -= row[c];
    }
}

KELVO_VECTOR_CLONES void divideRow(const float* sum, int length, float divisor, float* out) {
    for (int c = 0; c < length; ++c) {
        out[c] = sum[c] / divisor;
    }
}

// Entering row, output sum * norm, leaving row: the three steps of the interior in
// one sweep.
KELVO_VECTOR_CLONES void slideRow(const float* entering, const float* leaving, int length,
                                  float norm, float* __restrict sum, float* __restrict out) {
    for (int c = 0; c < length; ++c) {
        sum[c] += entering[c];
        out[c] = sum[c] * norm;
        sum[c] -= leaving[c];
    }
}

}  // namespace

SrFloatConvolution::SrFloatConvolution(int hrWidth, int hrHeight, int kernelWidth, int kernelHeight,
                                       float factor)
    : ConvolutionGeometry(hrWidth, hrHeight, kernelWidth, kernelHeight, factor),
      step(static_cast<int>(factor)),
      phaseLength((fullWidth + step - 1) / step),
      scratchSize(step * phaseLength + std::max(fullHeight * std::max(lrWidth, hrWidth), 1)),
      scratch(1, scratchSize, CV_32F),
      scratchData(scratch.ptr<float>()),
      runRows(kFramesAtOnce * std::max(kernelWidth, kernelHeight)),
      runTaps(kFramesAtOnce * kernelHeight),
      runTapIndices(kernelHeight),
      runTapTables(kFramesAtOnce),
      runTargets(kFramesAtOnce),
      runMasks(kFramesAtOnce) {}

SrFloatConvolution::SrFloatConvolution(const SrFloatConvolution& other)
    : SrFloatConvolution(other.hrWidth, other.hrHeight, other.kernelWidth, other.kernelHeight,
                         other.factor) {}

SrFloatConvolution& SrFloatConvolution::operator=(const SrFloatConvolution& other) {
    return *this = SrFloatConvolution(other);
}

void SrFloatConvolution::fullConvFromSparse(float* const lowRes, float* const psfX,
                                            float* const psfY, char* mask, float* out) {
    convolveFromSparse<false>(1, &lowRes, &psfX, &psfY, &mask, out, 0, fullHeight, 0);
}

void SrFloatConvolution::accumulateFullConvFromSparse(
    int count, const float* const* lowRes, const float* const* psfX, const float* const* psfY,
    const char* const* masks, float* out, int firstRow, int endRow, int lowResRingRows) {
    convolveFromSparse<true>(count, lowRes, psfX, psfY, masks, out, firstRow, endRow,
                             lowResRingRows);
}

// Row by row through the full image, and within a row frame by frame: the vertical
// taps landing on row t first (column c of row t collects the frame rows
// r = (t - i) / 2 for the taps i of the parity of t, in ascending i), then the
// horizontal taps of all frames (convolveRows). Every element thus sees the tap
// order of the two passes taken whole and the frames in their order, while the rows
// being worked on stay in the first level cache. The masked frame rows m .* y, each
// needed by kernelHeight full rows, are formed once into a ring per frame, unless
// the frames come masked already (masks == nullptr).
template <bool Accumulate>
void SrFloatConvolution::convolveFromSparse(int count, const float* const* lowRes,
                                            const float* const* psfX, const float* const* psfY,
                                            const char* const* masks, float* out, int firstRow,
                                            int endRow, int lowResRingRows) {
    const int ringRows = (kernelHeight + 1) / kVerticalStep;
    const int ringSize = ringRows * lrWidth;
    // Per frame of a group: its ring, and its row of the vertical pass.
    const int slotSize = ringSize + lrWidth;
    const int capacity = slotSize > 0 ? std::max(scratchSize / slotSize, 1) : count;
    float* vertical = scratchData;
    float* rings = scratchData + std::min(capacity, count) * lrWidth;
    for (int first = 0; first < count; first += capacity) {
        const int group = std::min(capacity, count - first);
        // The ring ends with the frame row t / 2 at full row t.
        int rowsMasked = std::max(firstRow / kVerticalStep - ringRows + 1, 0);
        for (int t = firstRow; t < endRow; ++t) {
            const int rowsNeeded = std::min(t / kVerticalStep + 1, lrHeight);
            for (; masks != nullptr && rowsMasked < rowsNeeded; ++rowsMasked) {
                const int offset = lowResRowOffset(rowsMasked, lowResRingRows);
                const int maskOffset = rowsMasked * lrWidth;
                for (int k = 0; k < group; ++k) {
                    maskRow(lowRes[first + k] + offset, masks[first + k] + maskOffset, lrWidth,
                            rings + k * ringSize + (rowsMasked % ringRows) * lrWidth);
                }
            }
            // The vertical taps i landing on row t, the same for every frame.
            int taps = 0;
            for (int i = t % kVerticalStep; i < kernelHeight && i <= t; i += kVerticalStep) {
                if ((t - i) / kVerticalStep < lrHeight) {
                    runTapIndices[taps++] = i;
                }
            }
            for (int k = 0; k < group; k += kFramesAtOnce) {
                const int frames = std::min(kFramesAtOnce, group - k);
                for (int f = 0; f < frames; ++f) {
                    for (int j = 0; j < taps; ++j) {
                        const int i = runTapIndices[j];
                        const int r = (t - i) / kVerticalStep;
                        runRows[f * taps + j] =
                            masks != nullptr
                                ? rings + (k + f) * ringSize + (r % ringRows) * lrWidth
                                : lowRes[first + k + f] + lowResRowOffset(r, lowResRingRows);
                        runTaps[f * taps + j] = psfY[first + k + f][i];
                    }
                    runTapTables[f] = runTaps.data() + f * taps;
                    runTargets[f] = vertical + (k + f) * lrWidth;
                }
                sumScaledRowsOfFrames(taps, frames, false, runRows.data(), runTapTables.data(),
                                      nullptr, lrWidth, runTargets.data());
            }
            if (Accumulate || first > 0) {
                convolveRows<true>(vertical, lrWidth, psfX + first, group, kernelWidth, step,
                                   fullWidth, out + t * fullWidth);
            } else {
                convolveRows<false>(vertical, lrWidth, psfX + first, group, kernelWidth, step,
                                    fullWidth, out + t * fullWidth);
            }
        }
    }
}

void SrFloatConvolution::validCorrToSparse(float* const full, float* const psfX, float* const psfY,
                                           float* lowResOut) {
    validCorrToSparse(1, full, &psfX, &psfY, &lowResOut, 0, lrHeight);
}

// Row by row: each row of the horizontal pass is computed once, into a ring of
// kernelHeight rows per frame, just before the first frame row that needs it; a
// frame row then sums its kernelHeight rows of the ring. The full row is split
// into its phases once for all frames.
void SrFloatConvolution::validCorrToSparse(int count, const float* full, const float* const* psfX,
                                           const float* const* psfY, float* const* lowResOut,
                                           int firstRow, int endRow, const char* const* masks,
                                           int lowResRingRows) {
    const int ringSize = kernelHeight * lrWidth;
    if (ringSize == 0) {
        return;
    }
    float* phases = scratchData;
    float* rings = scratchData + step * phaseLength;
    const int capacity = std::max((scratchSize - step * phaseLength) / ringSize, 1);
    for (int first = 0; first < count; first += capacity) {
        const int group = std::min(capacity, count - first);
        int rowsDone = kVerticalStep * firstRow;
        for (int r = firstRow; r < endRow; ++r) {
            const int rowsNeeded = std::min(kVerticalStep * r + kernelHeight, fullHeight);
            for (; rowsDone < rowsNeeded; ++rowsDone) {
                const float* source = full + rowsDone * fullWidth;
                if (step == 2) {
                    splitPhases<2>(source, fullWidth, 2, phaseLength, phases);
                } else if (step > 2) {
                    splitPhases<0>(source, fullWidth, step, phaseLength, phases);
                }
                for (int j = 0; j < kernelWidth; ++j) {
                    runRows[j] =
                        step == 1 ? source + j : phases + (j % step) * phaseLength + j / step;
                }
                const int slot = rowsDone % kernelHeight;
                for (int k = 0; k < group; k += kFramesAtOnce) {
                    const int frames = std::min(kFramesAtOnce, group - k);
                    for (int f = 0; f < frames; ++f) {
                        runTargets[f] = rings + (k + f) * ringSize + slot * lrWidth;
                    }
                    sumScaledRowsOfFrames(kernelWidth, frames, true, runRows.data(),
                                          psfX + first + k, nullptr, lrWidth, runTargets.data());
                }
            }
            const int taps = std::max(std::min(kernelHeight, fullHeight - kVerticalStep * r), 0);
            for (int k = 0; k < group; k += kFramesAtOnce) {
                const int frames = std::min(kFramesAtOnce, group - k);
                for (int f = 0; f < frames; ++f) {
                    for (int i = 0; i < taps; ++i) {
                        runRows[f * taps + i] = rings + (k + f) * ringSize +
                                                ((kVerticalStep * r + i) % kernelHeight) * lrWidth;
                    }
                    runTargets[f] = lowResOut[first + k + f] + lowResRowOffset(r, lowResRingRows);
                    if (masks != nullptr) {
                        runMasks[f] = masks[first + k + f] + r * lrWidth;
                    }
                }
                sumScaledRowsOfFrames(taps, frames, false, runRows.data(), psfY + first + k,
                                      masks != nullptr ? runMasks.data() : nullptr, lrWidth,
                                      runTargets.data());
            }
        }
    }
}

void SrFloatConvolution::blurImageMeanFilter(cv::Mat_<float>& in, int radius,
                                             cv::Mat_<float>& out) {
    cv::Mat_<float> scratch;
    blurImageMeanFilter(in, radius, out, scratch);
}

void SrFloatConvolution::blurImageMeanFilter(cv::Mat_<float>& in, int radius, cv::Mat_<float>& out,
                                             cv::Mat_<float>& scratch) {
    const int rows = in.rows;
    const int cols = in.cols;
    if (out.dims != 2 || out.rows != rows || out.cols != cols || out.empty()) {
        out.create(rows, cols);
    }
    // Rows 0 .. rows-1 hold the horizontal pass, the last row the vertical running sums.
    if (scratch.rows != rows + 1 || scratch.cols != cols) {
        scratch.create(rows + 1, cols);
    }
    const float norm = 1.0f / (2.0f * static_cast<float>(radius) + 1.0f);

    // Horizontal pass: one running sum along each row, kMeanFilterRows rows side by
    // side so that their independent additions overlap instead of waiting on each other.
    int r = 0;
    for (; r + kMeanFilterRows <= rows; r += kMeanFilterRows) {
        meanFilterRows<kMeanFilterRows>(in.ptr<float>(r), scratch.ptr<float>(r), cols, radius,
                                        norm);
    }
    for (; r < rows; ++r) {
        meanFilterRows<1>(in.ptr<float>(r), scratch.ptr<float>(r), cols, radius, norm);
    }

    // Vertical pass: the same running sum down every column, kept for all columns at
    // once in one row so that the inner loops run along contiguous memory.
    float* sum = scratch.ptr<float>(rows);
    auto row = [&](int index) { return static_cast<const float*>(scratch.ptr<float>(index)); };
    std::fill(sum, sum + cols, 0.0f);
    for (int r = 0; r < radius; ++r) {
        addRow(row(r), cols, sum);
    }
    for (int r = 0; r < radius; ++r) {
        addRow(row(r + radius), cols, sum);
        divideRow(sum, cols, static_cast<float>(r + radius + 1), out.ptr<float>(r));
    }
    for (int r = radius; r < rows - radius; ++r) {
        slideRow(row(r + radius), row(r - radius), cols, norm, sum, out.ptr<float>(r));
    }
    for (int r = rows - radius; r < rows; ++r) {
        divideRow(sum, cols, static_cast<float>(rows - r + radius), out.ptr<float>(r));
        subtractRow(row(r - radius), cols, sum);
    }
}

}  // namespace kelvo::vision
