// SPDX-License-Identifier: Apache-2.0
#include "vision/superresolution/SrFloatRegistration1.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <filesystem>
#include <limits>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <stdexcept>
#include <string>

#include "tests/vision/superresolution/ShiftedTexture.h"
#include "vision/superresolution/PhaseCorrelation.h"

namespace kelvo::vision {
namespace {

using testing::makeDoubleSizeTexture;
using testing::makeShiftedFrame;

constexpr int kFrames = 5;

// The caller's side of doRegistration: frames, and the output buffers it owns.
struct Burst {
    std::vector<cv::Mat_<float>> frames;
    int pixels;
    std::vector<cv::Point2f> shifts;
    std::vector<std::vector<char>> maskStore;
    std::vector<std::vector<float>> shiftedStore;

    explicit Burst(std::vector<cv::Mat_<float>> burstFrames)
        : frames(std::move(burstFrames)),
          pixels(static_cast<int>(frames[0].total())),
          shifts(frames.size()),
          maskStore(frames.size(), std::vector<char>(pixels, 7)),
          shiftedStore(frames.size(), std::vector<float>(pixels, -1.0f)) {}

    int count() const { return static_cast<int>(frames.size()); }
    void prepareAll(SrFloatRegistration1& registration) const {
        for (const cv::Mat_<float>& frame : frames) {
            registration.prepareFrame(frame.ptr<float>());
        }
    }
    int registerOn(SrFloatRegistration1& registration, int referenceIndex) {
        std::vector<const float*> framePointers;
        std::vector<char*> masks;
        std::vector<float*> shifted;
        for (int k = 0; k < count(); ++k) {
            framePointers.push_back(frames[k].ptr<float>());
            masks.push_back(maskStore[k].data());
            shifted.push_back(shiftedStore[k].data());
        }
        return registration.doRegistration(count(), referenceIndex, framePointers.data(),
                                           shifts.data(), masks.data(), shifted.data());
    }
    // The outcome as text: the result code, or the exception's message and location.
    std::string outcomeOn(SrFloatRegistration1& registration, int referenceIndex) {
        try {
            return std::to_string(registerOn(registration, referenceIndex));
        } catch (const kelvo::Exception& error) {
            return std::string(error.what()) + " at " + error.location();
        }
    }
    int validPixels(int k) const {
        return static_cast<int>(std::count(maskStore[k].begin(), maskStore[k].end(), 1));
    }
};

// The frequency-domain blur is the zero-padded convolution, so each blurred frame
// falls towards zero within the blur radius of its borders. Those edges stay where
// the frame's borders are while the content moves; with a large mean level they
// dominate the gradient sums of the Lucas-Kanade step and pull it towards its
// integer start. Scenes for sub-pixel accuracy are therefore made mean-free.
cv::Mat_<float> withoutMean(const cv::Mat_<float>& image) {
    return image - cv::mean(image)[0];
}

int roundHalfUp(float value) {
    return static_cast<int>(std::floor(value + 0.5f));
}

const std::string kTooLarge =
    "Too large displacement at vision/superresolution/SrFloatRegistration1: 144: "
    "kelvo::vision::SrFloatRegistration1::doRegistration(..)\n";

TEST(SrFloatRegistration1, IdenticalFramesGiveZeroShiftsAndFullMasks) {
    constexpr int width = 64;
    constexpr int height = 48;
    const cv::Mat_<float> frame = makeShiftedFrame(makeDoubleSizeTexture(width, height, 4), {});
    Burst burst(std::vector<cv::Mat_<float>>(kFrames, frame));
    SrFloatRegistration1 registration(width, height, kFrames);
    burst.prepareAll(registration);

    ASSERT_EQ(burst.registerOn(registration, 3), 0);
    std::vector<cv::Point2f> complete;
    registration.getCompleteShifts(complete);
    ASSERT_EQ(complete.size(), static_cast<size_t>(kFrames));
    for (int k = 0; k < kFrames; ++k) {
        EXPECT_EQ(complete[k], cv::Point2f(0.0f, 0.0f)) << k;
        EXPECT_EQ(burst.shifts[k], cv::Point2f(0.0f, 0.0f)) << k;
        EXPECT_EQ(burst.validPixels(k), width * height) << k;
        EXPECT_EQ(0, std::memcmp(burst.shiftedStore[k].data(), frame.ptr<float>(),
                                 width * height * sizeof(float)));
    }
}

// Whole-pixel moves of a scene cut from a larger one, so that no content is invented
// at the borders.
TEST(SrFloatRegistration1, CorrelationPeaksBeyondHalfTheSizeAreNegative) {
    constexpr int width = 96;
    constexpr int height = 64;
    constexpr int margin = 50;
    const cv::Mat_<float> scene = withoutMean(makeShiftedFrame(
        makeDoubleSizeTexture(width + 2 * margin, height + 2 * margin, 5, 1.0), {}));
    auto cut = [&](cv::Point shift) {
        return cv::Mat_<float>(
            scene(cv::Rect(margin - shift.x, margin - shift.y, width, height)).clone());
    };
    auto registerPair = [&](cv::Point shift, cv::Point2f& complete) {
        Burst burst({cut({0, 0}), cut(shift)});
        SrFloatRegistration1 registration(width, height, 2);
        burst.prepareAll(registration);
        const std::string outcome = burst.outcomeOn(registration, 0);
        std::vector<cv::Point2f> shifts;
        registration.getCompleteShifts(shifts);
        complete = shifts[1];
        return outcome;
    };
    cv::Point2f complete;
    // A peak at (width - 3, 2) is the move (-3, 2).
    EXPECT_EQ(registerPair({-3, 2}, complete), "0");
    EXPECT_NEAR(complete.x, -3.0f, 0.05f);
    EXPECT_NEAR(complete.y, 2.0f, 0.05f);
    EXPECT_EQ(registerPair({5, -7}, complete), "0");
    EXPECT_NEAR(complete.x, 5.0f, 0.05f);
    EXPECT_NEAR(complete.y, -7.0f, 0.05f);
    // Up to half the size a peak is a positive move, beyond it a negative one. Only
    // half the frame overlaps there, and the sub-pixel step keeps near its start.
    auto start = [](const cv::Point2f& shift) {
        return cv::Point(roundHalfUp(shift.x), roundHalfUp(shift.y));
    };
    EXPECT_EQ(registerPair({0, height / 2 - 1}, complete), "0");
    EXPECT_EQ(start(complete), cv::Point(0, height / 2 - 1));
    EXPECT_EQ(registerPair({0, -(height / 2 - 1)}, complete), "0");
    EXPECT_EQ(start(complete), cv::Point(0, -(height / 2 - 1)));
    // Moves of half the height or more are rejected, also horizontally, and the
    // offending shift is kept. A peak at exactly half the width stays positive.
    EXPECT_EQ(registerPair({0, height / 2}, complete), kTooLarge);
    EXPECT_EQ(start(complete), cv::Point(0, height / 2));
    EXPECT_EQ(registerPair({width / 2, 0}, complete), kTooLarge);
    EXPECT_EQ(start(complete), cv::Point(width / 2, 0));
    EXPECT_EQ(registerPair({-(width / 2 - 1), 0}, complete), kTooLarge);
    EXPECT_EQ(start(complete), cv::Point(-(width / 2 - 1), 0));
}

// Frames of a real thermal scene: the still is blurred like optics, moved by twice the
// frame shift and decimated by 2 (mean of 2 x 2 blocks), so frame(p + s) = reference(p).
std::vector<cv::Mat_<float>> framesOf(const cv::Mat_<float>& scene,
                                      const std::vector<cv::Point2f>& truth) {
    std::vector<cv::Mat_<float>> frames;
    for (const cv::Point2f& shift : truth) {
        frames.push_back(makeShiftedFrame(scene, shift));
    }
    return frames;
}

TEST(SrFloatRegistration1, RecoversSubPixelShiftsOfARealThermalFrame) {
    const std::filesystem::path still =
        std::filesystem::path(KELVO_SHARED_DATA_DIR) / "hit-uav/hr_stills/0_100_30_0_08079.jpg";
    if (!std::filesystem::exists(still)) {
        GTEST_SKIP() << "real thermal frames not found: " << still;
    }
    cv::Mat_<float> scene;
    cv::imread(still.string(), cv::IMREAD_GRAYSCALE).convertTo(scene, CV_32F);
    ASSERT_EQ(scene.size(), cv::Size(640, 512));
    cv::GaussianBlur(scene, scene, cv::Size(0, 0), 1.0);

    const std::vector<cv::Point2f> truth = {
        {0.3f, -0.2f}, {-1.45f, 0.4f}, {0.0f, 0.0f}, {2.35f, -3.7f}, {-0.5f, 1.15f}};
    const int width = scene.cols / 2;
    const int height = scene.rows / 2;
    Burst burst(framesOf(withoutMean(scene), truth));
    SrFloatRegistration1 registration(width, height, kFrames);
    burst.prepareAll(registration);

    ASSERT_EQ(burst.registerOn(registration, 2), 0);
    std::vector<cv::Point2f> complete;
    registration.getCompleteShifts(complete);
    for (int k = 0; k < kFrames; ++k) {
        EXPECT_NEAR(complete[k].x, truth[k].x, 0.05) << k;
        EXPECT_NEAR(complete[k].y, truth[k].y, 0.05) << k;
        const int ix = static_cast<int>(std::floor(complete[k].x + 0.5f));
        const int iy = static_cast<int>(std::floor(complete[k].y + 0.5f));
        EXPECT_EQ(burst.shifts[k], complete[k] - cv::Point2f(ix, iy)) << k;
        const int overlap = (width - std::abs(ix)) * (height - std::abs(iy));
        EXPECT_GT(burst.validPixels(k), overlap * 8 / 10) << k;
        EXPECT_LE(burst.validPixels(k), overlap) << k;
    }
    EXPECT_EQ(burst.validPixels(2), width * height);

    // With the scene's own mean level the whole-pixel parts stay right, but the dark
    // borders of the blurred frames pull the sub-pixel parts towards the start.
    Burst level(framesOf(scene, truth));
    ASSERT_EQ(level.registerOn(registration, 2), 0);
    registration.getCompleteShifts(complete);
    for (int k = 0; k < kFrames; ++k) {
        EXPECT_NEAR(complete[k].x, truth[k].x, 0.25) << k;
        EXPECT_NEAR(complete[k].y, truth[k].y, 0.25) << k;
    }
}

TEST(SrFloatRegistration1, SlotsSlideAndCopiesAreIndependent) {
    constexpr int width = 160;
    constexpr int height = 120;
    const cv::Mat_<float> texture = withoutMean(makeDoubleSizeTexture(width, height, 12, 1.5));
    const std::vector<cv::Point2f> truth = {{9.0f, 9.0f},  {0.4f, 0.0f}, {0.0f, 0.0f},
                                            {-1.3f, 0.6f}, {0.2f, 2.4f}, {-0.7f, -1.1f}};
    std::vector<cv::Mat_<float>> all;
    for (const cv::Point2f& shift : truth) {
        all.push_back(makeShiftedFrame(texture, shift));
    }
    // Six frames into five slots: the first one is dropped.
    SrFloatRegistration1 original(width, height, kFrames);
    for (const cv::Mat_<float>& frame : all) {
        original.prepareFrame(frame.ptr<float>());
    }
    SrFloatRegistration1 copy(original);
    SrFloatRegistration1 assigned(width, height, kFrames);
    assigned = original;
    const cv::Mat_<float> other = makeShiftedFrame(makeDoubleSizeTexture(width, height, 99), {});
    for (int k = 0; k < kFrames; ++k) {
        copy.prepareFrame(other.ptr<float>());
    }

    Burst fromOriginal(std::vector<cv::Mat_<float>>(all.begin() + 1, all.end()));
    Burst fromAssigned = fromOriginal;
    ASSERT_EQ(fromOriginal.registerOn(original, 1), 0);
    ASSERT_EQ(fromAssigned.registerOn(assigned, 1), 0);
    std::vector<cv::Point2f> originalShifts;
    std::vector<cv::Point2f> assignedShifts;
    original.getCompleteShifts(originalShifts);
    assigned.getCompleteShifts(assignedShifts);
    EXPECT_EQ(originalShifts, assignedShifts);
    EXPECT_EQ(fromOriginal.maskStore, fromAssigned.maskStore);
    for (int k = 0; k < kFrames; ++k) {
        EXPECT_NEAR(originalShifts[k].x, truth[k + 1].x, 0.05) << k;
        EXPECT_NEAR(originalShifts[k].y, truth[k + 1].y, 0.05) << k;
    }
}

TEST(SrFloatRegistration1, GaussRadiusSetsTheBlurOfBothImages) {
    constexpr int width = 40;
    constexpr int height = 30;
    SrFloatRegistration1 registration(width, height, 2);
    EXPECT_EQ(registration.getGaussRadius(), 5);
    ASSERT_EQ(registration.getGaussTable().size(), 6u);

    // The frequency-blurred reference is the zero-padded convolution with the taps.
    registration.setGaussRadius(2);
    const std::vector<float> taps = registration.getGaussTable();
    ASSERT_EQ(taps.size(), 3u);
    EXPECT_NEAR(taps[0] + 2.0f * (taps[1] + taps[2]), 1.0f, 1e-6f);
    const cv::Mat_<float> texture = makeShiftedFrame(makeDoubleSizeTexture(width, height, 2), {});
    Burst burst({texture, makeShiftedFrame(makeDoubleSizeTexture(width, height, 2), {0.3f, 0.0f})});
    burst.prepareAll(registration);
    ASSERT_EQ(burst.registerOn(registration, 0), 0);
    std::vector<float> symmetric = {taps[2], taps[1], taps[0], taps[1], taps[2]};
    const cv::Mat_<float> kernel(1, 5, symmetric.data());
    cv::Mat_<float> expected;
    cv::sepFilter2D(texture, expected, CV_32F, kernel, kernel, cv::Point(-1, -1), 0.0,
                    cv::BORDER_CONSTANT);
    const cv::Mat_<float> blurred(height, width,
                                  const_cast<float*>(registration.getBlurredReference().data()));
    EXPECT_LT(cv::norm(blurred, expected, cv::NORM_INF), 1e-3);

    // Radii that do not fit the frame are refused and change nothing.
    EXPECT_THROW(registration.setGaussRadius(15), std::invalid_argument);
    EXPECT_THROW(registration.setGaussRadius(-1), std::invalid_argument);
    EXPECT_EQ(registration.getGaussRadius(), 2);
    EXPECT_EQ(registration.getGaussTable(), taps);
    registration.setGaussRadius(0);
    EXPECT_EQ(registration.getGaussTable(), std::vector<float>{1.0f});
    EXPECT_THROW(SrFloatRegistration1(41, 30, 2), std::invalid_argument);
    EXPECT_THROW(SrFloatRegistration1(40, 10, 2), std::invalid_argument);
    EXPECT_THROW(SrFloatRegistration1(40, 30, 0), std::invalid_argument);
}

// Bad frames must never crash registration: non-finite values spread through the
// spectra and make the shift NaN, which the displacement test rejects; a flat frame
// has no structure to correlate or to take gradients of.
TEST(SrFloatRegistration1, BadFramesFailCleanly) {
    constexpr int width = 48;
    constexpr int height = 40;
    const cv::Mat_<float> frame = makeShiftedFrame(makeDoubleSizeTexture(width, height, 6), {});
    const std::vector<cv::Mat_<float>> still(3, frame);
    auto outcome = [&](Burst& burst, int referenceIndex) {
        SrFloatRegistration1 registration(width, height, 3);
        burst.prepareAll(registration);
        return burst.outcomeOn(registration, referenceIndex);
    };
    for (const float bad :
         {std::numeric_limits<float>::quiet_NaN(), std::numeric_limits<float>::infinity()}) {
        Burst onePixel(still);
        onePixel.frames[1] = frame.clone();
        onePixel.frames[1](20, 30) = bad;
        EXPECT_EQ(outcome(onePixel, 0), kTooLarge) << bad;
        Burst badReference(still);
        badReference.frames[0] = cv::Mat_<float>(height, width, bad);
        EXPECT_EQ(outcome(badReference, 0), kTooLarge) << bad;
    }
    Burst flatFrame(still);
    flatFrame.frames[2] = cv::Mat_<float>(height, width, 17.0f);
    const std::string result = outcome(flatFrame, 0);
    EXPECT_TRUE(result == "0" || result == kTooLarge) << result;
    Burst flatReference(still);
    flatReference.frames[0] = cv::Mat_<float>(height, width, 17.0f);
    EXPECT_EQ(outcome(flatReference, 0), kTooLarge);

    // Frames that were never prepared, and references outside the frames, are refused.
    Burst burst(still);
    SrFloatRegistration1 registration(width, height, 3);
    EXPECT_EQ(burst.registerOn(registration, 0), -9);
    registration.prepareFrame(frame.ptr<float>());
    registration.prepareFrame(frame.ptr<float>());
    EXPECT_EQ(burst.registerOn(registration, 0), -9);
    registration.prepareFrame(frame.ptr<float>());
    EXPECT_EQ(burst.registerOn(registration, -1), -9);
    EXPECT_EQ(burst.registerOn(registration, 3), -9);
    EXPECT_EQ(burst.registerOn(registration, 2), 0);
}

// Blurred frames are kept from pass to pass; they must be remade when the frames
// handed to a registration are not those prepared, or when the Gaussian changes:
// always the prepared spectrum blurred and repaired against the frame handed in.
TEST(SrFloatRegistration1, KeptBlursFollowTheFramesAndTheGaussian) {
    constexpr int width = 96;
    constexpr int height = 64;
    const cv::Mat_<float> texture = withoutMean(makeDoubleSizeTexture(width, height, 7, 1.5));
    std::vector<cv::Mat_<float>> prepared;
    std::vector<cv::Mat_<float>> handed;
    for (const cv::Point2f shift : {cv::Point2f(0.0f, 0.0f), cv::Point2f(1.3f, -0.6f)}) {
        prepared.push_back(makeShiftedFrame(texture, shift));
        handed.push_back(prepared.back() * 1.5f + 3.0f);
    }
    SrFloatFft2d fft(width, height);
    auto blurOf = [&](const cv::Mat_<float>& spectrumImage, const cv::Mat_<float>& frame,
                      int radius) {
        const float sigma = std::sqrt(3.0f * static_cast<float>(radius * radius) / 25.0f);
        const int length = (width / 2 + 1) * height;
        std::vector<float> gauss(2 * length), spectrum(2 * length), blurred(width * height);
        std::vector<float> taps(radius + 1);
        auto asPairs = [](std::vector<float>& v) {
            return reinterpret_cast<float(*)[2]>(v.data());
        };
        fft.gaussFft(radius, sigma, asPairs(gauss), taps.data());
        fft.forward(spectrumImage.ptr<float>(), asPairs(spectrum));
        multiplyByConjugate(asPairs(spectrum), asPairs(gauss), length, asPairs(spectrum));
        fft.backward(asPairs(spectrum), blurred.data());
        fft.repairGaussBlur(frame.ptr<float>(), blurred.data(), radius, taps.data());
        return blurred;
    };

    SrFloatRegistration1 registration(width, height, 2);
    Burst(prepared).prepareAll(registration);
    Burst(prepared).registerOn(registration, 0);
    EXPECT_EQ(registration.getBlurredFrame(), blurOf(prepared[1], prepared[1], 5));
    Burst(handed).registerOn(registration, 0);
    EXPECT_EQ(registration.getBlurredReference(), blurOf(prepared[0], handed[0], 5));
    EXPECT_EQ(registration.getBlurredFrame(), blurOf(prepared[1], handed[1], 5));
    registration.setGaussRadius(3);
    Burst(handed).registerOn(registration, 0);
    EXPECT_EQ(registration.getBlurredFrame(), blurOf(prepared[1], handed[1], 3));
}

}  // namespace
}  // namespace kelvo::vision
