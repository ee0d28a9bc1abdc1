// SPDX-License-Identifier: Apache-2.0
#include "vision/superresolution/SrFloatRegistration2.h"

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstring>
#include <opencv2/imgproc.hpp>
#include <opencv2/video/tracking.hpp>

namespace kelvo::vision {

namespace {

constexpr int kDoRegistrationLine = 174;
const SourceLocation kDoRegistrationSite{"vision/superresolution/SrFloatRegistration2",
                                         kDoRegistrationLine,
                                         "kelvo::vision::SrFloatRegistration2::doRegistration"};

constexpr int kNoTrackedCorner = -9;

constexpr int kPyramidLevels = 3;
constexpr int kMaxCorners = 100;
constexpr double kCornerQuality = 0.1;
constexpr double kCornerMinDistance = 2.0;
constexpr int kCornerBlockSize = 3;
constexpr double kHarrisConstant = 0.04;
constexpr int kTrackIterations = 30;
constexpr double kTrackEpsilon = 0.01;
constexpr double kTrackMinEigenvalue = 1e-4;
// Corner displacements farther than this from the median (per component) are outliers.
constexpr float kInlierDistance = 2.0f;
// Share of the frame's range added below and above it for the 8-bit conversion.
constexpr double kRangeMargin = 0.1;

// A copy with its own pixels. Pyramid levels are views into larger matrices whose
// border the tracker reads, so the whole parent matrix is copied and viewed the
// same way.
cv::Mat copyWithParent(const cv::Mat& image) {
    if (image.empty()) {
        return cv::Mat();
    }
    cv::Size whole;
    cv::Point offset;
    image.locateROI(whole, offset);
    cv::Mat parent = image;
    parent.adjustROI(offset.y, whole.height - offset.y - image.rows, offset.x,
                     whole.width - offset.x - image.cols);
    return parent.clone()(cv::Rect(offset, image.size()));
}

int roundHalfUp(float value) {
    return static_cast<int>(std::floor(value + 0.5f));
}

}  // namespace

SrFloatRegistration2::SrFloatRegistration2(int width, int height, int frameCount)
    : SrFloatRegistrationBase(width, height, frameCount),
      preparedFrames(frameCount),
      framePyramids(frameCount),
      rangeHigh(-FLT_MAX),
      rangeLow(FLT_MAX) {}

SrFloatRegistration2::SrFloatRegistration2(const SrFloatRegistration2& other)
    : SrFloatRegistrationBase(other),
      blurRadius(other.blurRadius),
      trackWindowSize(other.trackWindowSize),
      preparedFrames(other.preparedFrames.size()),
      framePyramids(other.framePyramids.size()),
      refCorners(other.refCorners),
      rangeHigh(other.rangeHigh),
      rangeLow(other.rangeLow),
      rangeScale(other.rangeScale),
      rangeOffset(other.rangeOffset) {
    for (size_t slot = 0; slot < preparedFrames.size(); ++slot) {
        preparedFrames[slot] = other.preparedFrames[slot].clone();
        for (const cv::Mat& level : other.framePyramids[slot]) {
            framePyramids[slot].push_back(copyWithParent(level));
        }
    }
}

SrFloatRegistration2& SrFloatRegistration2::operator=(const SrFloatRegistration2& other) {
    if (this != &other) {
        *this = SrFloatRegistration2(other);
    }
    return *this;
}

void SrFloatRegistration2::prepareFrame(const float* frame) {
    if (storedFrames < frameCount) {
        ++storedFrames;
    } else {
        // The oldest slot's matrices move to the newest position and are overwritten
        // there, so that their storage is reused.
        std::rotate(preparedFrames.begin(), preparedFrames.begin() + 1, preparedFrames.end());
        std::rotate(framePyramids.begin(), framePyramids.begin() + 1, framePyramids.end());
    }
    const int slot = storedFrames - 1;
    cv::Mat_<float>& blurred = preparedFrames[slot];

    const cv::Mat_<float> input(height, width, const_cast<float*>(frame));
    const int kernelSide = 2 * blurRadius + 1;
    const float sigma = std::sqrt(3.0f * static_cast<float>(blurRadius * blurRadius) / 25.0f);
    cv::GaussianBlur(input, blurred, cv::Size(kernelSide, kernelSide), sigma, 0.0,
                     cv::BORDER_REFLECT_101);

    // The 8-bit range follows the frames only when one leaves it, so that the
    // frames of a burst are converted alike. An infinite pixel would widen it for
    // good, since no later frame could leave it: such frames keep the range.
    double minimum = 0.0;
    double maximum = 0.0;
    cv::minMaxIdx(blurred, &minimum, &maximum);
    if ((minimum < rangeLow || maximum > rangeHigh) && std::isfinite(maximum - minimum)) {
        const double margin = kRangeMargin * (maximum - minimum);
        rangeLow = static_cast<float>(minimum - margin);
        rangeHigh = static_cast<float>(maximum + margin);
        rangeOffset = -rangeLow;
        rangeScale = 255.0f / (rangeHigh - rangeLow);
    }
    scaledFrame.create(height, width);
    const float* source = blurred.ptr<float>();
    float* scaled = scaledFrame.ptr<float>();
    for (int i = 0; i < pixelCount; ++i) {
        scaled[i] = (source[i] + rangeOffset) * rangeScale;
    }
    scaledFrame.convertTo(eightBitFrame, CV_8U, 1.0, 0.0);

    cv::buildOpticalFlowPyramid(eightBitFrame, framePyramids[slot],
                                cv::Size(trackWindowSize, trackWindowSize), kPyramidLevels, true,
                                cv::BORDER_REFLECT_101, cv::BORDER_CONSTANT, true);
}

int SrFloatRegistration2::doRegistration(int registeredFrames, int referenceIndex,
                                         const float* const* frames, cv::Point_<float>* shifts,
                                         char** masks, float** shiftedFrames) {
    const int result = registerFrames(registeredFrames, referenceIndex, frames, shifts, masks);
    if (result != 0) {
        return result;
    }
    shiftFramesOntoReference(registeredFrames, frames, shifts, shiftedFrames, kDoRegistrationSite);
    return 0;
}

template <typename Mask>
int SrFloatRegistration2::registerFrames(int registeredFrames, int referenceIndex,
                                         const float* const*, cv::Point_<float>* shifts,
                                         Mask** masks) {
    // Frames that were never prepared have nothing to track.
    if (referenceIndex < 0 || referenceIndex >= registeredFrames ||
        registeredFrames > storedFrames) {
        return kNoTrackedCorner;
    }
    // The corner search and the reference's gradients read the reference alone, and
    // may run side by side.
    forEachInRuns(2, threads, [&](int task, int) {
        if (task == 0) {
            extractCornersRefImage(preparedFrames[referenceIndex]);
        } else {
            initialize(masks, referenceIndex);
        }
    });
    if (lastShifts.size() < static_cast<size_t>(registeredFrames)) {
        lastShifts.resize(registeredFrames);
    }
    frameShifts.assign(registeredFrames, cv::Point_<float>(0.0f, 0.0f));
    frameStarts.resize(registeredFrames);
    trackingResults.resize(registeredFrames);
    // The whole-pixel starts of the frames. OpenCV tracks so few corners on the calling
    // thread alone, so the frames share the threads instead. Only the frames before the
    // first one whose corners are all lost count; their sub-pixel steps follow, which
    // are independent of each other as well.
    otherFrames.clear();
    for (int k = 0; k < registeredFrames; ++k) {
        if (k != referenceIndex) {
            otherFrames.push_back(k);
        }
    }
    const size_t runs = static_cast<size_t>(std::min(threads, frameCount));
    if (trackingScratch.size() != runs) {
        trackingScratch.resize(runs);
    }
    forEachInRuns(
        static_cast<int>(otherFrames.size()), static_cast<int>(runs), [&](int entry, int run) {
            const int k = otherFrames[entry];
            trackingResults[k] =
                registerWithCorners(referenceIndex, k, frameStarts[k], trackingScratch[run]);
        });
    trackedFrames.clear();
    int result = 0;
    for (const int k : otherFrames) {
        result = trackingResults[k];
        if (result != 0) {
            break;
        }
        trackedFrames.push_back(k);
    }
    const float* reference = preparedFrames[referenceIndex].ptr<float>();
    forEachFrame(trackedFrames, [&](int k, int worker) {
        frameShifts[k] = opticalFlow(reference, preparedFrames[k].ptr<float>(), frameStarts[k],
                                     masks[k], worker);
    });
    if (result != 0) {
        return result;
    }
    std::copy(frameShifts.begin(), frameShifts.end(), shifts);
    std::copy(frameShifts.begin(), frameShifts.end(), lastShifts.begin());
    return 0;
}

int SrFloatRegistration2::registerWithCorners(unsigned int referenceIndex, unsigned int frameIndex,
                                              cv::Point_<int>& displacement,
                                              TrackingScratch& scratch) const {
    displacement = cv::Point_<int>(0, 0);
    // The tracker refuses an empty point list.
    if (refCorners.empty()) {
        return kNoTrackedCorner;
    }
    // Only the tracked positions and their status are used, not the tracking error.
    scratch.tracked.clear();
    cv::calcOpticalFlowPyrLK(framePyramids[referenceIndex], framePyramids[frameIndex], refCorners,
                             scratch.tracked, scratch.status, cv::noArray(),
                             cv::Size(trackWindowSize, trackWindowSize), kPyramidLevels,
                             cv::TermCriteria(cv::TermCriteria::COUNT + cv::TermCriteria::EPS,
                                              kTrackIterations, kTrackEpsilon),
                             0, kTrackMinEigenvalue);

    scratch.displacements.clear();
    for (size_t i = 0; i < scratch.status.size(); ++i) {
        if (scratch.status[i] != 0) {
            scratch.displacements.push_back(scratch.tracked[i] - refCorners[i]);
        }
    }
    if (scratch.displacements.empty()) {
        return kNoTrackedCorner;
    }
    displacement = consensusDisplacement(scratch.displacements, scratch);
    return 0;
}

cv::Point_<int> SrFloatRegistration2::consensusDisplacement(
    const std::vector<cv::Point_<float>>& displacements, TrackingScratch& scratch) {
    std::vector<float>& xs = scratch.xs;
    std::vector<float>& ys = scratch.ys;
    xs.clear();
    ys.clear();
    for (const cv::Point_<float>& moved : displacements) {
        xs.push_back(moved.x);
        ys.push_back(moved.y);
    }
    const size_t middle = displacements.size() / 2;
    std::nth_element(xs.begin(), xs.begin() + middle, xs.end());
    std::nth_element(ys.begin(), ys.begin() + middle, ys.end());
    const cv::Point_<float> median(xs[middle], ys[middle]);
    cv::Point_<float> sum(0.0f, 0.0f);
    int inliers = 0;
    for (const cv::Point_<float>& moved : displacements) {
        if (std::fabs(moved.x - median.x) < kInlierDistance &&
            std::fabs(moved.y - median.y) < kInlierDistance) {
            sum += moved;
            ++inliers;
        }
    }
    if (inliers == 0) {
        return cv::Point_<int>(0, 0);
    }
    const float reciprocal = 1.0f / static_cast<float>(inliers);
    return cv::Point_<int>(roundHalfUp(sum.x * reciprocal), roundHalfUp(sum.y * reciprocal));
}

template <typename Mask>
void SrFloatRegistration2::initialize(Mask** masks, int referenceIndex) {
    for (size_t slot = 0; slot < preparedFrames.size(); ++slot) {
        std::fill_n(masks[slot], pixelCount, Mask(static_cast<int>(slot) == referenceIndex));
    }
    computeReferenceGradients(preparedFrames[referenceIndex].ptr<float>());
}

void SrFloatRegistration2::extractCornersRefImage(cv::Mat_<float>& reference) {
    cv::goodFeaturesToTrack(reference, refCorners, kMaxCorners, kCornerQuality, kCornerMinDistance,
                            cv::noArray(), kCornerBlockSize, false, kHarrisConstant);
}

template int SrFloatRegistration2::registerFrames(int, int, const float* const*, cv::Point_<float>*,
                                                  char**);
template int SrFloatRegistration2::registerFrames(int, int, const float* const*, cv::Point_<float>*,
                                                  float**);

}  // namespace kelvo::vision
