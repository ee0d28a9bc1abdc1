#pragma once

#include <algorithm>
#include <opencv2/core.hpp>
#include <vector>

#include "vision/superresolution/SrFloatMinimization.h"
#include "vision/superresolution/SuperResolutionBadPixelHandling.h"
#include "vision/superresolution/TimingSink.h"

namespace kelvo::vision {

class SrFloatRegistration1;
class SrFloatRegistration2;

// The float super-resolution engine. It holds a sliding window of the last
// windowSize frames (oldest first), repairs defective pixels as frames arrive, and
// on computeSR registers the window against a reference frame, reconstructs the
// image `factor` times larger by total-variation minimisation, and repairs result
// pixels that defective input pixels influenced.
//
// Registration is any class with the interface described in
// SrFloatRegistrationBase.h; the library instantiates SrFloatRegistration1 (phase
// correlation) and SrFloatRegistration2 (tracked corners).
//
// Parameter setters reject out-of-range values by throwing the message as a plain
// C string and leave the engine unchanged.
template <class Registration>
class SrFloat {
public:
    SrFloat(int width, int height, int windowSize, float factor);
    SrFloat(const SrFloat& other);
    SrFloat& operator=(const SrFloat& other);
    ~SrFloat() = default;

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
    void setDataIsNUC(bool isNUC) { badPixelHandling.setDataIsNUC(isNUC); }
    // Threads (OpenCV's parallel_for_) that share a pass: the frames' sub-pixel
    // registration steps and the reconstruction's bands of rows; by
    // default 1, every stage on the caller's thread; at most 64. The result is the same
    // to the bit for any count.
    void setThreads(int count);
    int getThreads() const { return minimization.getThreads(); }
    // Pixels outside [minimum, maximum] count as defective; both finite, minimum below maximum.
    void setValidRange(float minimum, float maximum);

    int getInputSize() const { return inputSize; }
    int getOutputSize() const { return outputSize; }
    int getWindowSize() const { return windowSize; }
    int getWidth() const { return width; }
    int getHeight() const { return height; }
    int getOutputWidth() const { return outputWidth; }
    int getOutputHeight() const { return outputHeight; }
    int getSpectrumSize() const { return spectrumSize; }
    int getStoredFrames() const { return storedFrames; }

    // Stores a copy of the frame (width x height floats, row-major), repairing its
    // defective pixels. Returns 0, or -2 when some defect could not be repaired from
    // its neighbours; the frame is kept in either case.
    int addFrame(const float* frame);
    int addFrame(const cv::Mat_<float>& frame) { return addFrame(frame.ptr<float>()); }
    void clearFrames() { storedFrames = 0; }

    // The frames of the window, oldest first (storedFrames of them are meaningful).
    const float* getFrame(int position) const { return frames[position].data(); }

    // The super-resolution pass: returns the quality factor estimate, or a negative
    // status (-998 registration failed, -6 a displacement above a tenth of the
    // height, -3 a mask at least half empty). `out` receives outputSize floats unless
    // registration or minimisation failed.
    float computeSR(float* out);
    float computeSR(cv::Mat_<float>& out);

    void getMasks(std::vector<cv::Mat_<unsigned char>>& out) const;
    void getCompleteShifts(std::vector<cv::Point_<float>>& out) const;
    // The sub-pixel remainders of the last pass, one per window position.
    const std::vector<cv::Point_<float>>& getShifts() const { return shifts; }
    // The validity mask of a window position from the last pass (inputSize bytes).
    const char* getMask(int position) const { return masks[position].data(); }
    // The window position a pass now takes as its reference.
    int getReferencePosition() const { return std::max(storedFrames - referenceIndex - 1, 0); }
    // The factor estimate of the last pass, also when it returned -3 or -6; 0 when the pass
    // stopped before the estimate.
    float getLastSrFactor() const { return lastSrFactor; }

    // Where the timing lines of the passes go (standard output unless told otherwise).
    TimingSink& getTimingSink() { return timingSink; }

    Registration& getRegistration() { return registration; }
    SrFloatMinimization& getMinimization() { return minimization; }
    SuperResolutionBadPixelHandling& getBadPixelHandling() { return badPixelHandling; }

private:
    int loadFrame(const float* frame);
    void saveFrame(float* out) const;
    float estimateSrFactor() const;
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
    SrFloatMinimization minimization;
    SuperResolutionBadPixelHandling badPixelHandling;
    TimingSink timingSink;
    float lastSrFactor = 0.0f;

    // Storage, and the pointer tables the stages take; frames rotate as the window
    // slides, the other buffers are indexed by window position.
    std::vector<std::vector<float>> frames;
    std::vector<std::vector<float>> registeredFrames;
    std::vector<std::vector<char>> masks;
    std::vector<float*> framePointers;
    std::vector<float*> registeredPointers;
    std::vector<char*> maskPointers;
    std::vector<float> result;
    std::vector<cv::Point_<float>> shifts;
    std::vector<cv::Point_<float>> completeShifts;
    std::vector<cv::Mat_<float>> frameViews;
    int storedFrames = 0;
};

}  // namespace kelvo::vision
