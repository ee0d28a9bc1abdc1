// SPDX-License-Identifier: Apache-2.0
#include "vision/superresolution/SrFloatRegistrationBase.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "tests/vision/superresolution/ShiftedTexture.h"
#include "vision/superresolution/SrFloatConvolution.h"

namespace kelvo::vision {
namespace {

using testing::cutShiftedFrame;
using testing::makeDoubleSizeTexture;
using testing::makeShiftedFrame;

// Opens the shared steps to the tests.
class ExposedRegistration : public SrFloatRegistrationBase {
public:
    using SrFloatRegistrationBase::computeReferenceGradients;
    using SrFloatRegistrationBase::errorImage;
    using SrFloatRegistrationBase::opticalFlow;
    using SrFloatRegistrationBase::refGradX;
    using SrFloatRegistrationBase::refGradY;
    using SrFloatRegistrationBase::shiftFrame;
    using SrFloatRegistrationBase::shiftFramesOntoReference;
    using SrFloatRegistrationBase::SrFloatRegistrationBase;
    using SrFloatRegistrationBase::sumGxx;
    using SrFloatRegistrationBase::sumGxy;
    using SrFloatRegistrationBase::sumGyy;
};

TEST(SrFloatRegistrationBase, ShiftFrameMovesWholePixelsAsOneFlatArray) {
    ExposedRegistration registration(4, 3, 1);
    const std::vector<float> source = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
    std::vector<float> destination(12, -1.0f);
    auto shifted = [&](cv::Point2f shift) {
        registration.shiftFrame(source.data(), shift, destination.data());
        return shift;
    };

    EXPECT_EQ(shifted({0.4f, -0.4f}), cv::Point2f(0.4f, -0.4f));
    EXPECT_EQ(destination, source);
    EXPECT_EQ(shifted({-0.5f, 0.0f}), cv::Point2f(-0.5f, 0.0f));
    EXPECT_EQ(destination, source);

    // Halves round upward: (1, 1) is moved, (-0.5, -0.5) remains.
    EXPECT_EQ(shifted({0.5f, 0.5f}), cv::Point2f(-0.5f, -0.5f));
    EXPECT_EQ(destination, (std::vector<float>{6, 7, 8, 9, 10, 11, 12, 0, 0, 0, 0, 0}));

    // A horizontal move carries the next row's first pixels into each row's end.
    EXPECT_EQ(shifted({2.0f, 0.0f}), cv::Point2f(0.0f, 0.0f));
    EXPECT_EQ(destination, (std::vector<float>{3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 0, 0}));

    EXPECT_EQ(shifted({-1.25f, -0.75f}), cv::Point2f(-0.25f, 0.25f));
    EXPECT_EQ(destination, (std::vector<float>{0, 0, 0, 0, 0, 1, 2, 3, 4, 5, 6, 7}));
}

TEST(SrFloatRegistrationBase, GradientsAreCentralInsideAndOneSidedUnhalvedOnTheBorder) {
    constexpr int width = 5;
    constexpr int height = 4;
    ExposedRegistration registration(width, height, 1);
    // R = x^2 + 3 y^2: the central difference gives 2x and 6y exactly, the one-sided
    // ones 1 and 2 w - 3 horizontally, 3 and 3 (2 h - 3) vertically.
    std::vector<float> reference(width * height);
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            reference[y * width + x] = static_cast<float>(x * x + 3 * y * y);
        }
    }
    registration.computeReferenceGradients(reference.data());
    const std::vector<float> expectedX = {1, 2, 4, 6, 7};
    const std::vector<float> expectedY = {3, 6, 12, 15};
    double xx = 0.0;
    double xy = 0.0;
    double yy = 0.0;
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            EXPECT_EQ(registration.refGradX[y * width + x], expectedX[x]) << x << " " << y;
            EXPECT_EQ(registration.refGradY[y * width + x], expectedY[y]) << x << " " << y;
            xx += expectedX[x] * expectedX[x];
            xy += expectedX[x] * expectedY[y];
            yy += expectedY[y] * expectedY[y];
        }
    }
    EXPECT_EQ(registration.sumGxx, static_cast<float>(xx));
    EXPECT_EQ(registration.sumGxy, static_cast<float>(xy));
    EXPECT_EQ(registration.sumGyy, static_cast<float>(yy));
}

