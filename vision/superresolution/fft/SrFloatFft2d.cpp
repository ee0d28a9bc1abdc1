// SPDX-License-Identifier: Apache-2.0
#include "vision/superresolution/fft/SrFloatFft2d.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstring>
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

// Lane data moves in 4 x 4 blocks: four vectors of four consecutive values from four
// rows (or columns) become four vectors of one value from each.
static_assert(fftLaneCount == 4, "the block moves below are written for four lanes");

namespace {

FftLanes loadLanes(const float* values) {
    FftLanes lanes;
    std::memcpy(&lanes, values, sizeof lanes);
    return lanes;
}

void storeLanes(float* values, const FftLanes& lanes) {
    std::memcpy(values, &lanes, sizeof lanes);
}

void transpose(FftLanes& a, FftLanes& b, FftLanes& c, FftLanes& d) {
    const FftLanes ab01 = __builtin_shufflevector(a, b, 0, 4, 1, 5);
    const FftLanes ab23 = __builtin_shufflevector(a, b, 2, 6, 3, 7);
    const FftLanes cd01 = __builtin_shufflevector(c, d, 0, 4, 1, 5);
    const FftLanes cd23 = __builtin_shufflevector(c, d, 2, 6, 3, 7);
    a = __builtin_shufflevector(ab01, cd01, 0, 1, 4, 5);
    b = __builtin_shufflevector(ab01, cd01, 2, 3, 6, 7);
    c = __builtin_shufflevector(ab23, cd23, 0, 1, 4, 5);
    d = __builtin_shufflevector(ab23, cd23, 2, 3, 6, 7);
}

// Four (re, im) pairs <-> one vector of real and one of imaginary parts.
void loadPairs(const float (*pairs)[2], FftLanes& re, FftLanes& im) {
    const FftLanes low = loadLanes(pairs[0]);
    const FftLanes high = loadLanes(pairs[2]);
    re = __builtin_shufflevector(low, high, 0, 2, 4, 6);
    im = __builtin_shufflevector(low, high, 1, 3, 5, 7);
}

void storePairs(float* pairs, const FftLanes& re, const FftLanes& im) {
    storeLanes(pairs, __builtin_shufflevector(re, im, 0, 4, 1, 5));
    storeLanes(pairs + fftLaneCount, __builtin_shufflevector(re, im, 2, 6, 3, 7));
}

}  // namespace

// laneData[x] = (row 0 [x], row 1 [x], row 2 [x], row 3 [x]) and back.
void SrFloatFft2d::loadRows(const float* firstRow) {
    const float* rows[fftLaneCount];
    for (int lane = 0; lane < fftLaneCount; ++lane) {
        rows[lane] = firstRow + lane * width;
    }
    int x = 0;
    for (; x + fftLaneCount <= width; x += fftLaneCount) {
        FftLanes a = loadLanes(rows[0] + x);
        FftLanes b = loadLanes(rows[1] + x);
        FftLanes c = loadLanes(rows[2] + x);
        FftLanes d = loadLanes(rows[3] + x);
        transpose(a, b, c, d);
        laneData[x] = a;
        laneData[x + 1] = b;
        laneData[x + 2] = c;
        laneData[x + 3] = d;
    }
    for (; x < width; ++x) {
        for (int lane = 0; lane < fftLaneCount; ++lane) {
            laneData[x][lane] = rows[lane][x];
        }
    }
}

void SrFloatFft2d::storeRows(const FftLanes* lanes, float* firstRow) const {
    float* rows[fftLaneCount];
    for (int lane = 0; lane < fftLaneCount; ++lane) {
        rows[lane] = firstRow + lane * width;
    }
    int x = 0;
    for (; x + fftLaneCount <= width; x += fftLaneCount) {
        FftLanes a = lanes[x];
        FftLanes b = lanes[x + 1];
        FftLanes c = lanes[x + 2];
        FftLanes d = lanes[x + 3];
        transpose(a, b, c, d);
        storeLanes(rows[0] + x, a);
        storeLanes(rows[1] + x, b);
        storeLanes(rows[2] + x, c);
        storeLanes(rows[3] + x, d);
    }
    for (; x < width; ++x) {
        for (int lane = 0; lane < fftLaneCount; ++lane) {
            rows[lane][x] = lanes[x][lane];
        }
    }
}

