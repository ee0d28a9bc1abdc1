// SPDX-License-Identifier: Apache-2.0
#include "tools/simulator/ImageQuality.h"

#include <opencv2/imgproc.hpp>

#include <cmath>
#include <limits>
#include <stdexcept>

namespace kelvo::tools {

double ImageQuality::psnr(const cv::Mat_<float>& image, const cv::Mat_<float>& truth, int border) {
    if (image.size() != truth.size()) {
        throw std::invalid_argument("psnr: image and truth differ in size");
    }
    if (border < 0 || 2 * border >= image.cols || 2 * border >= image.rows) {
        throw std::invalid_argument("psnr: the border leaves no pixel");
    }
    const cv::Rect interior(border, border, image.cols - 2 * border, image.rows - 2 * border);
    double low = 0.0;
    double high = 0.0;
    cv::minMaxLoc(truth(interior), &low, &high);
    double squares = 0.0;
    for (int r = interior.y; r < interior.br().y; ++r) {
        for (int c = interior.x; c < interior.br().x; ++c) {
            const double error = static_cast<double>(image(r, c)) - truth(r, c);
            squares += error * error;
        }
    }
    if (squares == 0.0) {
        return std::numeric_limits<double>::infinity();
    }
    const double meanSquare = squares / interior.area();
    return 10.0 * std::log10((high - low) * (high - low) / meanSquare);
}

cv::Mat_<float> ImageQuality::upscaleBicubic(const cv::Mat_<float>& frame) {
    cv::Mat_<float> upscaled;
    cv::resize(frame, upscaled, cv::Size(2 * frame.cols, 2 * frame.rows), 0.0, 0.0,
               cv::INTER_CUBIC);
    return upscaled;
}

}  // namespace kelvo::tools
