#include "tools/simulator/ThermalPreview.h"

#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cmath>
#include <stdexcept>

namespace kelvo::tools {

ThermalPreview::Range ThermalPreview::robustRange(const cv::Mat_<float>& image, float lowPercent,
                                                  float highPercent) {
    std::vector<float> values;
    values.reserve(image.total());
    for (int r = 0; r < image.rows; ++r) {
        for (int c = 0; c < image.cols; ++c) {
            if (std::isfinite(image(r, c))) {
                values.push_back(image(r, c));
            }
        }
    }
    if (values.empty()) {
        return {0.0f, 1.0f};
    }
    const auto percentile = [&](float percent) {
        const double position = std::clamp(percent, 0.0f, 100.0f) / 100.0 * (values.size() - 1);
        const auto nth = values.begin() + static_cast<std::ptrdiff_t>(std::lround(position));
        std::nth_element(values.begin(), nth, values.end());
        return *nth;
    };
    const float low = percentile(lowPercent);
    const float high = percentile(highPercent);
    return high > low ? Range{low, high} : Range{low - 0.5f, low + 0.5f};
}

cv::Mat ThermalPreview::render(const cv::Mat_<float>& image, Range range) {
    cv::Mat gray;
    const double scale = 255.0 / (range.high - range.low);
    image.convertTo(gray, CV_8U, scale, -range.low * scale);
    cv::Mat preview;
    cv::applyColorMap(gray, preview, cv::COLORMAP_INFERNO);
    return preview;
}

void ThermalPreview::label(cv::Mat& preview, const std::string& text) {
    const double scale = std::max(0.35, preview.cols / 800.0);
    const int thickness = std::max(1, cvRound(scale * 1.5));
    int baseline = 0;
    const cv::Size size =
        cv::getTextSize(text, cv::FONT_HERSHEY_SIMPLEX, scale, thickness, &baseline);
    const int pad = std::max(2, size.height / 3);
    cv::rectangle(preview, cv::Rect(0, 0, size.width + 2 * pad, size.height + baseline + 2 * pad),
                  cv::Scalar(0, 0, 0), cv::FILLED);
    cv::putText(preview, text, cv::Point(pad, pad + size.height), cv::FONT_HERSHEY_SIMPLEX, scale,
                cv::Scalar(255, 255, 255), thickness, cv::LINE_AA);
}

cv::Mat ThermalPreview::sideBySide(
    const std::vector<std::pair<std::string, cv::Mat_<float>>>& images) {
    if (images.empty()) {
        throw std::invalid_argument("sideBySide: no image");
    }
    const Range range = robustRange(images.front().second);
    int height = 0;
    for (const auto& entry : images) {
        if (entry.second.empty()) {
            throw std::invalid_argument("sideBySide: empty image \"" + entry.first + "\"");
        }
        height = std::max(height, entry.second.rows);
    }
    std::vector<cv::Mat> tiles;
    for (const auto& [text, image] : images) {
        cv::Mat tile = render(image, range);
        const int width =
            std::max(1, cvRound(image.cols * static_cast<double>(height) / image.rows));
        cv::resize(tile, tile, cv::Size(width, height), 0.0, 0.0, cv::INTER_NEAREST);
        label(tile, text);
        tiles.push_back(tile);
    }
    cv::Mat strip;
    cv::hconcat(tiles, strip);
    return strip;
}

}  // namespace kelvo::tools
