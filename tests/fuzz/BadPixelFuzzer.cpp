// SPDX-License-Identifier: Apache-2.0
// The bad-pixel utilities on arbitrary 16-bit images, histograms and tables of any shape: each
// must refuse what it cannot use and otherwise stay inside its matrices.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <opencv2/core.hpp>

#include "platform/kelvo/Exception.h"
#include "vision/superresolution/BadPixel.h"

namespace {

using kelvo::vision::BadPixel;

template <class Value>
cv::Mat_<Value> makeMatrix(FuzzedDataProvider& data, int maxRows, int maxCols) {
    const int rows = data.ConsumeIntegralInRange(0, maxRows);
    const int cols = data.ConsumeIntegralInRange(0, maxCols);
    cv::Mat_<Value> matrix(rows, cols, Value(0));
    for (auto& value : matrix) {
        value = data.ConsumeIntegral<Value>();
    }
    return matrix;
}

// Tables mostly of ten columns, as the utilities expect, with coordinates near the image.
cv::Mat_<unsigned short> makeTable(FuzzedDataProvider& data, cv::Size imageSize) {
    const bool tableForm = data.ConsumeBool();
    const int rows = data.ConsumeIntegralInRange(0, 12);
    const int cols = tableForm ? BadPixel::kTableColumns : data.ConsumeIntegralInRange(0, 12);
    cv::Mat_<unsigned short> table(rows, cols, static_cast<unsigned short>(0));
    for (int row = 0; row < rows; ++row) {
        for (int col = 0; col < cols; ++col) {
            const int limit = (col % 2 == 0 ? imageSize.width : imageSize.height) + 2;
            table(row, col) = data.ConsumeBool() ? data.ConsumeIntegral<unsigned short>()
                                                 : data.ConsumeIntegralInRange(0, limit);
        }
    }
    return table;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    FuzzedDataProvider data(bytes, size);
    cv::Mat_<short> image = makeMatrix<short>(data, 24, 24);
    const cv::Size imageSize = data.ConsumeBool() ? image.size()
                                                  : cv::Size(data.ConsumeIntegralInRange(0, 40),
                                                             data.ConsumeIntegralInRange(0, 40));
    switch (data.ConsumeIntegralInRange(0, 5)) {
        case 0: {
            cv::Mat_<int> histogram;
            const short low = data.ConsumeIntegral<short>();
            const short high = data.ConsumeBool()
                                   ? data.ConsumeIntegral<short>()
                                   : static_cast<short>(low + data.ConsumeIntegralInRange(0, 600));
            if (!BadPixel::buildValueHistogram(image, histogram, low, high)) {
                break;
            }
            cv::Mat_<unsigned short> table(data.ConsumeIntegralInRange(0, 40),
                                           data.ConsumeBool() ? BadPixel::kTableColumns : 9);
            BadPixel::performNeighbourSearch(
                image, histogram, table, data.ConsumeIntegral<unsigned short>(), high,
                data.ConsumeIntegral<unsigned short>(), data.ConsumeIntegral<unsigned short>());
            BadPixel::removeBadPixel(image, table);
            break;
        }
        case 1: {
            // A histogram of any shape, as a caller may hand in one built elsewhere.
            cv::Mat_<int> histogram = makeMatrix<int>(data, 2, 64);
            cv::Mat_<unsigned short> table(data.ConsumeIntegralInRange(0, 40),
                                           BadPixel::kTableColumns);
            BadPixel::performNeighbourSearch(
                image, histogram, table, data.ConsumeIntegral<unsigned short>(),
                data.ConsumeIntegral<short>(), data.ConsumeIntegral<unsigned short>(),
                data.ConsumeIntegral<unsigned short>());
            break;
        }
        case 2:
            BadPixel::removeBadPixel(image, makeTable(data, image.size()));
            break;
        case 3: {
            cv::Mat table = makeTable(data, imageSize);
            const cv::Mat source = makeTable(data, imageSize);
            BadPixel::appendBadPixel(source, table, imageSize,
                                     data.ConsumeIntegralInRange<unsigned int>(0, 6));
            break;
        }
        case 4: {
            cv::Mat_<unsigned short> table = makeTable(data, imageSize);
            BadPixel::calculateReplacePixels(table, imageSize,
                                             data.ConsumeIntegralInRange<unsigned int>(0, 6));
            for (int row = 0; row < table.rows && row < 4; ++row) {
                BadPixel::calculateSingleReplacePixelSimpleNhood(
                    table, static_cast<unsigned short>(row), imageSize);
            }
            break;
        }
        case 5: {
            cv::Mat_<cv::Vec<unsigned char, 3>> drawing(image.size());
            try {
                BadPixel::drawBadPixels(makeTable(data, image.size()), drawing,
                                        cv::Scalar(0, 0, 255), data.ConsumeIntegralInRange(-3, 9),
                                        data.ConsumeBool());
            } catch (const kelvo::Exception&) {
                // Tables of another form or beyond the image are refused by throwing.
            }
            break;
        }
    }
    return 0;
}