constexpr int kWidth = 160;
constexpr int kHeight = 120;
constexpr int kPixels = kWidth * kHeight;

// An identical frame gives u = 0 exactly; a frame that is the reference moved by
// whole pixels, started at that move, gives it back exactly, with the uncovered
// strips at the error threshold and the whole overlap valid.
TEST(SrFloatRegistrationBase, OpticalFlowIsExactForWholePixelMoves) {
    constexpr int margin = 8;
    const cv::Mat_<float> scene = makeShiftedFrame(
        makeDoubleSizeTexture(kWidth + 2 * margin, kHeight + 2 * margin, 3), {0.0f, 0.0f});
    auto cut = [&](cv::Point shift) {
        return cv::Mat_<float>(
            scene(cv::Rect(margin - shift.x, margin - shift.y, kWidth, kHeight)).clone());
    };
    const cv::Mat_<float> reference = cut({0, 0});
    ExposedRegistration registration(kWidth, kHeight, 2);
    registration.computeReferenceGradients(reference.ptr<float>());

    std::vector<char> mask(kPixels, 0);
    EXPECT_EQ(registration.opticalFlow(reference.ptr<float>(), reference.ptr<float>(), {0, 0},
                                       mask.data()),
              cv::Point2f(0.0f, 0.0f));
    EXPECT_EQ(std::count(mask.begin(), mask.end(), 1), kPixels);
    EXPECT_EQ(std::count(registration.errorImage.begin(), registration.errorImage.end(), 0.0f),
              kPixels);

    for (const cv::Point move : {cv::Point(3, -2), cv::Point(-5, 4), cv::Point(0, 6)}) {
        const cv::Mat_<float> frame = cut(move);
        std::fill(mask.begin(), mask.end(), 0);
        EXPECT_EQ(
            registration.opticalFlow(reference.ptr<float>(), frame.ptr<float>(), move, mask.data()),
            cv::Point2f(move))
            << move;
        const cv::Rect overlap(std::max(0, -move.x), std::max(0, -move.y),
                               kWidth - std::abs(move.x), kHeight - std::abs(move.y));
        for (int y = 0; y < kHeight; ++y) {
            for (int x = 0; x < kWidth; ++x) {
                const bool inside = overlap.contains({x, y});
                ASSERT_EQ(mask[y * kWidth + x], inside ? 1 : 0) << move << x << " " << y;
                ASSERT_EQ(registration.errorImage[y * kWidth + x],
                          inside ? 0.0f : registration.getRegError())
                    << move << x << " " << y;
            }
        }
    }
}

TEST(SrFloatRegistrationBase, OpticalFlowRefinesSubPixelShifts) {
    constexpr int margin = 8;
    const cv::Mat_<float> scene =
        makeDoubleSizeTexture(kWidth + 2 * margin, kHeight + 2 * margin, 5);
    auto blurred = [](const cv::Mat_<float>& frame) {
        cv::Mat_<float> out;
        cv::GaussianBlur(frame, out, cv::Size(11, 11), std::sqrt(3.0f), 0.0,
                         cv::BORDER_REFLECT_101);
        return out;
    };
    const cv::Mat_<float> reference = blurred(cutShiftedFrame(scene, {0.0f, 0.0f}, margin));
    ExposedRegistration registration(kWidth, kHeight, 2);
    registration.computeReferenceGradients(reference.ptr<float>());
    const std::vector<std::pair<cv::Point2f, cv::Point>> cases = {{{0.3f, -0.2f}, {0, 0}},
                                                                  {{-0.45f, 0.1f}, {0, 0}},
                                                                  {{2.35f, -3.2f}, {2, -3}},
                                                                  {{-4.6f, 1.35f}, {-5, 1}},
                                                                  {{0.7f, 0.0f}, {1, 0}}};
    for (const auto& [truth, start] : cases) {
        const cv::Mat_<float> frame = blurred(cutShiftedFrame(scene, truth, margin));
        std::vector<char> mask(kPixels, 0);
        const cv::Point2f found = registration.opticalFlow(reference.ptr<float>(),
                                                           frame.ptr<float>(), start, mask.data());
        EXPECT_NEAR(found.x, truth.x, 0.05) << truth;
        EXPECT_NEAR(found.y, truth.y, 0.05) << truth;
        EXPECT_GT(std::count(mask.begin(), mask.end(), 1), kPixels / 2) << truth;
    }
}

