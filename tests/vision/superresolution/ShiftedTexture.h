// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

namespace kelvo::vision::testing {

// A smooth random texture, like a thermal scene seen through optics: noise blurred
// to blobs of about `featureSigma` pixels (at the doubled size) over a broad
// gradient, values roughly 0 .. 1000. Drawn at twice the size, so that frames can be
// moved by sub-pixel amounts before decimation.
inline cv::Mat_<float> makeDoubleSizeTexture(int width, int height, uint64 seed,
                                             double featureSigma = 3.0) {
    cv::Mat_<float> noise(2 * height, 2 * width);
    cv::RNG rng(seed);
    rng.fill(noise, cv::RNG::UNIFORM, 0.0f, 1.0f);
    cv::Mat_<float> texture;
    cv::GaussianBlur(noise, texture, cv::Size(0, 0), featureSigma);
    cv::normalize(texture, texture, 0.0, 1000.0, cv::NORM_MINMAX);
    for (int y = 0; y < texture.rows; ++y) {
        for (int x = 0; x < texture.cols; ++x) {
            texture(y, x) += 0.2f * static_cast<float>(x + y);
        }
    }
    return texture;
}

// The texture decimated by 2 (mean of 2 x 2 blocks) after moving its content by
// `shift` frame pixels, so that frame(p + shift) = reference(p). Lanczos rather than
// cubic interpolation: cubic blurs fractional positions enough to bias a measured
// shift by a few hundredths of a pixel.
inline cv::Mat_<float> makeShiftedFrame(const cv::Mat_<float>& doubleSize, cv::Point2f shift) {
    const cv::Matx23d move(1.0, 0.0, 2.0 * shift.x, 0.0, 1.0, 2.0 * shift.y);
    cv::Mat_<float> moved;
    cv::warpAffine(doubleSize, moved, move, doubleSize.size(), cv::INTER_LANCZOS4,
                   cv::BORDER_REFLECT_101);
    cv::Mat_<float> frame;
    cv::resize(moved, frame, cv::Size(doubleSize.cols / 2, doubleSize.rows / 2), 0.0, 0.0,
               cv::INTER_AREA);
    return frame;
}

// The same, cut `margin` pixels in from every side of a larger scene, so that the
// content moved into the frame is scene rather than border extrapolation.
inline cv::Mat_<float> cutShiftedFrame(const cv::Mat_<float>& doubleSizeScene, cv::Point2f shift,
                                       int margin) {
    const cv::Mat_<float> frame = makeShiftedFrame(doubleSizeScene, shift);
    return frame(cv::Rect(margin, margin, frame.cols - 2 * margin, frame.rows - 2 * margin))
        .clone();
}

}  // namespace kelvo::vision::testing
