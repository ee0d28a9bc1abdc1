// SPDX-License-Identifier: Apache-2.0
#include "vision/superresolution/SrEngineCommon.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

namespace kelvo::vision {

namespace {

// The smallest frame side the registration's filters are defined on.
constexpr int kMinFrameSide = 8;

}  // namespace

int checkedGeometry(int width, int height, float factor) {
    if (width < kMinFrameSide || height < kMinFrameSide ||
        static_cast<long long>(width) * height > kMaxFramePixels) {
        throw std::invalid_argument("Invalid image size specified.");
    }
    // The reconstruction's PSF tables are sized for magnifications in this range.
    if (!(factor >= 1.0f && factor <= 4.0f)) {
        throw std::invalid_argument("Invalid magnification factor specified.");
    }
    return width;
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

float* slideWindow(std::vector<std::vector<float>>& frames, int& storedFrames, const float* frame,
                   int frameSize) {
    if (storedFrames >= static_cast<int>(frames.size())) {
        std::rotate(frames.begin(), frames.begin() + 1, frames.end());
    } else {
        ++storedFrames;
    }
    float* newest = frames[storedFrames - 1].data();
    std::memcpy(newest, frame, sizeof(float) * frameSize);
    return newest;
}

void repairResultBadPixels(SuperResolutionBadPixelHandling& handling, float* result,
                           cv::Size outputSize, const std::vector<cv::Point_<float>>& shifts,
                           float* const* frames, int count, cv::Size frameSize,
                           std::vector<cv::Mat_<float>>& frameViews) {
    cv::Mat_<float> resultMatrix(outputSize.height, outputSize.width, result);
    handling.maskBadPixel(resultMatrix, shifts);
    frameViews.clear();
    for (int i = 0; i < count; ++i) {
        frameViews.emplace_back(frameSize.height, frameSize.width, frames[i]);
    }
    handling.replaceMaskedPixel(resultMatrix, shifts, frameViews);
}

void copyMasks(const char* const* masks, int count, int width, int height,
               std::vector<cv::Mat_<unsigned char>>& out) {
    out.resize(count);
    for (int i = 0; i < count; ++i) {
        if (out[i].rows != height || out[i].cols != width || !out[i].isContinuous()) {
            out[i].release();
            out[i].create(height, width);
        }
        std::memcpy(out[i].ptr(), masks[i], static_cast<size_t>(width) * height);
    }
}

}  // namespace kelvo::vision
