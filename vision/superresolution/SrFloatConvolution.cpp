#include "vision/superresolution/SrFloatConvolution.h"

#include <algorithm>

namespace kelvo::vision {

namespace {

// The vertical sample step of both sparse operators, whatever the factor.
constexpr int kVerticalStep = 2;

// target[c] += k * source[c]
void addScaled(float* target, const float* source, float k, int count) {
    for (int c = 0; c < count; ++c) {
        target[c] += k * source[c];
    }
}

// target[c] += mask[c] * source[c] * k, the mask byte read as a signed number
void addMaskedScaled(float* target, const float* source, const char* mask, float k, int count) {
    for (int c = 0; c < count; ++c) {
        target[c] += static_cast<float>(static_cast<signed char>(mask[c])) * source[c] * k;
    }
}

// phases[p * length + m] = row[p + step m] for every column of the row. Step is the
// sample step when known at compile time (0: taken from `step`).
template <int Step>
void splitPhases(const float* row, int rowLength, int step, int length, float* phases) {
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

// The inverse of splitPhases: row[p + step m] = phases[p * length + m], or += when
// accumulating.
template <int Step, bool Accumulate>
void mergePhases(const float* phases, int length, int step, int rowLength, float* row) {
    const int s = Step > 0 ? Step : step;
    const int whole = rowLength / s;
    for (int m = 0; m < whole; ++m) {
        for (int p = 0; p < s; ++p) {
            if (Accumulate) {
                row[s * m + p] += phases[p * length + m];
            } else {
                row[s * m + p] = phases[p * length + m];
            }
        }
    }
    for (int p = 0; whole * s + p < rowLength; ++p) {
        if (Accumulate) {
            row[whole * s + p] += phases[p * length + whole];
        } else {
            row[whole * s + p] = phases[p * length + whole];
        }
    }
}

}  // namespace

SrFloatConvolution::SrFloatConvolution(int hrWidth, int hrHeight, int kernelWidth, int kernelHeight,
                                       float factor)
    : hrWidth(hrWidth),
      hrHeight(hrHeight),
      kernelWidth(kernelWidth),
      kernelHeight(kernelHeight),
      fullWidth(hrWidth + kernelWidth - 1),
      fullHeight(hrHeight + kernelHeight - 1),
      factor(factor),
      lrWidth(static_cast<int>(static_cast<float>(hrWidth) / factor)),
      lrHeight(static_cast<int>(static_cast<float>(hrHeight) / factor)),
      step(static_cast<int>(factor)),
      phaseLength((fullWidth + step - 1) / step),
      scratch(1, std::max(kernelHeight, 1) * lrWidth + step * phaseLength, CV_32F),
      scratchData(scratch.ptr<float>()) {}

SrFloatConvolution::SrFloatConvolution(const SrFloatConvolution& other)
    : SrFloatConvolution(other.hrWidth, other.hrHeight, other.kernelWidth, other.kernelHeight,
                         other.factor) {}

SrFloatConvolution& SrFloatConvolution::operator=(const SrFloatConvolution& other) {
    hrWidth = other.hrWidth;
    hrHeight = other.hrHeight;
    kernelWidth = other.kernelWidth;
    kernelHeight = other.kernelHeight;
    fullWidth = other.fullWidth;
    fullHeight = other.fullHeight;
    factor = other.factor;
    scratch.create(fullHeight, std::max(hrWidth, 1), CV_32F);
    scratchData = scratch.ptr<float>();
    return *this;
}

void SrFloatConvolution::fullConvFromSparse(float* const lowRes, float* const psfX,
                                            float* const psfY, char* mask, float* out) {
    convolveFromSparse<false>(lowRes, psfX, psfY, mask, out);
}

void SrFloatConvolution::accumulateFullConvFromSparse(float* const lowRes, float* const psfX,
                                                      float* const psfY, char* mask, float* out) {
    convolveFromSparse<true>(lowRes, psfX, psfY, mask, out);
}

// Row by row through the full image: the vertical taps landing on row t first
// (column c of row t collects the frame rows r = (t - i) / 2 for taps i of the
// parity of t, in ascending i), then the horizontal taps, split by output phase:
// column x = p + F m collects taps j = p + F d from sparse column m - d, in
// ascending d. Every element thus sees the tap order of the two passes taken
// whole, while the rows being worked on stay in the first level cache.
template <bool Accumulate>
void SrFloatConvolution::convolveFromSparse(const float* lowRes, const float* psfX,
                                            const float* psfY, const char* mask, float* out) {
    float* vertical = scratchData;
    float* phases = scratchData + lrWidth;
    for (int t = 0; t < fullHeight; ++t) {
        std::fill(vertical, vertical + lrWidth, 0.0f);
        for (int i = t % kVerticalStep; i < kernelHeight && i <= t; i += kVerticalStep) {
            const int r = (t - i) / kVerticalStep;
            if (r < lrHeight) {
                addMaskedScaled(vertical, lowRes + r * lrWidth, mask + r * lrWidth, psfY[i],
                                lrWidth);
            }
        }
        for (int phase = 0; phase < step; ++phase) {
            float* target = phases + phase * phaseLength;
            const int length = (fullWidth - phase + step - 1) / step;
            std::fill(target, target + length, 0.0f);
            for (int d = 0; phase + step * d < kernelWidth; ++d) {
                addScaled(target + d, vertical, psfX[phase + step * d],
                          std::min(lrWidth, length - d));
            }
        }
        float* row = out + t * fullWidth;
        if (step == 2) {
            mergePhases<2, Accumulate>(phases, phaseLength, 2, fullWidth, row);
        } else {
            mergePhases<0, Accumulate>(phases, phaseLength, step, fullWidth, row);
        }
    }
}

// Row by row: each row of the horizontal pass is computed once, into a ring of
// kernelHeight rows, just before the first frame row that needs it; a frame row
// then sums its kernelHeight rows of the ring tap by tap.
void SrFloatConvolution::validCorrToSparse(float* const full, float* const psfX, float* const psfY,
                                           float* lowResOut) {
    float* ring = scratchData;
    float* phases = scratchData + kernelHeight * lrWidth;
    int rowsDone = 0;
    for (int r = 0; r < lrHeight; ++r) {
        const int rowsNeeded = std::min(kVerticalStep * r + kernelHeight, fullHeight);
        for (; rowsDone < rowsNeeded; ++rowsDone) {
            const float* source = full + rowsDone * fullWidth;
            if (step == 2) {
                splitPhases<2>(source, fullWidth, 2, phaseLength, phases);
            } else {
                splitPhases<0>(source, fullWidth, step, phaseLength, phases);
            }
            float* target = ring + (rowsDone % kernelHeight) * lrWidth;
            std::fill(target, target + lrWidth, 0.0f);
            for (int j = 0; j < kernelWidth; ++j) {
                addScaled(target, phases + (j % step) * phaseLength + j / step, psfX[j], lrWidth);
            }
        }
        float* target = lowResOut + r * lrWidth;
        std::fill(target, target + lrWidth, 0.0f);
        for (int i = 0; i < kernelHeight && kVerticalStep * r + i < fullHeight; ++i) {
            addScaled(target, ring + ((kVerticalStep * r + i) % kernelHeight) * lrWidth, psfY[i],
                      lrWidth);
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

    // Horizontal pass: one running sum along each row. The window is clipped at both
    // ends, where the divisor is the count of pixels it still holds.
    for (int r = 0; r < rows; ++r) {
        const float* source = in.ptr<float>(r);
        float* target = scratch.ptr<float>(r);
        float sum = 0.0f;
        for (int c = 0; c < radius; ++c) {
            sum += source[c];
        }
        for (int c = 0; c < radius; ++c) {
            sum += source[c + radius];
            target[c] = sum / static_cast<float>(c + radius + 1);
        }
        for (int c = radius; c < cols - radius; ++c) {
            sum += source[c + radius];
            target[c] = sum * norm;
            sum -= source[c - radius];
        }
        for (int c = cols - radius; c < cols; ++c) {
            target[c] = sum / static_cast<float>(cols - c + radius);
            sum -= source[c - radius];
        }
    }

    // Vertical pass: the same running sum down every column, kept for all columns at
    // once in one row so that the inner loops run along contiguous memory.
    float* sum = scratch.ptr<float>(rows);
    auto add = [&](int r) {
        const float* row = scratch.ptr<float>(r);
        for (int c = 0; c < cols; ++c) {
            sum[c] += row[c];
        }
    };
    auto subtract = [&](int r) {
        const float* row = scratch.ptr<float>(r);
        for (int c = 0; c < cols; ++c) {
            sum[c] -= row[c];
        }
    };
    auto divide = [&](int r, float divisor) {
        float* target = out.ptr<float>(r);
        for (int c = 0; c < cols; ++c) {
            target[c] = sum[c] / divisor;
        }
    };
    std::fill(sum, sum + cols, 0.0f);
    for (int r = 0; r < radius; ++r) {
        add(r);
    }
    for (int r = 0; r < radius; ++r) {
        add(r + radius);
        divide(r, static_cast<float>(r + radius + 1));
    }
    for (int r = radius; r < rows - radius; ++r) {
        add(r + radius);
        float* target = out.ptr<float>(r);
        for (int c = 0; c < cols; ++c) {
            target[c] = sum[c] * norm;
        }
        subtract(r - radius);
    }
    for (int r = rows - radius; r < rows; ++r) {
        divide(r, static_cast<float>(rows - r + radius));
        subtract(r - radius);
    }
}

}  // namespace kelvo::vision
