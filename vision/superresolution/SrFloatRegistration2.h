// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <opencv2/core.hpp>
#include <vector>

#include "vision/superresolution/SrFloatRegistrationBase.h"

namespace kelvo::vision {

// Registration by tracked corners: corners of the blurred reference are followed
// into each frame by pyramidal Lucas-Kanade on 8-bit pyramids built once per frame;
// the median-filtered mean of their displacements, rounded, starts the global
// sub-pixel step of SrFloatRegistrationBase::opticalFlow.
class SrFloatRegistration2 : public SrFloatRegistrationBase {
public:
    SrFloatRegistration2(int width, int height, int frameCount);
    // A copy owns copies of the prepared frames and pyramids; scratch space is not
    // shared with the original.
    SrFloatRegistration2(const SrFloatRegistration2& other);
    SrFloatRegistration2(SrFloatRegistration2&&) = default;
    SrFloatRegistration2& operator=(const SrFloatRegistration2& other);
    SrFloatRegistration2& operator=(SrFloatRegistration2&&) = default;

    // Blurs the frame, converts it to 8 bits over a range that changes only when a
    // frame leaves it, and builds its optical-flow pyramid into the newest slot.
    void prepareFrame(const float* frame);

    // 0, or -9 when no reference corner could be tracked into some frame (also when
    // the reference or one of the frameCount frames was never prepared). Throws
    // kelvo::Exception "Too large displacement". `masks` must hold one mask per
    // buffer slot.
    int doRegistration(int frameCount, int referenceIndex, const float* const* frames,
                       cv::Point_<float>* shifts, char** masks, float** shiftedFrames);

    int getBlurRadius() const { return blurRadius; }
    void setBlurRadius(int value) { blurRadius = value; }

    // Read-only views for inspection and tests.
    const std::vector<cv::Mat_<float>>& getPreparedFrames() const { return preparedFrames; }
    const std::vector<std::vector<cv::Mat>>& getFramePyramids() const { return framePyramids; }
    const std::vector<cv::Point_<float>>& getRefCorners() const { return refCorners; }
    float getRangeLow() const { return rangeLow; }
    float getRangeHigh() const { return rangeHigh; }

protected:
    // What tracking the reference corners into one frame works in; each thread has its
    // own.
    struct TrackingScratch {
        std::vector<cv::Point_<float>> tracked;
        std::vector<unsigned char> status;
        std::vector<cv::Point_<float>> displacements;
        std::vector<float> xs;
        std::vector<float> ys;
    };

    // The whole-pixel start from the displacements of the tracked corners (at least
    // one): per-component medians (the upper middle value for an even count), the
    // mean of the displacements within 2 pixels of both medians, rounded with halves
    // upward; (0, 0) when no displacement is that close to both.
    static cv::Point_<int> consensusDisplacement(
        const std::vector<cv::Point_<float>>& displacements, TrackingScratch& scratch);

    // The shifts and masks of doRegistration, for byte or float masks (1 valid).
    template <typename Mask>
    int registerFrames(int frameCount, int referenceIndex, const float* const* frames,
                       cv::Point_<float>* shifts, Mask** masks);

private:
    int registerWithCorners(unsigned int referenceIndex, unsigned int frameIndex,
                            cv::Point_<int>& displacement, TrackingScratch& scratch) const;
    template <typename Mask>
    void initialize(Mask** masks, int referenceIndex);
    void extractCornersRefImage(cv::Mat_<float>& reference);

    int blurRadius = 5;
    int trackWindowSize = 21;
    std::vector<cv::Mat_<float>> preparedFrames;
    std::vector<std::vector<cv::Mat>> framePyramids;
    std::vector<cv::Point_<float>> refCorners;
    float rangeHigh;
    float rangeLow;
    float rangeScale = 0.0f;
    float rangeOffset = 0.0f;
    cv::Mat_<float> scaledFrame;
    // One 8-bit buffer serves every slot: the pyramid copies it into its own,
    // bordered level 0 (a plain matrix is never reused as the pyramid base).
    cv::Mat eightBitFrame;
    std::vector<TrackingScratch> trackingScratch;
    std::vector<cv::Point_<float>> frameShifts;
    std::vector<cv::Point_<int>> frameStarts;
    std::vector<int> trackingResults;
    std::vector<int> otherFrames;
    std::vector<int> trackedFrames;
};

}  // namespace kelvo::vision
