// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <cmath>

namespace kelvo::vision {

// The lagged-diffusivity weights of the total-variation term, shared by every
// reconstruction of the library. Every pair of neighbours of the image x (right, down
// and the two diagonals at distance sqrt 2) gets the weight
//   negInvWeightTV / g(|x_a - x_b| / distance),
// the diagonals halved, with g the gradient magnitude clamped to [epsilon, invEpsilon].
// A pair that leaves the image has weight 0. Pixel 0 takes the right, down and
// down-right weights of pixel 1 and no down-left pair; the reconstructions have always
// weighted it so.
struct TvWeightParameters {
    float negInvWeightTV;
    float epsilon;
    float invEpsilon;
};

inline float clampTvMagnitude(float d, float epsilon, float invEpsilon) {
    return d <= epsilon ? epsilon : (d >= invEpsilon ? invEpsilon : d);
}

// The weights of the pixels in rows [firstRow, endRow) of the width x height image x.
// Inline, so that vectorised callers build it for their own instruction set.
inline void computeTvWeights(const float* x, int width, int height,
                             const TvWeightParameters& parameters, int firstRow, int endRow,
                             float* right, float* down, float* downLeft, float* downRight) {
    const int w = width;
    const float q = 1.0f / std::sqrt(2.0f);
    const float n = parameters.negInvWeightTV;
    const float lo = parameters.epsilon;
    const float hi = parameters.invEpsilon;
    auto straight = [=](float a, float b) {
        return n / clampTvMagnitude(std::fabs(b - a), lo, hi);
    };
    auto diagonal = [=](float a, float b) {
        return n / clampTvMagnitude(std::fabs(b - a) * q, lo, hi) * 0.5f;
    };

    for (int y = firstRow; y < endRow; ++y) {
        const int row = y * w;
        const int rowEnd = row + w;
        for (int i = row; i < rowEnd - 1; ++i) {
            right[i] = straight(x[i], x[i + 1]);
        }
        right[rowEnd - 1] = 0.0f;
        if (y == height - 1) {
            std::fill(down + row, down + rowEnd, 0.0f);
            std::fill(downLeft + row, downLeft + rowEnd, 0.0f);
            std::fill(downRight + row, downRight + rowEnd, 0.0f);
            continue;
        }
        for (int i = row; i < rowEnd; ++i) {
            down[i] = straight(x[i], x[i + w]);
        }
        downLeft[row] = 0.0f;
        for (int i = row + 1; i < rowEnd; ++i) {
            downLeft[i] = diagonal(x[i], x[i + w - 1]);
        }
        for (int i = row; i < rowEnd - 1; ++i) {
            downRight[i] = diagonal(x[i], x[i + w + 1]);
        }
        downRight[rowEnd - 1] = 0.0f;
        if (y == 0) {
            right[0] = straight(x[1], x[2]);
            down[0] = straight(x[1], x[w + 1]);
            downRight[0] = diagonal(x[1], x[w + 2]);
        }
    }
}

// The weights of a width x height image (size pixels) as the operator L reads them.
struct TvWeightView {
    const float* right;
    const float* down;
    const float* downLeft;
    const float* downRight;
    int width;
    int size;
};

// (L in)[i]: the weighted Laplacian of the TV term at pixel i, whose diagonal is minus
// the sum of the pixel's eight neighbour weights, summed in the order
// right[i-1] + right[i] + down[i-W] + down[i] + downRight[i-W-1] + downRight[i] +
// downLeft[i-W+1] + downLeft[i]. Terms whose index falls outside the image are left out
// (the zero weights already remove the pairs that wrap across a row end).
inline float tvStencilAt(const TvWeightView& weights, const float* in, int i) {
    const int w = weights.width;
    const int s = weights.size;
    const float* right = weights.right;
    const float* down = weights.down;
    const float* downLeft = weights.downLeft;
    const float* downRight = weights.downRight;
    float neighbours = i >= 1 ? right[i - 1] + right[i] : right[i];
    if (i >= w) {
        neighbours += down[i - w];
    }
    neighbours += down[i];
    if (i >= w + 1) {
        neighbours += downRight[i - w - 1];
    }
    neighbours += downRight[i];
    if (i >= w - 1) {
        neighbours += downLeft[i - w + 1];
    }
    neighbours += downLeft[i];

    float sum = -neighbours * in[i];
    if (i + 1 < s) {
        sum += right[i] * in[i + 1];
    }
    if (i >= 1) {
        sum += right[i - 1] * in[i - 1];
    }
    if (i + w < s) {
        sum += down[i] * in[i + w];
    }
    if (i >= w) {
        sum += down[i - w] * in[i - w];
    }
    if (i + w + 1 < s) {
        sum += downRight[i] * in[i + w + 1];
    }
    if (i >= w + 1) {
        sum += downRight[i - w - 1] * in[i - w - 1];
    }
    if (i + w - 1 < s) {
        sum += downLeft[i] * in[i + w - 1];
    }
    if (i >= w - 1) {
        sum += downLeft[i - w + 1] * in[i - w + 1];
    }
    return sum;
}

}  // namespace kelvo::vision
