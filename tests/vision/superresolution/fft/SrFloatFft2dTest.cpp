// SPDX-License-Identifier: Apache-2.0
#include "vision/superresolution/fft/SrFloatFft2d.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <random>
#include <stdexcept>
#include <vector>

#include "vision/superresolution/fft/Fft1d.h"

namespace kelvo::vision {
namespace {

using Spectrum = std::vector<float>;  // pairs (re, im), height x (width / 2 + 1)

float (*pairs(Spectrum& spectrum))[2] {
    return reinterpret_cast<float(*)[2]>(spectrum.data());
}

std::vector<float> randomImage(int width, int height, unsigned seed) {
    std::mt19937 generator(seed);
    std::uniform_real_distribution<float> distribution(0.0f, 100.0f);
    std::vector<float> image(width * height);
    for (float& value : image) {
        value = distribution(generator);
    }
    return image;
}

// The two-dimensional transform done one row and one column at a time.
Spectrum plainForward(const std::vector<float>& image, int width, int height) {
    const int columns = width / 2 + 1;
    std::vector<float> rowTables(2 * width), colTables(4 * height);
    int rowFactors[15], colFactors[15];
    rffti(width, rowTables.data(), rowFactors);
    cffti(height, colTables.data(), colFactors);
    Spectrum spectrum(2 * columns * height);
    std::vector<float> row(width), column(2 * height);
    for (int y = 0; y < height; ++y) {
        std::copy(image.begin() + y * width, image.begin() + (y + 1) * width, row.begin());
        rfftf(width, row.data(), rowTables.data(), rowFactors);
        float* out = spectrum.data() + 2 * columns * y;
        out[0] = row[0];
        for (int k = 1; k < width / 2; ++k) {
            out[2 * k] = row[2 * k - 1];
            out[2 * k + 1] = row[2 * k];
        }
        out[2 * (width / 2)] = row[width - 1];
    }
    for (int k = 0; k < columns; ++k) {
        for (int y = 0; y < height; ++y) {
            column[2 * y] = spectrum[2 * (columns * y + k)];
            column[2 * y + 1] = spectrum[2 * (columns * y + k) + 1];
        }
        cfftf(height, column.data(), colTables.data(), colFactors);
        for (int y = 0; y < height; ++y) {
            spectrum[2 * (columns * y + k)] = column[2 * y];
            spectrum[2 * (columns * y + k) + 1] = column[2 * y + 1];
        }
    }
    return spectrum;
}

std::vector<float> plainBackward(const Spectrum& spectrum, int width, int height) {
    const int columns = width / 2 + 1;
    std::vector<float> rowTables(2 * width), colTables(4 * height);
    int rowFactors[15], colFactors[15];
    rffti(width, rowTables.data(), rowFactors);
    cffti(height, colTables.data(), colFactors);
    std::vector<float> image(width * height);
    std::vector<float> column(2 * height);
    for (int k = 0; k < columns; ++k) {
        for (int y = 0; y < height; ++y) {
            column[2 * y] = spectrum[2 * (columns * y + k)];
            column[2 * y + 1] = spectrum[2 * (columns * y + k) + 1];
        }
        cfftb(height, column.data(), colTables.data(), colFactors);
        for (int y = 0; y < height; ++y) {
            if (k == 0) {
                image[y * width] = column[2 * y];
            } else if (k == width / 2) {
                image[y * width + width - 1] = column[2 * y];
            } else {
                image[y * width + 2 * k - 1] = column[2 * y];
                image[y * width + 2 * k] = column[2 * y + 1];
            }
        }
    }
    for (int y = 0; y < height; ++y) {
        rfftb(width, image.data() + y * width, rowTables.data(), rowFactors);
    }
    return image;
}

// Zero-padded linear convolution with k[|dx|] k[|dy|], in double.
std::vector<double> directBlur(const std::vector<float>& image, int width, int height,
                               const std::vector<float>& kernel) {
    const int radius = static_cast<int>(kernel.size()) - 1;
    std::vector<double> result(width * height, 0.0);
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            double sum = 0.0;
            for (int dy = -radius; dy <= radius; ++dy) {
                for (int dx = -radius; dx <= radius; ++dx) {
                    const int sy = y + dy;
                    const int sx = x + dx;
                    if (sy >= 0 && sy < height && sx >= 0 && sx < width) {
                        sum += static_cast<double>(kernel[std::abs(dx)]) * kernel[std::abs(dy)] *
                               image[sy * width + sx];
                    }
                }
            }
            result[y * width + x] = sum;
        }
    }
    return result;
}

