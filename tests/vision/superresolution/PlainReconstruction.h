// SPDX-License-Identifier: Apache-2.0
#pragma once

// The reconstruction written the plain way: every loop in the order that fixes the
// float rounding, whole-image passes, per-element index checks. The optimised code of
// the library is tested against it bit for bit.

#include <algorithm>
#include <cmath>
#include <opencv2/core.hpp>
#include <vector>

#include "vision/superresolution/SrFloatMinimization.h"

namespace kelvo::vision::plain {

// Sizes of the sparse operators for a high-resolution image of hrWidth x hrHeight.
struct SparseGeometry {
    int hrWidth;
    int hrHeight;
    int kernelWidth;
    int kernelHeight;
    float factor;

    int fullWidth() const { return hrWidth + kernelWidth - 1; }
    int fullHeight() const { return hrHeight + kernelHeight - 1; }
    int lrWidth() const { return static_cast<int>(static_cast<float>(hrWidth) / factor); }
    int lrHeight() const { return static_cast<int>(static_cast<float>(hrHeight) / factor); }
    int step() const { return static_cast<int>(factor); }
};

// A mask value as a multiplier: bytes are signed, float masks are taken as they are.
inline float maskValue(char m) {
    return static_cast<float>(static_cast<signed char>(m));
}
inline float maskValue(float m) {
    return m;
}

template <typename Mask>
void fullConvFromSparse(const SparseGeometry& g, const float* lowRes, const float* psfX,
                        const float* psfY, const Mask* mask, float* out) {
    const int w = g.lrWidth();
    const int h = g.lrHeight();
    std::vector<float> scratch(static_cast<size_t>(g.fullHeight()) * w, 0.0f);
    std::fill(out, out + g.fullHeight() * g.fullWidth(), 0.0f);
    for (int i = 0; i < g.kernelHeight; ++i) {
        const float k = psfY[i];
        for (int r = 0; r < h; ++r) {
            for (int c = 0; c < w; ++c) {
                scratch[(2 * r + i) * w + c] += maskValue(mask[r * w + c]) * lowRes[r * w + c] * k;
            }
        }
    }
    for (int j = 0; j < g.kernelWidth; ++j) {
        const float k = psfX[j];
        for (int t = 0; t < g.fullHeight(); ++t) {
            for (int c = 0; c < w; ++c) {
                out[t * g.fullWidth() + j + g.step() * c] += k * scratch[t * w + c];
            }
        }
    }
}

inline void validCorrToSparse(const SparseGeometry& g, const float* full, const float* psfX,
                              const float* psfY, float* lowResOut) {
    const int w = g.lrWidth();
    const int h = g.lrHeight();
    std::vector<float> scratch(static_cast<size_t>(g.fullHeight()) * w, 0.0f);
    std::fill(lowResOut, lowResOut + h * w, 0.0f);
    for (int j = 0; j < g.kernelWidth; ++j) {
        const float k = psfX[j];
        for (int t = 0; t < g.fullHeight(); ++t) {
            for (int c = 0; c < w; ++c) {
                scratch[t * w + c] += k * full[t * g.fullWidth() + j + g.step() * c];
            }
        }
    }
    for (int i = 0; i < g.kernelHeight; ++i) {
        const float k = psfY[i];
        for (int r = 0; r < h; ++r) {
            for (int c = 0; c < w; ++c) {
                lowResOut[r * w + c] += k * scratch[(2 * r + i) * w + c];
            }
        }
    }
}

// A double sum the way the library splits it: term i into lane i mod 8, lanes added
// in order.
template <typename Term>
double sumInLanes(int count, Term term) {
    double lanes[8] = {};
    for (int i = 0; i < count; ++i) {
        lanes[i % 8] += term(i);
    }
    double sum = 0.0;
    for (double lane : lanes) {
        sum += lane;
    }
    return sum;
}

// The whole reconstruction with the parameters of a default SrFloatMinimization, for
// byte or float masks.
template <typename Mask>
class BasicMinimization {
public:
    BasicMinimization(int lrWidth, int lrHeight, float factor)
        : w(lrWidth),
          h(lrHeight),
          factor(factor),
          psfSize(static_cast<int>(factor * 3.0f)),
          fullWidth(static_cast<int>(static_cast<float>(w) * factor + static_cast<float>(psfSize) -
                                     1.0f)),
          fullHeight(static_cast<int>(static_cast<float>(h) * factor + static_cast<float>(psfSize) -
                                      1.0f)),
          size(fullWidth * fullHeight),
          geometry{static_cast<int>(static_cast<float>(w) * factor),
                   static_cast<int>(static_cast<float>(h) * factor), psfSize, psfSize, factor},
          basePsf(psfSize, 0.0f),
          right(size),
          down(size),
          downLeft(size),
          downRight(size),
          centre(size) {
        const int half = psfSize / 2;
        const float c = 1.0f / (std::sqrt(2.0f) * sigma);
        float sum = 0.0f;
        for (int i = 0; factor > static_cast<float>(i); ++i) {
            const float v = 0.5f * (approximateErf(static_cast<float>(i + 1) * c) -
                                    approximateErf(static_cast<float>(i) * c));
            basePsf[half - 1 - i] = v;
            basePsf[half + i] = v;
            sum += 2.0f * v;
        }
        for (float& tap : basePsf) {
            tap /= sum;
        }
    }

