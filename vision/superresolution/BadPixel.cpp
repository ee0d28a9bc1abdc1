// SPDX-License-Identifier: Apache-2.0
#include "vision/superresolution/BadPixel.h"

#include <algorithm>
#include <cmath>
#include <opencv2/imgproc.hpp>
#include <sstream>

#include "platform/kelvo/Exception.h"

namespace kelvo::vision {

namespace {

constexpr const char* kSourcePath = "vision/superresolution/BadPixel";
constexpr const char* kDrawFunction = "kelvo::vision::BadPixel::drawBadPixels";
constexpr int kUnsupportedFormatLine = 116;
constexpr int kOutOfBoundsLine = 140;

// The histogram walks rows and columns with 16-bit counters.
constexpr int kMaxHistogramImageExtent = 65535;

constexpr int kReplacementCount = 4;
constexpr size_t kDirections = 4;
constexpr int kFirstReplacementColumn = 2;

using Table = cv::Mat_<unsigned short>;

// Fixed neighbourhood: per direction (up, right, down, left) seven offsets, nearest first.
constexpr int kSimpleDirections = 4;
constexpr int kSimpleOffsetsPerDirection = 7;
constexpr int kSimpleNeighbourhood[kSimpleDirections][kSimpleOffsetsPerDirection][2] = {
    {{0, -1}, {0, -2}, {-1, -1}, {1, -1}, {-1, -2}, {1, -2}, {0, -3}},
    {{1, 0}, {2, 0}, {1, -1}, {1, 1}, {2, -1}, {2, 1}, {3, 0}},
    {{0, 1}, {0, 2}, {1, 1}, {-1, 1}, {1, 2}, {-1, 2}, {0, 3}},
    {{-1, 0}, {-2, 0}, {-1, 1}, {-1, -1}, {-2, 1}, {-2, -1}, {-3, 0}}};

bool hasTableForm(const cv::Mat& table) {
    return table.dims == 2 && table.cols == BadPixel::kTableColumns && table.type() == CV_16U;
}

unsigned int linearIndex(unsigned int x, unsigned int y, unsigned int width) {
    return y * width + x;
}

void collectBadPixels(const Table& table, int width, std::set<unsigned int>& badSet) {
    for (int row = 0; row < table.rows; ++row) {
        badSet.insert(linearIndex(table(row, 0), table(row, 1), static_cast<unsigned int>(width)));
    }
}

// Writes bad pixel positions into a table whose row count is its capacity.
class TableFiller {
public:
    explicit TableFiller(Table& table) : table(table) {}

    // False once the table is full.
    bool append(int x, int y) {
        if (count >= table.rows) {
            return false;
        }
        table(count, 0) = static_cast<unsigned short>(x);
        table(count, 1) = static_cast<unsigned short>(y);
        ++count;
        return count < table.rows;
    }

