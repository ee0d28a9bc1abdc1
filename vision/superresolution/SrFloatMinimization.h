// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <opencv2/core.hpp>
#include <vector>

#include "vision/superresolution/SrFloatConvolution.h"

namespace kelvo::vision {

// Total-variation regularised reconstruction of the high-resolution image x from N
// registered frames y_k:
//
//   minimise  sum_k || M_k (H_k x - y_k) ||^2  +  TV(x) / weightTV
//
// H_k blurs with the sensor's Gaussian PSF moved by the frame's sub-pixel shift and
// samples on the frame grid (SrFloatConvolution), M_k is the frame's validity mask.
// Lagged diffusivity freezes the TV gradient magnitudes into a weighted 9-point
// operator L; each restart of conjugate gradients solves
//   (L + sum_k H_k^T M_k H_k) x = sum_k H_k^T M_k y_k
// and recomputes L from the current estimate. Intensities are normalised by the
// reference frame's mean and deviation while solving.
// The four weight images of the lagged TV operator L (fullWidth x fullHeight each):
// the weight of the pair of pixel i with its right, lower, lower-left and lower-right
// neighbour.
struct TvWeights {
    float* right;
    float* down;
    float* downLeft;
    float* downRight;
};

// What every reconstruction of the library shares: the sizes of the frames and of the
// full image (the high-resolution image with a PSF margin), the parameters with their
// defaults, the centred base PSF, the tables of per-frame PSFs and the images of the
// solve.
class TvReconstructionBase {
public:
    float getPsfSigma() const { return psfSigma; }
    // Rebuilds the base PSF.
    void setPsfSigma(float value);
    float getWeightTV() const { return weightTV; }
    void setWeightTV(float value);
    float getEpsilon() const { return epsilon; }
    void setEpsilon(float value);
    float getRelRes() const { return relRes; }
    void setRelRes(float value) { relRes = value; }
    int getMaxIter() const { return maxIter; }
    void setMaxIter(int value) { maxIter = value; }

    int getPsfSize() const { return psfSize; }
    const float* getBasePsf() const { return basePsf.data(); }
    int getFullWidth() const { return fullWidth; }
    int getFullHeight() const { return fullHeight; }

protected:
    // Sizes for frames of lrWidth x lrHeight at `factor`, PSF tables for maxFrames
    // frames, and the defaults: sigma 0.683, weightTV 400, epsilon 0.1, relRes 0.007,
    // 8 iterations. The images carry spareFloats zeros past their end; the four weight
    // images exist only with weightImages.
    TvReconstructionBase(int lrWidth, int lrHeight, int maxFrames, float factor,
                         int spareFloats = 0, bool weightImages = true);
    TvWeights tvWeights();
    // The (int)(w f) x (int)(h f) high-resolution image without the margin.
    int highResWidth() const { return static_cast<int>(static_cast<float>(lrWidth) * factor); }
    int highResHeight() const { return static_cast<int>(static_cast<float>(lrHeight) * factor); }

    int lrWidth;
    int lrHeight;
    int psfSize;
    int fullWidth;
    int fullHeight;
    int fullSize;
    int maxFrames;
    float factor;
    float psfSigma = 0.0f;
    float weightTV = 0.0f;
    float relRes = 0.0f;
    int maxIter = 0;
    std::vector<float> basePsf;
    std::vector<std::vector<float>> psfX;
    std::vector<std::vector<float>> psfY;
    // -1 / weightTV, and the clamps [epsilon, 1 / epsilon] of the gradient magnitudes.
    float negInvWeightTV = 0.0f;
    float epsilon = 0.0f;
    float invEpsilon = 0.0f;
    // The images of the solve, fullSize floats each (and the spare floats), and the
    // norms that conjugate gradients carries from step to step.
    std::vector<float> rhs;
    std::vector<float> estimate;
    std::vector<float> weightRight;
    std::vector<float> weightDown;
    std::vector<float> weightDownLeft;
    std::vector<float> weightDownRight;
    std::vector<float> residual;
    std::vector<float> direction;
    std::vector<float> operatorDirection;
    float residualNorm2 = 0.0f;
    float invRhsNorm2 = 0.0f;
};

class SrFloatMinimization : public TvReconstructionBase {
public:
    SrFloatMinimization(int lrWidth, int lrHeight, int maxFrames, float factor);

    // Writes the (int)(h f) x (int)(w f) result and returns the conjugate-gradient
    // iterations spent. The frames are normalised in place.
    int minimize(int numFrames, int refIndex, float** const frames, cv::Point_<float>* const shifts,
                 char** masks, float* result);

    // Threads that share each operator application (1: all work on the caller's
    // thread). The result is the same for any count: the image is cut into the same
    // bands whatever the count, and every sum runs over the image in the same order.
    int getThreads() const { return threads; }
    void setThreads(int count);

private:
    int conjugateGradients(int numFrames, char** masks, int maxIter);
    template <typename PrepareRows, typename FinishRows, typename SumRows>
    void gradient(const float* in, int numFrames, char** masks, float* out, PrepareRows prepareRows,
                  FinishRows finishRows, SumRows sumRows);
    template <typename Work>
    void forEachBand(Work work);
    template <typename Update, typename Sum>
    void updateThenSumAll(Update update, Sum sum);
    SrFloatConvolution& convolutionOf(int stripe);
    const float* currentEstimate() const;
    const float* restartEstimate() const;
    bool iteration(int index, int numFrames, char** masks);
    // out = L in for the rows [firstRow, endRow), the weights computed from the restart
    // estimate into the band weights of `stripe` just before.
    void applyStencil(const float* in, int firstRow, int endRow, float* out, int stripe);

