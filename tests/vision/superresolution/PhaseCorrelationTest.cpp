// SPDX-License-Identifier: Apache-2.0
#include "vision/superresolution/PhaseCorrelation.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

namespace kelvo::vision {
namespace {

using Pairs = std::vector<float>;

float (*asPairs(Pairs& values))[2] {
    return reinterpret_cast<float(*)[2]>(values.data());
}

Pairs randomPairs(int length, std::mt19937& random) {
    std::normal_distribution<float> value(0.0f, 100.0f);
    Pairs pairs(2 * length);
    for (float& v : pairs) {
        v = value(random);
    }
    return pairs;
}

bool sameBits(const Pairs& a, const Pairs& b) {
    return a.size() == b.size() && std::memcmp(a.data(), b.data(), sizeof(float) * a.size()) == 0;
}

// The vectorised spectrum products against the formulas one coefficient at a time, at
// lengths that leave every kind of remainder after the vector loops.
TEST(PhaseCorrelation, SpectrumProductsMatchTheWrittenFormulasBitForBit) {
    std::mt19937 random(3);
    for (const int length : {1, 7, 16, 17, 33, 321 * 5 + 3}) {
        Pairs a = randomPairs(length, random);
        Pairs b = randomPairs(length, random);
        Pairs expectedProduct(2 * length);
        Pairs expectedCross(2 * length);
        for (int k = 0; k < length; ++k) {
            const float ar = a[2 * k], ai = a[2 * k + 1], br = b[2 * k], bi = b[2 * k + 1];
            expectedProduct[2 * k] = br * ar + bi * ai;
            expectedProduct[2 * k + 1] = ai * br - bi * ar;
            const float m = std::sqrt((br * br + bi * bi) * (ar * ar + ai * ai));
            expectedCross[2 * k] = (br * ar + bi * ai) / m;
            expectedCross[2 * k + 1] = (bi * ar - br * ai) / m;
        }
        Pairs product(2 * length);
        Pairs cross(2 * length);
        multiplyByConjugate(asPairs(a), asPairs(b), length, asPairs(product));
        crossPowerSpectrum(asPairs(a), asPairs(b), length, asPairs(cross));
        EXPECT_TRUE(sameBits(product, expectedProduct)) << length;
        EXPECT_TRUE(sameBits(cross, expectedCross)) << length;
    }
}

// The first strictly largest value wins (NaN never does), found block by block.
TEST(PhaseCorrelation, PeakIsTheFirstStrictMaximumWhereverItLies) {
    constexpr int width = 64;
    constexpr int height = 48;
    const float nan = std::numeric_limits<float>::quiet_NaN();
    std::vector<float> surface(width * height, 0.0f);
    auto peakAt = [&](std::initializer_list<std::pair<int, float>> values) {
        std::fill(surface.begin(), surface.end(), 0.0f);
        for (const auto& [index, value] : values) {
            surface[index] = value;
        }
        return correlationPeak(surface.data(), width, height);
    };
    EXPECT_EQ(peakAt({}), cv::Point(0, 0));
    EXPECT_EQ(peakAt({{5 * width + 3, 2.0f}}), cv::Point(3, 5));
    // Ties keep the earlier index, also across blocks; NaN is passed over.
    EXPECT_EQ(peakAt({{2 * width + 7, 2.0f}, {40 * width + 1, 2.0f}, {3, nan}}), cv::Point(7, 2));
    EXPECT_EQ(peakAt({{2 * width + 7, 2.0f}, {40 * width + 1, 2.5f}}), cv::Point(1, -8));
    // The last value of the surface, and a peak only above a value at index 0.
    EXPECT_EQ(peakAt({{width * height - 1, 1.0f}}), cv::Point(-1, -1));
    EXPECT_EQ(peakAt({{0, 3.0f}, {width + 1, 3.0f}}), cv::Point(0, 0));
    EXPECT_EQ(peakAt({{0, nan}, {width + 1, 3.0f}}), cv::Point(0, 0));
    // Exactly half the size stays positive.
    EXPECT_EQ(peakAt({{(height / 2) * width + width / 2, 1.0f}}), cv::Point(width / 2, height / 2));

    // Random surfaces against the plain scan.
    std::mt19937 random(5);
    std::normal_distribution<float> value(0.0f, 1.0f);
    for (int trial = 0; trial < 20; ++trial) {
        for (float& v : surface) {
            v = value(random);
        }
        int expected = 0;
        for (int i = 1; i < width * height; ++i) {
            if (surface[i] > surface[expected]) {
                expected = i;
            }
        }
        cv::Point peak = correlationPeak(surface.data(), width, height);
        EXPECT_EQ((peak.y + height) % height * width + (peak.x + width) % width, expected);
    }
}

}  // namespace
}  // namespace kelvo::vision
