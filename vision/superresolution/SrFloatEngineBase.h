// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <opencv2/core.hpp>
#include <type_traits>
#include <vector>

#include "vision/superresolution/SrEngineCommon.h"

namespace kelvo::vision {

// What the float engine (SrFloat) and the four-lane engine (SrFloatNeon) share: the
// geometry, the parameters with their checks and messages, the sliding window of
// frames, the buffers of a pass indexed by window position, and the factor estimate.
// Minimization is the engine's reconstruction, Mask the element type of its validity
// masks (char or float, non-zero = usable).
//
// Parameter setters reject out-of-range values by throwing the message as a plain
// C string and leave the engine unchanged.
template <class Registration, class Minimization, typename Mask>
class SrFloatEngineBase : public EngineGeometry {
public:
    // The matrix type getMasks hands out: bytes or floats.
    using MaskMatrix =
        cv::Mat_<std::conditional_t<std::is_same_v<Mask, char>, unsigned char, Mask>>;

    void setReferenceIndex(int index);
    int getReferenceIndex() const { return referenceIndex; }
    void setPsfSigma(float sigma);
    float getPsfSigma() const { return minimization.getPsfSigma(); }
    void setMaxCGIters(int iterations);
    int getMaxCGIters() const { return minimization.getMaxIter(); }
    void setRegError(float error);
    float getRegError() const { return registration.getRegError(); }
    void setWeightTV(float weight);
    float getWeightTV() const { return minimization.getWeightTV(); }
    void setRelativeResidue(float residue);
    float getRelativeResidue() const { return minimization.getRelRes(); }
    void setMinStructureThreshold(float threshold) { minStructureThreshold = threshold; }
    float getMinStructureThreshold() const { return minStructureThreshold; }

    int getStoredFrames() const { return storedFrames; }
    // The conjugate-gradient iterations of the last minimisation that finished (0 before
    // one did): beyond its fixed part, a pass costs in proportion to them and to the size.
    int getLastIterations() const { return lastIterations; }

    void clearFrames() { storedFrames = 0; }
    // The frames of the window, oldest first (storedFrames of them are meaningful).
    const float* getFrame(int position) const { return frames[position].data(); }

    void getMasks(std::vector<MaskMatrix>& out) const;
    void getCompleteShifts(std::vector<cv::Point_<float>>& out) const;
    // The sub-pixel remainders of the last pass, one per window position.
    const std::vector<cv::Point_<float>>& getShifts() const { return shifts; }
    // The validity mask of a window position from the last pass (inputSize elements).
    const Mask* getMask(int position) const { return masks[position].data(); }
    // The window position a pass now takes as its reference.
    int getReferencePosition() const { return std::max(storedFrames - referenceIndex - 1, 0); }

    Registration& getRegistration() { return registration; }
    Minimization& getMinimization() { return minimization; }

protected:
    // Frames, registered frames and masks get `spareElements` zero elements past their
    // end, for loops that run in whole groups of lanes.
    SrFloatEngineBase(int width, int height, int windowSize, float factor, int spareElements);
    SrFloatEngineBase(const SrFloatEngineBase& other);
    SrFloatEngineBase& operator=(const SrFloatEngineBase& other);
    SrFloatEngineBase(SrFloatEngineBase&&) = default;
    SrFloatEngineBase& operator=(SrFloatEngineBase&&) = default;
    ~SrFloatEngineBase() = default;

    // Puts a copy of the frame into the newest window position; returns that buffer.
    float* storeFrame(const float* frame);
    // (Re)creates `out` as the output image when it is not one; returns its pixels.
    float* outputBuffer(cv::Mat_<float>& out) const;
    // The factor estimate of the window's masks, with the engine's cap.
    float estimateSrFactor(int cap) const;

    int referenceIndex = 0;
    float minStructureThreshold = 2.0f;
    Registration registration;
    Minimization minimization;

    // Storage, and the pointer tables the stages take; frames rotate as the window
    // slides, the other buffers are indexed by window position.
    std::vector<std::vector<float>> frames;
    std::vector<std::vector<float>> registeredFrames;
    std::vector<std::vector<Mask>> masks;
    std::vector<float*> framePointers;
    std::vector<float*> registeredPointers;
    std::vector<Mask*> maskPointers;
    std::vector<cv::Point_<float>> shifts;
    std::vector<cv::Point_<float>> completeShifts;
    int storedFrames = 0;
    int lastIterations = 0;

private:
    void refreshPointers();
};

}  // namespace kelvo::vision
