// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <cmath>
#include <iterator>
#include <vector>

#include "platform/kelvo/Exception.h"
#include "vision/superresolution/BadPixel.h"

namespace {

using kelvo::vision::BadPixel;
using Table = cv::Mat_<unsigned short>;
using Colour = cv::Vec<unsigned char, 3>;

// One table row: bad pixel and four replacements.
Table tableOf(const std::vector<std::vector<unsigned short>>& rows) {
    Table table(static_cast<int>(rows.size()), BadPixel::kTableColumns, (unsigned short)0);
    for (int row = 0; row < table.rows; ++row) {
        for (size_t column = 0; column < rows[row].size(); ++column) {
            table(row, static_cast<int>(column)) = rows[row][column];
        }
    }
    return table;
}

std::vector<unsigned short> rowOf(const Table& table, int row) {
    return std::vector<unsigned short>(table[row], table[row] + BadPixel::kTableColumns);
}

TEST(BadPixel, RecordAddsEachDefectReasonOnce) {
    BadPixel pixel(3, 7, {{1, 2}}, {4, 4});
    EXPECT_EQ(pixel.pos(), cv::Point_<unsigned int>(3, 7));
    pixel.addDefectReasons({5, 4, 6, 5});
    EXPECT_EQ(pixel.retrieveDefectReasons(), (std::vector<unsigned short>{4, 4, 5, 6}));
}

TEST(BadPixel, HistogramCountsOutsideValuesInTheEndBins) {
    const cv::Mat_<short> image = (cv::Mat_<short>(2, 4) << -5, 10, 11, 12, 20, 21, 14, 10);
    cv::Mat_<int> histogram;
    ASSERT_TRUE(BadPixel::buildValueHistogram(image, histogram, 10, 20));
    ASSERT_EQ(histogram.size(), cv::Size(11, 1));
    const std::vector<int> expected = {3, 1, 1, 0, 1, 0, 0, 0, 0, 0, 2};
    EXPECT_EQ(std::vector<int>(histogram.begin(), histogram.end()), expected);

    // Refusals leave the histogram as it was.
    EXPECT_FALSE(BadPixel::buildValueHistogram(image, histogram, 10, 10));
    EXPECT_FALSE(BadPixel::buildValueHistogram(image, histogram, 11, 10));
    EXPECT_FALSE(BadPixel::buildValueHistogram(cv::Mat_<short>(), histogram, 0, 10));
    EXPECT_FALSE(
        BadPixel::buildValueHistogram(cv::Mat_<short>(1, 65536, short(0)), histogram, 0, 10));
    EXPECT_EQ(std::vector<int>(histogram.begin(), histogram.end()), expected);
    // The full 16-bit range.
    ASSERT_TRUE(BadPixel::buildValueHistogram(image, histogram, -32768, 32767));
    EXPECT_EQ(histogram.cols, 65536);
    EXPECT_EQ(histogram(0, 32768 - 5), 1);
}

// A 40 x 30 image of a dense background (values 500 to 539) with the given pixels.
struct SearchScene {
    cv::Mat_<short> image = cv::Mat_<short>(30, 40);
    cv::Mat_<int> histogram;

    explicit SearchScene(const std::vector<std::pair<cv::Point, short>>& pixels) {
        for (int y = 0; y < image.rows; ++y) {
            for (int x = 0; x < image.cols; ++x) {
                image(y, x) = static_cast<short>(500 + x);
            }
        }
        for (const auto& [position, value] : pixels) {
            image(position) = value;
        }
        BadPixel::buildValueHistogram(image, histogram, 100, 1000);
    }

