// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <opencv2/core.hpp>
#include <vector>

#include "vision/superresolution/KnownBadPixels.h"
#include "vision/superresolution/SrEngineCommon.h"
#include "vision/superresolution/SuperResolutionBadPixelHandling.h"
#include "vision/superresolution/TimingSink.h"
#include "vision/superresolution/reference/Point.h"

namespace kelvo::vision {

class SuperResolutionRegistration;
class SuperResolutionMinimization;

// The reference super-resolution engine: the slow, literal counterpart of SrFloat,
// whose float results are the same on every build. It keeps a sliding window of the
// last windowSize frames together with their spectra, registers them by phase
// correlation (SuperResolutionRegistration), reconstructs the image `factor` times
// larger (SuperResolutionMinimization), every sum a running float sum in flat pixel
// order, and takes 16-bit or float input.
//
// Raw counts after non-uniformity correction enter through processFrame2: a per-pixel
// straight line through two calibration points (setNucToRad) turns them into radiance
// before the frame is stored and the pass runs.
//
// At the end of every pass that reaches the reconstruction the engine rebuilds its
// quality map (getQuality): a 3 x 3 map of how the frames' sub-pixel phases cover the
// half-pixel grid of the doubled image. Each frame's remaining shift (x, y), in
// [-0.5, 0.5), adds bilinear weights around cell (2y + 1, 2x + 1); the map is divided by
// the number of frames. All weight in the centre cell means that no frame moved by a
// fraction of a pixel against the reference, and the frames add no detail.
//
// Parameter setters reject out-of-range values with the float engine's messages (a
// plain C string) and leave the engine unchanged. 16-bit frames given to addFrame are
// stored as they are and their passes skip the bad-pixel stage, whose valid ranges are
// those of float data; raw counts that need it enter through processFrame2, which
// repairs them as radiance.
class SuperResolution : public EngineGeometry {
public:
    SuperResolution(int width, int height, int windowSize, float factor);
    ~SuperResolution();
    SuperResolution(const SuperResolution&) = delete;
    SuperResolution& operator=(const SuperResolution&) = delete;

    void setReferenceIndex(int index);
    int getReferenceIndex() const { return referenceIndex; }
    void setPsfSigma(float sigma);
    float getPsfSigma() const;
    void setMaxCGIters(int iterations);
    int getMaxCGIters() const;
    void setRegError(float error);
    float getRegError() const;
    void setWeightTV(float weight);
    float getWeightTV() const;
    void setRelativeResidue(float residue);
    float getRelativeResidue() const;
    void setMinStructureThreshold(float threshold) { minStructureThreshold = threshold; }
    float getMinStructureThreshold() const { return minStructureThreshold; }
    void setDataIsNUC(bool isNUC) { badPixelHandling.setDataIsNUC(isNUC); }

    int getStoredFrames() const { return storedFrames; }

    // Stores a copy of the frame (width x height values, row-major) as floats with its
    // spectrum. Float frames have their defective pixels repaired first (-2 when some
    // could not be). Throws kelvo::Exception "FFT resulted in infinite values. No
    // processing possible" when the spectrum overflows; the frame stays stored.
    template <typename T>
    int addFrame(const T* frame);
    // Known defective pixels of the sensor: float frames (radiance from processFrame2
    // included) get the minimum marker there as they are stored, so that the bad-pixel
    // stage repairs them and refills the result around them. Throws
    // std::invalid_argument for a position outside the frame, keeping the previous list.
    void setKnownBadPixels(const std::vector<cv::Point>& positions) {
        knownBadPixels.set(positions, cv::Size(width, height));
    }
    void clearFrames() { storedFrames = 0; }

    // The pass: writes outputSize values to `out` and returns the quality factor
    // estimate, or -998 (registration failed), -6 (a displacement above a tenth of the
    // height), -3 (a mask at least half empty), as SrFloat::computeSR. Float input
    // runs the bad-pixel repair of the result, 16-bit input does not. 16-bit output is
    // rounded to the nearest value and saturated.
    template <typename T>
    float computeSR(T* out);
    // Copies the current result (of the last pass or of simpleCombine) to `out`.
    template <typename T>
    void saveFrame(T* out) const;
    // True when the image's range (max - min) reaches the minimum structure threshold.
    template <typename T>
    bool checkImageStructureQuality(const cv::Mat_<T>& image) const;