    // The tables of the per-frame buffers, as the convolution takes them; filled by
    // each minimize, so that they point into the object's own buffers after a copy.
    std::vector<const float*> psfXTable;
    std::vector<const float*> psfYTable;
    SrFloatConvolution convolution;
    int threads = 1;
    // The operators of the stripes beyond the first when several threads work: each
    // needs scratch rows of its own.
    std::vector<SrFloatConvolution> stripeConvolutions;
    // H_k x of every frame within one operator application, one set of rings per
    // stripe: a band samples the frame rows it needs into its stripe's rings just
    // before its adjoint reads them, and lowResRingRows rows hold every row a band
    // still reads. Where two stripes meet, both sample the rows they share.
    int lowResRingRows;
    std::vector<std::vector<float>> lowResRings;
    std::vector<std::vector<float*>> lowResTables;
    // beta of the direction update still to be applied (see iteration).
    float directionBeta = 0.0f;
    // Until the first step the estimate is the right-hand side, read from `rhs`; then
    // it lives in `estimate` (estimateIndex 0) or `otherEstimate` (1). The TV weights
    // are computed band by band from the estimate of the last restart, which the first
    // step after a restart leaves unchanged by writing the other image.
    bool estimateIsRhs = false;
    int estimateIndex = 0;
    bool restartIsRhs = false;
    int restartIndex = 0;
    std::vector<float> otherEstimate;
    // The TV weights of the rows a band's stencil reads, one set per stripe: rows
    // first - 2 .. end - 1 of the band [first, end), each of the four weights
    // kBandWeightRows full rows.
    std::vector<std::vector<float>> bandWeights;
};

// The error function as every Gaussian tap of the library computes it:
//   erf(x) = sign(x) sqrt(1 - exp(-x^2 (4/pi + a x^2) / (1 + a x^2))),  a = 0.1400123,
// with erf(0) = 0 exactly.
float approximateErf(float x);

// The pieces of the reconstruction that every float engine shares.
// The centred base PSF of psfSize taps for a Gaussian of `sigma` at `factor`.
void buildBasePsf(float factor, float sigma, float* basePsf, int psfSize);
// psf = base moved by s (|s| <= 1) high-resolution pixels; both have n taps.
void shiftPsf(const float* base, int n, float s, float* psf);
// The horizontal and vertical PSFs of each frame: the base moved by the frame's
// sub-pixel shift, in high-resolution pixels. Point is any record with float x and y.
template <typename Point>
void shiftPsfs(const std::vector<float>& base, float factor, int numFrames, const Point* shifts,
               std::vector<std::vector<float>>& psfX, std::vector<std::vector<float>>& psfY) {
    const int n = static_cast<int>(base.size());
    for (int k = 0; k < numFrames; ++k) {
        shiftPsf(base.data(), n, factor * shifts[k].x, psfX[k].data());
        shiftPsf(base.data(), n, factor * shifts[k].y, psfY[k].data());
    }
}
// Restarted conjugate gradients: the restarts share one budget of maxIter iterations;
// restart(budgetLeft) recomputes the lagged weights, runs at most budgetLeft iterations
// and returns how many it ran. A restart that runs none ends the solve: another would
// only recompute weights and residual, which the result does not depend on. Returns
// the iterations spent.
template <typename Restart>
int runRestarts(int maxIter, Restart restart) {
    int total = 0;
    for (int pass = 0; pass < maxIter && total < maxIter; ++pass) {
        const int iterations = restart(maxIter - total);
        total += iterations;
        if (iterations == 0) {
            break;
        }
    }
    return total;
}
// The outHeight x outWidth result from the normalised estimate (fullWidth columns, a
// PSF margin of `margin` pixels on each side): deviation * x + mean, margin cropped.
void restoreCropped(const float* estimate, int fullWidth, int margin, int outWidth, int outHeight,
                    float deviation, float mean, float* result);
// The TV weights of rows [firstRow, endRow) from the estimate x (w columns).
// The weights' rows are stored from row storedFirstRow on (row y at (y - storedFirstRow) w).
void computeTvWeights(const float* x, int w, int fullHeight, float negInvWeightTV, float epsilon,
                      float invEpsilon, const TvWeights& weights, int firstRow, int endRow,
                      int storedFirstRow = 0);
// The diagonal of L at pixel i, negated: the sum of its eight neighbour weights.
float tvNeighbourWeightSum(const TvWeights& weights, int w, int i);
// (L in)[i] for an image of s pixels, w per row, the terms outside the image left out.
float tvStencilAt(const float* in, int i, int w, int s, const TvWeights& weights);

}  // namespace kelvo::vision