// The Lucas-Kanade step as written, one pixel at a time: double sums in four lanes per
// row (lane = column mod 4 within the region, the remainder in lane 0), each total
// (lane 0 + lane 1) + (lane 2 + lane 3).
struct PlainFlow {
    cv::Point2f shift;
    std::vector<float> error;
    std::vector<char> mask;
};

PlainFlow plainOpticalFlow(const float* r, const float* f, const float* gx, const float* gy,
                           int width, int height, cv::Point s, float regError) {
    auto sum = [&](cv::Rect region, auto term) {
        double lanes[4] = {};
        const int full = region.width - region.width % 4;
        for (int y = region.y; y < region.y + region.height; ++y) {
            for (int i = 0; i < region.width; ++i) {
                lanes[i < full ? i % 4 : 0] += term(y * width + region.x + i);
            }
        }
        return (lanes[0] + lanes[1]) + (lanes[2] + lanes[3]);
    };
    const cv::Rect all(0, 0, width, height);
    const cv::Rect overlap(std::max(0, -s.x), std::max(0, -s.y), width - std::abs(s.x),
                           height - std::abs(s.y));
    const cv::Rect strips[2] = {
        cv::Rect(0, s.y >= 0 ? height - std::abs(s.y) : 0, width, std::abs(s.y)),
        cv::Rect(s.x >= 0 ? width - std::abs(s.x) : 0, std::max(0, -s.y), std::abs(s.x),
                 height - std::abs(s.y))};
    const int offset = s.y * width + s.x;  // frame pixel of a reference pixel
    auto xx = [&](int p) { return gx[p] * gx[p]; };
    auto xy = [&](int p) { return gx[p] * gy[p]; };
    auto yy = [&](int p) { return gy[p] * gy[p]; };
    const double sxx =
        static_cast<float>(sum(all, xx)) - ((0.0 + sum(strips[0], xx)) + sum(strips[1], xx));
    const double sxy =
        static_cast<float>(sum(all, xy)) - ((0.0 + sum(strips[0], xy)) + sum(strips[1], xy));
    const double syy =
        static_cast<float>(sum(all, yy)) - ((0.0 + sum(strips[0], yy)) + sum(strips[1], yy));
    const double bx = sum(overlap, [&](int p) { return (f[p + offset] - r[p]) * gx[p]; });
    const double by = sum(overlap, [&](int p) { return (f[p + offset] - r[p]) * gy[p]; });
    const double det = syy * sxx - sxy * sxy;
    const float ux = static_cast<float>((sxy * by - syy * bx) / det);
    const float uy = static_cast<float>((sxy * bx - sxx * by) / det);
    const float norm = static_cast<float>(1.0 / (sxx + syy));
    PlainFlow out{{static_cast<float>(s.x) + ux, static_cast<float>(s.y) + uy},
                  std::vector<float>(width * height, regError),
                  std::vector<char>(width * height, 0)};
    for (int y = overlap.y; y < overlap.y + overlap.height; ++y) {
        for (int x = overlap.x; x < overlap.x + overlap.width; ++x) {
            const int p = y * width + x;
            const float residual = (gy[p] * uy + gx[p] * ux + f[p + offset]) - r[p];
            out.error[p] = residual * residual * norm;
        }
    }
    cv::Mat_<float> error(height, width, out.error.data());
    cv::Mat_<float> blurred;
    SrFloatConvolution::blurImageMeanFilter(error, 3, blurred);
    const cv::Point rounded(static_cast<int>(std::floor(out.shift.x + 0.5f)),
                            static_cast<int>(std::floor(out.shift.y + 0.5f)));
    for (int y = std::max(0, -rounded.y); y < height - std::max(0, rounded.y); ++y) {
        for (int x = std::max(0, -rounded.x); x < width - std::max(0, rounded.x); ++x) {
            out.mask[y * width + x] = blurred(y, x) < regError ? 1 : 0;
        }
    }
    return out;
}

