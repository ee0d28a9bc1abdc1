// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <mutex>
#include <opencv2/core.hpp>
#include <stdexcept>
#include <string>
#include <vector>

#include "vision/superresolution/KnownBadPixels.h"
#include "vision/superresolution/SuperResolutionBadPixelHandling.h"

namespace kelvo::python {

// A failure the library reports, with the code the C interface would return for it.
class LibraryError : public std::runtime_error {
public:
    LibraryError(int code, const std::string& message) : std::runtime_error(message), code(code) {}
    const int code;
};

// The calls a resolver makes on an engine, so that every engine the module offers sits
// behind one resolver.
class EngineAdapter {
public:
    virtual ~EngineAdapter() = default;
    virtual int addFrame(const float* frame) = 0;
    virtual float computeSR(float* out) = 0;
    virtual void getCompleteShifts(std::vector<cv::Point_<float>>& out) const = 0;
    virtual void getMasks(std::vector<cv::Mat_<unsigned char>>& out) const = 0;
    virtual float getMinStructureThreshold() const = 0;
    // False for an engine without a bad-pixel stage, which takes finite frames only.
    virtual bool repairsDefects() const = 0;
    virtual int getStoredFrames() const = 0;
    virtual void setPsfSigma(float sigma) = 0;
    // Radiance from raw counts, for engines calibrated with two points per pixel; the others
    // throw.
    virtual void setCalibration(const cv::Mat_<short>& countsA, const cv::Mat_<float>& radianceA,
                                const cv::Mat_<short>& countsB, const cv::Mat_<float>& radianceB);
    // Without a pass, the radiance only joins the window and the result is kNoPassYet.
    virtual float processCounts(const short* counts, float* out, bool pass);
    virtual void getCalibrationMaps(cv::Mat_<float>& gain, cv::Mat_<float>& offset,
                                    cv::Mat_<float>& radiance, cv::Mat_<float>& quality) const;
};

struct ResolverOptions {
    std::string engine = "float";
    bool counts = false;
    // Pixels outside [minimum, maximum] are defective; by default the range of the values.
    bool validRangeGiven = false;
    float validMinimum = 0.0f;
    float validMaximum = 0.0f;
    int reference = 3;
    float psfSigma = 0.683f;
    // Estimate the sensor blur from the first window instead, once, before its pass; psfSigma
    // stays in place when the frames do not allow it.
    bool psfSigmaFromFrames = false;
    // Positions (x, y) of pixels known to be defective in every frame.
    std::vector<cv::Point> badPixels;
    bool timings = false;
    // Threads that share each pass (float engines only).
    int threads = 1;
};

// One engine configured as a context of the C interface is, fed frame by frame: from the
// fifth frame on every frame runs a pass, so the same frames give the same bytes as
// SuperResolution_addImage. Frames the engine cannot repair are refused before they enter
// its window, so a refused frame leaves the resolver as it was. Calls are serialised by a
// lock: a resolver may be shared between threads, and separate resolvers run in parallel.
class Resolver {
public:
    // Pass status before the first pass, as the C interface reports too few frames.
    static constexpr float kNoPassYet = -5.0f;

    Resolver(int width, int height, const ResolverOptions& options);

    // Adds a frame of height x width floats; returns the code SuperResolution_addImage
    // would return (0, -2, -3 or -4). Throws LibraryError for a refused frame or a failed
    // pass.
    int add(const float* frame) { return take(frame, true); }
    // Takes a frame as add does, with the same checks, repairs and codes (0, -2 or -4), but
    // runs no pass: how a window registers depends on every frame the engine took before it,
    // so a host that wants only some windows of a run loads the others with this and gets the
    // results of a resolver given every frame with add. The last pass stays as it was.
    int load(const float* frame) { return take(frame, false); }

    // Reference engine with a calibration only: converts a frame of raw counts to radiance
    // and adds it; from the fifth frame on also runs a pass, all in the engine's own
    // processFrame2. Returns the pass's result (factor estimate or negative status).
    float processCounts(const short* counts);
    void setCalibration(const cv::Mat_<short>& countsA, const cv::Mat_<float>& radianceA,
                        const cv::Mat_<short>& countsB, const cv::Mat_<float>& radianceB);
    // Per-pixel gain and offset, the last frame's radiance, and the 3 x 3 map of how the last
    // pass's sub-pixel shifts cover the doubled grid.
    void copyCalibrationMaps(cv::Mat_<float>& gain, cv::Mat_<float>& offset,
                             cv::Mat_<float>& radiance, cv::Mat_<float>& quality) const;

    int width() const { return frameSize.width; }
    int height() const { return frameSize.height; }
    int outputWidth() const { return 2 * frameSize.width; }
    int outputHeight() const { return 2 * frameSize.height; }
    int framesAdded() const;
    // The last pass's result: the quality factor estimate or a negative status.
    float passResult() const;
    // The sensor blur the passes use; 0 while it is still to be estimated from the frames.
    float psfSigma() const;
    // Why the frames gave no estimate of the sensor blur; empty when they did or were not asked.
    std::string psfSigmaRefusal() const;
    // Copies what the last pass left into the outputs given (outputWidth x outputHeight
    // floats; one shift and one mask per frame of the window); false before the first pass.
    bool copyLastPass(float* image, std::vector<cv::Point_<float>>* shifts,
                      std::vector<cv::Mat_<unsigned char>>* masks) const;

private:
    // Takes a frame into the window; the pass runs only when asked and the window is full.
    int take(const float* frame, bool passWhenFull);
    // Estimates the sensor blur from the opening window and gives it to the engine, or keeps
    // the fallback and the reason.
    void settlePsfSigma();

    cv::Size frameSize;
    std::unique_ptr<EngineAdapter> engine;
    // Written into every frame, as the C interface does with its known defective pixels.
    vision::KnownBadPixels knownBadPixels;
    // Repairs a copy of each frame the way the engine will, to find out beforehand whether
    // the engine would throw on it; keeps no defect history.
    vision::SuperResolutionBadPixelHandling screening{0};
    cv::Mat_<float> screened;
    std::vector<float> result;
    // With the sensor blur estimated from the frames: the repaired frames of the first window,
    // until its pass.
    std::vector<cv::Mat_<float>> opening;
    int referencePosition;
    float sigmaInUse;
    float fallbackSigma;
    std::string sigmaRefusal;
    float lastPass = kNoPassYet;
    bool passRan = false;
    int added = 0;
    mutable std::mutex busy;
};

}  // namespace kelvo::python
