// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <opencv2/core.hpp>
#include <vector>

#include "vision/superresolution/SrFloatNeonMinimization.h"

namespace kelvo::vision {

class SrFloatNeonRegistration;

// The four-lane engine: the sliding window and the pass of SrFloat, reconstructing
// with SrFloatNeonMinimization on float validity masks (1.0 usable, 0.0 not). It has
// no bad-pixel stage (frames enter the window as they are) and prints nothing.
// Parameters, their ranges and messages, the window and the factor estimate are
// SrFloat's. The factor must be 2. The library instantiates it for SrFloatNeonRegistration (include its
// header as well).
template <class Registration>
class SrFloatNeon {
public:
    SrFloatNeon(int width, int height, int windowSize, float factor);
    SrFloatNeon(const SrFloatNeon& other);
    SrFloatNeon& operator=(const SrFloatNeon& other);
    SrFloatNeon(SrFloatNeon&&) = default;
    SrFloatNeon& operator=(SrFloatNeon&&) = default;
    ~SrFloatNeon() = default;

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

    int getInputSize() const { return inputSize; }
    int getOutputSize() const { return outputSize; }
    int getWindowSize() const { return windowSize; }
    int getStoredFrames() const { return storedFrames; }

    // Stores a copy of the frame (width x height floats, row-major); returns 0.
    int addFrame(const float* frame);
    int addFrame(const cv::Mat_<float>& frame) { return addFrame(frame.ptr<float>()); }
    void clearFrames() { storedFrames = 0; }
    const float* getFrame(int position) const { return frames[position].data(); }

    // The pass, as SrFloat::computeSR without the bad-pixel repair and output.
    float computeSR(float* out);
    float computeSR(cv::Mat_<float>& out);

    void getMasks(std::vector<cv::Mat_<float>>& out) const;
    void getCompleteShifts(std::vector<cv::Point_<float>>& out) const;
    const std::vector<cv::Point_<float>>& getShifts() const { return shifts; }

    Registration& getRegistration() { return registration; }
    SrFloatNeonMinimization& getMinimization() { return minimization; }

private:
    int loadFrame(const float* frame);
    void refreshPointers();

    int width;
    int height;
    int inputSize;
    int outputWidth;
    int outputHeight;
    int outputSize;
    int spectrumSize;
    int windowSize;
    float factor;
    int referenceIndex = 0;
    float minStructureThreshold = 2.0f;
    Registration registration;
    SrFloatNeonMinimization minimization;

    // Frames, registered frames and masks carry the spare floats the four-lane
    // loops read past their end.
    std::vector<std::vector<float>> frames;
    std::vector<std::vector<float>> registeredFrames;
    std::vector<std::vector<float>> masks;
    std::vector<float*> framePointers;
    std::vector<float*> registeredPointers;
    std::vector<float*> maskPointers;
    std::vector<float> result;
    std::vector<cv::Point_<float>> shifts;
    std::vector<cv::Point_<float>> completeShifts;
    int storedFrames = 0;
};

}  // namespace kelvo::vision