// The vectorised sums, residuals and mask against the plain step, bit for bit, on an
// odd width so that every row leaves a remainder after the four lanes.
TEST(SrFloatRegistrationBase, OpticalFlowEqualsThePlainStepBitForBit) {
    constexpr int width = 157;
    constexpr int height = 93;
    constexpr int margin = 8;
    const cv::Mat_<float> scene = makeDoubleSizeTexture(width + 2 * margin, height + 2 * margin, 9);
    const cv::Mat_<float> reference = cutShiftedFrame(scene, {0.0f, 0.0f}, margin);
    ExposedRegistration registration(width, height, 2);
    registration.computeReferenceGradients(reference.ptr<float>());
    for (const auto& [truth, start] : std::vector<std::pair<cv::Point2f, cv::Point>>{
             {{0.3f, -0.2f}, {0, 0}}, {{2.6f, -3.3f}, {3, -3}}, {{-4.4f, 1.35f}, {-4, 1}}}) {
        const cv::Mat_<float> frame = cutShiftedFrame(scene, truth, margin);
        std::vector<char> mask(width * height, 0);
        const cv::Point2f shift = registration.opticalFlow(reference.ptr<float>(),
                                                           frame.ptr<float>(), start, mask.data());
        const PlainFlow plain = plainOpticalFlow(
            reference.ptr<float>(), frame.ptr<float>(), registration.refGradX.data(),
            registration.refGradY.data(), width, height, start, registration.getRegError());
        EXPECT_EQ(shift, plain.shift) << truth;
        EXPECT_EQ(registration.errorImage, plain.error) << truth;
        EXPECT_EQ(mask, plain.mask) << truth;
        EXPECT_GT(std::count(mask.begin(), mask.end(), 1), width * height / 2) << truth;
    }
}

// Starts beyond the frame (the tracker's points may leave it) and non-finite
// pixels leave no valid pixel and never reach outside the images.
TEST(SrFloatRegistrationBase, OpticalFlowSurvivesStartsBeyondTheFrameAndNonFinitePixels) {
    const cv::Mat_<float> reference =
        makeShiftedFrame(makeDoubleSizeTexture(kWidth, kHeight, 8), {});
    ExposedRegistration registration(kWidth, kHeight, 2);
    registration.computeReferenceGradients(reference.ptr<float>());
    std::vector<char> mask(kPixels, 0);
    for (const cv::Point start : {cv::Point(kWidth + 10, 0), cv::Point(-kWidth, 3),
                                  cv::Point(0, -kHeight - 4), cv::Point(kWidth, kHeight)}) {
        registration.opticalFlow(reference.ptr<float>(), reference.ptr<float>(), start,
                                 mask.data());
        EXPECT_EQ(std::count(mask.begin(), mask.end(), 0), kPixels) << start;
    }
    cv::Mat_<float> frame = reference.clone();
    frame(5, 5) = std::numeric_limits<float>::quiet_NaN();
    const cv::Point2f shift =
        registration.opticalFlow(reference.ptr<float>(), frame.ptr<float>(), {0, 0}, mask.data());
    EXPECT_TRUE(std::isnan(shift.x) && std::isnan(shift.y));
    EXPECT_EQ(std::count(mask.begin(), mask.end(), 0), kPixels);
}