// Frequency-domain blur followed by the repair of the wrap-around.
std::vector<float> blurAndRepair(SrFloatFft2d& fft, const std::vector<float>& image, int radius,
                                 float sigma, std::vector<float>& kernel) {
    const int width = fft.getWidth();
    const int height = fft.getHeight();
    const int columns = width / 2 + 1;
    Spectrum gauss(2 * columns * height), spectrum(2 * columns * height);
    kernel.assign(radius + 1, 0.0f);
    fft.gaussFft(radius, sigma, pairs(gauss), kernel.data());
    fft.forward(image.data(), pairs(spectrum));
    for (int i = 0; i < columns * height; ++i) {
        const std::complex<float> product =
            std::complex<float>(spectrum[2 * i], spectrum[2 * i + 1]) *
            std::complex<float>(gauss[2 * i], gauss[2 * i + 1]);
        spectrum[2 * i] = product.real();
        spectrum[2 * i + 1] = product.imag();
    }
    std::vector<float> blurred(width * height);
    fft.backward(pairs(spectrum), blurred.data());
    fft.repairGaussBlur(image.data(), blurred.data(), radius, kernel.data());
    return blurred;
}

TEST(SrFloatFft2d, TransformsMatchRowThenColumnTransformsBitForBit) {
    for (auto [width, height] :
         {std::pair{2, 1}, {6, 5}, {10, 17}, {64, 48}, {322, 9}, {640, 480}}) {
        SCOPED_TRACE(testing::Message() << width << " x " << height);
        SrFloatFft2d fft(width, height);
        const std::vector<float> image = randomImage(width, height, width + height);
        const std::vector<float> imageCopy = image;
        Spectrum spectrum(2 * (width / 2 + 1) * height);
        fft.forward(image.data(), pairs(spectrum));
        EXPECT_EQ(image, imageCopy);
        const Spectrum expected = plainForward(image, width, height);
        ASSERT_EQ(spectrum, expected);

        const Spectrum spectrumCopy = spectrum;
        std::vector<float> back(width * height);
        fft.backward(pairs(spectrum), back.data());
        EXPECT_EQ(spectrum, spectrumCopy);
        ASSERT_EQ(back, plainBackward(spectrum, width, height));
        const float size = static_cast<float>(width * height);
        for (int i = 0; i < width * height; ++i) {
            ASSERT_NEAR(back[i], size * image[i], size * 100.0f * 1e-5f);
        }
    }
}

TEST(SrFloatFft2d, ForwardEqualsTheDirectTwoDimensionalTransform) {
    const int width = 12;
    const int height = 10;
    SrFloatFft2d fft(width, height);
    const std::vector<float> image = randomImage(width, height, 3);
    Spectrum spectrum(2 * (width / 2 + 1) * height);
    fft.forward(image.data(), pairs(spectrum));
    for (int v = 0; v < height; ++v) {
        for (int u = 0; u <= width / 2; ++u) {
            std::complex<double> sum = 0.0;
            for (int y = 0; y < height; ++y) {
                for (int x = 0; x < width; ++x) {
                    const double angle =
                        -2.0 * M_PI *
                        (static_cast<double>(u * x) / width + static_cast<double>(v * y) / height);
                    sum += static_cast<double>(image[y * width + x]) *
                           std::complex<double>(std::cos(angle), std::sin(angle));
                }
            }
            const int index = 2 * (v * (width / 2 + 1) + u);
            EXPECT_NEAR(spectrum[index], sum.real(), 2e-3) << u << ", " << v;
            EXPECT_NEAR(spectrum[index + 1], sum.imag(), 2e-3) << u << ", " << v;
        }
    }
}

TEST(SrFloatFft2d, GaussianBlurWithRepairIsTheZeroPaddedConvolutionEverywhere) {
    for (auto [width, height, radius] :
         {std::tuple{16, 12, 1}, {40, 30, 3}, {64, 48, 5}, {11 * 2, 11, 5}, {30, 25, 12}}) {
        SCOPED_TRACE(testing::Message() << width << " x " << height << " radius " << radius);
        SrFloatFft2d fft(width, height);
        const std::vector<float> image = randomImage(width, height, radius);
        const float sigma = std::sqrt(3.0f * radius * radius / 25.0f);
        std::vector<float> kernel;
        const std::vector<float> blurred = blurAndRepair(fft, image, radius, sigma, kernel);

        double mass = kernel[0];
        for (int i = 1; i <= radius; ++i) {
            mass += 2.0 * kernel[i];
            EXPECT_LT(kernel[i], kernel[i - 1]);
        }
        EXPECT_NEAR(mass, 1.0, 1e-6);
        // Each tap is the Gaussian's mass over its pixel.
        const double scale = 1.0 / (std::sqrt(2.0) * sigma);
        for (int i = 0; i <= radius; ++i) {
            const double exact = 0.5 * (std::erf((i + 0.5) * scale) - std::erf((i - 0.5) * scale));
            EXPECT_NEAR(kernel[i] * mass, exact, 2e-3) << i;
        }

        const std::vector<double> expected = directBlur(image, width, height, kernel);
        for (int y = 0; y < height; ++y) {
            for (int x = 0; x < width; ++x) {
                ASSERT_NEAR(blurred[y * width + x], expected[y * width + x], 1e-3)
                    << "x " << x << " y " << y;
            }
        }
    }
}

