// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#include <sstream>

#include "platform/kelvo/Exception.h"
#include "vision/superresolution/SrFloatConvolution.h"
#include "vision/superresolution/SrFloatMinimization.h"
#include "vision/superresolution/fft/SrFloatFft2d.h"
#include "vision/superresolution/reference/SuperResolutionConvolution.h"
#include "vision/superresolution/reference/SuperResolutionFft2d.h"
#include "vision/superresolution/reference/SuperResolutionMinimization.h"
#include "vision/superresolution/reference/SuperResolutionRegistration.h"

namespace kelvo::vision {
namespace {

cv::Mat_<float> randomImage(int rows, int cols, uint64 seed, float low = -1.0f, float high = 1.0f) {
    cv::Mat_<float> image(rows, cols);
    cv::RNG(seed).fill(image, cv::RNG::UNIFORM, low, high);
    return image;
}

float* data(cv::Mat_<float>& m) {
    return m.ptr<float>();
}

TEST(SuperResolutionConvolution, MatchesTheFloatOperatorsAtFactorTwoAndStaysAdjoint) {
    // 10 x 8 frames, PSF of 6 taps.
    float psfX[6] = {0.0f, 0.1f, 0.4f, 0.3f, 0.2f, 0.0f};
    float psfY[6] = {0.05f, 0.15f, 0.3f, 0.3f, 0.15f, 0.05f};
    cv::Mat_<char> mask(8, 10);
    cv::RNG(3).fill(mask, cv::RNG::UNIFORM, 0, 2);
    {
        SrFloatConvolution plain(20, 16, 6, 6, 2.0f);
        SuperResolutionConvolution reference(20, 16, 6, 6, 2.0f);
        cv::Mat_<float> frame = randomImage(8, 10, 1);
        cv::Mat_<float> full = randomImage(21, 25, 2);
        cv::Mat_<float> a(21, 25), b(21, 25), lowA(8, 10), lowB(8, 10);
        plain.fullConvFromSparse(data(frame), psfX, psfY, mask.ptr<char>(), data(a));
        reference.fullConvFromSparse(data(frame), psfX, psfY, mask.ptr<char>(), data(b));
        EXPECT_EQ(std::memcmp(a.data, b.data, a.total() * sizeof(float)), 0);
        plain.validCorrToSparse(data(full), psfX, psfY, data(lowA));
        reference.validCorrToSparse(data(full), psfX, psfY, data(lowB));
        EXPECT_EQ(std::memcmp(lowA.data, lowB.data, lowA.total() * sizeof(float)), 0);
    }
    // Factor 3 steps three rows per frame row: <H x, m y> = <x, H^T m y>.
    float psf9[9] = {0.0f, 0.05f, 0.1f, 0.2f, 0.3f, 0.2f, 0.1f, 0.05f, 0.0f};
    SuperResolutionConvolution factor3(30, 24, 9, 9, 3.0f);
    cv::Mat_<float> x = randomImage(32, 38, 4);
    cv::Mat_<float> y = randomImage(8, 10, 5);
    cv::Mat_<float> hx(8, 10), hty(32, 38);
    factor3.validCorrToSparse(data(x), psf9, psf9, data(hx));
    factor3.fullConvFromSparse(data(y), psf9, psf9, mask.ptr<char>(), data(hty));
    cv::Mat_<float> masked;
    cv::Mat_<float> maskFloat;
    mask.convertTo(maskFloat, CV_32F);
    cv::multiply(y, maskFloat, masked);
    EXPECT_NEAR(hx.dot(masked), x.dot(hty), 1e-4 * std::abs(x.dot(hty)) + 1e-4);
    // Only frame row 0 reaches full row 0 through tap 0; frame row 1 starts 3 rows down.
    cv::Mat_<float> single(8, 10, 0.0f);
    single(1, 0) = 1.0f;
    cv::Mat_<char> ones(8, 10, char(1));
    factor3.fullConvFromSparse(data(single), psf9, psf9, ones.ptr<char>(), data(hty));
    EXPECT_EQ(hty(3 + 4, 4), 0.3f * 0.3f);
    EXPECT_EQ(hty(2 + 4, 4), 0.2f * 0.3f);
}

TEST(SuperResolutionConvolution, SameConvOnesIsTheClippedMeanFilter) {
    SuperResolutionConvolution convolution(23, 17, 1, 1, 2.0f);
    cv::Mat_<float> in = randomImage(17, 23, 6, 0.0f, 100.0f);
    cv::Mat_<float> expected;
    SrFloatConvolution::blurImageMeanFilter(in, 3, expected);
    cv::Mat_<float> out(17, 23);
    convolution.sameConvOnes(data(in), 3, data(out));
    EXPECT_EQ(cv::norm(out, expected, cv::NORM_INF), 0.0);
    // The corner window holds 4 x 4 pixels.
    EXPECT_NEAR(out(0, 0), cv::mean(in(cv::Rect(0, 0, 4, 4)))[0], 1e-3);
}

TEST(SuperResolutionMinimization, AgreesWithTheFloatReconstructionUpToFloatSums) {
    const int w = 24;
    const int h = 20;
    std::vector<cv::Mat_<float>> frames;
    std::vector<cv::Mat_<char>> masks;
    for (int k = 0; k < 3; ++k) {
        frames.push_back(randomImage(h, w, 10 + k, 100.0f, 140.0f));
        masks.emplace_back(h, w, char(1));
    }
    masks[2](5, 5) = 0;
    auto run = [&](auto& minimization, auto* shifts, cv::Mat_<float>& result) {
        std::vector<cv::Mat_<float>> copies;
        std::vector<float*> framePointers;
        std::vector<char*> maskPointers;
        for (int k = 0; k < 3; ++k) {
            copies.push_back(frames[k].clone());
            framePointers.push_back(data(copies[k]));
            maskPointers.push_back(masks[k].ptr<char>());
        }
        result.create(2 * h, 2 * w);
        return minimization.minimize(3, 1, framePointers.data(), shifts, maskPointers.data(),
                                     data(result));
    };
    SrFloatMinimization plain(w, h, 3, 2.0f);
    SuperResolutionMinimization reference(w, h, 3, 2.0f);
    cv::Point_<float> plainShifts[3] = {{0.2f, -0.3f}, {0.0f, 0.0f}, {-0.45f, 0.1f}};
    PointF referenceShifts[3] = {{0.2f, -0.3f}, {0.0f, 0.0f}, {-0.45f, 0.1f}};
    cv::Mat_<float> a, b;
    const int plainIterations = run(plain, plainShifts, a);
    const int referenceIterations = run(reference, referenceShifts, b);
    EXPECT_NEAR(referenceIterations, plainIterations, 1);
    EXPECT_LT(cv::norm(a, b, cv::NORM_INF), 0.02);
    EXPECT_GT(cv::norm(a, b, cv::NORM_INF), 0.0);

    // The estimate is de-normalised in place, margins included; the result is its crop.
    const float* estimate = reference.getEstimate();
    const int fullWidth = reference.getFullWidth();
    EXPECT_EQ(b(0, 0), estimate[2 * fullWidth + 2]);
    EXPECT_EQ(b(7, 9), estimate[9 * fullWidth + 11]);
    const float mean = static_cast<float>(cv::mean(frames[1])[0]);
    EXPECT_NEAR(estimate[0], mean, 20.0f);
    EXPECT_NEAR(estimate[reference.getFullHeight() * fullWidth - 1], mean, 20.0f);
}

TEST(SuperResolutionFft2d, PrintsTheTapsOfTheFloatGaussianSpectrum) {
    SrFloatFft2d plain(16, 12);
    SuperResolutionFft2d reference(16, 12);
    std::vector<float> plainSpectrum(2 * 9 * 12), referenceSpectrum(2 * 9 * 12);
    float plainTaps[3], referenceTaps[3];
    plain.gaussFft(2, 0.8f, reinterpret_cast<float(*)[2]>(plainSpectrum.data()), plainTaps);
    testing::internal::CaptureStdout();
    reference.gaussFft(2, 0.8f, reinterpret_cast<float(*)[2]>(referenceSpectrum.data()),
                       referenceTaps);
    const std::string printed = testing::internal::GetCapturedStdout();
    EXPECT_EQ(plainSpectrum, referenceSpectrum);
    std::ostringstream expected;
    for (float tap : plainTaps) {
        expected << tap << '\n';
    }
    EXPECT_EQ(printed, expected.str());
    EXPECT_EQ(std::count(printed.begin(), printed.end(), '\n'), 3);
}

struct RegistrationCall {
    std::vector<cv::Mat_<float>> frames;
    std::vector<std::vector<float>> spectra;
    std::vector<PointF> shifts;
    std::vector<std::vector<char>> masks;
    std::vector<std::vector<float>> shifted;

