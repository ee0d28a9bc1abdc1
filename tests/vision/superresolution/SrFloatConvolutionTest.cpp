// SPDX-License-Identifier: Apache-2.0
#include "vision/superresolution/SrFloatConvolution.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <vector>

#include "tests/vision/superresolution/PlainReconstruction.h"

namespace kelvo::vision {
namespace {

struct Problem {
    plain::SparseGeometry geometry;
    std::vector<float> full;
    std::vector<float> lowRes;
    std::vector<char> mask;
    std::vector<float> psfX;
    std::vector<float> psfY;
};

// Random operands for a frame of lrWidth x lrHeight; the mask holds 0 and 1 and, when
// `anyMask` is set, also the multipliers 2 and -1.
Problem randomProblem(int lrWidth, int lrHeight, float factor, int taps, bool anyMask,
                      unsigned seed) {
    std::mt19937 random(seed);
    std::uniform_real_distribution<float> value(-2.0f, 3.0f);
    Problem p{{static_cast<int>(static_cast<float>(lrWidth) * factor),
               static_cast<int>(static_cast<float>(lrHeight) * factor), taps, taps, factor},
              {},
              {},
              {},
              {},
              {}};
    p.full.resize(p.geometry.fullWidth() * p.geometry.fullHeight());
    // The operators derive the frame size back from the high-resolution one, which
    // for a fractional factor can be smaller than the frame size we started from.
    const int frameSize = p.geometry.lrWidth() * p.geometry.lrHeight();
    p.lowRes.resize(frameSize);
    p.mask.resize(frameSize);
    p.psfX.resize(taps);
    p.psfY.resize(taps);
    for (float& v : p.full) {
        v = value(random);
    }
    for (float& v : p.lowRes) {
        v = value(random);
    }
    // char is unsigned on ARM: -1 is written as its byte 0xFF, which the operators read as signed.
    const char choices[] = {0, 1, 1, 1, 2, static_cast<char>(-1)};
    for (char& m : p.mask) {
        m = choices[random() % (anyMask ? 6 : 4)];
    }
    for (int j = 0; j < taps; ++j) {
        p.psfX[j] = value(random);
        p.psfY[j] = value(random);
    }
    return p;
}

TEST(SrFloatConvolution, OperatorsMatchPlainLoopsBitForBit) {
    struct Case {
        int lrWidth;
        int lrHeight;
        float factor;
        int taps;
    };
    const Case cases[] = {{24, 20, 2.0f, 6}, {13, 7, 2.0f, 6},  {1, 1, 2.0f, 6},  {17, 9, 3.0f, 9},
                          {8, 5, 3.0f, 9},   {11, 6, 2.5f, 7},  {9, 4, 2.0f, 1},  {10, 3, 2.0f, 3},
                          {5, 12, 3.0f, 2},  {31, 17, 2.0f, 6}, {7, 11, 4.0f, 12}};
    unsigned seed = 1;
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.lrWidth << "x" << c.lrHeight << " factor " << c.factor
                                        << " taps " << c.taps);
        Problem p = randomProblem(c.lrWidth, c.lrHeight, c.factor, c.taps, true, ++seed);
        const plain::SparseGeometry& g = p.geometry;
        SrFloatConvolution convolution(g.hrWidth, g.hrHeight, g.kernelWidth, g.kernelHeight,
                                       g.factor);
        ASSERT_EQ(convolution.getFullWidth(), g.fullWidth());
        ASSERT_EQ(convolution.getFullHeight(), g.fullHeight());
        const size_t fullBytes = p.full.size() * sizeof(float);
        const size_t lowResBytes = p.lowRes.size() * sizeof(float);

        std::vector<float> expected(p.full.size());
        std::vector<float> actual(p.full.size(), 7.0f);
        plain::fullConvFromSparse(g, p.lowRes.data(), p.psfX.data(), p.psfY.data(), p.mask.data(),
                                  expected.data());
        convolution.fullConvFromSparse(p.lowRes.data(), p.psfX.data(), p.psfY.data(), p.mask.data(),
                                       actual.data());
        EXPECT_EQ(std::memcmp(expected.data(), actual.data(), fullBytes), 0);

        std::vector<float> expectedLow(p.lowRes.size());
        std::vector<float> actualLow(p.lowRes.size(), 7.0f);
        plain::validCorrToSparse(g, p.full.data(), p.psfX.data(), p.psfY.data(),
                                 expectedLow.data());
        convolution.validCorrToSparse(p.full.data(), p.psfX.data(), p.psfY.data(),
                                      actualLow.data());
        EXPECT_EQ(std::memcmp(expectedLow.data(), actualLow.data(), lowResBytes), 0);
    }
}

