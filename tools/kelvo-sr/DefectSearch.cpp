// SPDX-License-Identifier: Apache-2.0
#include "tools/kelvo-sr/DefectSearch.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "vision/superresolution/BadPixel.h"

namespace kelvo::tools {

namespace {

using kelvo::vision::BadPixel;

constexpr int kSmallestBitDepth = 8;
// The search works on signed 16-bit values starting at 0.
constexpr int kWidestRange = 32767;
// The local test looks this far around a flagged pixel, and needs this many unflagged pixels
// there to judge it; fewer means a large region of extreme values, which is scene.
constexpr int kLocalRadius = 2;
constexpr int kLeastLocalPixels = 8;
// A defect lies off every line through it by more than this share of the local spread.
constexpr double kOffLineShare = 0.5;
// Temperatures are searched in steps of a tenth of a kelvin.
constexpr double kTemperatureSteps = 10.0;

// Whether a flagged pixel is a defect, judged against the unflagged pixels around it. Two
// measures: the spread of the unflagged values of its 5 x 5 neighbourhood (the local contrast),
// and the distance of its value from the nearest line through it, the mean of a pair of
// opposite unflagged neighbours (horizontal, vertical, both diagonals). A scene pixel lies near
// one of those lines, along an edge or on the shoulders of a warm object, while a defect lies
// off all of them by a large part of the local contrast. On real frames with planted defects
// the defects lie off by more than half the spread and the scene's extremes by less than two
// fifths. Without an unflagged pair, the pixel must lie beyond the neighbourhood's values by
// more than their spread. Fewer than kLeastLocalPixels unflagged neighbours mean a region of
// extreme values, which is scene (a saturated hot object).
bool standsOut(const cv::Mat_<short>& image, const cv::Mat_<unsigned char>& flagged, int x, int y,
               int leastExcess) {
    const auto usable = [&](int nx, int ny) {
        return nx >= 0 && ny >= 0 && nx < image.cols && ny < image.rows && flagged(ny, nx) == 0;
    };
    int lowest = 0, highest = 0, count = 0;
    for (int ny = y - kLocalRadius; ny <= y + kLocalRadius; ++ny) {
        for (int nx = x - kLocalRadius; nx <= x + kLocalRadius; ++nx) {
            if (usable(nx, ny)) {
                lowest = count == 0 ? image(ny, nx) : std::min<int>(lowest, image(ny, nx));
                highest = count == 0 ? image(ny, nx) : std::max<int>(highest, image(ny, nx));
                ++count;
            }
        }
    }
    if (count < kLeastLocalPixels) {
        return false;
    }
    const int spread = std::max(highest - lowest, leastExcess);
    const int value = image(y, x);

    static const int directions[4][2] = {{1, 0}, {0, 1}, {1, 1}, {1, -1}};
    bool anyLine = false;
    double nearest = 0.0;
    for (const auto& direction : directions) {
        const int ax = x + direction[0], ay = y + direction[1];
        const int bx = x - direction[0], by = y - direction[1];
        if (usable(ax, ay) && usable(bx, by)) {
            const double distance = std::abs(value - 0.5 * (image(ay, ax) + image(by, bx)));
            nearest = anyLine ? std::min(nearest, distance) : distance;
            anyLine = true;
        }
    }
    if (anyLine) {
        return nearest > kOffLineShare * spread;
    }
    return value > highest + spread || value < lowest - spread;
}

// The rows of the table whose pixels stand out from their neighbourhood.
BadPixelTable keepLocalDefects(const cv::Mat_<short>& image, const BadPixelTable& table,
                               int leastExcess) {
    cv::Mat_<unsigned char> flagged = cv::Mat_<unsigned char>::zeros(image.size());
    for (int row = 0; row < table.rows; ++row) {
        flagged(table(row, 1), table(row, 0)) = 1;
    }
    BadPixelTable kept(0, BadPixel::kTableColumns);
    for (int row = 0; row < table.rows; ++row) {
        if (standsOut(image, flagged, table(row, 0), table(row, 1), leastExcess)) {
            kept.push_back(table.row(row));
        }
    }
    return kept;
}

// A float frame as the search's signed 16-bit values, with the range they are searched in.
cv::Mat_<short> searchImage(const cv::Mat_<float>& frame, ValueKind values, SearchRange& range) {
    double low = 0.0, high = 0.0, steps = 1.0;
    cv::Mat_<unsigned char> finite = cv::Mat_<unsigned char>::zeros(frame.size());
    for (int y = 0; y < frame.rows; ++y) {
        for (int x = 0; x < frame.cols; ++x) {
            finite(y, x) = std::isfinite(frame(y, x)) ? 255 : 0;
        }
    }
    cv::minMaxLoc(frame, &low, &high, nullptr, nullptr, finite);
    if (values == ValueKind::kCounts) {
        const SearchRange fullScale = fullScaleRange(std::floor(low), std::ceil(high));
        low = fullScale.low;
        high = fullScale.high;
    } else {
        // Just beyond the extremes: only isolated values are flagged.
        steps = kTemperatureSteps;
        low -= 1.0 / steps;
        high += 1.0 / steps;
    }
    const double scale = std::min(steps, kWidestRange / (high - low));
    cv::Mat_<short> searched;
    frame.convertTo(searched, CV_16S, scale, -low * scale);
    searched.setTo(0, finite == 0);
    range = SearchRange{0, static_cast<int>(std::floor((high - low) * scale))};
    return searched;
}

}  // namespace

SearchRange fullScaleRange(double lowest, double highest) {
    int fullScale = 1 << kSmallestBitDepth;
    while (fullScale - 1 < highest || -fullScale > lowest) {
        fullScale *= 2;
    }
    return SearchRange{lowest < 0.0 ? -fullScale : 0, fullScale - 1};
}

DefectSearchResult findDefects(const cv::Mat& image, SearchRange range,
                               const DefectSearchSettings& settings) {
    // The search takes signed 16-bit values with its range starting at 0: shifting by the
    // low end keeps every value inside the range exact, and those beyond it stay beyond it.
    cv::Mat_<short> searched;
    image.convertTo(searched, CV_16S, 1.0, -range.low);
    const short highLimit = static_cast<short>(range.high - range.low);
    cv::Mat_<int> histogram;
    BadPixel::buildValueHistogram(searched, histogram, 0, highLimit);
    BadPixelTable table(settings.capacity, BadPixel::kTableColumns);
    if (!BadPixel::performNeighbourSearch(searched, histogram, table, 0, highLimit,
                                          static_cast<unsigned short>(settings.maxNeighbours),
                                          static_cast<unsigned short>(settings.span))) {
        throw std::runtime_error(
            "More than " + std::to_string(settings.capacity) +
            " bad pixels: the table is full. Give a larger --capacity (at most 32767), or check "
            "--low and --high: every value at or beyond them counts as defective.");
    }
    // A search that finds nothing leaves the table at its capacity, all zeros.
    if (table.rows == settings.capacity) {
        table = BadPixelTable(0, BadPixel::kTableColumns);
    }
    DefectSearchResult result{table, 0};
    if (settings.local) {
        result.table = keepLocalDefects(searched, table, settings.span);
        result.keptAsScene = table.rows - result.table.rows;
    }
    return result;
}

std::vector<cv::Point> findBurstDefects(const std::vector<cv::Mat_<float>>& frames,
                                        ValueKind values, const DefectSearchSettings& settings) {
    if (frames.empty()) {
        return {};
    }
    cv::Mat_<int> timesFound = cv::Mat_<int>::zeros(frames.front().size());
    for (const cv::Mat_<float>& frame : frames) {
        SearchRange range{};
        const cv::Mat_<short> searched = searchImage(frame, values, range);
        const BadPixelTable table = findDefects(searched, range, settings).table;
        for (int row = 0; row < table.rows; ++row) {
            ++timesFound(table(row, 1), table(row, 0));
        }
    }
    std::vector<cv::Point> defects;
    for (int y = 0; y < timesFound.rows; ++y) {
        for (int x = 0; x < timesFound.cols; ++x) {
            if (timesFound(y, x) == static_cast<int>(frames.size())) {
                defects.emplace_back(x, y);
            }
        }
    }
    return defects;
}

std::vector<cv::Point> readBadPixelPositions(const std::string& path, cv::Size imageSize) {
    std::ifstream file(path);
    if (!file) {
        throw std::runtime_error("Cannot read the bad pixels '" + path + "'.");
    }
    std::vector<cv::Point> positions;
    std::string line;
    for (int number = 1; std::getline(file, line); ++number) {
        if (line.empty() ||
            (line[0] != '-' && !std::isdigit(static_cast<unsigned char>(line[0])))) {
            continue;
        }
        std::istringstream fields(line);
        long x = -1, y = -1;
        char comma = 0;
        if (!(fields >> x >> comma >> y) || comma != ',') {
            throw std::runtime_error("Line " + std::to_string(number) + " of '" + path +
                                     "' does not start with x,y.");
        }
        if (x < 0 || y < 0 || x >= imageSize.width || y >= imageSize.height) {
            throw std::runtime_error("The bad pixel (" + std::to_string(x) + ", " +
                                     std::to_string(y) + ") on line " + std::to_string(number) +
                                     " of '" + path + "' lies outside the " +
                                     std::to_string(imageSize.width) + "x" +
                                     std::to_string(imageSize.height) + " image.");
        }
        positions.emplace_back(static_cast<int>(x), static_cast<int>(y));
    }
    return positions;
}

}  // namespace kelvo::tools
