// SPDX-License-Identifier: Apache-2.0
#include "vision/superresolution/SrFloatCommon.h"

#include <cmath>
#include <stdexcept>

namespace kelvo::vision {

namespace {

// Frames larger than this would overflow the pixel indices of the stages.
constexpr long long kMaxInputPixels = 1LL << 26;
// The smallest frame side the registration's filters are defined on.
constexpr int kMinFrameSide = 8;

}  // namespace

int checkedGeometry(int width, int height, float factor) {
    if (width < kMinFrameSide || height < kMinFrameSide ||
        static_cast<long long>(width) * height > kMaxInputPixels) {
        throw std::invalid_argument("Invalid image size specified.");
    }
    // The reconstruction's PSF tables are sized for magnifications in this range.
    if (!(factor >= 1.0f && factor <= 4.0f)) {
        throw std::invalid_argument("Invalid magnification factor specified.");
    }
    return width;
}

const float* checkedFrame(const float* frame) {
    if (frame == nullptr) {
        throw std::invalid_argument("Frame data pointer is NULL.");
    }
    return frame;
}

int checkedWindowSize(int windowSize) {
    if (windowSize < 1) {
        throw "Invalid reference index specified.";
    }
    return windowSize;
}

int checkedReferenceIndex(int index, int windowSize) {
    if (index < 0 || index >= windowSize) {
        throw "Invalid reference index specified.";
    }
    return index;
}

float checkedPsfSigma(float sigma) {
    if (!(sigma > 0.0f)) {
        throw "Invalid standard deviation of the sensor psf specified.";
    }
    return sigma;
}

int checkedMaxCGIters(int iterations) {
    if (iterations < 1) {
        throw "Invalid maximum number of iterations specified.";
    }
    return iterations;
}

float checkedRegError(float error) {
    if (!(error > 0.0f && error <= 1.0f)) {
        throw "Invalid maximum registration error specified.";
    }
    return error;
}

float checkedWeightTV(float weight) {
    if (!(weight >= 1.0f) || std::isinf(weight)) {
        throw "Invalid total-variation term weight specified.";
    }
    return weight;
}

float checkedRelativeResidue(float residue) {
    // Reported with the total-variation message, as hosts have always seen it.
    if (!(static_cast<double>(residue) >= 1e-6) || std::isinf(residue)) {
        throw "Invalid total-variation term weight specified.";
    }
    return residue;
}

}  // namespace kelvo::vision
