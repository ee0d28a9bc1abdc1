// SPDX-License-Identifier: Apache-2.0
#include "vision/superresolution/SrFloatRegistrationBase.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "vision/superresolution/SrFloatConvolution.h"
#include "vision/superresolution/VectorClones.h"

namespace kelvo::vision {

namespace {

constexpr char kTooLargeDisplacement[] = "Too large displacement";

// Sums of float products are kept in double, split over interleaved partial sums so
// that consecutive additions do not wait on each other.
constexpr int kLanes = 4;
using DoubleLanes = std::array<double, kLanes>;

double total(const DoubleLanes& lanes) {
    return (lanes[0] + lanes[1]) + (lanes[2] + lanes[3]);
}

// floor(value + 0.5), saturated at +-limit. A NaN saturates as well: a shift that
// cannot be represented leaves no overlap with the reference.
int roundHalfUpSaturated(float value, int limit) {
    const float rounded = std::floor(value + 0.5f);
    if (!(std::fabs(rounded) < static_cast<float>(limit))) {
        return value < 0.0f ? -limit : limit;
    }
    return static_cast<int>(rounded);
}

// Gradients of one row: central differences (R[y+1] - R[y-1]) / 2 inside; on the
// first and last row (borderRow) and column the one-sided difference, deliberately not
// halved. `above` and `below` are the neighbouring rows, the row itself at the borders.
KELVO_VECTOR_CLONES void gradientsOfRow(const float* row, const float* above, const float* below,
                                        int width, bool borderRow, float* __restrict gx,
                                        float* __restrict gy) {
    if (borderRow) {
        for (int x = 0; x < width; ++x) {
            gy[x] = below[x] - above[x];
        }
    } else {
        for (int x = 0; x < width; ++x) {
            gy[x] = (below[x] - above[x]) * 0.5f;
        }
    }
    gx[0] = row[1] - row[0];
    for (int x = 1; x < width - 1; ++x) {
        gx[x] = (row[x + 1] - row[x - 1]) * 0.5f;
    }
    gx[width - 1] = row[width - 1] - row[width - 2];
}

// Four floats and four doubles as vectors, for the lane-wise sums below.
using FloatQuad = float __attribute__((vector_size(kLanes * sizeof(float))));
using DoubleQuad = double __attribute__((vector_size(kLanes * sizeof(double))));

FloatQuad loadQuad(const float* values) {
    FloatQuad quad;
    std::memcpy(&quad, values, sizeof quad);
    return quad;
}

// By reference: a vector of doubles returned by value would change the calling
// convention between the clones.
void loadQuad(const DoubleLanes& lanes, DoubleQuad& quad) {
    std::memcpy(&quad, lanes.data(), sizeof quad);
}

void storeQuad(const DoubleQuad& quad, DoubleLanes& lanes) {
    std::memcpy(lanes.data(), &quad, sizeof quad);
}

// Adds the products of one row to lane-wise double sums, xx[lane] += gx gx,
// xy[lane] += gx gy, yy[lane] += gy gy over the lane's columns (x = lane mod 4) and
// the remainder in lane 0: each product rounded to float, then added in double.
KELVO_VECTOR_CLONES void addGradientProductsOfRow(const float* gx, const float* gy, int length,
                                                  DoubleLanes& xxSums, DoubleLanes& xySums,
                                                  DoubleLanes& yySums) {
    DoubleQuad xx;
    DoubleQuad xy;
    DoubleQuad yy;
    loadQuad(xxSums, xx);
    loadQuad(xySums, xy);
    loadQuad(yySums, yy);
    int x = 0;
    for (; x + kLanes <= length; x += kLanes) {
        const FloatQuad a = loadQuad(gx + x);
        const FloatQuad b = loadQuad(gy + x);
        xx += __builtin_convertvector(a * a, DoubleQuad);
        xy += __builtin_convertvector(a * b, DoubleQuad);
        yy += __builtin_convertvector(b * b, DoubleQuad);
    }
    for (; x < length; ++x) {
        xx[0] += gx[x] * gx[x];
        xy[0] += gx[x] * gy[x];
        yy[0] += gy[x] * gy[x];
    }
    storeQuad(xx, xxSums);
    storeQuad(xy, xySums);
    storeQuad(yy, yySums);
}

// b += (f - r) (gx, gy) over one row of the overlap, in the same lanes.
KELVO_VECTOR_CLONES void addMismatchOfRow(const float* r, const float* f, const float* gx,
                                          const float* gy, int length, DoubleLanes& bxSums,
                                          DoubleLanes& bySums) {
    DoubleQuad bx;
    DoubleQuad by;
    loadQuad(bxSums, bx);
    loadQuad(bySums, by);
    int i = 0;
    for (; i + kLanes <= length; i += kLanes) {
        const FloatQuad mismatch = loadQuad(f + i) - loadQuad(r + i);
        bx += __builtin_convertvector(mismatch * loadQuad(gx + i), DoubleQuad);
        by += __builtin_convertvector(mismatch * loadQuad(gy + i), DoubleQuad);
    }
    for (; i < length; ++i) {
        const float mismatch = f[i] - r[i];
        bx[0] += mismatch * gx[i];
        by[0] += mismatch * gy[i];
    }
    storeQuad(bx, bxSums);
    storeQuad(by, bySums);
}

// error = ((gy uy + gx ux + f) - r)^2 energyNorm along one row of the overlap.
KELVO_VECTOR_CLONES void writeResidualRow(const float* r, const float* f, const float* gx,
                                          const float* gy, int length, float ux, float uy,
                                          float energyNorm, float* __restrict error) {
    for (int i = 0; i < length; ++i) {
        const float residual = (gy[i] * uy + gx[i] * ux + f[i]) - r[i];
        error[i] = residual * residual * energyNorm;
    }
}

// mask = 1 where the smoothed residual lies below the threshold, else unchanged.
template <typename Mask>
KELVO_VECTOR_CLONES void markRowBelow(const float* smoothed, float threshold, int length,
                                      Mask* __restrict mask) {
    for (int x = 0; x < length; ++x) {
        mask[x] = smoothed[x] < threshold ? Mask(1) : mask[x];
    }
}

}  // namespace

SrFloatRegistrationBase::SrFloatRegistrationBase(int width, int height, int frameCount)
    : width(width),
      height(height),
      pixelCount(width * height),
      frameCount(frameCount),
      refGradX(pixelCount),
      refGradY(pixelCount),
      errorImage(pixelCount),
      blurredErrorImage(pixelCount) {}

SrFloatRegistrationBase::SrFloatRegistrationBase(const SrFloatRegistrationBase& other)
    : width(other.width),
      height(other.height),
      pixelCount(other.pixelCount),
      frameCount(other.frameCount),
      storedFrames(other.storedFrames),
      regError(other.regError),
      regErrBlurRadius(other.regErrBlurRadius),
      refGradX(other.refGradX),
      refGradY(other.refGradY),
      errorImage(other.errorImage),
      blurredErrorImage(other.blurredErrorImage),
      sumGxx(other.sumGxx),
      sumGxy(other.sumGxy),
      sumGyy(other.sumGyy),
      completeShifts(other.completeShifts),
      lastShifts(other.lastShifts) {
    setThreads(other.threads);
}

SrFloatRegistrationBase& SrFloatRegistrationBase::operator=(const SrFloatRegistrationBase& other) {
    if (this != &other) {
        *this = SrFloatRegistrationBase(other);
    }
    return *this;
}

void SrFloatRegistrationBase::setThreads(int count) {
    threads = std::max(count, 1);
    // No more threads than frames can work at once.
    workerResiduals.resize(std::min(threads, frameCount) - 1);
    for (ResidualImages& images : workerResiduals) {
        images.error.resize(pixelCount);
        images.blurredError.resize(pixelCount);
    }
}

float* SrFloatRegistrationBase::errorImageOf(int worker) {
    return worker == 0 ? errorImage.data() : workerResiduals[worker - 1].error.data();
}

float* SrFloatRegistrationBase::blurredErrorImageOf(int worker) {
    return worker == 0 ? blurredErrorImage.data() : workerResiduals[worker - 1].blurredError.data();
}

void SrFloatRegistrationBase::getCompleteShifts(std::vector<cv::Point_<float>>& out) const {
    if (&out != &completeShifts) {
        out = completeShifts;
    }
}

SrFloatRegistrationBase::GradientSums SrFloatRegistrationBase::sumGradientProducts(
    const cv::Rect& region) const {
    DoubleLanes xx{};
    DoubleLanes xy{};
    DoubleLanes yy{};
    for (int y = region.y; y < region.y + region.height; ++y) {
        addGradientProductsOfRow(refGradX.data() + y * width + region.x,
                                 refGradY.data() + y * width + region.x, region.width, xx, xy, yy);
    }
    return {total(xx), total(xy), total(yy)};
}

void SrFloatRegistrationBase::computeReferenceGradients(const float* reference) {
    computeGradientImages(reference);
    const GradientSums sums = sumGradientProducts(cv::Rect(0, 0, width, height));
    sumGxx = static_cast<float>(sums.xx);
    sumGxy = static_cast<float>(sums.xy);
    sumGyy = static_cast<float>(sums.yy);
}

void SrFloatRegistrationBase::computeGradientImages(const float* reference) {
    for (int y = 0; y < height; ++y) {
        gradientsOfRow(reference + y * width, reference + std::max(y - 1, 0) * width,
                       reference + std::min(y + 1, height - 1) * width, width,
                       y == 0 || y == height - 1, refGradX.data() + y * width,
                       refGradY.data() + y * width);
    }
}

SrFloatRegistrationBase::Overlap SrFloatRegistrationBase::overlapOf(cv::Point_<int> shift) const {
    const int sx = std::clamp(shift.x, -width, width);
    const int sy = std::clamp(shift.y, -height, height);
    const int overlapWidth = width - std::abs(sx);
    const int overlapHeight = height - std::abs(sy);
    Overlap overlap;
    overlap.reference = cv::Rect(std::max(0, -sx), std::max(0, -sy), overlapWidth, overlapHeight);
    overlap.frame = cv::Rect(std::max(0, sx), std::max(0, sy), overlapWidth, overlapHeight);
    overlap.rowStrip = cv::Rect(0, sy >= 0 ? overlapHeight : 0, width, std::abs(sy));
    overlap.columnStrip =
        cv::Rect(sx >= 0 ? overlapWidth : 0, std::max(0, -sy), std::abs(sx), overlapHeight);
    return overlap;
}

template <typename Mask>
cv::Point_<float> SrFloatRegistrationBase::opticalFlow(const float* reference, const float* frame,
                                                       cv::Point_<int> start, Mask* mask,
                                                       int worker) {
    const Overlap overlap = overlapOf(start);
    const cv::Rect& inReference = overlap.reference;
    const cv::Rect& inFrame = overlap.frame;

    GradientSums border;
    for (const cv::Rect* strip : {&overlap.rowStrip, &overlap.columnStrip}) {
        const GradientSums stripSums = sumGradientProducts(*strip);
        border.xx += stripSums.xx;
        border.xy += stripSums.xy;
        border.yy += stripSums.yy;
    }
    fillUncovered(overlap, worker);
    const double sxx = static_cast<double>(sumGxx) - border.xx;
    const double sxy = static_cast<double>(sumGxy) - border.xy;
    const double syy = static_cast<double>(sumGyy) - border.yy;

    // b = sum over the overlap of (F - R) (gx, gy).
    DoubleLanes mismatchX{};
    DoubleLanes mismatchY{};
    for (int j = 0; j < inReference.height; ++j) {
        const int referenceRow = (inReference.y + j) * width + inReference.x;
        const float* r = reference + referenceRow;
        const float* f = frame + (inFrame.y + j) * width + inFrame.x;
        const float* gx = refGradX.data() + referenceRow;
        const float* gy = refGradY.data() + referenceRow;
        addMismatchOfRow(r, f, gx, gy, inReference.width, mismatchX, mismatchY);
    }
    const double bx = total(mismatchX);
    const double by = total(mismatchY);

    // u = -M^-1 b with M = [[Sxx, Sxy], [Sxy, Syy]].
    const double det = syy * sxx - sxy * sxy;
    const float ux = static_cast<float>((sxy * by - syy * bx) / det);
    const float uy = static_cast<float>((sxy * bx - sxx * by) / det);

    writeResidualImage(reference, frame, overlap, ux, uy, static_cast<float>(1.0 / (sxx + syy)),
                       worker);

    cv::Mat_<float> error(height, width, errorImageOf(worker));
    cv::Mat_<float> blurredError(height, width, blurredErrorImageOf(worker));
    SrFloatConvolution::blurImageMeanFilter(
        error, regErrBlurRadius, blurredError,
        worker == 0 ? meanFilterScratch : workerResiduals[worker - 1].meanFilterScratch);

    const cv::Point_<float> shift(static_cast<float>(start.x) + ux,
                                  static_cast<float>(start.y) + uy);
    markValidPixels(shift, mask, worker);
    return shift;
}

void SrFloatRegistrationBase::fillUncovered(const Overlap& overlap, int worker) {
    float* errorImage = errorImageOf(worker);
    for (const cv::Rect* strip : {&overlap.rowStrip, &overlap.columnStrip}) {
        for (int y = strip->y; y < strip->y + strip->height; ++y) {
            std::fill_n(errorImage + y * width + strip->x, strip->width, regError);
        }
    }
}

// Squared residual of the linearised model F + u . grad R - R, normalised by the
// gradient energy of the overlap.
void SrFloatRegistrationBase::writeResidualImage(const float* reference, const float* frame,
                                                 const Overlap& overlap, float ux, float uy,
                                                 float energyNorm, int worker) {
    float* errorImage = errorImageOf(worker);
    const cv::Rect& inReference = overlap.reference;
    const cv::Rect& inFrame = overlap.frame;
    for (int j = 0; j < inReference.height; ++j) {
        const int referenceRow = (inReference.y + j) * width + inReference.x;
        const float* r = reference + referenceRow;
        const float* f = frame + (inFrame.y + j) * width + inFrame.x;
        const float* gx = refGradX.data() + referenceRow;
        const float* gy = refGradY.data() + referenceRow;
        writeResidualRow(r, f, gx, gy, inReference.width, ux, uy, energyNorm,
                         errorImage + referenceRow);
    }
}

template <typename Mask>
void SrFloatRegistrationBase::markValidPixels(cv::Point_<float> shift, Mask* mask, int worker) {
    const float* blurredErrorImage = blurredErrorImageOf(worker);
    const cv::Point_<int> rounded(roundHalfUpSaturated(shift.x, width),
                                  roundHalfUpSaturated(shift.y, height));
    const cv::Rect valid = overlapOf(rounded).reference;
    for (int y = valid.y; y < valid.y + valid.height; ++y) {
        const int first = y * width + valid.x;
        markRowBelow(blurredErrorImage + first, regError, valid.width, mask + first);
    }
}

// The reference registration marks its byte masks with the same rule.
template void SrFloatRegistrationBase::markValidPixels(cv::Point_<float>, char*, int);
template cv::Point_<float> SrFloatRegistrationBase::opticalFlow(const float*, const float*,
                                                                cv::Point_<int>, char*, int);
template cv::Point_<float> SrFloatRegistrationBase::opticalFlow(const float*, const float*,
                                                                cv::Point_<int>, float*, int);

void SrFloatRegistrationBase::shiftFrame(const float* source, cv::Point_<float>& shift,
                                         float* destination) const {
    const int iy = static_cast<int>(std::floor(shift.y + 0.5f));
    const int ix = static_cast<int>(std::floor(shift.x + 0.5f));
    // destination[i] = source[i + offset] over the image as one flat array: a
    // horizontal move carries pixels across row ends.
    const int offset = width * iy + ix;
    const int leadingZeros = std::min(std::max(0, -offset), pixelCount);
    const int trailingZeros = std::min(std::max(0, offset), pixelCount - leadingZeros);
    std::fill_n(destination, leadingZeros, 0.0f);
    std::copy(source + leadingZeros + offset, source + pixelCount - trailingZeros + offset,
              destination + leadingZeros);
    std::fill_n(destination + pixelCount - trailingZeros, trailingZeros, 0.0f);
    shift.y -= static_cast<float>(iy);
    shift.x -= static_cast<float>(ix);
}

void SrFloatRegistrationBase::shiftFramesOntoReference(int frameCount, const float* const* frames,
                                                       cv::Point_<float>* shifts,
                                                       float** shiftedFrames,
                                                       const SourceLocation& throwSite) {
    if (completeShifts.size() < static_cast<size_t>(frameCount)) {
        completeShifts.resize(frameCount);
    }
    // The frame height bounds both components, also the horizontal one. A NaN
    // shift fails the test as well.
    const float half = static_cast<float>(height / 2);
    int accepted = 0;
    for (; accepted < frameCount; ++accepted) {
        const cv::Point_<float> shift = shifts[accepted];
        completeShifts[accepted] = shift;
        if (!(-half < shift.x && shift.x < half && -half < shift.y && shift.y < half)) {
            break;
        }
    }
    // The frames before the first rejected one are shifted, the others handed back as
    // copies.
    forEachInRuns(frameCount, threads, [&](int k, int) {
        if (k < accepted) {
            shiftFrame(frames[k], shifts[k], shiftedFrames[k]);
        } else {
            std::copy(frames[k], frames[k] + pixelCount, shiftedFrames[k]);
        }
    });
    if (accepted < frameCount) {
        throw Exception(kTooLargeDisplacement, throwSite.text() + "\n");
    }
}

}  // namespace kelvo::vision
