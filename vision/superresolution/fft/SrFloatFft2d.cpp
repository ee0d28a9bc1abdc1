#include "vision/superresolution/fft/SrFloatFft2d.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <stdexcept>

#include "vision/superresolution/SrFloatMinimization.h"

namespace kelvo::vision {
namespace {

constexpr int factorArraySize = 15;

// Beyond |x| = 10 the error function is 1 to float precision; clamping keeps infinite
// arguments (sigma = 0) out of the approximation, where they would give NaN.
float boundedErf(float x) {
    return approximateErf(std::clamp(x, -10.0f, 10.0f));
}

}  // namespace

SrFloatFft2d::SrFloatFft2d(int width, int height) : width(width), height(height) {
    if (width < 2 || width % 2 != 0 || height < 1 ||
        static_cast<long long>(width) * height > INT_MAX) {
        throw std::invalid_argument("SrFloatFft2d needs an even width and a positive height");
    }
    rowTables.resize(2 * width);
    colTables.resize(4 * height);
    rowFactors.resize(factorArraySize);
    colFactors.resize(factorArraySize);
    scratch.resize(width + 2 * height);
    laneData.resize(std::max(width, 2 * height));
    laneScratch.resize(laneData.size());
    rffti(width, rowTables.data(), rowFactors.data());
    cffti(height, colTables.data(), colFactors.data());
}

void SrFloatFft2d::loadRows(const float* firstRow, int rowCount) {
    for (int x = 0; x < width; ++x) {
        FftLanes column = {};
        for (int lane = 0; lane < rowCount; ++lane) {
            column[lane] = firstRow[lane * width + x];
        }
        laneData[x] = column;
    }
}

void SrFloatFft2d::storeRows(float* firstRow, int rowCount) const {
    for (int x = 0; x < width; ++x) {
        const FftLanes column = laneData[x];
        for (int lane = 0; lane < rowCount; ++lane) {
            firstRow[lane * width + x] = column[lane];
        }
    }
}

void SrFloatFft2d::gatherColumns(const float (*spectrum)[2], int firstColumn, int columnCount) {
    const int columns = width / 2 + 1;
    for (int y = 0; y < height; ++y) {
        const float(*row)[2] = spectrum + y * columns + firstColumn;
        FftLanes re = {};
        FftLanes im = {};
        for (int lane = 0; lane < columnCount; ++lane) {
            re[lane] = row[lane][0];
            im[lane] = row[lane][1];
        }
        laneData[2 * y] = re;
        laneData[2 * y + 1] = im;
    }
}

void SrFloatFft2d::forward(const float* image, float (*spectrum)[2]) {
    const int columns = width / 2 + 1;
    const int half = width / 2;
    const float* rowTwiddles = rowTables.data() + width;
    const float* colTwiddles = colTables.data() + 2 * height;

    for (int y0 = 0; y0 < height; y0 += fftLaneCount) {
        const int rowCount = std::min(fftLaneCount, height - y0);
        loadRows(image + y0 * width, rowCount);
        rfftfLanes(width, laneData.data(), laneScratch.data(), rowTwiddles, rowFactors.data());
        // Packed row spectrum: X[0], (Re X[k], Im X[k]) for k = 1 .. half - 1, X[half].
        for (int lane = 0; lane < rowCount; ++lane) {
            float(*out)[2] = spectrum + (y0 + lane) * columns;
            out[0][0] = laneData[0][lane];
            out[0][1] = 0.0f;
            for (int k = 1; k < half; ++k) {
                out[k][0] = laneData[2 * k - 1][lane];
                out[k][1] = laneData[2 * k][lane];
            }
            out[half][0] = laneData[width - 1][lane];
            out[half][1] = 0.0f;
        }
    }

    for (int k0 = 0; k0 < columns; k0 += fftLaneCount) {
        const int columnCount = std::min(fftLaneCount, columns - k0);
        gatherColumns(spectrum, k0, columnCount);
        cfftfLanes(height, laneData.data(), laneScratch.data(), colTwiddles, colFactors.data());
        for (int y = 0; y < height; ++y) {
            float(*row)[2] = spectrum + y * columns + k0;
            const FftLanes re = laneData[2 * y];
            const FftLanes im = laneData[2 * y + 1];
            for (int lane = 0; lane < columnCount; ++lane) {
                row[lane][0] = re[lane];
                row[lane][1] = im[lane];
            }
        }
    }
}

void SrFloatFft2d::backward(const float (*spectrum)[2], float* image) {
    const int columns = width / 2 + 1;
    const int half = width / 2;
    const float* rowTwiddles = rowTables.data() + width;
    const float* colTwiddles = colTables.data() + 2 * height;

    // Columns back into packed row spectra. The imaginary parts of columns 0 and half
    // are zero for a real image and are dropped.
    for (int k0 = 0; k0 < columns; k0 += fftLaneCount) {
        const int columnCount = std::min(fftLaneCount, columns - k0);
        gatherColumns(spectrum, k0, columnCount);
        cfftbLanes(height, laneData.data(), laneScratch.data(), colTwiddles, colFactors.data());
        for (int y = 0; y < height; ++y) {
            float* row = image + y * width;
            const FftLanes re = laneData[2 * y];
            const FftLanes im = laneData[2 * y + 1];
            for (int lane = 0; lane < columnCount; ++lane) {
                const int k = k0 + lane;
                if (k == 0) {
                    row[0] = re[lane];
                } else if (k == half) {
                    row[width - 1] = re[lane];
                } else {
                    row[2 * k - 1] = re[lane];
                    row[2 * k] = im[lane];
                }
            }
        }
    }

    for (int y0 = 0; y0 < height; y0 += fftLaneCount) {
        const int rowCount = std::min(fftLaneCount, height - y0);
        loadRows(image + y0 * width, rowCount);
        rfftbLanes(width, laneData.data(), laneScratch.data(), rowTwiddles, rowFactors.data());
        storeRows(image + y0 * width, rowCount);
    }
}

void SrFloatFft2d::checkRadius(int radius) const {
    if (radius < 0 || 2 * radius + 1 > width || 2 * radius + 1 > height) {
        throw std::invalid_argument("Gaussian radius does not fit the image");
    }
}

void SrFloatFft2d::gaussFft(int radius, float sigma, float (*spectrum)[2], float* kernel) {
    checkRadius(radius);
    if (!(sigma >= 0.0f)) {
        throw std::invalid_argument("Gaussian sigma must not be negative");
    }

    // k[i] = (erf((i + 1/2) c) - erf((i - 1/2) c)) / 2, c = 1 / (sqrt(2) sigma): the
    // mass of the Gaussian over pixel i; normalised to k[0] + 2 sum_{i >= 1} k[i] = 1.
    const float c = 1.0f / (std::sqrt(2.0f) * sigma);
    float sum = 0.0f;
    for (int i = 0; i <= radius; ++i) {
        const float position = static_cast<float>(i);
        kernel[i] = (boundedErf((position + 0.5f) * c) - boundedErf((position - 0.5f) * c)) * 0.5f;
        sum += kernel[i];
    }
    const float inverseMass = 1.0f / (2.0f * sum - kernel[0]);
    for (int i = 0; i <= radius; ++i) {
        kernel[i] *= inverseMass;
    }

    // Row kernel, circular and centred at 0, carrying the scale of the unscaled pair of
    // transforms; column kernel unscaled, as complex values.
    const float scale =
        1.0f / static_cast<float>(static_cast<unsigned>(width) * static_cast<unsigned>(height));
    float* rowKernel = scratch.data();
    float* columnKernel = scratch.data() + width;
    std::fill(rowKernel, rowKernel + width + 2 * height, 0.0f);
    rowKernel[0] = scale * kernel[0];
    columnKernel[0] = kernel[0];
    for (int i = 1; i <= radius; ++i) {
        rowKernel[i] = scale * kernel[i];
        rowKernel[width - i] = scale * kernel[i];
        columnKernel[2 * i] = kernel[i];
        columnKernel[2 * (height - i)] = kernel[i];
    }
    rfftf(width, rowKernel, rowTables.data(), rowFactors.data());
    cfftf(height, columnKernel, colTables.data(), colFactors.data());

    // Outer product R[k] C[y] of the row and column spectra.
    const int columns = width / 2 + 1;
    const int half = width / 2;
    for (int y = 0; y < height; ++y) {
        const float cr = columnKernel[2 * y];
        const float ci = columnKernel[2 * y + 1];
        float(*out)[2] = spectrum + y * columns;
        out[0][0] = rowKernel[0] * cr;
        out[0][1] = rowKernel[0] * ci;
        for (int k = 1; k < half; ++k) {
            const float rr = rowKernel[2 * k - 1];
            const float ri = rowKernel[2 * k];
            out[k][0] = rr * cr - ri * ci;
            out[k][1] = rr * ci + ri * cr;
        }
        out[half][0] = rowKernel[width - 1] * cr;
        out[half][1] = rowKernel[width - 1] * ci;
    }
}

// out[x] = k[0] row[x] + sum_{i=1..r} k[i] (row[x - i] + row[x + i]), indices mod width.
void SrFloatFft2d::convolveRowCircular(const float* row, const float* kernel, int radius,
                                       float* out) const {
    for (int x = 0; x < width; ++x) {
        float sum = kernel[0] * row[x];
        if (x >= radius && x + radius < width) {
            for (int i = 1; i <= radius; ++i) {
                sum += kernel[i] * (row[x - i] + row[x + i]);
            }
        } else {
            for (int i = 1; i <= radius; ++i) {
                const int left = x - i < 0 ? x - i + width : x - i;
                const int right = x + i >= width ? x + i - width : x + i;
                sum += kernel[i] * (row[left] + row[right]);
            }
        }
        out[x] = sum;
    }
}

// The same vertically along one image column, with pixels outside the image as zero.
void SrFloatFft2d::convolveColumnZeroPadded(const float* image, int column, const float* kernel,
                                            int radius, float* out) {
    float* source = scratch.data();
    for (int y = 0; y < height; ++y) {
        source[y] = image[y * width + column];
    }
    for (int y = 0; y < height; ++y) {
        float sum = kernel[0] * source[y];
        for (int i = 1; i <= radius; ++i) {
            const float above = y - i >= 0 ? source[y - i] : 0.0f;
            const float below = y + i < height ? source[y + i] : 0.0f;
            sum += kernel[i] * (above + below);
        }
        out[y] = sum;
    }
}

// The circular blur B differs from the zero-padded linear blur L by the terms whose
// source pixel lies across a border:
//   B - L = sum over vertically wrapped terms (with the horizontal sum circular)
//         + sum over terms wrapped horizontally only.
// The row pass removes the first part: a source row r rows from one border reaches the
// rows at the other border with the vertical tap of the distance across the wrap, as
// that row convolved circularly in x. Taking it circular also clears the corners,
// where terms wrapped both ways. The column pass removes the second part with source
// columns convolved vertically with zero padding.
void SrFloatFft2d::repairGaussBlur(const float* input, float* blurred, int radius,
                                   const float* kernel) {
    checkRadius(radius);
    float* line = scratch.data();
    for (int j = 0; j < radius; ++j) {
        // Source row height - radius + j reaches top rows m = 0 .. j at distance
        // radius - j + m; source row radius - 1 - j reaches bottom rows height - 1 - m.
        convolveRowCircular(input + (height - radius + j) * width, kernel, radius, line);
        for (int m = 0; m <= j; ++m) {
            const float tap = kernel[radius - j + m];
            float* target = blurred + m * width;
            for (int x = 0; x < width; ++x) {
                target[x] -= tap * line[x];
            }
        }
        convolveRowCircular(input + (radius - 1 - j) * width, kernel, radius, line);
        for (int m = 0; m <= j; ++m) {
            const float tap = kernel[radius - j + m];
            float* target = blurred + (height - 1 - m) * width;
            for (int x = 0; x < width; ++x) {
                target[x] -= tap * line[x];
            }
        }
    }

    float* columnBlur = scratch.data() + height;
    for (int j = 0; j < radius; ++j) {
        convolveColumnZeroPadded(input, width - radius + j, kernel, radius, columnBlur);
        for (int m = 0; m <= j; ++m) {
            const float tap = kernel[radius - j + m];
            for (int y = 0; y < height; ++y) {
                blurred[y * width + m] -= tap * columnBlur[y];
            }
        }
        convolveColumnZeroPadded(input, radius - 1 - j, kernel, radius, columnBlur);
        for (int m = 0; m <= j; ++m) {
            const float tap = kernel[radius - j + m];
            for (int y = 0; y < height; ++y) {
                blurred[y * width + width - 1 - m] -= tap * columnBlur[y];
            }
        }
    }
}

}  // namespace kelvo::vision