    std::vector<float> shiftedPsf(float s) const {
        const int n = psfSize;
        std::vector<float> psf(n);
        if (s < 0.0f) {
            psf[0] = 0.0f;
            for (int j = 1; j < n; ++j) {
                psf[j] = (s + 1.0f) * basePsf[j] + (-s) * basePsf[j - 1];
            }
        } else {
            for (int j = 0; j < n - 1; ++j) {
                psf[j] = (1.0f - s) * basePsf[j] + s * basePsf[j + 1];
            }
            psf[n - 1] = 0.0f;
        }
        return psf;
    }

    static float g(float d) {
        const float epsilon = 0.1f;
        const float invEpsilon = 1.0f / epsilon;
        if (d <= epsilon) {
            return epsilon;
        }
        if (d >= invEpsilon) {
            return invEpsilon;
        }
        return d;
    }

    // The lagged TV weights of x, pixel by pixel.
    void computeL(const std::vector<float>& x) {
        const float n = -1.0f / 400.0f;
        const float q = 1.0f / std::sqrt(2.0f);
        const int W = fullWidth;
        for (int i = 0; i < size; ++i) {
            const int row = i / W;
            const int col = i % W;
            const int at = i == 0 ? 1 : i;
            const bool lastRow = row == fullHeight - 1;
            const bool lastCol = col == W - 1;
            right[i] = lastCol ? 0.0f : n / g(std::fabs(x[at + 1] - x[at]));
            down[i] = lastRow ? 0.0f : n / g(std::fabs(x[at + W] - x[at]));
            downRight[i] =
                lastRow || lastCol ? 0.0f : n / g(std::fabs(x[at + W + 1] - x[at]) * q) * 0.5f;
            downLeft[i] =
                lastRow || col == 0 ? 0.0f : n / g(std::fabs(x[i + W - 1] - x[i]) * q) * 0.5f;
        }
        for (int i = 0; i < size; ++i) {
            float sum = 0.0f;
            bool started = false;
            auto add = [&](int index, const std::vector<float>& weight) {
                if (index >= 0 && index < size) {
                    sum = started ? sum + weight[index] : weight[index];
                    started = true;
                }
            };
            add(i - 1, right);
            add(i, right);
            add(i - W, down);
            add(i, down);
            add(i - W - 1, downRight);
            add(i, downRight);
            add(i - W + 1, downLeft);
            add(i, downLeft);
            centre[i] = -sum;
        }
    }

    void stencil(const std::vector<float>& in, std::vector<float>& out) const {
        const int W = fullWidth;
        for (int i = 0; i < size; ++i) {
            float sum = centre[i] * in[i];
            auto add = [&](int weightIndex, const std::vector<float>& weight, int inIndex) {
                if (weightIndex >= 0 && inIndex >= 0 && inIndex < size) {
                    sum += weight[weightIndex] * in[inIndex];
                }
            };
            add(i, right, i + 1);
            add(i - 1, right, i - 1);
            add(i, down, i + W);
            add(i - W, down, i - W);
            add(i, downRight, i + W + 1);
            add(i - W - 1, downRight, i - W - 1);
            add(i, downLeft, i + W - 1);
            add(i - W + 1, downLeft, i - W + 1);
            out[i] = sum;
        }
    }

    void gradient(const std::vector<float>& in, std::vector<float>& out) const {
        stencil(in, out);
        std::vector<float> lowRes(static_cast<size_t>(w) * h);
        std::vector<float> conv(size);
        for (size_t k = 0; k < psfX.size(); ++k) {
            validCorrToSparse(geometry, in.data(), psfX[k].data(), psfY[k].data(), lowRes.data());
            fullConvFromSparse(geometry, lowRes.data(), psfX[k].data(), psfY[k].data(), masks[k],
                               conv.data());
            for (int i = 0; i < size; ++i) {
                out[i] += conv[i];
            }
        }
    }