// Packed row spectra of four rows in `lanes` -> rows of the half spectrum:
// X[0], (Re X[k], Im X[k]) for k = 1 .. half - 1, X[half].
void SrFloatFft2d::storeRowSpectra(const FftLanes* lanes, float (*firstRow)[2]) const {
    const int columns = width / 2 + 1;
    const int half = width / 2;
    float(*rows[fftLaneCount])[2];
    for (int lane = 0; lane < fftLaneCount; ++lane) {
        rows[lane] = firstRow + lane * columns;
        rows[lane][0][0] = lanes[0][lane];
        rows[lane][0][1] = 0.0f;
        rows[lane][half][0] = lanes[width - 1][lane];
        rows[lane][half][1] = 0.0f;
    }
    int k = 1;
    for (; k + 1 < half; k += 2) {
        FftLanes re = lanes[2 * k - 1];
        FftLanes im = lanes[2 * k];
        FftLanes nextRe = lanes[2 * k + 1];
        FftLanes nextIm = lanes[2 * k + 2];
        transpose(re, im, nextRe, nextIm);
        storeLanes(rows[0][k], re);
        storeLanes(rows[1][k], im);
        storeLanes(rows[2][k], nextRe);
        storeLanes(rows[3][k], nextIm);
    }
    for (; k < half; ++k) {
        for (int lane = 0; lane < fftLaneCount; ++lane) {
            rows[lane][k][0] = lanes[2 * k - 1][lane];
            rows[lane][k][1] = lanes[2 * k][lane];
        }
    }
}

// laneData[2 y], laneData[2 y + 1] = real and imaginary parts of four spectrum columns.
void SrFloatFft2d::loadColumns(const float (*spectrum)[2], int firstColumn) {
    const int columns = width / 2 + 1;
    for (int y = 0; y < height; ++y) {
        loadPairs(spectrum + y * columns + firstColumn, laneData[2 * y], laneData[2 * y + 1]);
    }
}

// One spectrum column as a packed row value: column 0 and column half are real.
void SrFloatFft2d::storePackedColumn(int column, int y, float re, float im, float* image) const {
    float* row = image + y * width;
    if (column == 0) {
        row[0] = re;
    } else if (column == width / 2) {
        row[width - 1] = re;
    } else {
        row[2 * column - 1] = re;
        row[2 * column] = im;
    }
}

