// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <map>
#include <opencv2/core.hpp>
#include <set>
#include <vector>

namespace kelvo::vision {

// One defective sensor pixel with the reasons it is defective and the pixels whose mean
// replaces it; and static utilities that find, replace and draw the defective pixels of
// 16-bit raw images.
//
// The utilities exchange bad pixels through a replacement table: a CV_16U matrix with
// one row per bad pixel and ten columns, x and y of the bad pixel followed by x and y of
// its four replacement pixels. Detection writes the image's column and row count in place
// of the first replacement (a position outside the image: "not replaced yet") and zeros
// after it; the replacement search fills all four. Utilities return false on bad input;
// drawBadPixels throws kelvo::Exception.
class BadPixel {
public:
    static constexpr int kTableColumns = 10;

    // Four lists of neighbour offsets ordered by distance, one per direction: below, left,
    // above, right of the bad pixel.
    using ReplacementQuery = std::vector<std::multimap<float, cv::Point_<int>>>;

    BadPixel() = default;
    BadPixel(unsigned int x, unsigned int y,
             const std::vector<cv::Point_<unsigned int>>& replacements,
             const std::vector<unsigned short>& reasons);
    virtual ~BadPixel() = default;

    void set(const cv::Point_<unsigned int>& position);
    void set(unsigned int x, unsigned int y);
    cv::Point_<unsigned int> pos() const { return {x, y}; }
    void pos(unsigned int& x, unsigned int& y) const;

    void addReplacementPixel(const cv::Point_<unsigned int>& pixel);
    void addReplacementPixel(unsigned int x, unsigned int y);
    void clearReplacements() { replacementPixels.clear(); }
    size_t getNumberOfReplacementPixels() const { return replacementPixels.size(); }
    std::vector<cv::Point_<unsigned int>> getReplacementPixels() const { return replacementPixels; }

    // Appends the codes not held yet, in the given order; each code is held once.
    void addDefectReasons(const std::vector<unsigned short>& reasons);
    std::vector<unsigned short> retrieveDefectReasons() const { return defectReasons; }

    // Counts the pixel values into one bin per value of [minValue, maxValue]; values
    // outside count in the end bins. False, with the histogram untouched, for an empty
    // image, minValue not below maxValue, or an image of more than 65535 rows or columns.
    static bool buildValueHistogram(const cv::Mat_<short>& image, cv::Mat_<int>& histogram,
                                    short minValue, short maxValue);

    // Finds bad pixels from a value histogram whose bin i counts the value i + lowLimit:
    // first every pixel at or below lowLimit (read as a signed 16-bit value) or at or above
    // highLimit, if the histogram's end bins show any, then the pixels of every isolated
    // value, one whose bin is positive while the binSpan bins to its left, the binSpan bins
    // to its right and the binSpan / 2 bins on either side each sum below maxNeighbourCount.
    // The end bins are cleared in the histogram. The table's row count is the capacity: the
    // search stops with false as soon as the table is full. The table is then cut to the
    // rows found, if any. False without searching for an empty or non-continuous histogram,
    // maxNeighbourCount 0, binSpan below 2 or a table not of ten columns.
    static bool performNeighbourSearch(const cv::Mat_<short>& image, cv::Mat_<int>& histogram,
                                       cv::Mat_<unsigned short>& table, unsigned short lowLimit,
                                       short highLimit, unsigned short maxNeighbourCount,
                                       unsigned short binSpan);

    // Gives each bad pixel the integer mean of its four replacements. A row with any
    // position outside the image is skipped and makes the result false; a table without
    // rows changes nothing and returns true, one with rows but not ten columns returns false.
    static bool removeBadPixel(cv::Mat_<short>& image, cv::Mat_<unsigned short> table);

    // Outlines a square of side `size` around every bad pixel, in the given colour or in a
    // random one per pixel. The table must be CV_16U with ten columns and inside the image.
    static void drawBadPixels(const cv::Mat& table, cv::Mat_<cv::Vec<unsigned char, 3>>& image,
                              const cv::Scalar& colour, int size, bool randomColour);

    // Merges the source table into `table`: its rows first, then the source rows whose bad
    // pixel the table does not list yet. Rows whose replacements are no longer good, because
    // a replacement is now a listed bad pixel, is the bad pixel itself or lies outside
    // imageSize (as in freshly detected rows), get their replacements computed again with
    // the neighbour search of `count` rings (the radius of calculateReplacePixels). A row
    // for which no good pixel lies within reach is reset to the detection form (image size
    // as first replacement, zeros after it), so that removeBadPixel skips it, and the result
    // is false. False with the table untouched unless the source has rows, ten columns and
    // type CV_16U and the table is empty or of the same form.
    static bool appendBadPixel(const cv::Mat& source, cv::Mat& table, cv::Size imageSize,
                               unsigned int count);

    // Offsets within distance radius - 1 of the pixel, shifted one row down (the key is the
    // distance before the shift), mirrored left-right, and turned by 90, 180 and 270 degrees
    // for the other directions. Radius 1 gives the four direct neighbours; radius 0 nothing.
    static ReplacementQuery computeReplacePixelQuery(unsigned int radius);

    // Chooses replacements for every table row; true only if every row got four. Rows are
    // counted with a signed 16-bit counter, so tables of 32768 rows or more are handled
    // only up to their row count cut to 16 bits.
    static bool calculateReplacePixels(cv::Mat_<unsigned short>& table, cv::Size imageSize,
                                       unsigned int radius);

    // Takes from each direction of the query, in turn, its nearest good pixel (inside the
    // image and not in badSet, the set of y * width + x of all bad pixels, built from the
    // table when empty) until four are chosen; directions without a good pixel leave the
    // others to be used again. Writes them nearest first; false, with the row unchanged,
    // when no direction offers a good pixel.
    static bool calculateSingleReplacePixel(cv::Mat_<unsigned short>& table, unsigned short row,
                                            cv::Size imageSize, const ReplacementQuery& query,
                                            std::set<unsigned int>& badSet);
    static bool calculateSingleReplacePixel(cv::Mat_<unsigned short>& table, unsigned short row,
                                            cv::Size imageSize, int radius);
    static bool calculateSingleReplacePixel(cv::Mat_<unsigned short>& table, unsigned short row,
                                            cv::Size imageSize, const ReplacementQuery& query);

    // Chooses each replacement from a fixed neighbourhood of seven offsets per direction,
    // starting with a different direction for each; true only if all four were found. For
    // short tables: every candidate is looked up in the whole table.
    static bool calculateSingleReplacePixelSimpleNhood(cv::Mat_<unsigned short>& table,
                                                       unsigned short row, cv::Size imageSize);

private:
    std::vector<cv::Point_<unsigned int>> replacementPixels;
    unsigned int y = 0;
    unsigned int x = 0;
    std::vector<unsigned short> defectReasons;
};

}  // namespace kelvo::vision
