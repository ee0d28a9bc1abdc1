#include "vision/superresolution/SrFloatConvolution.h"

#include <algorithm>

namespace kelvo::vision {

namespace {
// The vertical sample step of both sparse operators, whatever the factor.
constexpr int kVerticalStep = 2;
}  // namespace

SrFloatConvolution::SrFloatConvolution(int hrWidth, int hrHeight, int kernelWidth,
                                       int kernelHeight, float factor)
    : hrWidth(hrWidth),
      hrHeight(hrHeight),
      kernelWidth(kernelWidth),
      kernelHeight(kernelHeight),
      fullWidth(hrWidth + kernelWidth - 1),
      fullHeight(hrHeight + kernelHeight - 1),
      factor(factor),
      scratch(fullHeight, std::max(hrWidth, 1), CV_32F),
      scratchData(scratch.ptr<float>()) {}

void SrFloatConvolution::fullConvFromSparse(float* const lowRes, float* const psfX,
                                            float* const psfY, char* mask, float* out) {
    const int w = static_cast<int>(static_cast<float>(hrWidth) / factor);
    const int h = static_cast<int>(static_cast<float>(hrHeight) / factor);
    const int step = static_cast<int>(factor);
    std::fill(out, out + fullHeight * fullWidth, 0.0f);
    std::fill(scratchData, scratchData + fullHeight * w, 0.0f);

    for (int i = 0; i < kernelHeight; ++i) {
        const float k = psfY[i];
        for (int r = 0; r < h; ++r) {
            float* target = scratchData + (kVerticalStep * r + i) * w;
            const float* pixel = lowRes + r * w;
            const char* valid = mask + r * w;
            for (int c = 0; c < w; ++c) {
                target[c] += static_cast<float>(static_cast<signed char>(valid[c])) * pixel[c] * k;
            }
        }
    }
    for (int j = 0; j < kernelWidth; ++j) {
        const float k = psfX[j];
        for (int t = 0; t < fullHeight; ++t) {
            float* target = out + t * fullWidth + j;
            const float* source = scratchData + t * w;
            for (int c = 0; c < w; ++c) {
                target[step * c] += k * source[c];
            }
        }
    }
}

void SrFloatConvolution::validCorrToSparse(float* const full, float* const psfX, float* const psfY,
                                           float* lowResOut) {
    const int w = static_cast<int>(static_cast<float>(hrWidth) / factor);
    const int h = static_cast<int>(static_cast<float>(hrHeight) / factor);
    const int step = static_cast<int>(factor);
    std::fill(lowResOut, lowResOut + h * w, 0.0f);
    std::fill(scratchData, scratchData + fullHeight * w, 0.0f);

    for (int j = 0; j < kernelWidth; ++j) {
        const float k = psfX[j];
        for (int t = 0; t < fullHeight; ++t) {
            float* target = scratchData + t * w;
            const float* source = full + t * fullWidth + j;
            for (int c = 0; c < w; ++c) {
                target[c] += k * source[step * c];
            }
        }
    }
    for (int i = 0; i < kernelHeight; ++i) {
        const float k = psfY[i];
        for (int r = 0; r < h; ++r) {
            float* target = lowResOut + r * w;
            const float* source = scratchData + (kVerticalStep * r + i) * w;
            for (int c = 0; c < w; ++c) {
                target[c] += k * source[c];
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
