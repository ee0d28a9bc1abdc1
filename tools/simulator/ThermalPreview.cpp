// SPDX-License-Identifier: Apache-2.0
#include "tools/simulator/ThermalPreview.h"

#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cmath>
#include <cstdio>
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

namespace {

// The iron palette of thermography: black through blue, purple, red, orange and yellow
// to white, interpolated between these stops (BGR at 0, 1/6, ... 1).
cv::Mat ironTable() {
    static const cv::Vec3f stops[] = {{0, 0, 0},     {140, 0, 30},  {150, 0, 120},  {60, 20, 200},
                                      {0, 110, 245}, {0, 210, 255}, {255, 255, 255}};
    constexpr int kSegments = 6;
    cv::Mat table(1, 256, CV_8UC3);
    for (int i = 0; i < 256; ++i) {
        const float position = i * kSegments / 255.0f;
        const int segment = std::min(static_cast<int>(position), kSegments - 1);
        const float t = position - segment;
        const cv::Vec3f colour = stops[segment] * (1.0f - t) + stops[segment + 1] * t;
        table.at<cv::Vec3b>(0, i) =
            cv::Vec3b(cv::saturate_cast<uchar>(colour[0]), cv::saturate_cast<uchar>(colour[1]),
                      cv::saturate_cast<uchar>(colour[2]));
    }
    return table;
}

// Grey levels 0 (low end) .. 255 (high end) in the palette's colours.
cv::Mat colourise(const cv::Mat& grey, ThermalPreview::Palette palette) {
    cv::Mat preview;
    switch (palette) {
        case ThermalPreview::Palette::kIron: {
            static const cv::Mat table = ironTable();
            cv::Mat grey3;
            cv::cvtColor(grey, grey3, cv::COLOR_GRAY2BGR);
            cv::LUT(grey3, table, preview);
            break;
        }
        case ThermalPreview::Palette::kInferno:
            cv::applyColorMap(grey, preview, cv::COLORMAP_INFERNO);
            break;
        case ThermalPreview::Palette::kGrey:
        case ThermalPreview::Palette::kWhiteHot:
            cv::cvtColor(grey, preview, cv::COLOR_GRAY2BGR);
            break;
        case ThermalPreview::Palette::kBlackHot:
            cv::cvtColor(255 - grey, preview, cv::COLOR_GRAY2BGR);
            break;
    }
    return preview;
}

}  // namespace

ThermalPreview::Palette ThermalPreview::paletteNamed(const std::string& name) {
    static const std::pair<const char*, Palette> names[] = {{"iron", Palette::kIron},
                                                            {"inferno", Palette::kInferno},
                                                            {"grey", Palette::kGrey},
                                                            {"white-hot", Palette::kWhiteHot},
                                                            {"black-hot", Palette::kBlackHot}};
    for (const auto& [known, palette] : names) {
        if (name == known) {
            return palette;
        }
    }
    throw std::invalid_argument("unknown palette \"" + name + "\"");
}

cv::Mat ThermalPreview::render(const cv::Mat_<float>& image, Range range, Palette palette) {
    cv::Mat grey;
    const double scale = 255.0 / (range.high - range.low);
    image.convertTo(grey, CV_8U, scale, -range.low * scale);
    return colourise(grey, palette);
}

cv::Mat ThermalPreview::withColourBar(const cv::Mat& preview, Range range, Palette palette,
                                      const std::string& unit) {
    const int barWidth = std::max(12, preview.cols / 40);
    const int margin = std::max(4, barWidth / 2);
    const double textScale = std::max(0.35, preview.rows / 700.0);
    char low[32], high[32];
    std::snprintf(low, sizeof(low), "%.1f %s", range.low, unit.c_str());
    std::snprintf(high, sizeof(high), "%.1f %s", range.high, unit.c_str());
    int baseline = 0;
    const cv::Size textSize =
        cv::getTextSize(std::string(low).size() > std::string(high).size() ? low : high,
                        cv::FONT_HERSHEY_SIMPLEX, textScale, 1, &baseline);
    cv::Mat canvas(preview.rows, preview.cols + 3 * margin + barWidth + textSize.width, CV_8UC3,
                   cv::Scalar(0, 0, 0));
    preview.copyTo(canvas(cv::Rect(0, 0, preview.cols, preview.rows)));
    cv::Mat ramp(preview.rows, 1, CV_8U);
    for (int r = 0; r < ramp.rows; ++r) {
        ramp.at<uchar>(r) =
            cv::saturate_cast<uchar>(255.0 * (ramp.rows - 1 - r) / std::max(1, ramp.rows - 1));
    }
    cv::Mat bar;
    cv::resize(colourise(ramp, palette), bar, cv::Size(barWidth, preview.rows), 0, 0,
               cv::INTER_NEAREST);
    bar.copyTo(canvas(cv::Rect(preview.cols + margin, 0, barWidth, preview.rows)));
    const int textX = preview.cols + 2 * margin + barWidth;
    const cv::Scalar white(255, 255, 255);
    cv::putText(canvas, high, cv::Point(textX, textSize.height + 2), cv::FONT_HERSHEY_SIMPLEX,
                textScale, white, 1, cv::LINE_AA);
    cv::putText(canvas, low, cv::Point(textX, preview.rows - baseline - 2),
                cv::FONT_HERSHEY_SIMPLEX, textScale, white, 1, cv::LINE_AA);
    return canvas;
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
    const std::vector<std::pair<std::string, cv::Mat_<float>>>& images, const Range* givenRange,
    Palette palette) {
    if (images.empty()) {
        throw std::invalid_argument("sideBySide: no image");
    }
    const Range range = givenRange != nullptr ? *givenRange : robustRange(images.front().second);
    int height = 0;
    for (const auto& entry : images) {
        if (entry.second.empty()) {
            throw std::invalid_argument("sideBySide: empty image \"" + entry.first + "\"");
        }
        height = std::max(height, entry.second.rows);
    }
    std::vector<cv::Mat> tiles;
    for (const auto& [text, image] : images) {
        cv::Mat tile = render(image, range, palette);
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