// Several frames in one sweep, band by band: each element gets the one-frame sums,
// the frames added in their order to what the buffer held.
TEST(SrFloatConvolution, SeveralFramesInBandsMatchOneFrameAtATime) {
    struct Case {
        int lrWidth;
        int lrHeight;
        float factor;
        int taps;
    };
    // The tiny frames leave room in the scratch rows for only two frames at a time; seven
    // frames run five at once and then two one by one where there is room.
    const Case cases[] = {{24, 20, 2.0f, 6}, {13, 9, 2.0f, 6}, {10, 7, 3.0f, 9},
                          {9, 5, 2.0f, 3},   {1, 1, 2.0f, 6},  {2, 1, 2.0f, 6}};
    unsigned seed = 40;
    for (const int frames : {4, 7})
        for (const Case& c : cases) {
            SCOPED_TRACE(testing::Message() << c.lrWidth << "x" << c.lrHeight << " factor "
                                            << c.factor << ", " << frames << " frames");
            std::vector<Problem> problems;
            for (int k = 0; k < frames; ++k) {
                problems.push_back(
                    randomProblem(c.lrWidth, c.lrHeight, c.factor, c.taps, true, ++seed));
            }
            const plain::SparseGeometry& g = problems[0].geometry;
            const std::vector<float>& full = problems[0].full;
            std::vector<const float*> lowRes;
            std::vector<const float*> psfX;
            std::vector<const float*> psfY;
            std::vector<const char*> masks;
            std::vector<std::vector<float>> lowResOut(
                frames, std::vector<float>(problems[0].lowRes.size()));
            std::vector<float*> lowResTable;
            for (int k = 0; k < frames; ++k) {
                lowRes.push_back(problems[k].lowRes.data());
                psfX.push_back(problems[k].psfX.data());
                psfY.push_back(problems[k].psfY.data());
                masks.push_back(problems[k].mask.data());
                lowResTable.push_back(lowResOut[k].data());
            }
            SrFloatConvolution convolution(g.hrWidth, g.hrHeight, g.kernelWidth, g.kernelHeight,
                                           g.factor);
            const int h = g.lrHeight();
            const int bands[] = {0, 1, h / 2, h / 2, h};
            for (int b = 0; b + 1 < 5; ++b) {
                convolution.validCorrToSparse(frames, full.data(), psfX.data(), psfY.data(),
                                              lowResTable.data(), bands[b], bands[b + 1]);
            }
            std::vector<float> accumulated = problems[1].full;
            std::vector<float> expected = accumulated;
            const int fullHeight = g.fullHeight();
            const int fullBands[] = {0, 3, 4, fullHeight / 2 + 1, fullHeight};
            for (int b = 0; b + 1 < 5; ++b) {
                convolution.accumulateFullConvFromSparse(
                    frames, lowRes.data(), psfX.data(), psfY.data(), masks.data(),
                    accumulated.data(), fullBands[b], fullBands[b + 1]);
            }
            std::vector<float> single(expected.size());
            std::vector<float> singleLow(lowResOut[0].size());
            for (int k = 0; k < frames; ++k) {
                plain::validCorrToSparse(g, full.data(), psfX[k], psfY[k], singleLow.data());
                EXPECT_EQ(std::memcmp(singleLow.data(), lowResOut[k].data(),
                                      singleLow.size() * sizeof(float)),
                          0);
                plain::fullConvFromSparse(g, lowRes[k], psfX[k], psfY[k], masks[k], single.data());
                for (size_t i = 0; i < expected.size(); ++i) {
                    expected[i] += single[i];
                }
            }
            EXPECT_EQ(
                std::memcmp(expected.data(), accumulated.data(), expected.size() * sizeof(float)),
                0);

            // Samples masked as they are produced go into the adjoint as they are: the
            // solver's product of the two sweeps, exactly.
            for (int b = 0; b + 1 < 5; ++b) {
                convolution.validCorrToSparse(frames, full.data(), psfX.data(), psfY.data(),
                                              lowResTable.data(), bands[b], bands[b + 1],
                                              masks.data());
            }
            const std::vector<const float*> sampled(lowResTable.begin(), lowResTable.end());
            std::vector<float> product = problems[1].full;
            for (int b = 0; b + 1 < 5; ++b) {
                convolution.accumulateFullConvFromSparse(frames, sampled.data(), psfX.data(),
                                                         psfY.data(), nullptr, product.data(),
                                                         fullBands[b], fullBands[b + 1]);
            }
            std::vector<float> expectedProduct = problems[1].full;
            for (int k = 0; k < frames; ++k) {
                plain::validCorrToSparse(g, full.data(), psfX[k], psfY[k], singleLow.data());
                for (size_t i = 0; i < singleLow.size(); ++i) {
                    ASSERT_EQ(
                        lowResOut[k][i],
                        static_cast<float>(static_cast<signed char>(masks[k][i])) * singleLow[i]);
                }
                plain::fullConvFromSparse(g, singleLow.data(), psfX[k], psfY[k], masks[k],
                                          single.data());
                for (size_t i = 0; i < expectedProduct.size(); ++i) {
                    expectedProduct[i] += single[i];
                }
            }
            EXPECT_EQ(
                std::memcmp(expectedProduct.data(), product.data(), product.size() * sizeof(float)),
                0);
        }
}

