// SPDX-License-Identifier: Apache-2.0
#include "vision/superresolution/UsableFrameSelector.h"

#include <algorithm>
#include <cmath>
#include <opencv2/imgproc.hpp>
#include <sstream>
#include <stdexcept>

#include "platform/kelvo/Exception.h"
#include "vision/superresolution/BurstRegistration.h"

namespace kelvo::vision {

namespace {

constexpr double kDetailSigma = 4.0;  // half-resolution pixels

struct Alignment {
    cv::Point2f displacement;  // frame(p + d) ~ reference(p), in the images' pixels
    double correlation;
};

// Correlation coefficient of two images over their overlap when `second` is displaced
// by `displacement` (rounded to whole pixels) against `first`.
double overlapCorrelation(const cv::Mat_<float>& first, const cv::Mat_<float>& second,
                          cv::Point2f displacement) {
    const cv::Point d(cvRound(displacement.x), cvRound(displacement.y));
    const cv::Rect whole(cv::Point(), first.size());
    const cv::Rect inFirst = whole & (whole - d);
    if (inFirst.area() < whole.area() / 4) {
        return 0.0;
    }
    const cv::Mat_<float> a = first(inFirst), b = second(inFirst + d);
    cv::Scalar meanA, deviationA, meanB, deviationB;
    cv::meanStdDev(a, meanA, deviationA);
    cv::meanStdDev(b, meanB, deviationB);
    if (deviationA[0] <= 0.0 || deviationB[0] <= 0.0) {
        return 0.0;
    }
    cv::Mat_<double> centredA, centredB;
    a.convertTo(centredA, CV_64F, 1.0, -meanA[0]);
    b.convertTo(centredB, CV_64F, 1.0, -meanB[0]);
    return centredA.dot(centredB) /
           (static_cast<double>(inFirst.area()) * deviationA[0] * deviationB[0]);
}

std::string describe(double value, int decimals) {
    std::ostringstream text;
    text.precision(decimals);
    text << std::fixed << value;
    return text.str();
}

}  // namespace

UsableFrameSelector::Selection UsableFrameSelector::select(
    const std::vector<cv::Mat_<float>>& frames) const {
    const int count = static_cast<int>(frames.size());
    if (count < settings.minimumFrames || count < 2) {
        throw std::invalid_argument("Too few frames to choose usable ones from.");
    }
    const cv::Size size = frames.front().size();
    for (const auto& frame : frames) {
        if (frame.empty() || frame.size() != size || !cv::checkRange(frame)) {
            throw std::invalid_argument(
                "Frames must be non-empty, of one size, with finite values.");
        }
    }

    // Pairwise alignment at half resolution. The coefficient compares detail only (the
    // frame minus its blur): the slow shading that a thermal camera lays over every
    // frame alike would make any two views look alike.
    std::vector<cv::Mat_<float>> halves(count), details(count);
    for (int k = 0; k < count; ++k) {
        cv::resize(frames[k], halves[k], cv::Size(), 0.5, 0.5, cv::INTER_AREA);
        cv::GaussianBlur(halves[k], details[k], cv::Size(), kDetailSigma);
        details[k] = halves[k] - details[k];
    }
    cv::Mat_<float> window;
    cv::createHanningWindow(window, halves.front().size(), CV_32F);
    std::vector<std::vector<Alignment>> pairs(count, std::vector<Alignment>(count));
    for (int i = 0; i < count; ++i) {
        pairs[i][i] = {cv::Point2f(), 1.0};
        for (int j = i + 1; j < count; ++j) {
            const cv::Point2d shift = cv::phaseCorrelate(halves[i], halves[j], window);
            const cv::Point2f d(static_cast<float>(shift.x), static_cast<float>(shift.y));
            const double c = overlapCorrelation(details[i], details[j], d);
            pairs[i][j] = {2.0f * d, c};
            pairs[j][i] = {-2.0f * d, c};
        }
    }

    Selection selection;
    double bestScore = -2.0;
    for (int i = 0; i < count; ++i) {
        std::vector<double> others;
        for (int j = 0; j < count; ++j) {
            if (j != i) {
                others.push_back(pairs[i][j].correlation);
            }
        }
        std::nth_element(others.begin(), others.begin() + others.size() / 2, others.end());
        if (others[others.size() / 2] > bestScore) {
            bestScore = others[others.size() / 2];
            selection.reference = i;
        }
    }
    const int reference = selection.reference;
    for (int k = 0; k < count; ++k) {
        selection.correlation.push_back(pairs[reference][k].correlation);
        selection.displacement.push_back(pairs[reference][k].displacement);
    }

    // Frames that fail the cheap tests are left out before the engine's registration,
    // which would otherwise chase them.
    const float limit = static_cast<float>(size.height / 10);
    std::vector<int> candidates;
    for (int k = 0; k < count; ++k) {
        const cv::Point2f d = selection.displacement[k];
        if (selection.correlation[k] < settings.minCorrelation) {
            selection.leftOut.push_back({k, "correlation " + describe(selection.correlation[k], 2) +
                                                " with the reference, below " +
                                                describe(settings.minCorrelation, 2)});
        } else if (std::abs(d.x) > limit || std::abs(d.y) > limit) {
            selection.leftOut.push_back({k, "displacement (" + describe(d.x, 1) + ", " +
                                                describe(d.y, 1) + ") beyond " +
                                                describe(limit, 0) + " pixels"});
        } else {
            candidates.push_back(k);
        }
    }

    // The engine's registration of the rest, as the pass will see them.
    const int held = static_cast<int>(candidates.size());
    const int referencePosition = static_cast<int>(
        std::find(candidates.begin(), candidates.end(), reference) - candidates.begin());
    std::vector<cv::Mat_<float>> candidateFrames;
    for (int k : candidates) {
        candidateFrames.push_back(frames[k]);
    }
    BurstRegistration burst;
    try {
        burst = BurstRegistration::of(candidateFrames, referencePosition, settings.regError);
    } catch (const kelvo::Exception&) {
        burst.status = -1;  // a displacement of half the frame
    }
    if (burst.status < 0) {
        throw std::runtime_error(
            "The frames that correlate with the reference could not be registered.");
    }
    for (int k = 0; k < held; ++k) {
        const double valid = cv::countNonZero(burst.masks[k]) / static_cast<double>(size.area());
        const cv::Point2f d = burst.completeShifts[k];
        if (std::abs(d.x) > limit || std::abs(d.y) > limit) {
            selection.leftOut.push_back({candidates[k], "registered displacement (" +
                                                            describe(d.x, 1) + ", " +
                                                            describe(d.y, 1) + ") beyond " +
                                                            describe(limit, 0) + " pixels"});
        } else if (valid <= 0.5) {
            selection.leftOut.push_back(
                {candidates[k], "mask " + describe(100.0 * (1.0 - valid), 0) + "% empty"});
        } else {
            selection.usable.push_back(candidates[k]);
        }
    }
    std::sort(selection.leftOut.begin(), selection.leftOut.end(),
              [](const LeftOut& a, const LeftOut& b) { return a.frame < b.frame; });
    if (static_cast<int>(selection.usable.size()) < settings.minimumFrames) {
        std::string message = "Only " + std::to_string(selection.usable.size()) +
                              " usable frames, at least " + std::to_string(settings.minimumFrames) +
                              " needed:";
        for (const LeftOut& frame : selection.leftOut) {
            message += " frame " + std::to_string(frame.frame) + ": " + frame.reason + ";";
        }
        message.back() = '.';
        throw std::runtime_error(message);
    }
    return selection;
}

}  // namespace kelvo::vision
