// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <cctype>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <opencv2/imgproc.hpp>
#include <sstream>
#include <stdexcept>

#include "tools/kelvo-sr/CommandSupport.h"
#include "tools/kelvo-sr/Commands.h"
#include "tools/kelvo-sr/DefectSearch.h"
#include "tools/kelvo-sr/ImageFiles.h"
#include "tools/simulator/ThermalPreview.h"
#include "vision/superresolution/BadPixel.h"

namespace kelvo::tools {

namespace {

using kelvo::vision::BadPixel;
using Table = BadPixelTable;

// The search works on signed 16-bit values: the search range, shifted to start at 0, must
// fit them.
constexpr int kWidestRange = 32767;
// The replacement choice counts table rows in 16 bits.
constexpr int kMostTableRows = 32767;
// Positions, and the value histogram's row and column counters, are 16-bit.
constexpr int kLargestSide = 65535;

// "16-bit unsigned", "8-bit unsigned 3-channel", ... in the order of OpenCV's depths.
std::string describeDepth(const cv::Mat& image) {
    static const char* const depths[] = {"8-bit unsigned", "8-bit signed",   "16-bit unsigned",
                                         "16-bit signed",  "32-bit integer", "32-bit float",
                                         "64-bit float",   "16-bit float"};
    const std::string text = depths[image.depth()];
    return image.channels() == 1 ? text
                                 : text + " " + std::to_string(image.channels()) + "-channel";
}

cv::Mat readImage(const BadPixelsOptions& options) {
    const auto rawFormat = rawFormatFromOptions(options.rawSize, options.rawType);
    cv::Mat image = readStoredImage(options.input, rawFormat.get());
    if (image.channels() != 1 || (image.depth() != CV_16U && image.depth() != CV_16S)) {
        throw std::runtime_error("'" + options.input + "' holds " + describeDepth(image) +
                                 " values: bad pixels are searched in single-channel 16-bit "
                                 "images (PNG, TIFF, or headerless raw with --size and --type "
                                 "u16|i16).");
    }
    if (image.cols > kLargestSide || image.rows > kLargestSide) {
        throw std::runtime_error("'" + options.input + "' is " + std::to_string(image.cols) + "x" +
                                 std::to_string(image.rows) +
                                 " pixels: the bad-pixel search handles images of at most " +
                                 std::to_string(kLargestSide) + " rows and columns.");
    }
    return image;
}

// Values at or beyond either end count as defective. Unless given, the ends are those of
// the smallest bit depth that holds the image: dead pixels read 0 (or the most negative
// value), saturated ones the full scale.
SearchRange chooseSearchRange(const BadPixelsOptions& options, const cv::Mat& image) {
    double lowest = 0.0, highest = 0.0;
    cv::minMaxLoc(image, &lowest, &highest);
    const SearchRange fullScale = fullScaleRange(lowest, highest);
    const SearchRange range{options.low.value_or(fullScale.low),
                            options.high.value_or(fullScale.high)};
    if (range.low >= range.high) {
        throw std::runtime_error("--low " + std::to_string(range.low) + " must lie below --high " +
                                 std::to_string(range.high) + ".");
    }
    if (range.high - range.low > kWidestRange) {
        throw std::runtime_error(
            "The search range " + std::to_string(range.low) + ".." + std::to_string(range.high) +
            (options.low || options.high ? "" : " (the full scale of the image's values)") +
            " is wider than the " + std::to_string(kWidestRange) +
            " values the search covers: give --low and --high closer together.");
    }
    return range;
}

// Known bad pixels in the form detection leaves its rows in, so that their replacements get
// chosen.
Table knownBadPixels(const std::string& path, cv::Size imageSize) {
    Table known(0, BadPixel::kTableColumns);
    for (const cv::Point& position : readBadPixelPositions(path, imageSize)) {
        Table row = Table::zeros(1, BadPixel::kTableColumns);
        row(0, 0) = static_cast<unsigned short>(position.x);
        row(0, 1) = static_cast<unsigned short>(position.y);
        row(0, 2) = static_cast<unsigned short>(imageSize.width);
        row(0, 3) = static_cast<unsigned short>(imageSize.height);
        known.push_back(row);
    }
    return known;
}

// A row is replaced when all five of its positions lie in the image, as the repair demands.
bool isReplaced(const Table& table, int row, cv::Size imageSize) {
    for (int column = 0; column < BadPixel::kTableColumns; column += 2) {
        if (table(row, column) >= imageSize.width || table(row, column + 1) >= imageSize.height) {
            return false;
        }
    }
    return true;
}

void writeTable(const std::string& path, const Table& table) {
    std::ofstream file(path);
    file << "x,y,replacement1_x,replacement1_y,replacement2_x,replacement2_y,replacement3_x,"
            "replacement3_y,replacement4_x,replacement4_y\n";
    for (int row = 0; row < table.rows; ++row) {
        for (int column = 0; column < BadPixel::kTableColumns; ++column) {
            file << (column > 0 ? "," : "") << table(row, column);
        }
        file << '\n';
    }
    if (!file.flush()) {
        throw std::runtime_error("Cannot write '" + path + "': check the folder.");
    }
}

// The repaired image keeps the input's values: a PNG holds no negative ones, a TIFF does.
bool repairedAsPng(const std::string& path, const cv::Mat& image) {
    std::string extension = std::filesystem::path(path).extension().string();
    std::transform(extension.begin(), extension.end(), extension.begin(), ::tolower);
    if (extension == ".tif" || extension == ".tiff") {
        return false;
    }
    if (extension != ".png") {
        throw std::runtime_error("The repaired image '" + path +
                                 "' must be a .png or a .tif/.tiff file.");
    }
    double lowest = 0.0;
    cv::minMaxLoc(image, &lowest);
    if (lowest < 0.0) {
        throw std::runtime_error(
            "The image holds negative values, which a PNG cannot: write the "
            "repaired image as a .tiff instead of '" +
            path + "'.");
    }
    return true;
}

// The image in grey over the range of most of its pixels, so that the defects stand out,
// with a square around every bad pixel.
cv::Mat drawDefects(const BadPixelsOptions& options, const cv::Mat& image, const Table& table) {
    cv::Mat_<float> values;
    image.convertTo(values, CV_32F);
    const ThermalPreview::Range range = ThermalPreview::robustRange(values);
    cv::Mat grey;
    const double scale = 255.0 / (range.high - range.low);
    values.convertTo(grey, CV_8U, scale, -range.low * scale);
    cv::Mat_<cv::Vec<unsigned char, 3>> drawing;
    cv::cvtColor(grey, drawing, cv::COLOR_GRAY2BGR);
    BadPixel::drawBadPixels(table, drawing, cv::Scalar(0, 0, 255), options.markSize,
                            options.randomColours);
    return drawing;
}

// The bad pixels of the image, searched in [low, high], merged with the known ones, each
// with its replacements chosen; `found` tells how many the search found (the first rows),
// `keptAsScene` how many flagged pixels the local test kept.
Table findBadPixels(const BadPixelsOptions& options, const cv::Mat& image, SearchRange range,
                    const Table& known, int& found, int& keptAsScene) {
    DefectSearchSettings settings;
    settings.maxNeighbours = options.maxNeighbours;
    settings.span = options.span;
    settings.capacity = options.capacity;
    settings.local = options.search == "local";
    const DefectSearchResult search = findDefects(image, range, settings);
    Table table = search.table;
    keptAsScene = search.keptAsScene;
    found = table.rows;
    if (!known.empty()) {
        cv::Mat merged = table;
        BadPixel::appendBadPixel(known, merged, image.size(), options.radius);
        table = merged;
        if (table.rows > kMostTableRows) {
            throw std::runtime_error("Found and known bad pixels together exceed " +
                                     std::to_string(kMostTableRows) +
                                     ", the most the replacement search handles.");
        }
    }
    BadPixel::calculateReplacePixels(table, image.size(), options.radius);
    return table;
}

// The image with every replaced bad pixel set to the mean of its replacements, truncated
// toward zero. Signed images are repaired as they are; unsigned ones, which may exceed the
// signed values the repair takes, shifted down by the search range's low end: their good
// pixels stay non-negative, so the rounding does not change. Every other pixel keeps its
// value, also one that the shift would cut off.
cv::Mat repairBadPixels(const cv::Mat& image, const Table& table, SearchRange range) {
    const int offset = image.depth() == CV_16S ? 0 : range.low;
    cv::Mat_<short> unrepaired;
    image.convertTo(unrepaired, CV_16S, 1.0, -offset);
    cv::Mat_<short> values = unrepaired.clone();
    BadPixel::removeBadPixel(values, table);
    cv::Mat repaired = image.clone();
    cv::Mat valuesInImageType;
    values.convertTo(valuesInImageType, image.type(), 1.0, offset);
    valuesInImageType.copyTo(repaired, values != unrepaired);
    return repaired;
}

int valueAt(const cv::Mat& image, int x, int y) {
    return image.depth() == CV_16S ? image.at<short>(y, x) : image.at<unsigned short>(y, x);
}

int countUnreplaced(const Table& table, cv::Size imageSize) {
    int unreplaced = 0;
    for (int row = 0; row < table.rows; ++row) {
        unreplaced += !isReplaced(table, row, imageSize);
    }
    return unreplaced;
}

void printSummary(const BadPixelsOptions& options, const cv::Mat& image, SearchRange range,
                  const Table& table, int found, int keptAsScene, int unreplaced,
                  double milliseconds) {
    int outOfRange = 0;
    for (int row = 0; row < found; ++row) {
        const int value = valueAt(image, table(row, 0), table(row, 1));
        outOfRange += value <= range.low || value >= range.high;
    }
    std::cout << "found: " << found << (found == 1 ? " bad pixel in " : " bad pixels in ")
              << options.input << " (" << outOfRange << " at or beyond " << range.low << ".."
              << range.high << ", " << found - outOfRange << " at isolated values)" << std::endl;
    if (keptAsScene > 0) {
        std::cout << "kept: " << keptAsScene
                  << (keptAsScene == 1 ? " extreme value that matches"
                                       : " extreme values that match")
                  << " the pixels around it as scene (--search histogram would repair them too)"
                  << std::endl;
    }
    if (!options.known.empty()) {
        std::cout << "known: " << table.rows - found << " more from " << options.known << std::endl;
    }
    std::cout << "unreplaced: " << unreplaced;
    if (unreplaced > 0) {
        std::cout << " (no good pixel within --radius " << options.radius
                  << "; they keep their values)";
    }
    std::cout << std::endl;
    std::cout << "time: " << std::fixed << std::setprecision(2) << milliseconds << " ms"
              << std::endl;
}

}  // namespace

int runBadPixels(const BadPixelsOptions& options) {
    const cv::Mat image = readImage(options);
    const SearchRange range = chooseSearchRange(options, image);
    const Table known =
        options.known.empty() ? Table() : knownBadPixels(options.known, image.size());
    const bool pngOutput = repairedAsPng(options.output, image);

    const auto start = std::chrono::steady_clock::now();
    int found = 0, keptAsScene = 0;
    const Table table = findBadPixels(options, image, range, known, found, keptAsScene);
    cv::Mat repaired = repairBadPixels(image, table, range);
    const double milliseconds =
        std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
    const int unreplaced = countUnreplaced(table, image.size());
    printSummary(options, image, range, table, found, keptAsScene, unreplaced, milliseconds);

    writeTable(options.table, table);
    std::cout << "wrote " << options.table << " (" << table.rows << " rows)" << std::endl;
    if (pngOutput) {
        repaired.convertTo(repaired, CV_16U);
    }
    write16BitImage(options.output, repaired);
    std::cout << "wrote " << options.output << std::endl;
    writeColourImage(options.drawing, drawDefects(options, image, table));
    std::cout << "wrote " << options.drawing << std::endl;
    // The outputs exist; a non-zero code still tells the caller that defects remain.
    return unreplaced == 0 ? 0 : 2;
}

}  // namespace kelvo::tools