void SrFloatFft2d::forward(const float* image, float (*spectrum)[2]) {
    const int columns = width / 2 + 1;
    const int half = width / 2;
    const int laneRows = height - height % fftLaneCount;
    const int laneColumns = columns - columns % fftLaneCount;
    const float* rowTwiddles = rowTables.data() + width;
    const float* colTwiddles = colTables.data() + 2 * height;

    for (int y0 = 0; y0 < laneRows; y0 += fftLaneCount) {
        loadRows(image + y0 * width);
        storeRowSpectra(
            rfftfLanes(width, laneData.data(), laneScratch.data(), rowTwiddles, rowFactors.data()),
            spectrum + y0 * columns);
    }
    float* line = scratch.data();
    for (int y = laneRows; y < height; ++y) {
        std::copy(image + y * width, image + (y + 1) * width, line);
        rfftf(width, line, rowTables.data(), rowFactors.data());
        float(*out)[2] = spectrum + y * columns;
        out[0][0] = line[0];
        out[0][1] = 0.0f;
        for (int k = 1; k < half; ++k) {
            out[k][0] = line[2 * k - 1];
            out[k][1] = line[2 * k];
        }
        out[half][0] = line[width - 1];
        out[half][1] = 0.0f;
    }

    for (int k0 = 0; k0 < laneColumns; k0 += fftLaneCount) {
        loadColumns(spectrum, k0);
        const FftLanes* lanes =
            cfftfLanes(height, laneData.data(), laneScratch.data(), colTwiddles, colFactors.data());
        for (int y = 0; y < height; ++y) {
            storePairs(spectrum[y * columns + k0], lanes[2 * y], lanes[2 * y + 1]);
        }
    }
    float* column = scratch.data() + width;
    for (int k = laneColumns; k < columns; ++k) {
        for (int y = 0; y < height; ++y) {
            column[2 * y] = spectrum[y * columns + k][0];
            column[2 * y + 1] = spectrum[y * columns + k][1];
        }
        cfftf(height, column, colTables.data(), colFactors.data());
        for (int y = 0; y < height; ++y) {
            spectrum[y * columns + k][0] = column[2 * y];
            spectrum[y * columns + k][1] = column[2 * y + 1];
        }
    }
}

void SrFloatFft2d::backward(const float (*spectrum)[2], float* image) {
    const int columns = width / 2 + 1;
    const int half = width / 2;
    const int laneRows = height - height % fftLaneCount;
    const int laneColumns = columns - columns % fftLaneCount;
    const float* rowTwiddles = rowTables.data() + width;
    const float* colTwiddles = colTables.data() + 2 * height;

    // Columns back into packed row spectra. The imaginary parts of columns 0 and half
    // are zero for a real image and are dropped.
    for (int k0 = 0; k0 < laneColumns; k0 += fftLaneCount) {
        loadColumns(spectrum, k0);
        const FftLanes* lanes =
            cfftbLanes(height, laneData.data(), laneScratch.data(), colTwiddles, colFactors.data());
        const bool inner = k0 > 0 && k0 + fftLaneCount - 1 < half;
        for (int y = 0; y < height; ++y) {
            if (inner) {
                storePairs(image + y * width + 2 * k0 - 1, lanes[2 * y], lanes[2 * y + 1]);
            } else {
                for (int lane = 0; lane < fftLaneCount; ++lane) {
                    storePackedColumn(k0 + lane, y, lanes[2 * y][lane], lanes[2 * y + 1][lane],
                                      image);
                }
            }
        }
    }
    float* column = scratch.data() + width;
    for (int k = laneColumns; k < columns; ++k) {
        for (int y = 0; y < height; ++y) {
            column[2 * y] = spectrum[y * columns + k][0];
            column[2 * y + 1] = spectrum[y * columns + k][1];
        }
        cfftb(height, column, colTables.data(), colFactors.data());
        for (int y = 0; y < height; ++y) {
            storePackedColumn(k, y, column[2 * y], column[2 * y + 1], image);
        }
    }

    for (int y0 = 0; y0 < laneRows; y0 += fftLaneCount) {
        loadRows(image + y0 * width);
        storeRows(
            rfftbLanes(width, laneData.data(), laneScratch.data(), rowTwiddles, rowFactors.data()),
            image + y0 * width);
    }
    for (int y = laneRows; y < height; ++y) {
        rfftb(width, image + y * width, rowTables.data(), rowFactors.data());
    }
}

void SrFloatFft2d::checkRadius(int radius) const {
    if (radius < 0 || 2 * radius + 1 > width || 2 * radius + 1 > height) {
        throw std::invalid_argument("Gaussian radius does not fit the image");
    }
}

void SrFloatFft2d::gaussFft(int radius, float sigma, float (*spectrum)[2], float* kernel) {
    checkRadius(radius);
    if (!(sigma >= 0.0f) || std::isinf(sigma)) {
        throw std::invalid_argument("Gaussian sigma must be finite and not negative");
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