TEST(SrFloatConvolution, CorrelationIsTheAdjointOfTheMaskedConvolution) {
    for (float factor : {2.0f, 3.0f}) {
        SCOPED_TRACE(factor);
        const int taps = static_cast<int>(factor * 3.0f);
        Problem p = randomProblem(23, 18, factor, taps, false, 99);
        const plain::SparseGeometry& g = p.geometry;
        SrFloatConvolution convolution(g.hrWidth, g.hrHeight, taps, taps, factor);
        std::vector<float> forward(p.lowRes.size());
        std::vector<float> adjoint(p.full.size());
        convolution.validCorrToSparse(p.full.data(), p.psfX.data(), p.psfY.data(), forward.data());
        convolution.fullConvFromSparse(p.lowRes.data(), p.psfX.data(), p.psfY.data(), p.mask.data(),
                                       adjoint.data());
        // <H x, m y> = <x, H^T (m y)>
        double left = 0.0;
        double scale = 0.0;
        for (size_t i = 0; i < forward.size(); ++i) {
            const double term = static_cast<double>(forward[i]) * p.mask[i] * p.lowRes[i];
            left += term;
            scale += std::fabs(term);
        }
        double right = 0.0;
        for (size_t i = 0; i < adjoint.size(); ++i) {
            right += static_cast<double>(p.full[i]) * adjoint[i];
        }
        EXPECT_NEAR(left, right, 1e-5 * scale);
    }
}

TEST(SrFloatConvolution, UnitKernelSamplesAndPlacesPixels) {
    for (float factor : {2.0f, 3.0f}) {
        SCOPED_TRACE(factor);
        const int step = static_cast<int>(factor);
        Problem p = randomProblem(7, 5, factor, 1, true, 5);
        const plain::SparseGeometry& g = p.geometry;
        const int w = g.lrWidth();
        const int h = g.lrHeight();
        float one = 1.0f;
        SrFloatConvolution convolution(g.hrWidth, g.hrHeight, 1, 1, factor);

        std::vector<float> sampled(w * h);
        convolution.validCorrToSparse(p.full.data(), &one, &one, sampled.data());
        for (int r = 0; r < h; ++r) {
            for (int c = 0; c < w; ++c) {
                EXPECT_EQ(sampled[r * w + c], p.full[2 * r * g.fullWidth() + step * c]);
            }
        }

        // The mask multiplies: 0 drops the pixel, 2 doubles it, -1 negates it.
        std::vector<float> placed(p.full.size());
        convolution.fullConvFromSparse(p.lowRes.data(), &one, &one, p.mask.data(), placed.data());
        std::vector<float> expected(p.full.size(), 0.0f);
        for (int r = 0; r < h; ++r) {
            for (int c = 0; c < w; ++c) {
                expected[2 * r * g.fullWidth() + step * c] =
                    plain::maskValue(p.mask[r * w + c]) * p.lowRes[r * w + c];
            }
        }
        EXPECT_EQ(placed, expected);

        std::fill(p.mask.begin(), p.mask.end(), 0);
        convolution.fullConvFromSparse(p.lowRes.data(), &one, &one, p.mask.data(), placed.data());
        EXPECT_EQ(placed, std::vector<float>(p.full.size(), 0.0f));
    }
}

TEST(SrFloatConvolution, MaskBytesScaleTheContribution) {
    Problem p = randomProblem(9, 8, 2.0f, 6, false, 11);
    const plain::SparseGeometry& g = p.geometry;
    SrFloatConvolution convolution(g.hrWidth, g.hrHeight, 6, 6, 2.0f);
    std::fill(p.mask.begin(), p.mask.end(), 1);
    std::vector<float> single(p.full.size());
    std::vector<float> scaled(p.full.size());
    convolution.fullConvFromSparse(p.lowRes.data(), p.psfX.data(), p.psfY.data(), p.mask.data(),
                                   single.data());
    std::fill(p.mask.begin(), p.mask.end(), 2);
    convolution.fullConvFromSparse(p.lowRes.data(), p.psfX.data(), p.psfY.data(), p.mask.data(),
                                   scaled.data());
    for (size_t i = 0; i < single.size(); ++i) {
        EXPECT_EQ(scaled[i], 2.0f * single[i]);
    }
    std::fill(p.mask.begin(), p.mask.end(), static_cast<char>(0xFF));
    convolution.fullConvFromSparse(p.lowRes.data(), p.psfX.data(), p.psfY.data(), p.mask.data(),
                                   scaled.data());
    for (size_t i = 0; i < single.size(); ++i) {
        EXPECT_EQ(scaled[i], -single[i]);
    }
}

}  // namespace
}  // namespace kelvo::vision