    // A combination without reconstruction: the window is registered (the reconstruction
    // normalises the registered frames of a pass, so they are made afresh), then output
    // pixel (r, c) becomes the mean over the registered frames of their pixel
    // (r / 2, c / 2), the halving fixed whatever the factor. Where that falls outside
    // the frame (factor above 2), the nearest frame pixel is taken. Read the result
    // with saveFrame. Without frames nothing changes; "Too large displacement" as in
    // the pass.
    void simpleCombine();

    // Two calibration points per pixel: counts nucA stand for radiance radA, counts nucB
    // for radB. gain = (radB - radA) / (nucB - nucA), offset = radA - gain nucA; where
    // the counts are equal both become -1000. Coefficients outside (-1000, 1000) are then
    // replaced in place, row by row, by the mean of their in-range direct neighbours
    // (left and upper ones already repaired); with none left the coefficient is NaN.
    // Throws std::invalid_argument, changing nothing, when the four images differ in size.
    void setNucToRad(const cv::Mat_<short>& nucA, const cv::Mat_<float>& radA,
                     const cv::Mat_<short>& nucB, const cv::Mat_<float>& radB);
    // radianceImage = counts gain + offset, pixel by pixel. Throws std::invalid_argument
    // when the counts do not have the size of the calibration.
    void NucToRad(const cv::Mat_<short>& counts);
    // Converts a frame of raw counts to radiance, stores it and runs the pass into `out`.
    // Throws kelvo::Exception "NucToRad() not initialized" without a calibration of the
    // frame size.
    float processFrame2(const short* counts, float* out);

    void getQuality(cv::Mat_<float>& out) const { qualityMap.copyTo(out); }
    const cv::Mat_<float>& getRadianceImage() const { return radianceImage; }
    const cv::Mat_<float>& getGainMap() const { return gainMap; }
    const cv::Mat_<float>& getOffsetMap() const { return offsetMap; }

    void getMasks(std::vector<cv::Mat_<unsigned char>>& out) const;
    void getCompleteShifts(std::vector<PointF>& out) const;
    // The sub-pixel remainders of the last pass, one per window position.
    const std::vector<PointF>& getShifts() const { return shifts; }

    SuperResolutionRegistration& getRegistration() { return *registration; }
    SuperResolutionMinimization& getMinimization() { return *minimization; }
    SuperResolutionBadPixelHandling& getBadPixelHandling() { return badPixelHandling; }
    // Where the timing lines of the passes go (standard output unless told otherwise).
    TimingSink& getTimingSink() { return timingSink; }

private:
    template <typename T>
    int loadFrame(const T* frame);
    void computeQuality_();

    int referenceIndex = 0;
    float minStructureThreshold = 2.0f;
    SuperResolutionBadPixelHandling badPixelHandling;
    std::unique_ptr<SuperResolutionRegistration> registration;
    std::unique_ptr<SuperResolutionMinimization> minimization;

    // Storage, and the pointer tables the stages take; frames and spectra rotate
    // together as the window slides, the other buffers are indexed by window position.
    std::vector<std::vector<float>> frameStore;
    std::vector<std::vector<float>> spectrumStore;
    std::vector<std::vector<float>> registeredStore;
    std::vector<std::vector<char>> maskStore;
    std::vector<float*> frames;
    std::vector<float (*)[2]> spectra;
    std::vector<float*> registeredFrames;
    std::vector<char*> masks;
    std::vector<float> result;
    std::vector<PointF> shifts;
    std::vector<PointF> completeShifts;
    std::vector<cv::Point_<float>> badPixelShifts;
    std::vector<cv::Mat_<float>> frameViews;
    int storedFrames = 0;
    TimingSink timingSink;
    KnownBadPixels knownBadPixels;

    cv::Mat_<float> gainMap;
    cv::Mat_<float> offsetMap;
    cv::Mat_<float> radianceImage;
    cv::Mat_<float> qualityMap;
};

// The quality map of `count` remaining shifts, each component in [-0.5, 0.5): shift
// (x, y) spreads weight 1 bilinearly around cell (2y + 1, 2x + 1) of a 3 x 3 map, which
// is then divided by count (in double). (0, 0) puts all weight on the centre cell.
void computeQualityMap(const PointF* shifts, int count, cv::Mat_<float>& map);

}  // namespace kelvo::vision
