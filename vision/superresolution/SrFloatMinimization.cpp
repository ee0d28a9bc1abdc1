#include "vision/superresolution/SrFloatMinimization.h"

#include <algorithm>
#include <cmath>

namespace kelvo::vision {

namespace {

constexpr float kFourOverPi = 1.2732395f;
constexpr float kErfA = 0.1400123f;

// Sums in double are split over this many lanes (term i goes to lane i mod kSumLanes,
// the lanes are added in order at the end), so that the compiler can vectorise them.
constexpr int kSumLanes = 8;

template <typename Term>
double sumInLanes(int count, Term term) {
    double lanes[kSumLanes] = {};
    int i = 0;
    for (; i + kSumLanes <= count; i += kSumLanes) {
        for (int lane = 0; lane < kSumLanes; ++lane) {
            lanes[lane] += term(i + lane);
        }
    }
    for (int lane = 0; i + lane < count; ++lane) {
        lanes[lane] += term(i + lane);
    }
    double sum = 0.0;
    for (double lane : lanes) {
        sum += lane;
    }
    return sum;
}

// Gradient magnitudes are clamped to [epsilon, 1 / epsilon] before they weight the
// TV term.
inline float clampMagnitude(float d, float epsilon, float invEpsilon) {
    return d <= epsilon ? epsilon : (d >= invEpsilon ? invEpsilon : d);
}

}  // namespace

float approximateErf(float x) {
    if (x == 0.0f) {
        return 0.0f;
    }
    const float x2 = x * x;
    const float ax2 = kErfA * x2;
    const float magnitude = std::sqrt(1.0f - std::exp(-x2 * (kFourOverPi + ax2) / (1.0f + ax2)));
    return x < 0.0f ? -magnitude : magnitude;
}

SrFloatMinimization::SrFloatMinimization(int lrWidth, int lrHeight, int maxFrames, float factor)
    : lrWidth(lrWidth),
      lrHeight(lrHeight),
      psfSize(static_cast<int>(factor * 3.0f)),
      fullWidth(static_cast<int>(static_cast<float>(lrWidth) * factor +
                                 static_cast<float>(psfSize) - 1.0f)),
      fullHeight(static_cast<int>(static_cast<float>(lrHeight) * factor +
                                  static_cast<float>(psfSize) - 1.0f)),
      fullSize(fullWidth * fullHeight),
      maxFrames(maxFrames),
      factor(factor),
      basePsf(psfSize),
      psfX(maxFrames, std::vector<float>(psfSize)),
      psfY(maxFrames, std::vector<float>(psfSize)),
      convolution(static_cast<int>(static_cast<float>(lrWidth) * factor),
                  static_cast<int>(static_cast<float>(lrHeight) * factor), psfSize, psfSize,
                  factor),
      lowResScratch(static_cast<size_t>(lrWidth) * lrHeight),
      rhs(fullSize),
      estimate(fullSize),
      weightRight(fullSize),
      weightDown(fullSize),
      weightDownLeft(fullSize),
      weightDownRight(fullSize),
      weightCentre(fullSize),
      residual(fullSize),
      direction(fullSize),
      operatorDirection(fullSize) {
    setPsfSigma(0.683f);
    setWeightTV(400.0f);
    setEpsilon(0.1f);
    setRelRes(0.007f);
    setMaxIter(8);
}

void SrFloatMinimization::setWeightTV(float value) {
    weightTV = value;
    negInvWeightTV = -1.0f / value;
}

void SrFloatMinimization::setEpsilon(float value) {
    epsilon = value;
    invEpsilon = 1.0f / value;
}

// Tap k holds the mass of the Gaussian over one pixel, taken outward from the centre
// between taps half - 1 and half: (erf((k + 1) c) - erf(k c)) / 2 with
// c = 1 / (sqrt(2) sigma), normalised to sum 1.
void SrFloatMinimization::setPsfSigma(float value) {
    psfSigma = value;
    std::fill(basePsf.begin(), basePsf.end(), 0.0f);
    const int half = psfSize / 2;
    const float c = 1.0f / (std::sqrt(2.0f) * value);
    float sum = 0.0f;
    for (int i = 0; factor > static_cast<float>(i) && i < half; ++i) {
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

int SrFloatMinimization::minimize(int numFrames, int refIndex, float** const frames,
                                  cv::Point_<float>* const shifts, char** masks, float* result) {
    const int frameSize = lrWidth * lrHeight;
    const float* reference = frames[refIndex];
    const double meanSum =
        sumInLanes(frameSize, [&](int i) { return static_cast<double>(reference[i]); });
    const double mean = meanSum / frameSize;
    const double varianceSum = sumInLanes(frameSize, [&](int i) {
        const double d = static_cast<double>(reference[i]) - mean;
        return d * d;
    });
    const float deviation = std::sqrt(static_cast<float>(varianceSum / frameSize));
    const float meanValue = static_cast<float>(mean);
    for (int k = 0; k < numFrames; ++k) {
        float* frame = frames[k];
        for (int i = 0; i < frameSize; ++i) {
            frame[i] = (frame[i] - meanValue) / deviation;
        }
    }

    generatePsfs(numFrames, shifts);
    std::fill(rhs.begin(), rhs.end(), 0.0f);
    for (int k = 0; k < numFrames; ++k) {
        convolution.accumulateFullConvFromSparse(frames[k], psfX[k].data(), psfY[k].data(),
                                                 masks[k], rhs.data());
    }
    const float* b = rhs.data();
    invRhsNorm2 = static_cast<float>(
        1.0 / sumInLanes(fullSize, [&](int i) { return static_cast<double>(b[i] * b[i]); }));
    estimate = rhs;

    // The restarts share one budget of iterations. A restart left with no budget would
    // only recompute weights and residual, which the result does not depend on.
    int total = 0;
    for (int restart = 0; restart < maxIter && total < maxIter; ++restart) {
        const int iterations = conjugateGradients(numFrames, masks, maxIter - total);
        total += iterations;
        if (iterations == 0) {
            break;
        }
    }

    const int outWidth = static_cast<int>(static_cast<float>(lrWidth) * factor);
    const int outHeight = static_cast<int>(static_cast<float>(lrHeight) * factor);
    const int offset = (psfSize - 1) / 2;
    for (int r = 0; r < outHeight; ++r) {
        const float* source = estimate.data() + (r + offset) * fullWidth + offset;
        float* target = result + r * outWidth;
        for (int c = 0; c < outWidth; ++c) {
            target[c] = deviation * source[c] + meanValue;
        }
    }
    return total;
}

// The base PSF moved by s = factor * shift high-resolution pixels, by linear
// interpolation between neighbouring taps; the zero tap at the far end absorbs the move.
void SrFloatMinimization::generatePsfs(int numFrames, cv::Point_<float>* const shifts) {
    const float* base = basePsf.data();
    const int n = psfSize;
    auto shiftPsf = [&](float s, float* psf) {
        if (s < 0.0f) {
            psf[0] = 0.0f;
            for (int j = 1; j < n; ++j) {
                psf[j] = (s + 1.0f) * base[j] + (-s) * base[j - 1];
            }
        } else {
            for (int j = 0; j < n - 1; ++j) {
                psf[j] = (1.0f - s) * base[j] + s * base[j + 1];
            }
            psf[n - 1] = 0.0f;
        }
    };
    for (int k = 0; k < numFrames; ++k) {
        shiftPsf(factor * shifts[k].x, psfX[k].data());
        shiftPsf(factor * shifts[k].y, psfY[k].data());
    }
}

int SrFloatMinimization::conjugateGradients(int numFrames, char** masks, int maxIter) {
    computeL();
    gradient(estimate.data(), numFrames, masks, residual.data());
    float* r = residual.data();
    float* p = direction.data();
    const float* b = rhs.data();
    residualNorm2 = static_cast<float>(sumInLanes(fullSize, [&](int i) {
        r[i] = b[i] - r[i];
        p[i] = r[i];
        return static_cast<double>(r[i] * r[i]);
    }));
    if (relRes * relRes > residualNorm2 * invRhsNorm2) {
        return 0;
    }
    for (int n = 0; n < maxIter; ++n) {
        if (iteration(n, numFrames, masks)) {
            return n + 1;
        }
    }
    return maxIter;
}

bool SrFloatMinimization::iteration(int /*index*/, int numFrames, char** masks) {
    float* x = estimate.data();
    float* r = residual.data();
    float* p = direction.data();
    float* ap = operatorDirection.data();
    gradient(p, numFrames, masks, ap);
    const double pAp =
        sumInLanes(fullSize, [&](int i) { return static_cast<double>(p[i] * ap[i]); });
    const float alpha = static_cast<float>(residualNorm2 / pAp);
    const double newNorm2 = sumInLanes(fullSize, [&](int i) {
        x[i] += alpha * p[i];
        r[i] -= alpha * ap[i];
        return static_cast<double>(r[i] * r[i]);
    });
    if (static_cast<double>(relRes * relRes) > static_cast<double>(invRhsNorm2) * newNorm2) {
        return true;
    }
    const float beta = static_cast<float>(newNorm2 / residualNorm2);
    for (int i = 0; i < fullSize; ++i) {
        p[i] = beta * p[i] + r[i];
    }
    residualNorm2 = static_cast<float>(newNorm2);
    return false;
}

// Lagged diffusivity: every pair of neighbours (right, down and the two diagonals at
// distance sqrt 2) gets the weight -1 / (weightTV g(|x_a - x_b| / distance)), the
// diagonals halved, with g the clamped magnitude; the centre is minus the sum of the
// eight weights of a pixel, so that L x is a weighted Laplacian of x.
void SrFloatMinimization::computeL() {
    const int w = fullWidth;
    const int h = fullHeight;
    const float* x = estimate.data();
    float* right = weightRight.data();
    float* down = weightDown.data();
    float* downLeft = weightDownLeft.data();
    float* downRight = weightDownRight.data();
    const float q = 1.0f / std::sqrt(2.0f);
    const float n = negInvWeightTV;
    const float lo = epsilon;
    const float hi = invEpsilon;
    auto straight = [=](float a, float b) { return n / clampMagnitude(std::fabs(b - a), lo, hi); };
    auto diagonal = [=](float a, float b) {
        return n / clampMagnitude(std::fabs(b - a) * q, lo, hi) * 0.5f;
    };

    for (int y = 0; y < h - 1; ++y) {
        const int row = y * w;
        for (int i = row; i < row + w - 1; ++i) {
            right[i] = straight(x[i], x[i + 1]);
            down[i] = straight(x[i], x[i + w]);
            downRight[i] = diagonal(x[i], x[i + w + 1]);
        }
        for (int i = row + 1; i < row + w; ++i) {
            downLeft[i] = diagonal(x[i], x[i + w - 1]);
        }
        right[row + w - 1] = 0.0f;
        down[row + w - 1] = straight(x[row + w - 1], x[row + 2 * w - 1]);
        downRight[row + w - 1] = 0.0f;
        downLeft[row] = 0.0f;
    }
    const int lastRow = (h - 1) * w;
    for (int i = lastRow; i < lastRow + w - 1; ++i) {
        right[i] = straight(x[i], x[i + 1]);
    }
    right[lastRow + w - 1] = 0.0f;
    std::fill(down + lastRow, down + fullSize, 0.0f);
    std::fill(downLeft + lastRow, downLeft + fullSize, 0.0f);
    std::fill(downRight + lastRow, downRight + fullSize, 0.0f);
    // Pixel 0 takes the weights of pixel 1 and no down-left pair.
    right[0] = straight(x[1], x[2]);
    down[0] = straight(x[1], x[w + 1]);
    downRight[0] = diagonal(x[1], x[w + 2]);
    downLeft[0] = 0.0f;

    float* centre = weightCentre.data();
    const int firstFull = std::min(w + 1, fullSize);
    for (int i = 0; i < firstFull; ++i) {
        centre[i] = -neighbourWeightSum(i);
    }
    for (int i = firstFull; i < fullSize; ++i) {
        centre[i] = -(right[i - 1] + right[i] + down[i - w] + down[i] + downRight[i - w - 1] +
                      downRight[i] + downLeft[i - w + 1] + downLeft[i]);
    }
}

// The sum of the eight neighbour weights of pixel i in the order of the centre's
// formula, leaving out the weights whose index falls outside the image.
float SrFloatMinimization::neighbourWeightSum(int i) const {
    const int w = fullWidth;
    float sum = i >= 1 ? weightRight[i - 1] + weightRight[i] : weightRight[i];
    if (i >= w) {
        sum += weightDown[i - w];
    }
    sum += weightDown[i];
    if (i >= w + 1) {
        sum += weightDownRight[i - w - 1];
    }
    sum += weightDownRight[i];
    if (i >= w - 1) {
        sum += weightDownLeft[i - w + 1];
    }
    return sum + weightDownLeft[i];
}

// out = L in + sum_k H_k^T M_k H_k in
void SrFloatMinimization::gradient(float* const in, int numFrames, char** masks, float* out) {
    applyStencil(in, out);
    for (int k = 0; k < numFrames; ++k) {
        convolution.validCorrToSparse(in, psfX[k].data(), psfY[k].data(), lowResScratch.data());
        convolution.accumulateFullConvFromSparse(lowResScratch.data(), psfX[k].data(),
                                                 psfY[k].data(), masks[k], out);
    }
}

// out = L in, the 9-point stencil of the weights. Pixels of the first and the last
// row (and one more at either end) have neighbours outside the image and take the
// general path; all others run through the branch-free loop.
void SrFloatMinimization::applyStencil(const float* in, float* out) const {
    const int w = fullWidth;
    const float* centre = weightCentre.data();
    const float* right = weightRight.data();
    const float* down = weightDown.data();
    const float* downLeft = weightDownLeft.data();
    const float* downRight = weightDownRight.data();
    const int interiorBegin = std::min(w + 1, fullSize);
    const int interiorEnd = std::max(fullSize - w - 1, interiorBegin);
    for (int i = 0; i < interiorBegin; ++i) {
        out[i] = stencilAt(in, i);
    }
    for (int i = interiorBegin; i < interiorEnd; ++i) {
        out[i] = centre[i] * in[i] + right[i] * in[i + 1] + right[i - 1] * in[i - 1] +
                 down[i] * in[i + w] + down[i - w] * in[i - w] + downRight[i] * in[i + w + 1] +
                 downRight[i - w - 1] * in[i - w - 1] + downLeft[i] * in[i + w - 1] +
                 downLeft[i - w + 1] * in[i - w + 1];
    }
    for (int i = interiorEnd; i < fullSize; ++i) {
        out[i] = stencilAt(in, i);
    }
}

// One pixel of L in, leaving out the terms whose index falls outside the image.
float SrFloatMinimization::stencilAt(const float* in, int i) const {
    const int w = fullWidth;
    const int s = fullSize;
    float sum = weightCentre[i] * in[i];
    if (i + 1 < s) {
        sum += weightRight[i] * in[i + 1];
    }
    if (i >= 1) {
        sum += weightRight[i - 1] * in[i - 1];
    }
    if (i + w < s) {
        sum += weightDown[i] * in[i + w];
    }
    if (i >= w) {
        sum += weightDown[i - w] * in[i - w];
    }
    if (i + w + 1 < s) {
        sum += weightDownRight[i] * in[i + w + 1];
    }
    if (i >= w + 1) {
        sum += weightDownRight[i - w - 1] * in[i - w - 1];
    }
    if (i + w - 1 < s) {
        sum += weightDownLeft[i] * in[i + w - 1];
    }
    if (i >= w - 1) {
        sum += weightDownLeft[i - w + 1] * in[i - w + 1];
    }
    return sum;
}

}  // namespace kelvo::vision
