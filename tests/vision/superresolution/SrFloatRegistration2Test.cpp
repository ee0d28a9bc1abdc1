// SPDX-License-Identifier: Apache-2.0
#include "vision/superresolution/SrFloatRegistration2.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <opencv2/imgproc.hpp>

#include "tests/vision/superresolution/ShiftedTexture.h"

namespace kelvo::vision {
namespace {

using testing::cutShiftedFrame;
using testing::makeDoubleSizeTexture;
using testing::makeShiftedFrame;

constexpr int kWidth = 160;
constexpr int kHeight = 120;
constexpr int kPixels = kWidth * kHeight;
constexpr int kFrames = 5;

// The caller's side of doRegistration: frames, and the output buffers it owns.
struct Burst {
    std::vector<cv::Mat_<float>> frames;
    std::vector<cv::Point2f> shifts = std::vector<cv::Point2f>(kFrames);
    std::vector<std::vector<char>> maskStore =
        std::vector<std::vector<char>>(kFrames, std::vector<char>(kPixels, 7));
    std::vector<std::vector<float>> shiftedStore =
        std::vector<std::vector<float>>(kFrames, std::vector<float>(kPixels, -1.0f));

    explicit Burst(std::vector<cv::Mat_<float>> burstFrames) : frames(std::move(burstFrames)) {}

