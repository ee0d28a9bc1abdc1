// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <vector>

namespace kelvo::vision {

// What the float engine (SrFloat) and the four-lane engine (SrFloatNeon) share: the
// validation of their geometry and parameters, the sliding window of frames and the
// super-resolution factor estimate.
//
// The checks return the value when it is valid and otherwise throw the message as a
// plain C string, which is what hosts of both engines catch.
int checkedGeometry(int width, int height, float factor);
// A frame pointer that is not null (std::invalid_argument otherwise).
const float* checkedFrame(const float* frame);
int checkedWindowSize(int windowSize);
int checkedReferenceIndex(int index, int windowSize);
float checkedPsfSigma(float sigma);
int checkedMaxCGIters(int iterations);
float checkedRegError(float error);
float checkedWeightTV(float weight);
float checkedRelativeResidue(float residue);

// Copies `frame` (frameSize floats) into the newest position of the window
// `frames` (oldest first): once all positions hold a frame, the oldest buffer moves
// to the newest position and is overwritten. Returns the newest buffer.
float* slideWindow(std::vector<std::vector<float>>& frames, int& storedFrames, const float* frame,
                   int frameSize);

// Mean number of extra frames that see each input pixel (mask not 0), capped at
// cap - 1, and mapped so that one frame per pixel gives 1 and `cap` frames give
// 1 + (cap - 1) / 4.
template <typename Mask>
float estimateSrFactor(const Mask* const* masks, int frameCount, int inputSize, int cap) {
    long long sum = 0;
    for (int p = 0; p < inputSize; ++p) {
        int framesSeeing = 0;
        for (int i = 0; i < frameCount; ++i) {
            framesSeeing += masks[i][p] != Mask(0);
        }
        sum += std::min(framesSeeing, cap) - 1;
    }
    return static_cast<float>(sum) / static_cast<float>(4 * inputSize) + 1.0f;
}

}  // namespace kelvo::vision
