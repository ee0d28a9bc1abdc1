// SPDX-License-Identifier: Apache-2.0
#include "vision/superresolution/fft/Fft1d.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <random>
#include <stdexcept>
#include <vector>

namespace kelvo::vision {
namespace {

using Complex = std::complex<double>;

std::vector<int> testedLengths() {
    std::vector<int> lengths;
    for (int n = 1; n <= 64; ++n) {
        lengths.push_back(n);
    }
    for (int n : {120, 160, 240, 288, 320, 384, 480, 512, 640,        768,    1024,          67,
                  97,  101, 127, 211, 77,  91,  143, 169, 2 * 7 * 11, 4 * 49, 3 * 5 * 7 * 11}) {
        lengths.push_back(n);
    }
    return lengths;
}

std::vector<float> randomValues(int count, unsigned seed) {
    std::mt19937 generator(seed);
    std::uniform_real_distribution<float> distribution(-1.0f, 1.0f);
    std::vector<float> values(count);
    for (float& value : values) {
        value = distribution(generator);
    }
    return values;
}

// sum_j x[j] exp(sign 2 pi i j k / n), in double.
std::vector<Complex> directTransform(const std::vector<Complex>& x, int sign) {
    const int n = static_cast<int>(x.size());
    std::vector<Complex> result(n);
    for (int k = 0; k < n; ++k) {
        Complex sum = 0.0;
        for (int j = 0; j < n; ++j) {
            const double angle = sign * 2.0 * M_PI * static_cast<double>((1LL * j * k) % n) / n;
            sum += x[j] * Complex(std::cos(angle), std::sin(angle));
        }
        result[k] = sum;
    }
    return result;
}

// Float rounding of an FFT: the error of each coefficient grows with log2(n) times the
// norm of the input. The general real pass of a prime factor p > 5 builds the powers of
// exp(2 pi i / p) by recurrence in float, which adds an error growing like p^2.
double tolerance(int n, double inputNorm, int recurrenceFactor = 0) {
    const double epsilon = 1.2e-7;
    const double p = recurrenceFactor > 5 ? recurrenceFactor : 0.0;
    return epsilon * (8.0 + 2.0 * std::log2(static_cast<double>(n)) + p * p / 6.0) * inputNorm;
}

int largestFactor(const int* factors) {
    int largest = 1;
    for (int i = 0; i < factors[1]; ++i) {
        largest = std::max(largest, factors[2 + i]);
    }
    return largest;
}

double norm(const std::vector<Complex>& values) {
    double sum = 0.0;
    for (const Complex& value : values) {
        sum += std::norm(value);
    }
    return std::sqrt(sum);
}

// Complex spectrum from the packed real layout.
std::vector<Complex> unpack(const std::vector<float>& packed) {
    const int n = static_cast<int>(packed.size());
    std::vector<Complex> spectrum(n);
    spectrum[0] = packed[0];
    for (int k = 1; 2 * k - 1 < n; ++k) {
        const double imaginary = 2 * k < n ? packed[2 * k] : 0.0;
        spectrum[k] = Complex(packed[2 * k - 1], imaginary);
        spectrum[n - k] = std::conj(spectrum[k]);
    }
    return spectrum;
}

TEST(Fft1d, FactorArraysFollowTheTrialOrder) {
    std::vector<float> tables(4 * 12);
    int factors[15] = {};
    rffti(8, tables.data(), factors);
    EXPECT_EQ(std::vector<int>(factors, factors + 4), (std::vector<int>{8, 2, 2, 4}));
    cffti(12, tables.data(), factors);
    EXPECT_EQ(std::vector<int>(factors, factors + 4), (std::vector<int>{12, 2, 3, 4}));
    rffti(12, tables.data(), factors);
    EXPECT_EQ(std::vector<int>(factors, factors + 4), (std::vector<int>{12, 2, 4, 3}));
    cffti(8, tables.data(), factors);
    EXPECT_EQ(std::vector<int>(factors, factors + 4), (std::vector<int>{8, 2, 2, 4}));
    rffti(7, tables.data(), factors);
    EXPECT_EQ(std::vector<int>(factors, factors + 3), (std::vector<int>{7, 1, 7}));
    rffti(1, tables.data(), factors);
    EXPECT_EQ(std::vector<int>(factors, factors + 2), (std::vector<int>{1, 0}));

    // 2 * 3^13 needs 14 factors; the length is rejected before the tables are touched.
    EXPECT_THROW(cffti(2 * 1594323, nullptr, factors), std::invalid_argument);
    EXPECT_THROW(rffti(0, tables.data(), factors), std::invalid_argument);
}

TEST(Fft1d, RealTransformsEqualTheDirectTransform) {
    for (int n : testedLengths()) {
        SCOPED_TRACE(n);
        std::vector<float> tables(2 * n);
        int factors[15];
        rffti(n, tables.data(), factors);

        const std::vector<float> input = randomValues(n, n);
        std::vector<float> data = input;
        rfftf(n, data.data(), tables.data(), factors);
        const std::vector<Complex> signal(input.begin(), input.end());
        const std::vector<Complex> expected = directTransform(signal, -1);
        const std::vector<Complex> actual = unpack(data);
        const int p = largestFactor(factors);
        const double bound = tolerance(n, norm(signal), p);
        for (int k = 0; k < n; ++k) {
            ASSERT_NEAR(actual[k].real(), expected[k].real(), bound) << "k " << k;
            ASSERT_NEAR(actual[k].imag(), expected[k].imag(), bound) << "k " << k;
        }

        // Backward of an arbitrary packed spectrum against the direct inverse.
        const std::vector<float> packed = randomValues(n, 1000 + n);
        data = packed;
        rfftb(n, data.data(), tables.data(), factors);
        const std::vector<Complex> spectrum = unpack(packed);
        const std::vector<Complex> inverse = directTransform(spectrum, +1);
        const double inverseBound = tolerance(n, norm(spectrum), p);
        for (int j = 0; j < n; ++j) {
            ASSERT_NEAR(data[j], inverse[j].real(), inverseBound) << "j " << j;
        }

        data = input;
        rfftf(n, data.data(), tables.data(), factors);
        rfftb(n, data.data(), tables.data(), factors);
        for (int j = 0; j < n; ++j) {
            ASSERT_NEAR(data[j], n * input[j], 2.0 * std::sqrt(n) * tolerance(n, norm(signal), p));
        }
    }
}

TEST(Fft1d, ComplexTransformsEqualTheDirectTransform) {
    for (int n : testedLengths()) {
        SCOPED_TRACE(n);
        std::vector<float> tables(4 * n);
        int factors[15];
        cffti(n, tables.data(), factors);

        const std::vector<float> input = randomValues(2 * n, 7 * n);
        std::vector<Complex> signal(n);
        for (int j = 0; j < n; ++j) {
            signal[j] = Complex(input[2 * j], input[2 * j + 1]);
        }
        const double bound = tolerance(n, norm(signal));
        for (int sign : {-1, +1}) {
            std::vector<float> data = input;
            if (sign < 0) {
                cfftf(n, data.data(), tables.data(), factors);
            } else {
                cfftb(n, data.data(), tables.data(), factors);
            }
            const std::vector<Complex> expected = directTransform(signal, sign);
            for (int k = 0; k < n; ++k) {
                ASSERT_NEAR(data[2 * k], expected[k].real(), bound) << "sign " << sign;
                ASSERT_NEAR(data[2 * k + 1], expected[k].imag(), bound) << "sign " << sign;
            }
        }

        std::vector<float> data = input;
        cfftf(n, data.data(), tables.data(), factors);
        cfftb(n, data.data(), tables.data(), factors);
        for (int j = 0; j < 2 * n; ++j) {
            ASSERT_NEAR(data[j], n * input[j], std::sqrt(n) * bound);
        }
    }
}

TEST(Fft1d, LaneTransformsMatchSingleTransformsBitForBit) {
    for (int n : testedLengths()) {
        SCOPED_TRACE(n);
        std::vector<float> realTables(2 * n);
        std::vector<float> complexTables(4 * n);
        int realFactors[15];
        int complexFactors[15];
        rffti(n, realTables.data(), realFactors);
        cffti(n, complexTables.data(), complexFactors);

        for (int transform = 0; transform < 4; ++transform) {
            const bool isComplex = transform >= 2;
            const int length = isComplex ? 2 * n : n;
            std::vector<std::vector<float>> singles(fftLaneCount);
            std::vector<FftLanes> lanes(length);
            std::vector<FftLanes> scratch(length);
            for (int lane = 0; lane < fftLaneCount; ++lane) {
                singles[lane] = randomValues(length, 100 * n + lane);
                for (int j = 0; j < length; ++j) {
                    lanes[j][lane] = singles[lane][j];
                }
            }
            for (int lane = 0; lane < fftLaneCount; ++lane) {
                float* data = singles[lane].data();
                switch (transform) {
                    case 0:
                        rfftf(n, data, realTables.data(), realFactors);
                        break;
                    case 1:
                        rfftb(n, data, realTables.data(), realFactors);
                        break;
                    case 2:
                        cfftf(n, data, complexTables.data(), complexFactors);
                        break;
                    default:
                        cfftb(n, data, complexTables.data(), complexFactors);
                        break;
                }
            }
            const FftLanes* result = nullptr;
            switch (transform) {
                case 0:
                    result = rfftfLanes(n, lanes.data(), scratch.data(), realTables.data() + n,
                                        realFactors);
                    break;
                case 1:
                    result = rfftbLanes(n, lanes.data(), scratch.data(), realTables.data() + n,
                                        realFactors);
                    break;
                case 2:
                    result = cfftfLanes(n, lanes.data(), scratch.data(),
                                        complexTables.data() + 2 * n, complexFactors);
                    break;
                default:
                    result = cfftbLanes(n, lanes.data(), scratch.data(),
                                        complexTables.data() + 2 * n, complexFactors);
                    break;
            }
            ASSERT_TRUE(result == lanes.data() || result == scratch.data());
            for (int lane = 0; lane < fftLaneCount; ++lane) {
                for (int j = 0; j < length; ++j) {
                    ASSERT_EQ(result[j][lane], singles[lane][j])
                        << "transform " << transform << " lane " << lane << " j " << j;
                }
            }
        }
    }
}

TEST(Fft1d, LengthOneLeavesTheDataUnchanged) {
    float realTables[2];
    float complexTables[4];
    int factors[15];
    rffti(1, realTables, factors);
    float value = 3.5f;
    rfftf(1, &value, realTables, factors);
    rfftb(1, &value, realTables, factors);
    EXPECT_EQ(value, 3.5f);
    cffti(1, complexTables, factors);
    float pair[2] = {1.25f, -2.0f};
    cfftf(1, pair, complexTables, factors);
    cfftb(1, pair, complexTables, factors);
    EXPECT_EQ(pair[0], 1.25f);
    EXPECT_EQ(pair[1], -2.0f);
}

}  // namespace
}  // namespace kelvo::vision
