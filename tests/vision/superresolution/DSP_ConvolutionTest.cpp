// SPDX-License-Identifier: Apache-2.0
#include "vision/superresolution/DSP_Convolution.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

namespace kelvo::vision {
namespace {

TEST(DSP_Convolution, ValidCorrelationDividesEveryProductTowardZeroAndStepsByTheFactor) {
    // Factor 3, one tap of 1: the samples full[3 r][3 c], the vertical step too.
    DSP_Convolution<int> sampler(6, 6, 1, 1, 3.0f);
    sampler.setFilterScale(1);
    std::vector<int> full(36);
    for (int i = 0; i < 36; ++i) {
        full[i] = i;
    }
    int one = 1;
    std::vector<int> samples(4, -7);
    sampler.validCorrToSparse(full.data(), &one, &one, samples.data());
    EXPECT_EQ(samples, (std::vector<int>{0, 3, 18, 21}));

    // Two taps of 3 with scale 2: each product divided on its own, truncated
    // toward zero: (-1 * 3) / 2 = -1 twice per pass, not -3 / 2 of the sum.
    DSP_Convolution<short> halver(2, 2, 2, 2, 2.0f);
    halver.setFilterScale(2);
    std::vector<short> minusOnes(9, -1);
    short taps[2] = {3, 3};
    short out = 0;
    halver.validCorrToSparse(minusOnes.data(), taps, taps, &out);
    // Horizontal: -1 + -1 = -2 per row; vertical: (-2 * 3) / 2 = -3, twice.
    EXPECT_EQ(out, -6);

    // 16-bit sums wrap around instead of saturating: 2 * (200 * 100) = 40000.
    DSP_Convolution<short> wrapper(2, 2, 2, 1, 2.0f);
    wrapper.setFilterScale(1);
    short bright[6] = {200, 200, 200, 200, 200, 200};
    short hundred[2] = {100, 100};
    short unit = 1;
    wrapper.validCorrToSparse(bright, hundred, &unit, &out);
    EXPECT_EQ(out, static_cast<short>(40000 - 65536));
}

TEST(DSP_Convolution, RowFilterWrapsInSixteenBitsForShortAndSaturatesForInt) {
    // Three rows of stride 4; the kernel picks (row 0, col 0), (row 1, col 1), (row 2, col 2).
    const short kernelShort[9] = {1, 0, 0, 0, 2, 0, 0, 0, 3};
    const short inShort[12] = {10, 20, 30, 40, 11, 21, 31, 41, 12, 22, 32, 42};
    short outShort[2];
    DSP_Convolution<short> small(4, 4, 1, 1, 2.0f);
    small.ImgConv3x3I16sC16s(inShort, outShort, 2, 4, kernelShort, 1);
    EXPECT_EQ(outShort[0], (10 + 2 * 21 + 3 * 32) >> 1);
    EXPECT_EQ(outShort[1], (20 + 2 * 31 + 3 * 42) >> 1);

    // 3 * 20000 = 60000 wraps to -5536 in 16 bits; the int filter saturates it.
    const short big[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 20000, 0};
    const short three[9] = {0, 0, 0, 0, 0, 0, 0, 0, 3};
    small.ImgConv3x3I16sC16s(big, outShort, 1, 4, three, 0);
    EXPECT_EQ(outShort[0], -5536);
    small.ImgConv3x3I16sC16s(big, outShort, 1, 4, three, 2);
    EXPECT_EQ(outShort[0], -5536 >> 2);

    DSP_Convolution<int> wide(4, 4, 1, 1, 2.0f);
    const int bigInt[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 20000, 0};
    const int threeInt[9] = {0, 0, 0, 0, 0, 0, 0, 0, 3};
    const int negativeThree[9] = {0, 0, 0, 0, 0, 0, 0, 0, -3};
    int outInt = 0;
    wide.ImgConv3x3I16sC16s(bigInt, &outInt, 1, 4, threeInt, 0);
    EXPECT_EQ(outInt, 32767);
    wide.ImgConv3x3I16sC16s(bigInt, &outInt, 1, 4, negativeThree, 0);
    EXPECT_EQ(outInt, -32768);
    wide.ImgConv3x3I16sC16s(bigInt, &outInt, 1, 4, threeInt, 1);
    EXPECT_EQ(outInt, 30000);
}

TEST(DSP_Convolution, PolyphaseConvolutionPrintsItsTapsAndPlacesSamplesOnTheFactorTwoGrid) {
    // 4 x 3 frame, 6-tap Q15 PSFs with a single tap: the sample (r, c) reaches only
    // the full-image pixel (2 r + i, 2 c + j) of the taps i, j, as for the float
    // operator; every phase is normalised to [0, 1], so that pixel holds 1.
    for (int tap : {2, 3}) {
        DSP_Convolution<int> conv(8, 6, 6, 6, 2.0f);
        std::vector<int> frame(12, 0);
        frame[1 * 4 + 2] = 32767;
        std::vector<char> mask(12, 1);
        std::vector<int> psf(6, 0);
        psf[tap] = 32767;
        std::vector<int> out(conv.getFullWidth() * conv.getFullHeight(), -5);
        testing::internal::CaptureStdout();
        conv.fullConvFromSparse(frame.data(), psf.data(), psf.data(), mask.data(), out.data());
        const std::string printed = testing::internal::GetCapturedStdout();
        for (int y = 0; y < conv.getFullHeight(); ++y) {
            for (int x = 0; x < conv.getFullWidth(); ++x) {
                const bool sample = y == 2 + tap && x == 4 + tap;
                EXPECT_EQ(out[y * conv.getFullWidth() + x], sample ? 1 : 0) << y << "," << x;
            }
        }
        const std::string first = "H0(0,0) :0\n cm: 4, rm: 4\n";
        EXPECT_EQ(printed.substr(0, first.size()), first);
        const int odd = tap % 2;
        const std::string centre = "H" + std::to_string(3 * odd) +
                                   "(1,1) :32766\n cm: " + std::to_string(tap) +
                                   ", rm: " + std::to_string(tap) + "\n";
        EXPECT_NE(printed.find(centre), std::string::npos) << printed;
        EXPECT_EQ(std::count(printed.begin(), printed.end(), '\n'), 72);
    }

    // A masked-out sample leaves nothing; the short form prints the same lines.
    DSP_Convolution<short> conv(8, 6, 6, 6, 2.0f);
    std::vector<short> frame(12, 1000);
    std::vector<char> mask(12, 0);
    std::vector<short> psf{0, 8000, 16000, 16000, 8000, 0};
    std::vector<short> out(conv.getFullWidth() * conv.getFullHeight(), -5);
    testing::internal::CaptureStdout();
    conv.fullConvFromSparse(frame.data(), psf.data(), psf.data(), mask.data(), out.data());
    const std::string printed = testing::internal::GetCapturedStdout();
    const std::string first = "H0(0,0) :1953\n cm: 4, rm: 4\nH0(0,1) :3906\n cm: 4, rm: 2\n";
    EXPECT_EQ(printed.substr(0, first.size()), first);
    EXPECT_NE(printed.find("H0(1,1) :7812\n cm: 2, rm: 2\n"), std::string::npos);
    EXPECT_EQ(std::count(out.begin(), out.end(), 0), static_cast<long>(out.size()));
}

}  // namespace
}  // namespace kelvo::vision