    int registerOn(SrFloatRegistration2& registration, int referenceIndex) {
        std::vector<const float*> framePointers;
        std::vector<char*> masks;
        std::vector<float*> shifted;
        for (int k = 0; k < kFrames; ++k) {
            framePointers.push_back(frames[k].ptr<float>());
            masks.push_back(maskStore[k].data());
            shifted.push_back(shiftedStore[k].data());
        }
        return registration.doRegistration(kFrames, referenceIndex, framePointers.data(),
                                           shifts.data(), masks.data(), shifted.data());
    }
    int validPixels(int k) const {
        return static_cast<int>(std::count(maskStore[k].begin(), maskStore[k].end(), 1));
    }
};

Burst makeBurst(const std::vector<cv::Point2f>& trueShifts, uint64 seed = 7) {
    constexpr int margin = 10;
    const cv::Mat_<float> scene =
        makeDoubleSizeTexture(kWidth + 2 * margin, kHeight + 2 * margin, seed);
    std::vector<cv::Mat_<float>> frames;
    for (const cv::Point2f& shift : trueShifts) {
        frames.push_back(cutShiftedFrame(scene, shift, margin));
    }
    return Burst(frames);
}

void prepareAll(SrFloatRegistration2& registration, const Burst& burst) {
    for (const cv::Mat_<float>& frame : burst.frames) {
        registration.prepareFrame(frame.ptr<float>());
    }
}

TEST(SrFloatRegistration2, IdenticalFramesRegisterToZeroWithFullMasks) {
    const Burst original = makeBurst(std::vector<cv::Point2f>(kFrames, cv::Point2f(0.3f, 0.1f)));
    Burst burst = original;
    SrFloatRegistration2 registration(kWidth, kHeight, kFrames);
    prepareAll(registration, burst);

    ASSERT_EQ(burst.registerOn(registration, 3), 0);
    std::vector<cv::Point2f> complete;
    registration.getCompleteShifts(complete);
    ASSERT_EQ(complete.size(), static_cast<size_t>(kFrames));
    for (int k = 0; k < kFrames; ++k) {
        EXPECT_EQ(burst.shifts[k], cv::Point2f(0.0f, 0.0f)) << k;
        EXPECT_EQ(complete[k], cv::Point2f(0.0f, 0.0f)) << k;
        EXPECT_EQ(burst.validPixels(k), kPixels) << k;
        EXPECT_EQ(0, std::memcmp(burst.shiftedStore[k].data(), burst.frames[k].ptr<float>(),
                                 kPixels * sizeof(float)))
            << k;
    }
    EXPECT_FALSE(registration.getRefCorners().empty());
    EXPECT_LE(registration.getRefCorners().size(), 100u);
}

TEST(SrFloatRegistration2, RecoversKnownSubPixelAndWholePixelShifts) {
    const std::vector<cv::Point2f> truth = {
        {-3.62f, 1.27f}, {0.31f, -0.18f}, {0.0f, 0.0f}, {2.45f, 4.55f}, {-0.5f, -6.3f}};
    Burst burst = makeBurst(truth);
    SrFloatRegistration2 registration(kWidth, kHeight, kFrames);
    prepareAll(registration, burst);

    ASSERT_EQ(burst.registerOn(registration, 2), 0);
    std::vector<cv::Point2f> complete;
    registration.getCompleteShifts(complete);
    for (int k = 0; k < kFrames; ++k) {
        EXPECT_NEAR(complete[k].x, truth[k].x, 0.05) << k;
        EXPECT_NEAR(complete[k].y, truth[k].y, 0.05) << k;
        // The caller keeps the sub-pixel rest; the shifted frame holds the whole-pixel
        // move of the frame as one flat array.
        const int ix = static_cast<int>(std::floor(complete[k].x + 0.5f));
        const int iy = static_cast<int>(std::floor(complete[k].y + 0.5f));
        EXPECT_EQ(burst.shifts[k], complete[k] - cv::Point2f(ix, iy)) << k;
        EXPECT_GE(burst.shifts[k].x, -0.5f);
        EXPECT_LT(burst.shifts[k].x, 0.5f);
        const int offset = iy * kWidth + ix;
        const float* frame = burst.frames[k].ptr<float>();
        for (int i = 0; i < kPixels; ++i) {
            const int from = i + offset;
            const float expected = from >= 0 && from < kPixels ? frame[from] : 0.0f;
            ASSERT_EQ(burst.shiftedStore[k][i], expected) << k << " " << i;
        }
        // Most of the overlap agrees with the reference.
        const int overlap = (kWidth - std::abs(ix)) * (kHeight - std::abs(iy));
        EXPECT_GT(burst.validPixels(k), overlap * 8 / 10) << k;
        EXPECT_LE(burst.validPixels(k), overlap) << k;
    }
    EXPECT_EQ(burst.validPixels(2), kPixels);
}

// Whole-pixel moves of a coarse scene, cut from a larger one so that no content
// is invented at the borders; the frame is short so that half its height lies
// within the tracker's reach.
TEST(SrFloatRegistration2, DisplacementOfHalfTheHeightThrowsWhateverTheWidth) {
    constexpr int width = 200;
    constexpr int height = 44;
    constexpr int margin = 30;
    const cv::Mat_<float> scene = makeShiftedFrame(
        makeDoubleSizeTexture(width + 2 * margin, height + 2 * margin, 5, 16.0), {});
    auto cut = [&](cv::Point shift) {
        return cv::Mat_<float>(
            scene(cv::Rect(margin - shift.x, margin - shift.y, width, height)).clone());
    };
    auto registerPair = [&](cv::Point shift, std::vector<cv::Point2f>& complete) {
        const std::vector<cv::Mat_<float>> frames = {cut({0, 0}), cut(shift)};
        SrFloatRegistration2 registration(width, height, 2);
        for (const cv::Mat_<float>& frame : frames) {
            registration.prepareFrame(frame.ptr<float>());
        }
        std::vector<std::vector<char>> maskStore(2, std::vector<char>(width * height));
        std::vector<std::vector<float>> shiftedStore(2, std::vector<float>(width * height));
        const float* framePointers[] = {frames[0].ptr<float>(), frames[1].ptr<float>()};
        char* masks[] = {maskStore[0].data(), maskStore[1].data()};
        float* shifted[] = {shiftedStore[0].data(), shiftedStore[1].data()};
        cv::Point2f shifts[2];
        std::string outcome = "accepted";
        try {
            registration.doRegistration(2, 0, framePointers, shifts, masks, shifted);
        } catch (const kelvo::Exception& error) {
            outcome = std::string(error.what()) + " at " + error.location();
        }
        registration.getCompleteShifts(complete);
        return outcome;
    };
    const std::string thrown = std::string("Too large displacement at ") +
                               "vision/superresolution/SrFloatRegistration2: 174: "
                               "kelvo::vision::SrFloatRegistration2::doRegistration(..)\n";
    std::vector<cv::Point2f> complete;
    EXPECT_EQ(registerPair({21, 0}, complete), "accepted");
    EXPECT_NEAR(complete[1].x, 21.0f, 0.1f);
    EXPECT_EQ(registerPair({23, 0}, complete), thrown);
    // The offending shift is kept.
    EXPECT_NEAR(complete[1].x, 23.0f, 0.1f);
    EXPECT_EQ(registerPair({0, -23}, complete), thrown);
    EXPECT_NEAR(complete[1].y, -23.0f, 0.25f);
}

class ExposedRegistration2 : public SrFloatRegistration2 {
public:
    using SrFloatRegistration2::consensusDisplacement;
    using SrFloatRegistration2::SrFloatRegistration2;
    using SrFloatRegistration2::TrackingScratch;
};

TEST(SrFloatRegistration2, CornerConsensusTakesUpperMediansAndStrictInliers) {
    ExposedRegistration2::TrackingScratch scratch;
    auto consensus = [&](std::vector<cv::Point2f> displacements) {
        return ExposedRegistration2::consensusDisplacement(displacements, scratch);
    };
    // Rounding with halves upward.
    EXPECT_EQ(consensus({{1.4f, -2.6f}}), cv::Point(1, -3));
    EXPECT_EQ(consensus({{0.5f, -0.5f}}), cv::Point(1, 0));
    EXPECT_EQ(consensus({{-2.5f, 1.5f}}), cv::Point(-2, 2));
    // An even count takes the upper middle value.
    EXPECT_EQ(consensus({{0.0f, 0.0f}, {10.0f, 10.0f}}), cv::Point(10, 10));
    // Outliers leave the mean; exactly 2 pixels from a median is out.
    EXPECT_EQ(consensus({{1.0f, 1.0f}, {1.2f, 0.8f}, {1.1f, 1.0f}, {30.0f, -5.0f}}),
              cv::Point(1, 1));
    EXPECT_EQ(consensus({{0.0f, 0.0f}, {2.0f, 0.0f}, {2.0f, 0.0f}}), cv::Point(2, 0));
    // Medians from different corners can leave no inlier.
    EXPECT_EQ(consensus({{0.0f, 10.0f}, {10.0f, 0.0f}}), cv::Point(0, 0));
}

TEST(SrFloatRegistration2, LostCornersGiveMinusNineAndLeaveLaterOutputsAlone) {
    std::vector<cv::Mat_<float>> frames(kFrames, cv::Mat_<float>(kHeight, kWidth, 250.0f));
    Burst burst(frames);
    burst.frames[1] = makeShiftedFrame(makeDoubleSizeTexture(kWidth, kHeight, 3), {0.0f, 0.0f});
    SrFloatRegistration2 registration(kWidth, kHeight, kFrames);
    prepareAll(registration, burst);

    // A flat reference has no corners to track.
    EXPECT_EQ(burst.registerOn(registration, 3), -9);
    EXPECT_TRUE(registration.getRefCorners().empty());
    for (int k = 0; k < kFrames; ++k) {
        EXPECT_EQ(burst.validPixels(k), k == 3 ? kPixels : 0) << k;
        EXPECT_EQ(std::count(burst.maskStore[k].begin(), burst.maskStore[k].end(), 0),
                  k == 3 ? 0 : kPixels)
            << k;
        EXPECT_EQ(std::count(burst.shiftedStore[k].begin(), burst.shiftedStore[k].end(), -1.0f),
                  kPixels);
        EXPECT_EQ(burst.shifts[k], cv::Point2f(0.0f, 0.0f));
    }
}

TEST(SrFloatRegistration2, RegistrationOfUnpreparedFramesIsRefused) {
    Burst burst = makeBurst(std::vector<cv::Point2f>(kFrames, cv::Point2f(0.0f, 0.0f)));
    SrFloatRegistration2 registration(kWidth, kHeight, kFrames);
    EXPECT_EQ(burst.registerOn(registration, 0), -9);
    registration.prepareFrame(burst.frames[0].ptr<float>());
    EXPECT_EQ(burst.registerOn(registration, 0), -9);
    for (int k = 1; k < kFrames; ++k) {
        registration.prepareFrame(burst.frames[k].ptr<float>());
    }
    EXPECT_EQ(burst.registerOn(registration, -1), -9);
    EXPECT_EQ(burst.registerOn(registration, kFrames), -9);
    EXPECT_EQ(burst.registerOn(registration, 4), 0);
}

// The 8-bit image level 0 of the slot's pyramid must hold.
cv::Mat expectedEightBit(const cv::Mat_<float>& blurred, float low, float high) {
    const float offset = -low;
    const float scale = 255.0f / (high - low);
    cv::Mat eightBit(blurred.size(), CV_8U);
    for (int i = 0; i < static_cast<int>(blurred.total()); ++i) {
        eightBit.data[i] = cv::saturate_cast<uchar>((blurred(i) + offset) * scale);
    }
    return eightBit;
}

TEST(SrFloatRegistration2, ConversionRangeChangesOnlyWhenAFrameLeavesIt) {
    const cv::Mat_<float> texture = makeDoubleSizeTexture(kWidth, kHeight, 11);
    const cv::Mat_<float> wide = makeShiftedFrame(texture, {0.0f, 0.0f});
    const cv::Mat_<float> narrow = wide * 0.5f + 200.0f;
    const cv::Mat_<float> higher = wide + 100.0f;
    SrFloatRegistration2 registration(kWidth, kHeight, 3);

    registration.prepareFrame(wide.ptr<float>());
    double minimum = 0.0;
    double maximum = 0.0;
    cv::minMaxIdx(registration.getPreparedFrames()[0], &minimum, &maximum);
    const float low = static_cast<float>(minimum - 0.1 * (maximum - minimum));
    const float high = static_cast<float>(maximum + 0.1 * (maximum - minimum));
    EXPECT_EQ(registration.getRangeLow(), low);
    EXPECT_EQ(registration.getRangeHigh(), high);

    // A frame inside the range keeps the mapping, even though its own range is narrower.
    registration.prepareFrame(narrow.ptr<float>());
    EXPECT_EQ(registration.getRangeLow(), low);
    EXPECT_EQ(registration.getRangeHigh(), high);
    const cv::Mat expected = expectedEightBit(registration.getPreparedFrames()[1], low, high);
    EXPECT_EQ(cv::norm(registration.getFramePyramids()[1][0], expected, cv::NORM_INF), 0.0);

    registration.prepareFrame(higher.ptr<float>());
    cv::minMaxIdx(registration.getPreparedFrames()[2], &minimum, &maximum);
    const float newLow = static_cast<float>(minimum - 0.1 * (maximum - minimum));
    const float newHigh = static_cast<float>(maximum + 0.1 * (maximum - minimum));
    EXPECT_EQ(registration.getRangeLow(), newLow);
    EXPECT_EQ(registration.getRangeHigh(), newHigh);
    EXPECT_EQ(cv::norm(registration.getFramePyramids()[2][0],
                       expectedEightBit(registration.getPreparedFrames()[2], newLow, newHigh),
                       cv::NORM_INF),
              0.0);
    // The earlier slots keep what they were converted with.
    EXPECT_EQ(cv::norm(registration.getFramePyramids()[1][0], expected, cv::NORM_INF), 0.0);
}

TEST(SrFloatRegistration2, SlotsSlideAndReuseTheirStorage) {
    constexpr int slots = 3;
    std::vector<cv::Mat_<float>> frames;
    for (int k = 0; k <= slots; ++k) {
        frames.push_back(
            makeShiftedFrame(makeDoubleSizeTexture(kWidth, kHeight, 20 + k), {0.0f, 0.0f}));
    }
    SrFloatRegistration2 registration(kWidth, kHeight, slots);
    auto blurred = [](const cv::Mat_<float>& frame) {
        cv::Mat_<float> out;
        cv::GaussianBlur(frame, out, cv::Size(11, 11), std::sqrt(3.0f), 0.0,
                         cv::BORDER_REFLECT_101);
        return out;
    };
    for (int k = 0; k < slots; ++k) {
        registration.prepareFrame(frames[k].ptr<float>());
    }
    const uchar* oldestPixels = registration.getPreparedFrames()[0].data;
    const uchar* oldestPyramid = registration.getFramePyramids()[0][0].data;
    const size_t pyramidSize = registration.getFramePyramids()[0].size();
    const cv::Mat secondPyramidBase = registration.getFramePyramids()[1][0].clone();

    registration.prepareFrame(frames[slots].ptr<float>());
    for (int slot = 0; slot < slots; ++slot) {
        EXPECT_EQ(cv::norm(registration.getPreparedFrames()[slot], blurred(frames[slot + 1]),
                           cv::NORM_INF),
                  0.0)
            << slot;
    }
    EXPECT_EQ(registration.getPreparedFrames()[slots - 1].data, oldestPixels);
    EXPECT_EQ(registration.getFramePyramids()[slots - 1][0].data, oldestPyramid);
    EXPECT_EQ(registration.getFramePyramids()[slots - 1].size(), pyramidSize);
    // Pyramids of older frames do not change when newer frames arrive.
    EXPECT_EQ(cv::norm(registration.getFramePyramids()[0][0], secondPyramidBase, cv::NORM_INF),
              0.0);
}

TEST(SrFloatRegistration2, CopiesAreIndependent) {
    const Burst burst =
        makeBurst({{1.3f, 0.2f}, {0.0f, 0.0f}, {-0.4f, 0.7f}, {0.6f, -1.2f}, {2.2f, 0.1f}});
    auto registered = [&](SrFloatRegistration2& registration) {
        Burst outputs = burst;
        EXPECT_EQ(outputs.registerOn(registration, 1), 0);
        std::vector<cv::Point2f> complete;
        registration.getCompleteShifts(complete);
        return std::make_pair(complete, outputs.maskStore);
    };
    SrFloatRegistration2 original(kWidth, kHeight, kFrames);
    prepareAll(original, burst);
    SrFloatRegistration2 copy(original);
    SrFloatRegistration2 assigned(kWidth, kHeight, kFrames);
    assigned = original;
    const auto expected = registered(original);

    // New frames in the copy must not reach the original's or the assigned one's slots.
    const cv::Mat_<float> other = makeShiftedFrame(makeDoubleSizeTexture(kWidth, kHeight, 99), {});
    for (int k = 0; k < kFrames; ++k) {
        copy.prepareFrame(other.ptr<float>());
    }
    EXPECT_EQ(registered(original), expected);
    EXPECT_EQ(registered(assigned), expected);
}

// Bad pixels must never crash registration. A non-finite value spreads through the
// blur into the optical-flow sums: the frame's shift becomes NaN, which the
// displacement test rejects ("Too large displacement"), or the frame's corners are
// lost (-9). A flat reference has no corners (-9); a flat frame is registered to
// whatever the linearised step gives, or rejected.
TEST(SrFloatRegistration2, NonFiniteAndFlatFramesFailCleanly) {
    const std::vector<cv::Point2f> still(kFrames, cv::Point2f(0.0f, 0.0f));
    auto outcome = [](Burst& burst, int referenceIndex) {
        SrFloatRegistration2 registration(kWidth, kHeight, kFrames);
        prepareAll(registration, burst);
        try {
            return std::to_string(burst.registerOn(registration, referenceIndex));
        } catch (const kelvo::Exception& error) {
            return std::string(error.what());
        }
    };
    auto failedCleanly = [](const std::string& result) {
        return result == "-9" || result == "Too large displacement";
    };
    for (const float bad :
         {std::numeric_limits<float>::quiet_NaN(), std::numeric_limits<float>::infinity()}) {
        Burst onePixel = makeBurst(still);
        onePixel.frames[1](40, 50) = bad;
        EXPECT_EQ(outcome(onePixel, 3), "Too large displacement") << bad;

        Burst wholeFrame = makeBurst(still);
        wholeFrame.frames[1].setTo(bad);
        EXPECT_PRED1(failedCleanly, outcome(wholeFrame, 3)) << bad;

        Burst badReference = makeBurst(still);
        badReference.frames[3].setTo(bad);
        EXPECT_PRED1(failedCleanly, outcome(badReference, 3)) << bad;
    }
    Burst flatReference = makeBurst(still);
    flatReference.frames[3].setTo(17.0f);
    EXPECT_EQ(outcome(flatReference, 3), "-9");
    Burst flatFrame = makeBurst(still);
    flatFrame.frames[0].setTo(17.0f);
    const std::string result = outcome(flatFrame, 3);
    EXPECT_TRUE(result == "0" || failedCleanly(result)) << result;
}

TEST(SrFloatRegistration2, InfiniteFrameDoesNotSpoilTheConversionRange) {
    const std::vector<cv::Point2f> truth = {
        {0.4f, 0.0f}, {0.0f, 0.0f}, {-1.3f, 0.2f}, {0.0f, 2.6f}, {0.7f, -0.7f}};
    Burst burst = makeBurst(truth);
    SrFloatRegistration2 registration(kWidth, kHeight, kFrames);
    cv::Mat_<float> infinite = burst.frames[0].clone();
    infinite(10, 10) = std::numeric_limits<float>::infinity();
    registration.prepareFrame(infinite.ptr<float>());
    prepareAll(registration, burst);
    EXPECT_TRUE(std::isfinite(registration.getRangeHigh() - registration.getRangeLow()));
    ASSERT_EQ(burst.registerOn(registration, 1), 0);
    std::vector<cv::Point2f> complete;
    registration.getCompleteShifts(complete);
    for (int k = 0; k < kFrames; ++k) {
        EXPECT_NEAR(complete[k].x, truth[k].x, 0.05) << k;
        EXPECT_NEAR(complete[k].y, truth[k].y, 0.05) << k;
    }
}

}  // namespace
}  // namespace kelvo::vision