    bool search(Table& table, unsigned short maxNeighbourCount = 3, unsigned short span = 4) {
        return BadPixel::performNeighbourSearch(image, histogram, table, 100, 1000,
                                                maxNeighbourCount, span);
    }
};

TEST(BadPixel, SearchFindsPixelsAtTheLimitsFirstThenIsolatedValues) {
    SearchScene scene({{{5, 2}, 200},
                       {{3, 1}, 1000},
                       {{7, 1}, 100},
                       {{8, 1}, 101},
                       {{0, 0}, 200},
                       {{9, 9}, 999},
                       {{4, 4}, -300}});
    Table table(20, BadPixel::kTableColumns, (unsigned short)7);
    ASSERT_TRUE(scene.search(table));
    // At or beyond the limits, row-major; then value 101, 200 (row-major), 999.
    const std::vector<cv::Point> expected = {{3, 1}, {7, 1}, {4, 4}, {8, 1},
                                             {0, 0}, {5, 2}, {9, 9}};
    ASSERT_EQ(table.rows, static_cast<int>(expected.size()));
    for (int row = 0; row < table.rows; ++row) {
        EXPECT_EQ(rowOf(table, row), (std::vector<unsigned short>{(unsigned short)expected[row].x,
                                                                  (unsigned short)expected[row].y,
                                                                  40, 30, 0, 0, 0, 0, 0, 0}))
            << row;
    }
    EXPECT_EQ(scene.histogram(0, 0), 0);
    EXPECT_EQ(scene.histogram(0, 900), 0);

    // Limits in the middle of the signed range: -1 reads as 65535 unsigned.
    cv::Mat_<short> negative(1, 3);
    negative << -1, -2, 0;
    cv::Mat_<int> histogram;
    BadPixel::buildValueHistogram(negative, histogram, -1, 5);
    Table small(4, BadPixel::kTableColumns);
    ASSERT_TRUE(BadPixel::performNeighbourSearch(negative, histogram, small, 65535, 5, 1, 2));
    EXPECT_EQ(small.rows, 2);
}

TEST(BadPixel, IsolationNeedsAllThreeRunningSumsBelowTheLimit) {
    // Span 4, half span 2, limit 3.
    SearchScene scene({{{0, 0}, 300},  // 300 and 2 x 304: left / right sums reach 3
                       {{1, 0}, 304},
                       {{2, 0}, 304},
                       {{0, 1}, 400},  // 400 and 2 x 405: one bin too far apart, both found
                       {{1, 1}, 405},
                       {{2, 1}, 405},
                       {{0, 2}, 700},  // 700, 702, 704: only the centre sum of 702 reaches 3;
                       {{1, 2}, 702},  // 700 and 704 see all three on one side
                       {{2, 2}, 704},
                       {{3, 3}, 900}});
    Table table(50, BadPixel::kTableColumns);
    ASSERT_TRUE(scene.search(table));
    std::vector<cv::Point> found;
    for (int row = 0; row < table.rows; ++row) {
        found.emplace_back(table(row, 0), table(row, 1));
    }
    EXPECT_EQ(found, (std::vector<cv::Point>{{0, 1}, {1, 1}, {2, 1}, {3, 3}}));

    // A wider limit admits the pairs, a zero limit or a span below 2 is refused.
    SearchScene wider({{{0, 0}, 300}, {{1, 0}, 304}, {{2, 0}, 304}});
    Table wide(50, BadPixel::kTableColumns);
    ASSERT_TRUE(wider.search(wide, 4));
    EXPECT_EQ(wide.rows, 3);
    EXPECT_FALSE(wider.search(wide, 0));
    EXPECT_FALSE(wider.search(wide, 3, 1));
    Table nineColumns(5, 9);
    EXPECT_FALSE(wider.search(nineColumns));
    cv::Mat_<int> noHistogram;
    EXPECT_FALSE(BadPixel::performNeighbourSearch(wider.image, noHistogram, wide, 100, 1000, 3, 4));
}

TEST(BadPixel, SearchStopsWithFalseWhenTheTableIsFull) {
    // Two pixels beyond the limits and an isolated one; a fresh histogram per search,
    // since a search clears the end bins that enable the pass beyond the limits.
    const auto search = [](Table& table) {
        return SearchScene({{{1, 1}, 50}, {{2, 2}, 1500}, {{3, 3}, 200}}).search(table);
    };
    Table twoRows(2, BadPixel::kTableColumns);
    EXPECT_FALSE(search(twoRows));
    ASSERT_EQ(twoRows.rows, 2);
    EXPECT_EQ(rowOf(twoRows, 1), (std::vector<unsigned short>{2, 2, 40, 30, 0, 0, 0, 0, 0, 0}));
    Table threeRows(3, BadPixel::kTableColumns);
    EXPECT_FALSE(search(threeRows));
    Table noRows(0, BadPixel::kTableColumns);
    EXPECT_FALSE(search(noRows));
    SearchScene scene({{{1, 1}, 50}, {{2, 2}, 1500}, {{3, 3}, 200}});
    Table fourRows(4, BadPixel::kTableColumns);
    EXPECT_TRUE(scene.search(fourRows));
    EXPECT_EQ(fourRows.rows, 3);
    Table again(4, BadPixel::kTableColumns);
    EXPECT_TRUE(scene.search(again));
    EXPECT_EQ(again.rows, 1);

    // Nothing found: the table keeps its capacity, cleared.
    SearchScene clean({});
    Table untouched(4, BadPixel::kTableColumns, (unsigned short)9);
    EXPECT_TRUE(clean.search(untouched));
    EXPECT_EQ(untouched.rows, 4);
    EXPECT_EQ(cv::countNonZero(untouched), 0);
}

TEST(BadPixel, RemovalTakesTheTruncatedMeanOfFourReplacements) {
    cv::Mat_<short> image = (cv::Mat_<short>(3, 4) << 1, -9, 3, 4, 5, 999, 7, 8, 9, -10, -11, 12);
    const cv::Mat_<short> original = image.clone();
    EXPECT_TRUE(BadPixel::removeBadPixel(image, Table(0, BadPixel::kTableColumns)));
    EXPECT_EQ(cv::countNonZero(image != original), 0);

    // (1, 1) from 5 + 7 - 9 + 3 = 6 -> 1; (2, 2) from -9 - 10 + 4 + 12 = -3 -> 0 (toward
    // zero); the middle row reaches outside the image and is skipped.
    const Table table = tableOf({{1, 1, 0, 1, 2, 1, 1, 0, 2, 0},
                                 {0, 2, 0, 1, 4, 1, 1, 2, 1, 1},
                                 {2, 2, 1, 0, 1, 2, 3, 0, 3, 2}});
    EXPECT_FALSE(BadPixel::removeBadPixel(image, table));
    EXPECT_EQ(image(1, 1), 1);
    EXPECT_EQ(image(2, 2), 0);
    EXPECT_EQ(image(2, 0), original(2, 0));

    cv::Mat_<short> empty;
    EXPECT_FALSE(BadPixel::removeBadPixel(empty, table));
    EXPECT_FALSE(BadPixel::removeBadPixel(image, Table(1, 9, (unsigned short)0)));
}

TEST(BadPixel, DrawsSquareOutlinesAndRejectsBadTables) {
    cv::Mat_<Colour> image(12, 12, Colour(0, 0, 0));
    BadPixel::drawBadPixels(tableOf({{5, 6}}), image, cv::Scalar(10, 20, 30), 3, false);
    for (int y = 0; y < 12; ++y) {
        for (int x = 0; x < 12; ++x) {
            const bool outline = x >= 4 && x <= 6 && y >= 5 && y <= 7 && !(x == 5 && y == 6);
            ASSERT_EQ(image(y, x), outline ? Colour(10, 20, 30) : Colour(0, 0, 0)) << x << y;
        }
    }

    cv::theRNG().state = 12345;
    cv::RNG expected(12345);
    const unsigned char blue = static_cast<unsigned char>(expected);
    const unsigned char green = static_cast<unsigned char>(expected);
    const unsigned char red = static_cast<unsigned char>(expected);
    BadPixel::drawBadPixels(tableOf({{1, 1}}), image, cv::Scalar(10, 20, 30), 1, true);
    EXPECT_EQ(image(1, 1), Colour(blue, green, red));

    const auto expectThrow = [&](const cv::Mat& table, const std::string& message, int line) {
        try {
            BadPixel::drawBadPixels(table, image, cv::Scalar(), 3, false);
            FAIL() << "no exception for " << message;
        } catch (const kelvo::Exception& error) {
            EXPECT_EQ(error.message(), message);
            EXPECT_EQ(error.location(), "vision/superresolution/BadPixel: " + std::to_string(line) +
                                            ": kelvo::vision::BadPixel::drawBadPixels(..)");
        }
    };
    expectThrow(cv::Mat(2, 9, CV_16U), "ERROR: \t >>Unspported BadPixel format!!", 116);
    expectThrow(cv::Mat(2, 10, CV_32S), "ERROR: \t >>Unspported BadPixel format!!", 116);
    expectThrow(tableOf({{2, 2}, {11, 12}}), "ERROR: \t >>BadPixel [12, 11] out of bounds ", 140);
    expectThrow(tableOf({{12, 0}}), "ERROR: \t >>BadPixel [0, 12] out of bounds ", 140);
}

TEST(BadPixel, QueryListsOffsetsByDistanceInFourTurns) {
    for (const auto& direction : BadPixel::computeReplacePixelQuery(0)) {
        EXPECT_TRUE(direction.empty());
    }
    const BadPixel::ReplacementQuery nearest = BadPixel::computeReplacePixelQuery(1);
    const std::vector<cv::Point> turned = {{0, 1}, {-1, 0}, {0, -1}, {1, 0}};
    for (int d = 0; d < 4; ++d) {
        ASSERT_EQ(nearest[d].size(), 1u);
        EXPECT_EQ(nearest[d].begin()->first, 0.0f);
        EXPECT_EQ(nearest[d].begin()->second, turned[d]);
    }

    // Radius 3: offsets (i, j + 1) for |(i, j)| <= 2, keyed by |(i, j)|, ties as inserted.
    const BadPixel::ReplacementQuery query = BadPixel::computeReplacePixelQuery(3);
    const std::vector<std::pair<float, cv::Point>> below = {{0.0f, {0, 1}},
                                                            {1.0f, {1, 1}},
                                                            {1.0f, {-1, 1}},
                                                            {1.0f, {0, 2}},
                                                            {std::sqrt(2.0f), {1, 2}},
                                                            {std::sqrt(2.0f), {-1, 2}},
                                                            {2.0f, {2, 1}},
                                                            {2.0f, {-2, 1}},
                                                            {2.0f, {0, 3}}};
    ASSERT_EQ(query[0].size(), below.size());
    size_t k = 0;
    for (auto entry = query[0].begin(); entry != query[0].end(); ++entry, ++k) {
        EXPECT_EQ(entry->first, below[k].first) << k;
        EXPECT_EQ(entry->second, below[k].second) << k;
        const cv::Point p = below[k].second;
        const cv::Point rotations[3] = {{-p.y, p.x}, {-p.x, -p.y}, {p.y, -p.x}};
        for (int d = 1; d < 4; ++d) {
            auto turnedEntry = query[d].begin();
            std::advance(turnedEntry, k);
            EXPECT_EQ(turnedEntry->first, below[k].first);
            EXPECT_EQ(turnedEntry->second, rotations[d - 1]) << d << ", " << k;
        }
    }
}

TEST(BadPixel, ReplacementsComeFromTheNearestGoodPixelOfEachDirection) {
    const cv::Size size(10, 8);
    // Radius 1: below, left, above, right; in a corner the two neighbours inside twice.
    Table table = tableOf({{4, 3}, {0, 0}});
    ASSERT_TRUE(BadPixel::calculateReplacePixels(table, size, 1));
    EXPECT_EQ(rowOf(table, 0), (std::vector<unsigned short>{4, 3, 4, 4, 3, 3, 4, 2, 5, 3}));
    EXPECT_EQ(rowOf(table, 1), (std::vector<unsigned short>{0, 0, 0, 1, 1, 0, 0, 1, 1, 0}));

    // Radius 0 finds nothing and leaves the replacement columns as they were.
    Table unchanged = tableOf({{4, 3, 1, 2, 3, 4, 5, 6, 7, 8}});
    EXPECT_FALSE(BadPixel::calculateReplacePixels(unchanged, size, 0));
    EXPECT_EQ(rowOf(unchanged, 0), (std::vector<unsigned short>{4, 3, 1, 2, 3, 4, 5, 6, 7, 8}));

    // Radius 3 skips bad pixels: below (4, 4) is bad, so the first good one below is
    // (5, 4) at key 1; left (3, 3) is bad too, so (3, 4) at key 1 (turned (1, 1)).
    Table crowded = tableOf({{4, 3}, {4, 4}, {3, 3}});
    ASSERT_TRUE(BadPixel::calculateReplacePixels(crowded, size, 3));
    EXPECT_EQ(rowOf(crowded, 0), (std::vector<unsigned short>{4, 3, 4, 2, 5, 3, 5, 4, 3, 4}));

    // (4, 3) with all four neighbours bad: it fails, the neighbours still get theirs.
    Table surrounded = tableOf({{4, 3}, {4, 4}, {3, 3}, {4, 2}, {5, 3}});
    EXPECT_FALSE(BadPixel::calculateReplacePixels(surrounded, size, 1));
    EXPECT_EQ(rowOf(surrounded, 0), (std::vector<unsigned short>{4, 3, 0, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(rowOf(surrounded, 1), (std::vector<unsigned short>{4, 4, 4, 5, 3, 4, 5, 4, 4, 5}));
    for (int row = 2; row < 5; ++row) {
        EXPECT_NE(surrounded(row, 2), 0) << row;
    }

    // The overloads agree with the table-wide search.
    Table byRadius = tableOf({{4, 3}, {4, 4}, {3, 3}});
    Table byQuery = byRadius.clone();
    ASSERT_TRUE(BadPixel::calculateSingleReplacePixel(byRadius, 0, size, 3));
    ASSERT_TRUE(BadPixel::calculateSingleReplacePixel(byQuery, 0, size,
                                                      BadPixel::computeReplacePixelQuery(3)));
    EXPECT_EQ(rowOf(byRadius, 0), rowOf(crowded, 0));
    EXPECT_EQ(rowOf(byQuery, 0), rowOf(crowded, 0));
    EXPECT_FALSE(BadPixel::calculateSingleReplacePixel(byQuery, 3, size, 3));
    EXPECT_FALSE(BadPixel::calculateSingleReplacePixel(byQuery, 0, cv::Size(0, 0), 3));
    EXPECT_FALSE(BadPixel::calculateSingleReplacePixel(byQuery, 0, size, -1));

    // The row counter is 16-bit signed: a table of 32768 rows counts as none.
    Table huge(32768, BadPixel::kTableColumns, (unsigned short)0);
    huge(0, 0) = 4;
    EXPECT_TRUE(BadPixel::calculateReplacePixels(huge, size, 1));
    EXPECT_EQ(huge(0, 2), 0);
}

TEST(BadPixel, SimpleNeighbourhoodTurnsThroughTheDirections) {
    const cv::Size size(10, 8);
    Table table = tableOf({{4, 3}, {4, 2}, {0, 0}});
    ASSERT_TRUE(BadPixel::calculateSingleReplacePixelSimpleNhood(table, 0, size));
    // Up (4, 2) is bad, so up gives (4, 1); then right, down, left.
    EXPECT_EQ(rowOf(table, 0), (std::vector<unsigned short>{4, 3, 4, 1, 5, 3, 4, 4, 3, 3}));
    // In the corner nothing lies up or left: right, right, down, right.
    ASSERT_TRUE(BadPixel::calculateSingleReplacePixelSimpleNhood(table, 2, size));
    EXPECT_EQ(rowOf(table, 2), (std::vector<unsigned short>{0, 0, 1, 0, 1, 0, 0, 1, 1, 0}));

    // 16-bit arithmetic: left of column 0 is 65535, inside an image that wide.
    Table wide = tableOf({{0, 0}});
    ASSERT_TRUE(BadPixel::calculateSingleReplacePixelSimpleNhood(wide, 0, cv::Size(70000, 8)));
    EXPECT_EQ(rowOf(wide, 0), (std::vector<unsigned short>{0, 0, 1, 0, 1, 0, 0, 1, 65535, 0}));

    Table lonely = tableOf({{0, 0, 9, 9, 9, 9, 9, 9, 9, 9}});
    EXPECT_FALSE(BadPixel::calculateSingleReplacePixelSimpleNhood(lonely, 0, cv::Size(1, 1)));
    EXPECT_EQ(rowOf(lonely, 0), (std::vector<unsigned short>{0, 0, 9, 9, 9, 9, 9, 9, 9, 9}));
    EXPECT_FALSE(BadPixel::calculateSingleReplacePixelSimpleNhood(lonely, 1, size));
    Table empty;
    EXPECT_FALSE(BadPixel::calculateSingleReplacePixelSimpleNhood(empty, 0, size));
}

TEST(BadPixel, AppendMergesAndRecomputesReplacementsThatWentBad) {
    const cv::Size size(10, 8);
    cv::Mat table = tableOf({{4, 3}, {7, 7}});
    Table computed = table;
    ASSERT_TRUE(BadPixel::calculateReplacePixels(computed, size, 1));
    // Freshly detected (4, 4), the pixel below (4, 3), and (7, 7) again.
    const Table detected = tableOf({{4, 4, 10, 8}, {7, 7, 10, 8}});
    ASSERT_TRUE(BadPixel::appendBadPixel(detected, table, size, 2));
    Table merged = table;
    ASSERT_EQ(merged.rows, 3);
    // (4, 3) no longer uses (4, 4): with radius 2 below gives (5, 4) at key 1, last.
    EXPECT_EQ(rowOf(merged, 0), (std::vector<unsigned short>{4, 3, 3, 3, 4, 2, 5, 3, 5, 4}));
    EXPECT_EQ(rowOf(merged, 1), rowOf(computed, 1));
    // Above (4, 4) lies the bad (4, 3): (3, 3) at key 1 instead.
    EXPECT_EQ(rowOf(merged, 2), (std::vector<unsigned short>{4, 4, 4, 5, 3, 4, 5, 4, 3, 3}));

    // Good replacements are kept whatever the reach. Without reach (count 0) rows that
    // lost a replacement, or never had one, are left unreplaced for removeBadPixel to skip.
    cv::Mat unreachable;
    const std::vector<unsigned short> first = {2, 2, 1, 2, 3, 2, 2, 1, 2, 3};
    const std::vector<unsigned short> second = {5, 5, 4, 5, 6, 5, 5, 4, 5, 6};
    EXPECT_TRUE(BadPixel::appendBadPixel(tableOf({first}), unreachable, size, 0));
    EXPECT_TRUE(BadPixel::appendBadPixel(tableOf({second}), unreachable, size, 0));
    EXPECT_FALSE(BadPixel::appendBadPixel(tableOf({{2, 1, 10, 8}}), unreachable, size, 0));
    const Table kept = unreachable;
    ASSERT_EQ(kept.rows, 3);
    EXPECT_EQ(rowOf(kept, 0), (std::vector<unsigned short>{2, 2, 10, 8, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(rowOf(kept, 1), second);
    EXPECT_EQ(rowOf(kept, 2), (std::vector<unsigned short>{2, 1, 10, 8, 0, 0, 0, 0, 0, 0}));
    cv::Mat_<short> image(size, short(5));
    image(5, 5) = 80;
    EXPECT_FALSE(BadPixel::removeBadPixel(image, kept));
    EXPECT_EQ(image(5, 5), 5);

    // Refusals leave the table as it was.
    const cv::Mat before = unreachable.clone();
    EXPECT_FALSE(BadPixel::appendBadPixel(Table(0, 10), unreachable, size, 1));
    EXPECT_FALSE(BadPixel::appendBadPixel(cv::Mat(1, 9, CV_16U), unreachable, size, 1));
    EXPECT_FALSE(BadPixel::appendBadPixel(cv::Mat(1, 10, CV_32S), unreachable, size, 1));
    cv::Mat wrongTable(1, 10, CV_32S);
    EXPECT_FALSE(BadPixel::appendBadPixel(tableOf({{1, 1}}), wrongTable, size, 1));
    EXPECT_EQ(cv::countNonZero(unreachable != before), 0);

    // Rows without columns hold nothing: the source alone makes the table.
    cv::Mat columnless(3, 0, CV_16U);
    EXPECT_TRUE(BadPixel::appendBadPixel(tableOf({second}), columnless, size, 0));
    ASSERT_EQ(columnless.rows, 1);
    EXPECT_EQ(rowOf(columnless, 0), second);
}

TEST(BadPixel, FoundPixelsAreRepairedEndToEnd) {
    cv::Mat_<short> image(64, 80);
    for (int y = 0; y < image.rows; ++y) {
        for (int x = 0; x < image.cols; ++x) {
            image(y, x) = static_cast<short>(1000 + 3 * x + 2 * y);
        }
    }
    const cv::Mat_<short> clean = image.clone();
    image(10, 20) = 0;
    image(30, 40) = 16383;
    image(50, 60) = 3000;  // an isolated value
    image(0, 0) = 0;
    cv::Mat_<int> histogram;
    ASSERT_TRUE(BadPixel::buildValueHistogram(image, histogram, 0, 16383));
    Table table(16, BadPixel::kTableColumns);
    ASSERT_TRUE(BadPixel::performNeighbourSearch(image, histogram, table, 0, 16383, 3, 4));
    ASSERT_EQ(table.rows, 4);
    ASSERT_TRUE(BadPixel::calculateReplacePixels(table, image.size(), 1));
    ASSERT_TRUE(BadPixel::removeBadPixel(image, table));
    // A linear ramp is its own mean, except in the corner, which is weighted to one side.
    EXPECT_EQ(cv::countNonZero(image != clean), 1);
    EXPECT_EQ(image(0, 0), (2 * clean(1, 0) + 2 * clean(0, 1)) / 4);
}

}  // namespace
