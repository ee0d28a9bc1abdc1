// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>

#include "vision/superresolution/SrFloatConvolution.h"

namespace kelvo::vision {
namespace {

// The clipped mean filter as written, one row and one column at a time: a running
// float sum that enters pixel c + radius and leaves pixel c - radius; divided by the
// clipped window's pixel count at the borders, multiplied by 1 / (2 radius + 1) inside.
void runningMean(const float* in, float* out, int length, int stride, int radius) {
    const float norm = 1.0f / (2.0f * static_cast<float>(radius) + 1.0f);
    float sum = 0.0f;
    for (int c = 0; c < radius; ++c) {
        sum += in[c * stride];
    }
    for (int c = 0; c < length; ++c) {
        if (c + radius < length) {
            sum += in[(c + radius) * stride];
        }
        if (c < radius) {
            out[c * stride] = sum / static_cast<float>(c + radius + 1);
        } else if (c < length - radius) {
            out[c * stride] = sum * norm;
        } else {
            out[c * stride] = sum / static_cast<float>(length - c + radius);
        }
        if (c >= radius) {
            sum -= in[(c - radius) * stride];
        }
    }
}

cv::Mat_<float> plainMeanFilter(const cv::Mat_<float>& in, int radius) {
    cv::Mat_<float> horizontal(in.size());
    cv::Mat_<float> out(in.size());
    for (int r = 0; r < in.rows; ++r) {
        runningMean(in[r], horizontal[r], in.cols, 1, radius);
    }
    for (int c = 0; c < in.cols; ++c) {
        runningMean(&horizontal(0, c), &out(0, c), in.rows, in.cols, radius);
    }
    return out;
}

// The mean of the input over the window clipped to the image, in double.
double exactMean(const cv::Mat_<float>& in, int row, int col, int radius) {
    double sum = 0.0;
    int count = 0;
    for (int r = std::max(0, row - radius); r <= std::min(in.rows - 1, row + radius); ++r) {
        for (int c = std::max(0, col - radius); c <= std::min(in.cols - 1, col + radius); ++c) {
            sum += in(r, c);
            ++count;
        }
    }
    return sum / count;
}

cv::Mat_<float> randomImage(int rows, int cols, float low, float high) {
    cv::Mat_<float> image(rows, cols);
    cv::RNG rng(rows * 131 + cols);
    rng.fill(image, cv::RNG::UNIFORM, low, high);
    return image;
}

// A constant image comes back unchanged up to the rounding of 1 / (2 r + 1): exactly
// where the window is clipped in both directions (only divisions by the pixel count),
// within one unit in the last place per pass elsewhere (3 with radius 3 gives
// 3.00000048).
TEST(SrFloatConvolutionMeanFilter, ConstantImageIsKeptAndRadiusZeroIsIdentity) {
    for (const float value : {1.0f, 3.0f, 255.0f, -40.0f}) {
        for (int radius = 1; radius <= 5; ++radius) {
            cv::Mat_<float> in(23, 31, value);
            cv::Mat_<float> out;
            SrFloatConvolution::blurImageMeanFilter(in, radius, out);
            const float ulp = std::nextafter(std::fabs(value), FLT_MAX) - std::fabs(value);
            for (int r = 0; r < in.rows; ++r) {
                for (int c = 0; c < in.cols; ++c) {
                    const bool clippedRow = r < radius || r >= in.rows - radius;
                    const bool clippedColumn = c < radius || c >= in.cols - radius;
                    if (clippedRow && clippedColumn) {
                        ASSERT_EQ(out(r, c), value) << value << " radius " << radius;
                    } else {
                        ASSERT_NEAR(out(r, c), value, 2.0f * ulp) << value << " radius " << radius;
                    }
                }
            }
        }
    }
    cv::Mat_<float> in = randomImage(17, 29, -1e3f, 1e3f);
    cv::Mat_<float> out;
    SrFloatConvolution::blurImageMeanFilter(in, 0, out);
    EXPECT_EQ(cv::norm(in, out, cv::NORM_INF), 0.0);
}

TEST(SrFloatConvolutionMeanFilter, EqualsTheRunningSumBitForBitAndTheMeanWithinRounding) {
    for (const cv::Size size : {cv::Size(64, 48), cv::Size(7, 9), cv::Size(101, 13)}) {
        for (const int radius : {1, 3}) {
            cv::Mat_<float> in = randomImage(size.height, size.width, 0.0f, 1e-3f);
            cv::Mat_<float> out;
            SrFloatConvolution::blurImageMeanFilter(in, radius, out);
            const cv::Mat_<float> expected = plainMeanFilter(in, radius);
            ASSERT_EQ(out.size(), in.size());
            EXPECT_EQ(std::memcmp(out.data, expected.data, in.total() * sizeof(float)), 0)
                << size << " radius " << radius;
            for (int r = 0; r < in.rows; ++r) {
                for (int c = 0; c < in.cols; ++c) {
                    const double mean = exactMean(in, r, c, radius);
                    ASSERT_NEAR(out(r, c), mean, 1e-5 * mean) << size << r << " " << c;
                }
            }
        }
    }
}

// Registration calls it once per frame: with its scratch it must reuse both the
// output and the scratch, and give what the allocating form gives.
TEST(SrFloatConvolutionMeanFilter, ScratchFormReusesItsBuffers) {
    cv::Mat_<float> in = randomImage(40, 50, 0.0f, 1.0f);
    cv::Mat_<float> reference;
    SrFloatConvolution::blurImageMeanFilter(in, 3, reference);
    std::vector<float> outStore(in.total());
    cv::Mat_<float> out(in.rows, in.cols, outStore.data());
    cv::Mat_<float> scratch;
    SrFloatConvolution::blurImageMeanFilter(in, 3, out, scratch);
    const uchar* scratchData = scratch.data;
    SrFloatConvolution::blurImageMeanFilter(in, 3, out, scratch);
    EXPECT_EQ(out.ptr<float>(), outStore.data());
    EXPECT_EQ(scratch.data, scratchData);
    EXPECT_EQ(cv::norm(out, reference, cv::NORM_INF), 0.0);
}

}  // namespace
}  // namespace kelvo::vision
