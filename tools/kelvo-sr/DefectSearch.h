// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <opencv2/core.hpp>
#include <string>
#include <vector>

#include "tools/kelvo-sr/SuperResolver.h"

namespace kelvo::tools {

// Bad pixels in the replacement-table form of vision::BadPixel: x, y in columns 0 and 1.
using BadPixelTable = cv::Mat_<unsigned short>;

// Values at or beyond either end count as defective.
struct SearchRange {
    int low;
    int high;
};

// The full scale of the smallest bit depth (8 bits or more) that holds values from lowest to
// highest: 0 .. 2^n - 1, or -2^n .. 2^n - 1 with negative values. Dead pixels read its low end,
// saturated ones its high end.
SearchRange fullScaleRange(double lowest, double highest);

struct DefectSearchSettings {
    int maxNeighbours = 3;
    int span = 4;
    int capacity = 10000;
    // Keep only the findings that also stand out from the pixels around them.
    bool local = true;
};

// The search's findings in an image of signed 16-bit values within [0, range width], in
// row-major order.
struct DefectSearchResult {
    BadPixelTable table;
    // Pixels the histogram flagged but the local test kept as scene.
    int keptAsScene = 0;
};

// Finds the defective pixels of a 16-bit image (CV_16U or CV_16S) whose values lie in range.
// The histogram search flags every value at or beyond the range's ends and every value shared
// by fewer than maxNeighbours pixels within span of it: it finds dead and hot pixels, and also
// the few hottest and coldest pixels of a real scene. The local test then keeps a flagged pixel
// only if it stands out from the unflagged pixels of its 5 x 5 neighbourhood (see standsOut):
// an isolated defect does, also on an edge; a scene's extreme (a warm object blurred over
// several pixels, a saturated region) does not. Throws std::runtime_error when more than
// capacity pixels are flagged.
DefectSearchResult findDefects(const cv::Mat& image, SearchRange range,
                               const DefectSearchSettings& settings);

// The defective pixels of a burst: those the search finds in every frame, so that a fixed
// defect is found and a warm spot that moves with the scene is not. Counts are searched as
// they are (scaled down when their full scale is wider than 16 bits), temperatures in steps of
// 0.1 kelvin.
std::vector<cv::Point> findBurstDefects(const std::vector<cv::Mat_<float>>& frames,
                                        ValueKind values, const DefectSearchSettings& settings);

// Positions from a CSV whose lines start with x,y (a table written by `kelvo-sr badpixels`
// will do); lines that start with neither a digit nor a minus sign (a header, comments) are
// skipped. Throws std::runtime_error naming the line of a malformed or outside position.
std::vector<cv::Point> readBadPixelPositions(const std::string& path, cv::Size imageSize);

}  // namespace kelvo::tools
