// SPDX-License-Identifier: Apache-2.0
#include "vision/superresolution/SrFloatMinimization.h"

#include <algorithm>
#include <cmath>

#include "vision/superresolution/LaneSum.h"
#include "vision/superresolution/ParallelRuns.h"
#include "vision/superresolution/SixteenFloats.h"
#include "vision/superresolution/VectorClones.h"

namespace kelvo::vision {

namespace {

constexpr float kFourOverPi = 1.2732395f;
constexpr float kErfA = 0.1400123f;

// Full-image rows per band of an operator application: the band of the result stays
// in the second level cache from the stencil to the last frame's contribution.
constexpr int kBandRows = 32;
// The rows of TV weights a band's stencil reads: its own and the two above, since the
// neighbours of a row's first pixel reach the last pixel two rows up.
constexpr int kBandWeightRows = kBandRows + 2;

// Runs update(first, last) over [begin, end) in pieces that stay in the first level
// cache, each followed by sum(first, last) over the same piece: element-wise loops
// and lane sums vectorise best apart.
template <typename Update, typename Sum>
void updateThenSum(int begin, int end, Update update, Sum sum) {
    constexpr int kPiece = 2048;
    for (int first = begin; first < end; first += kPiece) {
        const int last = std::min(first + kPiece, end);
        update(first, last);
        sum(first, last);
    }
}

// The element-wise loops of conjugate gradients, each a function of its own: loops
// in lambdas would be built for the baseline instruction set only.
// p[i] = beta p[i] + r[i] for i in [begin, end)
KELVO_VECTOR_CLONES void scaleAndAdd(float beta, const float* r, int begin, int end, float* p) {
    for (int i = begin; i < end; ++i) {
        p[i] = beta * p[i] + r[i];
    }
}

// frame[i] = (frame[i] - mean) / deviation for i in [0, length).
KELVO_VECTOR_CLONES void normalise(float mean, float deviation, int length, float* frame) {
    for (int i = 0; i < length; ++i) {
        frame[i] = (frame[i] - mean) / deviation;
    }
}

// r[i] = b[i] - r[i] for i in [begin, end).
KELVO_VECTOR_CLONES void subtractFrom(const float* b, int begin, int end, float* r) {
    for (int i = begin; i < end; ++i) {
        r[i] = b[i] - r[i];
    }
}

// x[i] = xIn[i] + alpha p[i] and r[i] = rIn[i] - alpha ap[i] for i in [begin, end); x
// may be xIn and r may be rIn.
KELVO_VECTOR_CLONES void stepAlong(float alpha, const float* p, const float* ap, const float* xIn,
                                   const float* rIn, int begin, int end, float* x, float* r) {
    for (int i = begin; i < end; ++i) {
        x[i] = xIn[i] + alpha * p[i];
        r[i] = rIn[i] - alpha * ap[i];
    }
}

// Gradient magnitudes are clamped to [epsilon, 1 / epsilon] before they weight the
// TV term.
inline float clampMagnitude(float d, float epsilon, float invEpsilon) {
    return d <= epsilon ? epsilon : (d >= invEpsilon ? invEpsilon : d);
}

// out[i] = (L in)[i] for the pixels i in [begin, end) whose eight neighbours all lie
// inside the image (W the row length), the terms added in the order of the general
// formula. `out` must not overlap the other arrays.
KELVO_VECTOR_CLONES void stencilInterior(const float* in, const float* right, const float* down,
                                         const float* downLeft, const float* downRight, int w,
                                         int begin, int end, float* __restrict out) {
    for (int i = begin; i < end; ++i) {
        const float centre =
            -(right[i - 1] + right[i] + down[i - w] + down[i] + downRight[i - w - 1] +
              downRight[i] + downLeft[i - w + 1] + downLeft[i]);
        out[i] = centre * in[i] + right[i] * in[i + 1] + right[i - 1] * in[i - 1] +
                 down[i] * in[i + w] + down[i - w] * in[i - w] + downRight[i] * in[i + w + 1] +
                 downRight[i - w - 1] * in[i - w - 1] + downLeft[i] * in[i + w - 1] +
                 downLeft[i - w + 1] * in[i - w + 1];
    }
}

// The same pixels sixteen at a time, from `begin` on; returns the first pixel it leaves
// to the loop above. Every element goes through the operations of that loop in their
// order; only the way the values reach the registers differs: each row of `in` and the
// weight rows with a neighbour one column over are read once, as consecutive vectors.
// A step reads one vector past its pixels, so the last vector stays with the loop above.
KELVO_VECTOR_CLONES int stencilInteriorInVectors(const float* in, const float* right,
                                                 const float* down, const float* downLeft,
                                                 const float* downRight, int w, int begin, int end,
                                                 float* __restrict out) {
    if (end - begin < 2 * kSixteenLanes) {
        return begin;
    }
    auto row = [](const float* x) { return SixteenFloatsRow(x, x[-1]); };
    SixteenFloatsRow above = row(in + begin - w);
    SixteenFloatsRow own = row(in + begin);
    SixteenFloatsRow below = row(in + begin + w);
    SixteenFloatsRow rightOwn = row(right + begin);
    SixteenFloatsRow downRightAbove = row(downRight + begin - w);
    SixteenFloatsRow downLeftAbove = row(downLeft + begin - w);
    SixteenFloatsRow* rows[] = {&above, &own, &below, &rightOwn, &downRightAbove, &downLeftAbove};
    int i = begin;
    for (; i + 2 * kSixteenLanes <= end; i += kSixteenLanes) {
        for (SixteenFloatsRow* row : rows) {
            row->readAhead();
        }
        SixteenFloats rightLeft, downRightAboveLeft, downLeftAboveRight;
        rightOwn.left(rightLeft);
        downRightAbove.left(downRightAboveLeft);
        downLeftAbove.right(downLeftAboveRight);
        SixteenFloats downOwn, downAbove, downRightOwn, downLeftOwn;
        loadSixteen(down + i, downOwn);
        loadSixteen(down + i - w, downAbove);
        loadSixteen(downRight + i, downRightOwn);
        loadSixteen(downLeft + i, downLeftOwn);
        const SixteenFloats centre =
            -(rightLeft + rightOwn.current + downAbove + downOwn + downRightAboveLeft +
              downRightOwn + downLeftAboveRight + downLeftOwn);
        SixteenFloats ownRight, ownLeft, belowRight, belowLeft, aboveRight, aboveLeft;
        own.right(ownRight);
        own.left(ownLeft);
        below.right(belowRight);
        below.left(belowLeft);
        above.right(aboveRight);
        above.left(aboveLeft);
        const SixteenFloats result = centre * own.current + rightOwn.current * ownRight +
                                     rightLeft * ownLeft + downOwn * below.current +
                                     downAbove * above.current + downRightOwn * belowRight +
                                     downRightAboveLeft * aboveLeft + downLeftOwn * belowLeft +
                                     downLeftAboveRight * aboveRight;
        storeSixteen(result, out + i);
        for (SixteenFloatsRow* row : rows) {
            row->advance();
        }
    }
    return i;
}

// clampMagnitude lane by lane.
inline void clampMagnitudes(const SixteenFloats& d, float epsilon, float invEpsilon,
                            SixteenFloats& out) {
    out = d <= epsilon ? epsilon : (d >= invEpsilon ? invEpsilon : d);
}

// The four TV weights of the pixels [begin, end) of one row above the last (see
// computeTvWeights), sixteen at a time; returns the first pixel it leaves to the plain
// loops. The pair weights are those of the plain loops, operation for operation, but
// both rows of x are read once for all four instead of once per weight and neighbour.
// The first pixel's down-left weight is computed like the others, for the caller to
// set to zero. A step reads one vector past its pixels; the last vector stays with the
// plain loops.
KELVO_VECTOR_CLONES int tvWeightsInVectors(const float* x, int w, int begin, int end,
                                           float negInvWeightTV, float epsilon, float invEpsilon,
                                           const TvWeights& weights) {
    if (end - begin < 2 * kSixteenLanes) {
        return begin;
    }
    const float q = 1.0f / std::sqrt(2.0f);
    // The row's own pixels are only read on to the right.
    SixteenFloatsRow own(x + begin, 0.0f);
    SixteenFloatsRow below(x + begin + w, x[begin + w - 1]);
    int i = begin;
    for (; i + 2 * kSixteenLanes <= end; i += kSixteenLanes) {
        own.readAhead();
        below.readAhead();
        SixteenFloats ownRight, belowLeft, belowRight;
        own.right(ownRight);
        below.left(belowLeft);
        below.right(belowRight);
        SixteenFloats magnitude, clamped;
        absoluteSixteen(ownRight - own.current, magnitude);
        clampMagnitudes(magnitude, epsilon, invEpsilon, clamped);
        storeSixteen(negInvWeightTV / clamped, weights.right + i);
        absoluteSixteen(below.current - own.current, magnitude);
        clampMagnitudes(magnitude, epsilon, invEpsilon, clamped);
        storeSixteen(negInvWeightTV / clamped, weights.down + i);
        absoluteSixteen(belowLeft - own.current, magnitude);
        clampMagnitudes(magnitude * q, epsilon, invEpsilon, clamped);
        storeSixteen(negInvWeightTV / clamped * 0.5f, weights.downLeft + i);
        absoluteSixteen(belowRight - own.current, magnitude);
        clampMagnitudes(magnitude * q, epsilon, invEpsilon, clamped);
        storeSixteen(negInvWeightTV / clamped * 0.5f, weights.downRight + i);
        own.advance();
        below.advance();
    }
    return i;
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

// Tap k holds the mass of the Gaussian over one pixel, taken outward from the centre
// between taps half - 1 and half: (erf((k + 1) c) - erf(k c)) / 2 with
// c = 1 / (sqrt(2) sigma), normalised to sum 1.
void buildBasePsf(float factor, float sigma, float* basePsf, int psfSize) {
    std::fill(basePsf, basePsf + psfSize, 0.0f);
    const int half = psfSize / 2;
    const float c = 1.0f / (std::sqrt(2.0f) * sigma);
    float sum = 0.0f;
    for (int i = 0; factor > static_cast<float>(i) && i < half; ++i) {
        const float v = 0.5f * (approximateErf(static_cast<float>(i + 1) * c) -
                                approximateErf(static_cast<float>(i) * c));
        basePsf[half - 1 - i] = v;
        basePsf[half + i] = v;
        sum += 2.0f * v;
    }
    for (int i = 0; i < psfSize; ++i) {
        basePsf[i] /= sum;
    }
}

// The base PSF moved by s high-resolution pixels, by linear interpolation between
// neighbouring taps; the zero tap at the far end absorbs the move.
void shiftPsf(const float* base, int n, float s, float* psf) {
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
}

KELVO_VECTOR_CLONES void restoreCropped(const float* estimate, int fullWidth, int margin,
                                        int outWidth, int outHeight, float deviation, float mean,
                                        float* result) {
    for (int r = 0; r < outHeight; ++r) {
        const float* source = estimate + (r + margin) * fullWidth + margin;
        float* target = result + r * outWidth;
        for (int c = 0; c < outWidth; ++c) {
            target[c] = deviation * source[c] + mean;
        }
    }
}

TvReconstructionBase::TvReconstructionBase(int lrWidth, int lrHeight, int maxFrames, float factor,
                                           int spareFloats, bool weightImages)
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
      rhs(fullSize + spareFloats),
      estimate(fullSize + spareFloats),
      weightRight(weightImages ? fullSize + spareFloats : 0),
      weightDown(weightImages ? fullSize + spareFloats : 0),
      weightDownLeft(weightImages ? fullSize + spareFloats : 0),
      weightDownRight(weightImages ? fullSize + spareFloats : 0),
      residual(fullSize + spareFloats),
      direction(fullSize + spareFloats),
      operatorDirection(fullSize + spareFloats) {
    setPsfSigma(0.683f);
    setWeightTV(400.0f);
    setEpsilon(0.1f);
    setRelRes(0.007f);
    setMaxIter(8);
}

TvWeights TvReconstructionBase::tvWeights() {
    return {weightRight.data(), weightDown.data(), weightDownLeft.data(), weightDownRight.data()};
}

void TvReconstructionBase::setWeightTV(float value) {
    weightTV = value;
    negInvWeightTV = -1.0f / value;
}

void TvReconstructionBase::setEpsilon(float value) {
    epsilon = value;
    invEpsilon = 1.0f / value;
}

void TvReconstructionBase::setPsfSigma(float value) {
    psfSigma = value;
    buildBasePsf(factor, value, basePsf.data(), psfSize);
}

SrFloatMinimization::SrFloatMinimization(int lrWidth, int lrHeight, int maxFrames, float factor)
    : TvReconstructionBase(lrWidth, lrHeight, maxFrames, factor, 0, false),
      psfXTable(maxFrames),
      psfYTable(maxFrames),
      convolution(highResWidth(), highResHeight(), psfSize, psfSize, factor),
      lowResRingRows(std::min(kBandRows / 2 + psfSize + 2, lrHeight)),
      lowResRings(1, std::vector<float>(static_cast<size_t>(maxFrames) * lowResRingRows * lrWidth)),
      lowResTables(1, std::vector<float*>(maxFrames)),
      otherEstimate(fullSize),
      bandWeights(1, std::vector<float>(4 * static_cast<size_t>(kBandWeightRows) * fullWidth)) {}

KELVO_VECTOR_CLONES int SrFloatMinimization::minimize(int numFrames, int refIndex,
                                                      float** const frames,
                                                      cv::Point_<float>* const shifts, char** masks,
                                                      float* result) {
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
    forEachInRuns(numFrames, threads,
                  [&](int k, int) { normalise(meanValue, deviation, frameSize, frames[k]); });

    for (int k = 0; k < maxFrames; ++k) {
        psfXTable[k] = psfX[k].data();
        psfYTable[k] = psfY[k].data();
        for (size_t stripe = 0; stripe < lowResRings.size(); ++stripe) {
            lowResTables[stripe][k] = lowResRings[stripe].data() + k * lowResRingRows * lrWidth;
        }
    }
    shiftPsfs(basePsf, factor, numFrames, shifts, psfX, psfY);
    // On one thread each band of the right-hand side is summed while it is in the cache.
    const float* b = rhs.data();
    LaneSum rhsNorm;
    auto addToNorm = [&](int begin, int end) {
        rhsNorm.add(begin, end, [&](int i) { return static_cast<double>(b[i] * b[i]); });
    };
    forEachBand([&](int stripe, int first, int end) {
        std::fill(rhs.begin() + first * fullWidth, rhs.begin() + end * fullWidth, 0.0f);
        convolutionOf(stripe).accumulateFullConvFromSparse(
            numFrames, frames, psfXTable.data(), psfYTable.data(), masks, rhs.data(), first, end);
        if (threads == 1) {
            addToNorm(first * fullWidth, end * fullWidth);
        }
    });
    if (threads > 1) {
        addToNorm(0, fullSize);
    }
    invRhsNorm2 = static_cast<float>(1.0 / rhsNorm.total());
    // The first estimate is the right-hand side itself, read in place until the
    // first step writes the estimate's own image.
    estimateIsRhs = true;

    const int total = runRestarts(
        maxIter, [&](int budgetLeft) { return conjugateGradients(numFrames, masks, budgetLeft); });

    const int outHeight = highResHeight();
    const int outWidth = highResWidth();
    const int margin = (psfSize - 1) / 2;
    forEachInRuns(threads, threads, [&](int run, int) {
        const int first = outHeight * run / threads;
        const int end = outHeight * (run + 1) / threads;
        restoreCropped(currentEstimate() + first * fullWidth, fullWidth, margin, outWidth,
                       end - first, deviation, meanValue, result + first * outWidth);
    });
    return total;
}

KELVO_VECTOR_CLONES int SrFloatMinimization::conjugateGradients(int numFrames, char** masks,
                                                                int maxIter) {
    float* r = residual.data();
    const float* b = rhs.data();
    LaneSum norm;
    // The TV weights follow this estimate until the next restart.
    restartIsRhs = estimateIsRhs;
    restartIndex = estimateIndex;
    gradient(
        currentEstimate(), numFrames, masks, r, [](int, int) {},
        [&](int begin, int end) { subtractFrom(b, begin, end, r); },
        [&](int begin, int end) {
            norm.add(begin, end, [&](int i) { return static_cast<double>(r[i] * r[i]); });
        });
    residualNorm2 = static_cast<float>(norm.total());
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

// One step of conjugate gradients. The new direction is p = r in the first step of a
// restart, p = beta p + r after it. The first step reads the residual itself as its
// direction and writes the new residual into the direction's image, and the two images
// trade places: no copy is made. The later steps form p row by row just before the
// operator reads it, which spares one pass over the image; a restart or step that
// converges leaves it unformed, as nothing reads it any more.
KELVO_VECTOR_CLONES bool SrFloatMinimization::iteration(int index, int numFrames, char** masks) {
    const float* r = residual.data();
    float* p = index == 0 ? residual.data() : direction.data();
    float* rOut = index == 0 ? direction.data() : residual.data();
    float* ap = operatorDirection.data();
    const float beta = directionBeta;
    LaneSum pAp;
    gradient(
        p, numFrames, masks, ap,
        [&](int begin, int end) {
            if (index > 0) {
                scaleAndAdd(beta, r, begin, end, p);
            }
        },
        [](int, int) {},
        [&](int begin, int end) {
            pAp.add(begin, end, [&](int i) { return static_cast<double>(p[i] * ap[i]); });
        });
    const float alpha = static_cast<float>(residualNorm2 / pAp.total());
    const float* xIn = currentEstimate();
    // The first step after a restart writes the other image, so that the restart's
    // estimate stays for the weights; the steps after it update in place.
    if (xIn == restartEstimate() && !estimateIsRhs) {
        estimateIndex = 1 - estimateIndex;
    }
    estimateIsRhs = false;
    float* x = estimateIndex == 0 ? estimate.data() : otherEstimate.data();
    LaneSum norm;
    updateThenSumAll(
        [&](int first, int last) { stepAlong(alpha, p, ap, xIn, r, first, last, x, rOut); },
        [&](int first, int last) {
            norm.add(first, last, [&](int i) { return static_cast<double>(rOut[i] * rOut[i]); });
        });
    if (index == 0) {
        residual.swap(direction);
    }
    const double newNorm2 = norm.total();
    if (static_cast<double>(relRes * relRes) > static_cast<double>(invRhsNorm2) * newNorm2) {
        return true;
    }
    directionBeta = static_cast<float>(newNorm2 / residualNorm2);
    residualNorm2 = static_cast<float>(newNorm2);
    return false;
}

// out = L in + sum_k H_k^T M_k H_k in, band by band of full-image rows. Whole rows of
// `in` are handed to prepareRows(begin, end) (index ranges) once, before anything
// reads them, the rows of a band to finishRows(begin, end) once they are final, and
// then to sumRows(begin, end) in ascending order.
//
// Each thread runs its stripe of consecutive bands one after the other, each band
// from its TV weights to the sums while its rows are in the cache. The weights are
// computed anew for each band from the restart estimate: that costs a division per
// weight in every application, but no weight image is written or streamed: the solve
// keeps six full images instead of nine. The stages of a band read rows of `in` and
// frame rows a few rows past either end of the band; where two stripes meet, those rows
// of `in` are prepared first, once, before the stripes run side by side, and each stripe
// samples the frame rows it reads into its own rings. The first stripe sums its rows
// while they are in the cache, the rows of the others are summed after all stripes, in
// the one order.
template <typename PrepareRows, typename FinishRows, typename SumRows>
KELVO_VECTOR_CLONES void SrFloatMinimization::gradient(const float* in, int numFrames, char** masks,
                                                       float* out, PrepareRows prepareRows,
                                                       FinishRows finishRows, SumRows sumRows) {
    const int bands = (fullHeight + kBandRows - 1) / kBandRows;
    const int stripes = std::max(std::min(threads, bands), 1);
    auto stripeStart = [&](int stripe) {
        return std::min(bands * stripe / stripes * kBandRows, fullHeight);
    };
    // The frame rows r sampled by the full rows before `end` (r <= (end - 1) / 2), and
    // the rows of `in` that sampling them, and the stencil up to `end`, reads.
    auto lowResNeeded = [&](int end) { return std::min((end - 1) / 2 + 1, lrHeight); };
    auto rowsRead = [&](int lowResEnd, int end) {
        return std::min(std::max(2 * (lowResEnd - 1) + psfSize, end + 1), fullHeight);
    };
    // Where stripe s > 0 starts at row S: the first frame row the adjoint of row S
    // reads, and the rows of `in` that the frame rows from there to the last one the
    // bands before S sample, and the stencil on either side of S, read.
    struct Seam {
        int lowResBegin;
        int rowsBegin;
        int rowsEnd;
    };
    auto seamAt = [&](int stripe) {
        if (stripe == 0) {
            return Seam{0, 0, 0};
        }
        if (stripe == stripes) {
            return Seam{lrHeight, fullHeight, fullHeight};
        }
        const int start = stripeStart(stripe);
        const int lowResBegin = std::max((start - psfSize + 1) / 2, 0);
        return Seam{lowResBegin, std::min(2 * lowResBegin, start - 1),
                    rowsRead(lowResNeeded(start), start)};
    };
    if (stripes > 1) {
        forEachInRuns(stripes - 1, stripes - 1, [&](int seam, int) {
            const Seam rows = seamAt(seam + 1);
            prepareRows(rows.rowsBegin * fullWidth, rows.rowsEnd * fullWidth);
        });
    }
    int summedEnd = 0;
    auto runStripe = [&](int stripe, int) {
        SrFloatConvolution& stripeConvolution = convolutionOf(stripe);
        float* const* lowRes = lowResTables[stripe].data();
        const Seam before = seamAt(stripe);
        const Seam after = seamAt(stripe + 1);
        int prepared = before.rowsEnd;
        int lowResDone = before.lowResBegin;
        for (int first = stripeStart(stripe); first < stripeStart(stripe + 1); first += kBandRows) {
            const int end = std::min(first + kBandRows, fullHeight);
            const int lowResEnd = lowResNeeded(end);
            const int rowsEnd = std::min(rowsRead(lowResEnd, end), after.rowsBegin);
            if (rowsEnd > prepared) {
                prepareRows(prepared * fullWidth, rowsEnd * fullWidth);
                prepared = rowsEnd;
            }
            if (lowResEnd > lowResDone) {
                stripeConvolution.validCorrToSparse(numFrames, in, psfXTable.data(),
                                                    psfYTable.data(), lowRes, lowResDone, lowResEnd,
                                                    masks, lowResRingRows);
                lowResDone = lowResEnd;
            }
            applyStencil(in, first, end, out, stripe);
            stripeConvolution.accumulateFullConvFromSparse(numFrames, lowRes, psfXTable.data(),
                                                           psfYTable.data(), nullptr, out, first,
                                                           end, lowResRingRows);
            if (stripe == 0) {
                updateThenSum(first * fullWidth, end * fullWidth, finishRows, sumRows);
                summedEnd = end * fullWidth;
            } else {
                finishRows(first * fullWidth, end * fullWidth);
            }
        }
    };
    forEachInRuns(stripes, stripes, runStripe);
    sumRows(summedEnd, fullSize);
}

// work(stripe, firstRow, endRow) for every band of kBandRows full rows. The bands are
// dealt out in `threads` runs of consecutive bands; the run `stripe` works with
// convolutionOf(stripe). One thread works on the caller's thread.
template <typename Work>
void SrFloatMinimization::forEachBand(Work work) {
    const int bands = (fullHeight + kBandRows - 1) / kBandRows;
    forEachInRuns(bands, threads, [&](int band, int stripe) {
        const int first = band * kBandRows;
        work(stripe, first, std::min(first + kBandRows, fullHeight));
    });
}

// update(first, last) over the whole image, then sum(first, last) over it in
// ascending order. The first run of bands sums each piece while it is in the cache,
// the other runs' rows are summed after them.
template <typename Update, typename Sum>
void SrFloatMinimization::updateThenSumAll(Update update, Sum sum) {
    int summedEnd = 0;
    forEachBand([&](int stripe, int first, int end) {
        if (stripe == 0) {
            updateThenSum(first * fullWidth, end * fullWidth, update, sum);
            summedEnd = end * fullWidth;
        } else {
            update(first * fullWidth, end * fullWidth);
        }
    });
    sum(summedEnd, fullSize);
}

const float* SrFloatMinimization::currentEstimate() const {
    return estimateIsRhs ? rhs.data()
                         : (estimateIndex == 0 ? estimate.data() : otherEstimate.data());
}

const float* SrFloatMinimization::restartEstimate() const {
    return restartIsRhs ? rhs.data() : (restartIndex == 0 ? estimate.data() : otherEstimate.data());
}

SrFloatConvolution& SrFloatMinimization::convolutionOf(int stripe) {
    return stripe == 0 ? convolution : stripeConvolutions[stripe - 1];
}

void SrFloatMinimization::setThreads(int count) {
    threads = std::max(count, 1);
    const int bands = (fullHeight + kBandRows - 1) / kBandRows;
    stripeConvolutions.assign(std::min(threads, bands) - 1, convolution);
    bandWeights.resize(std::min(threads, bands), bandWeights.front());
    lowResRings.resize(std::min(threads, bands), lowResRings.front());
    lowResTables.resize(std::min(threads, bands), lowResTables.front());
}

// out = L in for the rows [firstRow, endRow). The weights of the rows the stencil reads
// are computed from the restart estimate into the stripe's band weights first; every
// array is then indexed from the band weights' first row. Pixels of the image's first
// and last row (and one more at either end) have neighbours outside the image and take
// the general path; all others run through the branch-free loop.
void SrFloatMinimization::applyStencil(const float* in, int firstRow, int endRow, float* out,
                                       int stripe) {
    const int w = fullWidth;
    const int weightsFirstRow = std::max(firstRow - 2, 0);
    float* store = bandWeights[stripe].data();
    const int plane = kBandWeightRows * w;
    const TvWeights weights{store, store + plane, store + 2 * plane, store + 3 * plane};
    computeTvWeights(restartEstimate(), w, fullHeight, negInvWeightTV, epsilon, invEpsilon, weights,
                     weightsFirstRow, endRow, weightsFirstRow);
    const int shift = weightsFirstRow * w;
    const float* bandIn = in + shift;
    float* bandOut = out + shift;
    const int size = fullSize - shift;
    const int begin = firstRow * w - shift;
    const int end = endRow * w - shift;
    const int interiorBegin = std::clamp(w + 1 - shift, begin, end);
    const int interiorEnd = std::clamp(size - w - 1, interiorBegin, end);
    for (int i = begin; i < interiorBegin; ++i) {
        bandOut[i] = tvStencilAt(bandIn, i, w, size, weights);
    }
    const int vectorsEnd =
        stencilInteriorInVectors(bandIn, weights.right, weights.down, weights.downLeft,
                                 weights.downRight, w, interiorBegin, interiorEnd, bandOut);
    stencilInterior(bandIn, weights.right, weights.down, weights.downLeft, weights.downRight, w,
                    vectorsEnd, interiorEnd, bandOut);
    for (int i = interiorEnd; i < end; ++i) {
        bandOut[i] = tvStencilAt(bandIn, i, w, size, weights);
    }
}

// Lagged diffusivity: every pair of neighbours (right, down and the two diagonals at
// distance sqrt 2) gets the weight -1 / (weightTV g(|x_a - x_b| / distance)), the
// diagonals halved, with g the clamped magnitude. The diagonal of L, minus the sum
// of the eight weights of a pixel, is formed where L is applied (tvNeighbourWeightSum),
// so that L x is a weighted Laplacian of x.
KELVO_VECTOR_CLONES void computeTvWeights(const float* x, int w, int fullHeight,
                                          float negInvWeightTV, float epsilon, float invEpsilon,
                                          const TvWeights& weights, int firstRow, int endRow,
                                          int storedFirstRow) {
    float* right = weights.right;
    float* down = weights.down;
    float* downLeft = weights.downLeft;
    float* downRight = weights.downRight;
    const float q = 1.0f / std::sqrt(2.0f);
    const float n = negInvWeightTV;
    const float lo = epsilon;
    const float hi = invEpsilon;
    auto straight = [=](float a, float b) { return n / clampMagnitude(std::fabs(b - a), lo, hi); };
    auto diagonal = [=](float a, float b) {
        return n / clampMagnitude(std::fabs(b - a) * q, lo, hi) * 0.5f;
    };

    for (int y = firstRow; y < endRow; ++y) {
        const int row = y * w;
        const int rowEnd = row + w;
        // Weight index of pixel i: i - stored.
        const int stored = storedFirstRow * w;
        const int vectorsEnd =
            y == fullHeight - 1
                ? row
                : tvWeightsInVectors(
                      x, w, row, rowEnd - 1, negInvWeightTV, epsilon, invEpsilon,
                      {right - stored, down - stored, downLeft - stored, downRight - stored});
        for (int i = vectorsEnd; i < rowEnd - 1; ++i) {
            right[i - stored] = straight(x[i], x[i + 1]);
        }
        right[rowEnd - 1 - stored] = 0.0f;
        if (y == fullHeight - 1) {
            std::fill(down + (row - stored), down + (rowEnd - stored), 0.0f);
            std::fill(downLeft + (row - stored), downLeft + (rowEnd - stored), 0.0f);
            std::fill(downRight + (row - stored), downRight + (rowEnd - stored), 0.0f);
            continue;
        }
        for (int i = vectorsEnd; i < rowEnd; ++i) {
            down[i - stored] = straight(x[i], x[i + w]);
        }
        downLeft[row - stored] = 0.0f;
        for (int i = std::max(vectorsEnd, row + 1); i < rowEnd; ++i) {
            downLeft[i - stored] = diagonal(x[i], x[i + w - 1]);
        }
        for (int i = vectorsEnd; i < rowEnd - 1; ++i) {
            downRight[i - stored] = diagonal(x[i], x[i + w + 1]);
        }
        downRight[rowEnd - 1 - stored] = 0.0f;
        if (y == 0) {
            // Pixel 0 takes the weights of pixel 1 and no down-left pair.
            right[row - stored] = straight(x[1], x[2]);
            down[row - stored] = straight(x[1], x[w + 1]);
            downRight[row - stored] = diagonal(x[1], x[w + 2]);
        }
    }
}

// The sum of the eight neighbour weights of pixel i, in the order
// right[i-1] + right[i] + down[i-W] + down[i] + downRight[i-W-1] + downRight[i] +
// downLeft[i-W+1] + downLeft[i], leaving out the weights whose index falls outside
// the image.
float tvNeighbourWeightSum(const TvWeights& weights, int w, int i) {
    const float* weightRight = weights.right;
    const float* weightDown = weights.down;
    const float* weightDownLeft = weights.downLeft;
    const float* weightDownRight = weights.downRight;
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

// One pixel of L in, leaving out the terms whose index falls outside the image.
float tvStencilAt(const float* in, int i, int w, int s, const TvWeights& weights) {
    const float* weightRight = weights.right;
    const float* weightDown = weights.down;
    const float* weightDownLeft = weights.downLeft;
    const float* weightDownRight = weights.downRight;
    float sum = -tvNeighbourWeightSum(weights, w, i) * in[i];
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