    int run(SuperResolutionRegistration& registration, int reference) {
        const int n = static_cast<int>(frames.size());
        const int pixels = static_cast<int>(frames[0].total());
        spectra.assign(n, std::vector<float>(2 * (frames[0].cols / 2 + 1) * frames[0].rows));
        shifts.assign(n, PointF{9.0f, 9.0f});
        masks.assign(n, std::vector<char>(pixels, 7));
        shifted.assign(n, std::vector<float>(pixels, -1.0f));
        std::vector<const float*> framePointers;
        std::vector<float(*)[2]> spectrumPointers;
        std::vector<char*> maskPointers;
        std::vector<float*> shiftedPointers;
        for (int k = 0; k < n; ++k) {
            framePointers.push_back(frames[k].ptr<float>());
            spectrumPointers.push_back(reinterpret_cast<float(*)[2]>(spectra[k].data()));
            registration.getFft().forward(framePointers[k], spectrumPointers[k]);
            maskPointers.push_back(masks[k].data());
            shiftedPointers.push_back(shifted[k].data());
        }
        return registration.doRegistration(n, reference, framePointers.data(),
                                           spectrumPointers.data(), shifts.data(),
                                           maskPointers.data(), shiftedPointers.data());
    }
};

TEST(SuperResolutionRegistration, IdenticalFramesAndTooLargeDisplacements) {
    testing::internal::CaptureStdout();
    SuperResolutionRegistration registration(32, 24, 2.0f, 3);
    const std::string taps = testing::internal::GetCapturedStdout();
    EXPECT_EQ(std::count(taps.begin(), taps.end(), '\n'), 4);

    RegistrationCall call;
    const cv::Mat_<float> scene = randomImage(24, 32, 7, 0.0f, 100.0f);
    cv::GaussianBlur(scene, call.frames.emplace_back(), cv::Size(0, 0), 2.0);
    call.frames.push_back(call.frames[0].clone());
    EXPECT_EQ(call.run(registration, 0), 0);
    EXPECT_EQ(call.shifts[1].x, 0.0f);
    EXPECT_EQ(call.shifts[1].y, 0.0f);
    EXPECT_EQ(std::count(call.masks[1].begin(), call.masks[1].end(), 1), 32 * 24);

    // A frame rolled by 14 columns: beyond half the height of 24, which bounds both
    // components.
    cv::Mat_<float> moved;
    cv::warpAffine(call.frames[0], moved, cv::Matx23d(1, 0, 14, 0, 1, 0), scene.size(),
                   cv::INTER_LINEAR, cv::BORDER_WRAP);
    call.frames[1] = call.frames[0].clone();
    call.frames[0] = moved;
    try {
        call.run(registration, 1);
        ADD_FAILURE() << "no exception";
    } catch (const kelvo::Exception& e) {
        EXPECT_EQ(e.message(), "Too large displacement");
        EXPECT_EQ(e.location(),
                  "vision/superresolution/reference/SuperResolutionRegistration: 91: "
                  "kelvo::vision::SuperResolutionRegistration::doRegistration(..)\n");
    }
    EXPECT_EQ(call.run(registration, 2), -9);
    // A copy registers on buffers of its own.
    SuperResolutionRegistration copy = registration;
    call.frames[0] = call.frames[1].clone();
    EXPECT_EQ(call.run(copy, 1), 0);
    EXPECT_EQ(call.shifts[0].x, 0.0f);
}

}  // namespace
}  // namespace kelvo::vision