TEST(SrFloatFft2d, GaussianLimitsAndConstantImage) {
    const int width = 20;
    const int height = 16;
    const int columns = width / 2 + 1;
    SrFloatFft2d fft(width, height);

    // Radius 0 (sigma 0 by the radius rule): one tap 1, a flat spectrum, the identity.
    Spectrum gauss(2 * columns * height);
    float tap = 0.0f;
    fft.gaussFft(0, 0.0f, pairs(gauss), &tap);
    EXPECT_EQ(tap, 1.0f);
    for (int i = 0; i < columns * height; ++i) {
        EXPECT_FLOAT_EQ(gauss[2 * i], 1.0f / (width * height));
        EXPECT_NEAR(gauss[2 * i + 1], 0.0f, 1e-9f);
    }
    const std::vector<float> image = randomImage(width, height, 9);
    std::vector<float> kernel;
    const std::vector<float> same = blurAndRepair(fft, image, 0, 0.0f, kernel);
    for (int i = 0; i < width * height; ++i) {
        EXPECT_NEAR(same[i], image[i], 1e-4f);
    }

    // A very narrow Gaussian keeps nearly all its mass in the centre pixel.
    std::vector<float> taps(4);
    fft.gaussFft(3, 0.05f, pairs(gauss), taps.data());
    EXPECT_FLOAT_EQ(taps[0], 1.0f);
    EXPECT_EQ(taps[1], 0.0f);
    EXPECT_EQ(taps[3], 0.0f);

    // A constant image keeps its value where the kernel lies inside, and loses the
    // kernel mass outside towards the borders.
    const int radius = 4;
    const std::vector<float> flat(width * height, 50.0f);
    const std::vector<float> blurred = blurAndRepair(fft, flat, radius, 1.5f, kernel);
    float inside = kernel[0];
    for (int i = 1; i <= radius; ++i) {
        inside += kernel[i];
    }
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            const bool interior =
                x >= radius && x < width - radius && y >= radius && y < height - radius;
            if (interior) {
                ASSERT_NEAR(blurred[y * width + x], 50.0f, 1e-3f);
            }
        }
    }
    EXPECT_NEAR(blurred[0], 50.0f * inside * inside, 1e-3f);
    EXPECT_NEAR(blurred[height / 2 * width], 50.0f * inside, 1e-3f);
}

TEST(SrFloatFft2d, RejectsUnsupportedSizesAndRadii) {
    EXPECT_THROW(SrFloatFft2d(7, 4), std::invalid_argument);
    EXPECT_THROW(SrFloatFft2d(0, 4), std::invalid_argument);
    EXPECT_THROW(SrFloatFft2d(8, 0), std::invalid_argument);
    EXPECT_THROW(SrFloatFft2d(-8, 4), std::invalid_argument);
    EXPECT_THROW(SrFloatFft2d(65536, 65536), std::invalid_argument);

    SrFloatFft2d fft(16, 10);
    Spectrum gauss(2 * 9 * 10);
    std::vector<float> kernel(8);
    EXPECT_THROW(fft.gaussFft(5, 1.0f, pairs(gauss), kernel.data()), std::invalid_argument);
    EXPECT_THROW(fft.gaussFft(-1, 1.0f, pairs(gauss), kernel.data()), std::invalid_argument);
    EXPECT_THROW(fft.gaussFft(2, -1.0f, pairs(gauss), kernel.data()), std::invalid_argument);
    EXPECT_THROW(fft.gaussFft(2, NAN, pairs(gauss), kernel.data()), std::invalid_argument);
    EXPECT_THROW(fft.gaussFft(2, INFINITY, pairs(gauss), kernel.data()), std::invalid_argument);
    std::vector<float> image(160, 1.0f);
    EXPECT_THROW(fft.repairGaussBlur(image.data(), image.data(), 5, kernel.data()),
                 std::invalid_argument);
    fft.gaussFft(4, 1.0f, pairs(gauss), kernel.data());
    EXPECT_TRUE(std::isfinite(gauss[0]));
}

}  // namespace
}  // namespace kelvo::vision