    int minimize(int numFrames, int refIndex, float** frames, const cv::Point_<float>* shifts,
                 Mask** frameMasks, int maxIter, float relRes, float* result) {
        const int n = w * h;
        const float* ref = frames[refIndex];
        const double mean = sumInLanes(n, [&](int i) { return static_cast<double>(ref[i]); }) / n;
        const double variance = sumInLanes(n,
                                           [&](int i) {
                                               const double d = static_cast<double>(ref[i]) - mean;
                                               return d * d;
                                           }) /
                                n;
        const float deviation = std::sqrt(static_cast<float>(variance));
        const float meanValue = static_cast<float>(mean);
        for (int k = 0; k < numFrames; ++k) {
            for (int i = 0; i < n; ++i) {
                frames[k][i] = (frames[k][i] - meanValue) / deviation;
            }
        }
        psfX.clear();
        psfY.clear();
        masks.assign(frameMasks, frameMasks + numFrames);
        for (int k = 0; k < numFrames; ++k) {
            psfX.push_back(shiftedPsf(factor * shifts[k].x));
            psfY.push_back(shiftedPsf(factor * shifts[k].y));
        }
        std::vector<float> rhs(size, 0.0f);
        std::vector<float> conv(size);
        for (int k = 0; k < numFrames; ++k) {
            fullConvFromSparse(geometry, frames[k], psfX[k].data(), psfY[k].data(), masks[k],
                               conv.data());
            for (int i = 0; i < size; ++i) {
                rhs[i] += conv[i];
            }
        }
        const float invRhsNorm2 = static_cast<float>(
            1.0 / sumInLanes(size, [&](int i) { return static_cast<double>(rhs[i] * rhs[i]); }));
        std::vector<float> x = rhs;
        std::vector<float> r(size);
        std::vector<float> p(size);
        std::vector<float> ap(size);
        int total = 0;
        restartCount = 0;
        for (int restart = 0; restart < maxIter; ++restart) {
            ++restartCount;
            computeL(x);
            gradient(x, r);
            for (int i = 0; i < size; ++i) {
                r[i] = rhs[i] - r[i];
                p[i] = r[i];
            }
            float norm2 = static_cast<float>(
                sumInLanes(size, [&](int i) { return static_cast<double>(r[i] * r[i]); }));
            int done = 0;
            if (!(relRes * relRes > norm2 * invRhsNorm2)) {
                done = maxIter - total;
                for (int step = 0; step < maxIter - total; ++step) {
                    gradient(p, ap);
                    const double pAp =
                        sumInLanes(size, [&](int i) { return static_cast<double>(p[i] * ap[i]); });
                    const float alpha = static_cast<float>(norm2 / pAp);
                    for (int i = 0; i < size; ++i) {
                        x[i] += alpha * p[i];
                        r[i] -= alpha * ap[i];
                    }
                    const double newNorm2 =
                        sumInLanes(size, [&](int i) { return static_cast<double>(r[i] * r[i]); });
                    if (static_cast<double>(relRes * relRes) >
                        static_cast<double>(invRhsNorm2) * newNorm2) {
                        done = step + 1;
                        break;
                    }
                    const float beta = static_cast<float>(newNorm2 / norm2);
                    for (int i = 0; i < size; ++i) {
                        p[i] = beta * p[i] + r[i];
                    }
                    norm2 = static_cast<float>(newNorm2);
                }
            }
            total += done;
            if (done == 0) {
                break;
            }
        }
        const int offset = (psfSize - 1) / 2;
        const int outWidth = geometry.hrWidth;
        for (int row = 0; row < geometry.hrHeight; ++row) {
            for (int col = 0; col < outWidth; ++col) {
                result[row * outWidth + col] =
                    deviation * x[(row + offset) * fullWidth + col + offset] + meanValue;
            }
        }
        return total;
    }

    const std::vector<float>& base() const { return basePsf; }
    // Restarts of conjugate gradients in the last minimize.
    int restarts() const { return restartCount; }
    int fullImageWidth() const { return fullWidth; }
    int fullImageHeight() const { return fullHeight; }

private:
    const float sigma = 0.683f;
    int w;
    int h;
    float factor;
    int psfSize;
    int fullWidth;
    int fullHeight;
    int size;
    SparseGeometry geometry;
    std::vector<float> basePsf;
    std::vector<std::vector<float>> psfX;
    std::vector<std::vector<float>> psfY;
    std::vector<Mask*> masks;
    std::vector<float> right;
    std::vector<float> down;
    std::vector<float> downLeft;
    std::vector<float> downRight;
    std::vector<float> centre;
    int restartCount = 0;
};

using Minimization = BasicMinimization<char>;

}  // namespace kelvo::vision::plain