TEST(SrFloatRegistrationBase, OnlyShiftsBelowHalfTheHeightAreAccepted) {
    constexpr int width = 320;
    constexpr int height = 121;
    constexpr int pixels = width * height;
    ExposedRegistration registration(width, height, 3);
    std::vector<float> frameStore(3 * pixels);
    for (int i = 0; i < 3 * pixels; ++i) {
        frameStore[i] = static_cast<float>(i);
    }
    std::vector<float> shiftedStore(3 * pixels, -1.0f);
    const float* frames[] = {&frameStore[0], &frameStore[pixels], &frameStore[2 * pixels]};
    float* shifted[] = {&shiftedStore[0], &shiftedStore[pixels], &shiftedStore[2 * pixels]};
    const SourceLocation site{"vision/superresolution/Example", 12, "kelvo::vision::Example::run"};
    auto attempt = [&](std::vector<cv::Point2f> shifts) {
        try {
            registration.shiftFramesOntoReference(3, frames, shifts.data(), shifted, site);
            return std::string("accepted");
        } catch (const kelvo::Exception& error) {
            return std::string(error.what()) + " at " + error.location();
        }
    };
    const std::string thrown =
        "Too large displacement at vision/superresolution/Example: 12: "
        "kelvo::vision::Example::run(..)\n";

    // Half of 121 rows is 60, for both components; the width plays no part.
    EXPECT_EQ(attempt({{59.99f, 0.0f}, {-59.99f, 59.99f}, {0.0f, -59.99f}}), "accepted");
    std::vector<cv::Point2f> complete;
    // The frame before the offending one is shifted, the one after only copied, also
    // when threads share the frames.
    for (int threads : {1, 2}) {
        registration.setThreads(threads);
        EXPECT_EQ(attempt({{1.0f, 0.0f}, {60.0f, 0.0f}, {2.0f, 0.0f}}), thrown);
        registration.getCompleteShifts(complete);
        EXPECT_EQ(complete[1], cv::Point2f(60.0f, 0.0f));
        EXPECT_TRUE(std::equal(shifted[0], shifted[0] + pixels - 1, frames[0] + 1));
        EXPECT_TRUE(std::equal(shifted[1], shifted[1] + pixels, frames[1]));
        EXPECT_TRUE(std::equal(shifted[2], shifted[2] + pixels, frames[2]));
    }

    EXPECT_EQ(attempt({{0.0f, -60.0f}, {0.0f, 0.0f}, {0.0f, 0.0f}}), thrown);
    EXPECT_EQ(attempt({{0.0f, 0.0f}, {0.0f, 0.0f}, {-60.0f, 0.0f}}), thrown);
    const float nan = std::numeric_limits<float>::quiet_NaN();
    EXPECT_EQ(attempt({{nan, 0.0f}, {0.0f, 0.0f}, {0.0f, 0.0f}}), thrown);
    EXPECT_EQ(attempt({{0.0f, std::numeric_limits<float>::infinity()}, {}, {}}), thrown);

    // Accepted shifts move every frame and leave only the remainder.
    std::vector<cv::Point2f> shifts = {{1.0f, 0.0f}, {-0.3f, 2.6f}, {59.99f, 0.0f}};
    registration.shiftFramesOntoReference(3, frames, shifts.data(), shifted, site);
    EXPECT_EQ(shifts[0], cv::Point2f(0.0f, 0.0f));
    EXPECT_EQ(shifted[0][0], frames[0][1]);
    EXPECT_NEAR(shifts[1].y, -0.4f, 1e-6f);
    EXPECT_EQ(shifted[1][0], frames[1][3 * width]);
    EXPECT_EQ(shifted[2][0], frames[2][60]);
    registration.getCompleteShifts(complete);
    EXPECT_EQ(complete[2], cv::Point2f(59.99f, 0.0f));
}

}  // namespace
}  // namespace kelvo::vision