    int found() const { return count; }

private:
    Table& table;
    int count = 0;
};

bool appendOutOfRangePixels(const cv::Mat_<short>& image, short lowLimit, short highLimit,
                            TableFiller& filler) {
    for (int y = 0; y < image.rows; ++y) {
        const short* values = image[y];
        for (int x = 0; x < image.cols; ++x) {
            if ((values[x] <= lowLimit || values[x] >= highLimit) && !filler.append(x, y)) {
                return false;
            }
        }
    }
    return true;
}

// A bin is isolated when it is positive while the bins from span to its left up to it, the
// bins from it to span to its right, and those within span / 2 on either side each sum
// below maxNeighbourCount. The three sums run along the bins; bins outside count 0.
std::vector<unsigned char> findIsolatedBins(const int* bins, int binCount, int span,
                                            unsigned short maxNeighbourCount) {
    const int halfSpan = span / 2;
    const auto binAt = [&](long long i) -> long long {
        return i >= 0 && i < binCount ? bins[i] : 0;
    };
    long long left = binAt(0);
    long long centre = 0;
    long long right = 0;
    for (int i = 0; i <= span; ++i) {
        centre += i <= halfSpan ? binAt(i) : 0;
        right += binAt(i);
    }
    std::vector<unsigned char> isolated(binCount, 0);
    for (int i = 0; i < binCount; ++i) {
        bool testable = true;
        if (i > 0) {
            const long long leavingLeft = binAt(i - span - 1);
            const long long leavingCentre = binAt(i - halfSpan - 1);
            const long long leavingRight = binAt(i - 1);
            // Only a histogram with negative counts gets here; its sums mean nothing.
            if (leavingLeft > left || leavingCentre > centre || leavingRight > right) {
                testable = false;
            }
            left += binAt(i) - leavingLeft;
            centre += binAt(static_cast<long long>(i) + halfSpan) - leavingCentre;
            right += binAt(static_cast<long long>(i) + span) - leavingRight;
        }
        isolated[i] = testable && bins[i] > 0 && left < maxNeighbourCount &&
                      centre < maxNeighbourCount && right < maxNeighbourCount;
    }
    return isolated;
}

// Appends the pixels of every isolated bin, bin by bin and row-major within a bin, as one
// scan of the image per bin would; one scan collects them all.
bool appendIsolatedPixels(const cv::Mat_<short>& image, const std::vector<unsigned char>& isolated,
                          unsigned short lowLimit, TableFiller& filler) {
    struct Hit {
        int bin;
        int x;
        int y;
    };
    std::vector<Hit> hits;
    const int binCount = static_cast<int>(isolated.size());
    for (int y = 0; y < image.rows; ++y) {
        const short* values = image[y];
        for (int x = 0; x < image.cols; ++x) {
            const int bin = values[x] - static_cast<int>(lowLimit);
            if (bin >= 0 && bin < binCount && isolated[bin]) {
                hits.push_back({bin, x, y});
            }
        }
    }
    std::stable_sort(hits.begin(), hits.end(),
                     [](const Hit& a, const Hit& b) { return a.bin < b.bin; });
    for (const Hit& hit : hits) {
        if (!filler.append(hit.x, hit.y)) {
            return false;
        }
    }
    return true;
}

// The form detection leaves a row in: the image size in place of the first replacement
// (outside the image, so removeBadPixel skips the row), zeros after it.
void markUnreplaced(Table& table, int row, cv::Size imageSize) {
    table(row, kFirstReplacementColumn) = static_cast<unsigned short>(imageSize.width);
    table(row, kFirstReplacementColumn + 1) = static_cast<unsigned short>(imageSize.height);
    for (int column = kFirstReplacementColumn + 2; column < BadPixel::kTableColumns; ++column) {
        table(row, column) = 0;
    }
}

bool hasGoodReplacements(const Table& table, int row, cv::Size imageSize,
                         const std::set<unsigned int>& badSet) {
    const unsigned short x = table(row, 0);
    const unsigned short y = table(row, 1);
    for (int k = 0; k < kReplacementCount; ++k) {
        const unsigned short replacementX = table(row, kFirstReplacementColumn + 2 * k);
        const unsigned short replacementY = table(row, kFirstReplacementColumn + 2 * k + 1);
        if ((replacementX == x && replacementY == y) || replacementX >= imageSize.width ||
            replacementY >= imageSize.height ||
            badSet.count(linearIndex(replacementX, replacementY,
                                     static_cast<unsigned int>(imageSize.width))) != 0) {
            return false;
        }
    }
    return true;
}

bool tableListsPixel(const Table& table, unsigned short x, unsigned short y) {
    for (int row = 0; row < table.rows; ++row) {
        if (table(row, 0) == x && table(row, 1) == y) {
            return true;
        }
    }
    return false;
}

// The replacement search of one row, for rows beyond 16-bit numbers as well.
bool chooseReplacements(Table& table, int row, cv::Size imageSize,
                        const BadPixel::ReplacementQuery& query, std::set<unsigned int>& badSet) {
    if (row >= table.rows || table.cols != BadPixel::kTableColumns || imageSize.width <= 0 ||
        imageSize.height <= 0) {
        return false;
    }
    if (badSet.empty()) {
        collectBadPixels(table, imageSize.width, badSet);
    }
    const unsigned int x = table(row, 0);
    const unsigned int y = table(row, 1);
    const unsigned int width = static_cast<unsigned int>(imageSize.width);
    const unsigned int height = static_cast<unsigned int>(imageSize.height);

    // The nearest good pixel of each direction; a negative offset at the border wraps to a
    // huge coordinate and is rejected with the pixels beyond the far border.
    std::vector<std::pair<float, cv::Point_<unsigned int>>> nearest;
    const size_t directionCount = std::min<size_t>(query.size(), kDirections);
    for (size_t d = 0; d < directionCount; ++d) {
        for (const auto& [distance, offset] : query[d]) {
            const unsigned int candidateX = x + static_cast<unsigned int>(offset.x);
            const unsigned int candidateY = y + static_cast<unsigned int>(offset.y);
            if (candidateX >= width || candidateY >= height ||
                badSet.count(linearIndex(candidateX, candidateY, width)) != 0) {
                continue;
            }
            nearest.emplace_back(distance, cv::Point_<unsigned int>(candidateX, candidateY));
            break;
        }
    }
    if (nearest.empty()) {
        return false;
    }
    // Passes over the directions repeat the same choices until four are taken, so a pixel
    // with fewer good directions weights those more in the mean.
    std::multimap<float, cv::Point_<unsigned int>> chosen;
    while (chosen.size() < kReplacementCount) {
        for (size_t i = 0; i < nearest.size() && chosen.size() < kReplacementCount; ++i) {
            chosen.insert(nearest[i]);
        }
    }
    int column = kFirstReplacementColumn;
    for (const auto& [distance, pixel] : chosen) {
        table(row, column++) = static_cast<unsigned short>(pixel.x);
        table(row, column++) = static_cast<unsigned short>(pixel.y);
    }
    return true;
}

}  // namespace

BadPixel::BadPixel(unsigned int x, unsigned int y,
                   const std::vector<cv::Point_<unsigned int>>& replacements,
                   const std::vector<unsigned short>& reasons)
    : replacementPixels(replacements), y(y), x(x), defectReasons(reasons) {}

void BadPixel::set(const cv::Point_<unsigned int>& position) {
    set(position.x, position.y);
}

void BadPixel::set(unsigned int newX, unsigned int newY) {
    x = newX;
    y = newY;
}

void BadPixel::pos(unsigned int& outX, unsigned int& outY) const {
    outX = x;
    outY = y;
}

void BadPixel::addReplacementPixel(const cv::Point_<unsigned int>& pixel) {
    replacementPixels.push_back(pixel);
}

void BadPixel::addReplacementPixel(unsigned int pixelX, unsigned int pixelY) {
    replacementPixels.emplace_back(pixelX, pixelY);
}

void BadPixel::addDefectReasons(const std::vector<unsigned short>& reasons) {
    for (unsigned short reason : reasons) {
        if (std::find(defectReasons.begin(), defectReasons.end(), reason) == defectReasons.end()) {
            defectReasons.push_back(reason);
        }
    }
}

bool BadPixel::buildValueHistogram(const cv::Mat_<short>& image, cv::Mat_<int>& histogram,
                                   short minValue, short maxValue) {
    if (image.empty() || minValue >= maxValue || image.rows > kMaxHistogramImageExtent ||
        image.cols > kMaxHistogramImageExtent) {
        return false;
    }
    const int lastBin = maxValue - minValue;
    histogram.create(1, lastBin + 1);
    histogram.setTo(0);
    int* bins = histogram[0];
    for (int y = 0; y < image.rows; ++y) {
        const short* values = image[y];
        for (int x = 0; x < image.cols; ++x) {
            const short value = values[x];
            if (value > maxValue) {
                ++bins[lastBin];
            } else if (value < minValue) {
                ++bins[0];
            } else {
                ++bins[value - minValue];
            }
        }
    }
    return true;
}

bool BadPixel::performNeighbourSearch(const cv::Mat_<short>& image, cv::Mat_<int>& histogram,
                                      cv::Mat_<unsigned short>& table, unsigned short lowLimit,
                                      short highLimit, unsigned short maxNeighbourCount,
                                      unsigned short binSpan) {
    if (histogram.empty() || !histogram.isContinuous() || maxNeighbourCount == 0 || binSpan < 2 ||
        table.cols != kTableColumns) {
        return false;
    }
    table.setTo(0);
    TableFiller filler(table);
    int* bins = histogram.ptr<int>();
    const int binCount = static_cast<int>(histogram.total());

    bool complete = true;
    if (bins[0] != 0 || bins[binCount - 1] != 0) {
        complete = appendOutOfRangePixels(image, static_cast<short>(lowLimit), highLimit, filler);
    }
    if (complete) {
        bins[0] = 0;
        bins[binCount - 1] = 0;
        complete = appendIsolatedPixels(
            image, findIsolatedBins(bins, binCount, binSpan, maxNeighbourCount), lowLimit, filler);
    }

    if (filler.found() > 0) {
        table = table.rowRange(0, filler.found());
        for (int row = 0; row < table.rows; ++row) {
            table(row, kFirstReplacementColumn) = static_cast<unsigned short>(image.cols);
            table(row, kFirstReplacementColumn + 1) = static_cast<unsigned short>(image.rows);
        }
    }
    return complete;
}

bool BadPixel::removeBadPixel(cv::Mat_<short>& image, cv::Mat_<unsigned short> table) {
    if (image.empty()) {
        return false;
    }
    if (table.rows == 0) {
        return true;
    }
    if (table.cols != kTableColumns) {
        return false;
    }
    bool allInside = true;
    for (int row = 0; row < table.rows; ++row) {
        const unsigned short* entry = table[row];
        bool inside = true;
        for (int pair = 0; pair <= kReplacementCount; ++pair) {
            inside = inside && entry[2 * pair] < image.cols && entry[2 * pair + 1] < image.rows;
        }
        if (!inside) {
            allInside = false;
            continue;
        }
        int sum = image(entry[3], entry[2]);
        sum += image(entry[9], entry[8]) + image(entry[7], entry[6]) + image(entry[5], entry[4]);
        image(entry[1], entry[0]) = static_cast<short>(sum / kReplacementCount);
    }
    return allInside;
}

void BadPixel::drawBadPixels(const cv::Mat& table, cv::Mat_<cv::Vec<unsigned char, 3>>& image,
                             const cv::Scalar& colour, int size, bool randomColour) {
    if (!hasTableForm(table)) {
        throw kelvo::Exception(
            "ERROR: \t >>Unspported BadPixel format!!",
            kelvo::SourceLocation{kSourcePath, kUnsupportedFormatLine, kDrawFunction}.text());
    }
    for (int row = 0; row < table.rows; ++row) {
        const unsigned short x = table.at<unsigned short>(row, 0);
        const unsigned short y = table.at<unsigned short>(row, 1);
        if (x >= image.cols || y >= image.rows) {
            std::ostringstream message;
            message << "ERROR: \t >>BadPixel [" << y << ", " << x << "] out of bounds ";
            throw kelvo::Exception(
                message.str(),
                kelvo::SourceLocation{kSourcePath, kOutOfBoundsLine, kDrawFunction}.text());
        }
        cv::Scalar outline = colour;
        if (randomColour) {
            cv::RNG& random = cv::theRNG();
            const unsigned char blue = static_cast<unsigned char>(random);
            const unsigned char green = static_cast<unsigned char>(random);
            const unsigned char red = static_cast<unsigned char>(random);
            outline = cv::Scalar(blue, green, red, 0);
        }
        cv::rectangle(image, cv::Rect(x - size / 2, y - size / 2, size, size), outline, 1,
                      cv::LINE_8, 0);
    }
}

bool BadPixel::appendBadPixel(const cv::Mat& source, cv::Mat& table, cv::Size imageSize,
                              unsigned int count) {
    if (source.rows < 1 || !hasTableForm(source) || (!table.empty() && !hasTableForm(table))) {
        return false;
    }
    // Positions as 32-bit keys, exact for any 16-bit coordinates.
    const auto positionKey = [](const unsigned short* entry) {
        return static_cast<unsigned int>(entry[1]) << 16 | entry[0];
    };
    // A table without columns holds no entries, whatever its row count says.
    const int heldRows = table.empty() ? 0 : table.rows;
    Table merged(0, kTableColumns);
    std::set<unsigned int> listed;
    for (int row = 0; row < heldRows; ++row) {
        merged.push_back(Table(table.row(row)));
        listed.insert(positionKey(table.ptr<unsigned short>(row)));
    }
    for (int row = 0; row < source.rows; ++row) {
        if (listed.insert(positionKey(source.ptr<unsigned short>(row))).second) {
            merged.push_back(Table(source.row(row)));
        }
    }

    std::set<unsigned int> badSet;
    collectBadPixels(merged, imageSize.width, badSet);
    // The query grows with the square of its reach: built only when a row needs it.
    ReplacementQuery query;
    bool allReplaced = true;
    for (int row = 0; row < merged.rows; ++row) {
        if (hasGoodReplacements(merged, row, imageSize, badSet)) {
            continue;
        }
        if (query.empty()) {
            query = computeReplacePixelQuery(count);
        }
        if (!chooseReplacements(merged, row, imageSize, query, badSet)) {
            markUnreplaced(merged, row, imageSize);
            allReplaced = false;
        }
    }
    table = merged;
    return allReplaced;
}

BadPixel::ReplacementQuery BadPixel::computeReplacePixelQuery(unsigned int radius) {
    ReplacementQuery query(kDirections);
    // Radius 0 wraps to a limit of -1: nothing lies that near.
    const int limit = static_cast<int>(radius - 1u);
    if (limit < 0) {
        return query;
    }
    // Offsets (i, j + 1) for |(i, j)| <= radius - 1, keyed by |(i, j)|; beyond the limit in
    // either coordinate nothing qualifies, so the scan stops there.
    std::multimap<float, cv::Point_<int>>& below = query[0];
    const float limitDistance = static_cast<float>(limit);
    for (long long j = 0; j <= limit; ++j) {
        for (long long i = 0; i <= limit; ++i) {
            const float distance = std::sqrt(static_cast<float>(i * i + j * j));
            if (distance > limitDistance) {
                continue;
            }
            below.emplace(distance, cv::Point_<int>(static_cast<int>(i), static_cast<int>(j + 1)));
            if (i != 0) {
                below.emplace(distance,
                              cv::Point_<int>(static_cast<int>(-i), static_cast<int>(j + 1)));
            }
        }
    }
    // Turned by 90, 180 and 270 degrees: (x, y) -> (-y, x), (-x, -y), (y, -x).
    for (const auto& [distance, offset] : below) {
        query[1].emplace(distance, cv::Point_<int>(-offset.y, offset.x));
        query[2].emplace(distance, cv::Point_<int>(-offset.x, -offset.y));
        query[3].emplace(distance, cv::Point_<int>(offset.y, -offset.x));
    }
    return query;
}

bool BadPixel::calculateReplacePixels(cv::Mat_<unsigned short>& table, cv::Size imageSize,
                                      unsigned int radius) {
    if (table.rows > 0 && table.cols != kTableColumns) {
        return false;
    }
    std::set<unsigned int> badSet;
    collectBadPixels(table, imageSize.width, badSet);
    const ReplacementQuery query = computeReplacePixelQuery(radius);
    bool allReplaced = true;
    const short rowCount = static_cast<short>(table.rows);
    for (short row = 0; row < rowCount; ++row) {
        allReplaced = calculateSingleReplacePixel(table, static_cast<unsigned short>(row),
                                                  imageSize, query, badSet) &&
                      allReplaced;
    }
    return allReplaced;
}

bool BadPixel::calculateSingleReplacePixel(cv::Mat_<unsigned short>& table, unsigned short row,
                                           cv::Size imageSize, const ReplacementQuery& query,
                                           std::set<unsigned int>& badSet) {
    return chooseReplacements(table, row, imageSize, query, badSet);
}

bool BadPixel::calculateSingleReplacePixel(cv::Mat_<unsigned short>& table, unsigned short row,
                                           cv::Size imageSize, int radius) {
    return calculateSingleReplacePixel(table, row, imageSize,
                                       computeReplacePixelQuery(static_cast<unsigned int>(radius)));
}

bool BadPixel::calculateSingleReplacePixel(cv::Mat_<unsigned short>& table, unsigned short row,
                                           cv::Size imageSize, const ReplacementQuery& query) {
    std::set<unsigned int> badSet;
    return calculateSingleReplacePixel(table, row, imageSize, query, badSet);
}

bool BadPixel::calculateSingleReplacePixelSimpleNhood(cv::Mat_<unsigned short>& table,
                                                      unsigned short row, cv::Size imageSize) {
    if (table.empty() || row >= table.rows || table.cols != kTableColumns) {
        return false;
    }
    const unsigned short x = table(row, 0);
    const unsigned short y = table(row, 1);
    int found = 0;
    for (int turn = 0; turn < kReplacementCount; ++turn) {
        bool hit = false;
        for (int step = 0; step < kSimpleDirections && !hit; ++step) {
            const auto& offsets = kSimpleNeighbourhood[(turn + step) % kSimpleDirections];
            for (int k = 0; k < kSimpleOffsetsPerDirection && !hit; ++k) {
                // 16-bit arithmetic: a step left of column 0 lands on 65535.
                const auto candidateX = static_cast<unsigned short>(x + offsets[k][0]);
                const auto candidateY = static_cast<unsigned short>(y + offsets[k][1]);
                if (static_cast<int>(candidateX) >= imageSize.width ||
                    static_cast<int>(candidateY) >= imageSize.height ||
                    tableListsPixel(table, candidateX, candidateY)) {
                    continue;
                }
                table(row, kFirstReplacementColumn + 2 * found) = candidateX;
                table(row, kFirstReplacementColumn + 2 * found + 1) = candidateY;
                ++found;
                hit = true;
            }
        }
    }
    return found == kReplacementCount;
}

}  // namespace kelvo::vision
