// SPDX-License-Identifier: Apache-2.0
#include "vision/superresolution/SuperResolutionBadPixelHandling.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "platform/kelvo/Exception.h"
#include "platform/kelvo/NeonLanes.h"
#include "vision/superresolution/VectorClones.h"

namespace kelvo::vision {

namespace {

constexpr const char* kSourcePath = "vision/superresolution/SuperResolutionBadPixelHandling";
constexpr int kTooManyDefectsLine = 287;
constexpr int kShiftCountMismatchLine = 298;
constexpr int kMasksMissingLine = 380;

// More pixels than this that neither a neighbour mean nor a frame extreme can fill make a
// frame unusable.
constexpr int kMaxUnrepairablePixels = 10;

constexpr float kDefaultValidMin = -274.0f;
constexpr float kDefaultValidMax = 5000.0f;
constexpr float kNUCValidMin = -32768.0f;
constexpr float kNUCValidMax = 32767.0f;

// A result pixel is marked across a 7 x 7 block around the projected defect.
constexpr int kMaskRadius = 3;
// The result is this many times larger than a frame.
constexpr float kMagnification = 2.0f;
constexpr float kReduction = 0.5f;

// The result is searched for markers in runs of this many pixels, most of which hold none.
constexpr int kMarkerScanChunk = 16;

unsigned int bitsOf(float value) {
    unsigned int bits;
    std::memcpy(&bits, &value, sizeof bits);
    return bits;
}

float floatOfBits(unsigned int bits) {
    float value;
    std::memcpy(&value, &bits, sizeof value);
    return value;
}

bool isMarker(unsigned int bits) {
    return bits == SuperResolutionBadPixelHandling::kMarkerMaximum ||
           bits == SuperResolutionBadPixelHandling::kMarkerMinimum ||
           bits == SuperResolutionBadPixelHandling::kMarkerDefect ||
           bits == SuperResolutionBadPixelHandling::kMarkerDefectAlternative;
}

// The alternative defect marker is left to the caller: only these are refilled.
bool isRefilledMarker(unsigned int bits) {
    return bits == SuperResolutionBadPixelHandling::kMarkerMaximum ||
           bits == SuperResolutionBadPixelHandling::kMarkerMinimum ||
           bits == SuperResolutionBadPixelHandling::kMarkerDefect;
}

// Branch-free tests that let runs of pixels be skipped; the compiler vectorises them.
KELVO_VECTOR_CLONES bool anyNonZero(const unsigned char* codes, int count) {
    unsigned char any = 0;
    for (int i = 0; i < count; ++i) {
        any |= codes[i];
    }
    return any != 0;
}

// True when some value has bits 129 to 132, as every refilled marker has.
KELVO_VECTOR_CLONES bool anyRefilledMarkerCandidate(const float* values, int count) {
    unsigned int any = 0;
    for (int i = 0; i < count; ++i) {
        any |= bitsOf(values[i]) - SuperResolutionBadPixelHandling::kMarkerMaximum <=
               SuperResolutionBadPixelHandling::kMarkerDefect -
                   SuperResolutionBadPixelHandling::kMarkerMaximum;
    }
    return any != 0;
}

unsigned int markerOfDefectCode(unsigned char code) {
    switch (code) {
        case SuperResolutionBadPixelHandling::kDefectMinimumMarker:
            return SuperResolutionBadPixelHandling::kMarkerMinimum;
        case SuperResolutionBadPixelHandling::kDefectMaximumMarker:
            return SuperResolutionBadPixelHandling::kMarkerMaximum;
        default:
            return SuperResolutionBadPixelHandling::kMarkerDefect;
    }
}

// Running extremes of the valid values, four columns at a time: lane k sees the columns
// k, k + 4, k + 8, ... of every row. Validity as in isValid: within [low, high] (which
// NaN never is) and no marker.
class ExtremeLanes {
public:
    static constexpr int kWidth = 4;

    ExtremeLanes(float validMin, float validMax)
        : low(vdupq_n_f32(validMin)),
          high(vdupq_n_f32(validMax)),
          lowest(vdupq_n_f32(validMax)),
          highest(vdupq_n_f32(validMin)) {}

    // Takes the first `columns` values of a row (a multiple of the width); true when one
    // of them is not valid.
    bool fold(const float* row, int columns) {
        const uint32x4_t firstMarker = vdupq_n_u32(SuperResolutionBadPixelHandling::kMarkerMaximum);
        const uint32x4_t markerSpan =
            vdupq_n_u32(SuperResolutionBadPixelHandling::kMarkerDefectAlternative -
                        SuperResolutionBadPixelHandling::kMarkerMaximum);
        const uint32x4_t ordinary = vdupq_n_u32(kOrdinaryBetweenMarkers);
        uint32x4_t anyInvalid = vdupq_n_u32(0);
        for (int x = 0; x < columns; x += kWidth) {
            const float32x4_t value = vld1q_f32(row + x);
            const uint32x4_t bits = vreinterpretq_u32_f32(value);
            const uint32x4_t marker = vbicq_u32(vcleq_u32(vsubq_u32(bits, firstMarker), markerSpan),
                                                vceqq_u32(bits, ordinary));
            const uint32x4_t valid =
                vbicq_u32(vandq_u32(vcgeq_f32(value, low), vcleq_f32(value, high)), marker);
            lowest = vbslq_f32(vandq_u32(valid, vcltq_f32(value, lowest)), value, lowest);
            highest = vbslq_f32(vandq_u32(valid, vcgtq_f32(value, highest)), value, highest);
            anyInvalid = vorrq_u32(anyInvalid, vmvnq_u32(valid));
        }
        return (vgetq_lane_u32(anyInvalid, 0) | vgetq_lane_u32(anyInvalid, 1) |
                vgetq_lane_u32(anyInvalid, 2) | vgetq_lane_u32(anyInvalid, 3)) != 0;
    }

    void merge(float& minValue, float& maxValue) const {
        float lowestLanes[kWidth];
        float highestLanes[kWidth];
        vst1q_f32(lowestLanes, lowest);
        vst1q_f32(highestLanes, highest);
        for (int k = 0; k < kWidth; ++k) {
            minValue = lowestLanes[k] < minValue ? lowestLanes[k] : minValue;
            maxValue = highestLanes[k] > maxValue ? highestLanes[k] : maxValue;
        }
    }

private:
    // The one bit pattern between the markers that is an ordinary value.
    static constexpr unsigned int kOrdinaryBetweenMarkers = 131;

    float32x4_t low;
    float32x4_t high;
    float32x4_t lowest;
    float32x4_t highest;
};

float firstZero(const cv::Mat_<float>& image) {
    for (int y = 0; y < image.rows; ++y) {
        const float* row = image[y];
        for (int x = 0; x < image.cols; ++x) {
            if (row[x] == 0.0f) {
                return row[x];
            }
        }
    }
    return 0.0f;
}

}  // namespace

SuperResolutionBadPixelHandling::SuperResolutionBadPixelHandling(unsigned int historyLength)
    : historyLength(historyLength),
      validMin(kDefaultValidMin),
      validMax(kDefaultValidMax),
      dataIsNUC(false),
      neighbourOffsets{{-1, 0}, {1, 0}, {0, -1}, {0, 1}} {}

SuperResolutionBadPixelHandling::SuperResolutionBadPixelHandling(
    const SuperResolutionBadPixelHandling& other)
    : historyLength(other.historyLength),
      validMin(other.validMin),
      validMax(other.validMax),
      dataIsNUC(other.dataIsNUC),
      neighbourOffsets{other.neighbourOffsets[0], other.neighbourOffsets[1],
                       other.neighbourOffsets[2], other.neighbourOffsets[3]} {
    for (const cv::Mat& defectMap : other.defectMaps) {
        defectMaps.push_back(defectMap.clone());
    }
}

SuperResolutionBadPixelHandling& SuperResolutionBadPixelHandling::operator=(
    const SuperResolutionBadPixelHandling& other) {
    if (this != &other) {
        SuperResolutionBadPixelHandling copy(other);
        std::swap(defectMaps, copy.defectMaps);
        historyLength = other.historyLength;
        validMin = other.validMin;
        validMax = other.validMax;
        dataIsNUC = other.dataIsNUC;
        std::copy(std::begin(other.neighbourOffsets), std::end(other.neighbourOffsets),
                  std::begin(neighbourOffsets));
    }
    return *this;
}

void SuperResolutionBadPixelHandling::setDataIsNUC(bool value) {
    dataIsNUC = value;
    validMin = value ? kNUCValidMin : kDefaultValidMin;
    validMax = value ? kNUCValidMax : kDefaultValidMax;
}

void SuperResolutionBadPixelHandling::setValidRange(float minimum, float maximum) {
    validMin = minimum;
    validMax = maximum;
}

bool SuperResolutionBadPixelHandling::isValid(float value) const {
    // NaN fails both comparisons and the infinities lie outside every valid range.
    return value >= validMin && value <= validMax && !isMarker(bitsOf(value));
}

unsigned char SuperResolutionBadPixelHandling::defectCode_(float value) const {
    // Later tests overwrite earlier ones: an infinity ends with its range code.
    unsigned char code = 0;
    const unsigned int bits = bitsOf(value);
    if (bits == kMarkerMinimum) {
        code = kDefectMinimumMarker;
    } else if (bits == kMarkerMaximum) {
        code = kDefectMaximumMarker;
    } else if (bits == kMarkerDefect || bits == kMarkerDefectAlternative) {
        code = kDefectInvalid;
    }
    if (!std::isfinite(value)) {
        code = kDefectInvalid;
    }
    if (value > validMax) {
        code = kDefectAboveRange;
    }
    if (value < validMin) {
        code = kDefectBelowRange;
    }
    return code;
}

void SuperResolutionBadPixelHandling::getMinMaxVal(const cv::Mat_<float>& image, float& minValue,
                                                   float& maxValue, cv::Point_<int>* minLocation,
                                                   cv::Point_<int>* maxLocation) const {
    minValue = validMax;
    maxValue = validMin;
    cv::Point_<int> minAt(-1, -1);
    cv::Point_<int> maxAt(-1, -1);
    for (int y = 0; y < image.rows; ++y) {
        const float* row = image[y];
        for (int x = 0; x < image.cols; ++x) {
            const float value = row[x];
            if (!isValid(value)) {
                continue;
            }
            // The first valid pixel also places an extreme that equals a range end.
            if (value > maxValue || maxAt.x < 0) {
                maxValue = value;
                maxAt = {x, y};
            }
            if (value < minValue || minAt.x < 0) {
                minValue = value;
                minAt = {x, y};
            }
        }
    }
    if (minLocation != nullptr) {
        *minLocation = minAt;
    }
    if (maxLocation != nullptr) {
        *maxLocation = maxAt;
    }
}

bool SuperResolutionBadPixelHandling::getReplacementValue_(const cv::Mat_<float>& image, int x,
                                                           int y, float& value) const {
    float sum = 0.0f;
    int count = 0;
    for (const cv::Point_<int>& offset : neighbourOffsets) {
        const int neighbourX = x + offset.x;
        const int neighbourY = y + offset.y;
        if (neighbourX < 0 || neighbourY < 0 || neighbourX >= image.cols ||
            neighbourY >= image.rows) {
            continue;
        }
        const float neighbour = image(neighbourY, neighbourX);
        if (!isValid(neighbour)) {
            continue;
        }
        sum += neighbour;
        ++count;
    }
    if (count > 0) {
        value = sum / static_cast<float>(count);
    }
    if (count == 4) {
        return true;
    }
    const bool onBorder = x == 0 || y == 0 || x == image.cols - 1 || y == image.rows - 1;
    return count == 3 && onBorder;
}

cv::Mat* SuperResolutionBadPixelHandling::nextDefectMap_(cv::Size size) {
    if (historyLength == 0) {
        return nullptr;
    }
    if (defectMaps.size() < historyLength) {
        defectMaps.emplace_back(cv::Mat::zeros(size, CV_8U));
        return &defectMaps.back();
    }
    // Once the history is full the oldest map's storage takes the new frame's defects.
    std::rotate(defectMaps.begin(), defectMaps.begin() + 1, defectMaps.end());
    cv::Mat& recycled = defectMaps.back();
    recycled.create(size, CV_8U);
    recycled.setTo(0);
    return &recycled;
}

void SuperResolutionBadPixelHandling::scanFrame_(const cv::Mat_<float>& frame, cv::Mat* defectMap,
                                                 float& minValue, float& maxValue) {
    defects.clear();
    ExtremeLanes lanes(validMin, validMax);
    const int laneColumns = frame.cols - frame.cols % ExtremeLanes::kWidth;
    for (int y = 0; y < frame.rows; ++y) {
        const float* row = frame[y];
        bool rowHasDefect = lanes.fold(row, laneColumns);
        for (int x = laneColumns; x < frame.cols; ++x) {
            if (isValid(row[x])) {
                minValue = row[x] < minValue ? row[x] : minValue;
                maxValue = row[x] > maxValue ? row[x] : maxValue;
            } else {
                rowHasDefect = true;
            }
        }
        if (!rowHasDefect) {
            continue;
        }
        for (int x = 0; x < frame.cols; ++x) {
            if (isValid(row[x])) {
                continue;
            }
            const unsigned char code = defectCode_(row[x]);
            defects.push_back({x, y, code});
            if (defectMap != nullptr) {
                defectMap->at<unsigned char>(y, x) = code;
            }
        }
    }
    lanes.merge(minValue, maxValue);
    // The lanes see the pixels in another order than a row-major scan, which matters only
    // between +0 and -0: of equal extremes the first one met wins.
    if (minValue == 0.0f) {
        minValue = firstZero(frame);
    }
    if (maxValue == 0.0f) {
        maxValue = firstZero(frame);
    }
}

int SuperResolutionBadPixelHandling::detectAndReplaceBadPixel(cv::Mat_<float>& frame) {
    cv::Mat* defectMap = nextDefectMap_(frame.size());

    // Repairing each defect in row-major order after the scan is the same as repairing it
    // where the scan meets it: a repair changes only the defect itself, which the
    // extremes never include.
    float minValue = validMax;
    float maxValue = validMin;
    scanFrame_(frame, defectMap, minValue, maxValue);

    int status = 0;
    int unrepairable = 0;
    for (const Defect& defect : defects) {
        float& pixel = frame(defect.y, defect.x);
        float replacement = 0.0f;
        if (getReplacementValue_(frame, defect.x, defect.y, replacement)) {
            pixel = replacement;
            continue;
        }
        switch (defect.code) {
            case kDefectMaximumMarker:
                pixel = maxValue;
                break;
            case kDefectMinimumMarker:
                pixel = minValue;
                break;
            case kDefectAboveRange:
                pixel = maxValue;
                status = -2;
                break;
            case kDefectBelowRange:
                pixel = minValue;
                status = -2;
                break;
            default:
                pixel = 0.0f;
                ++unrepairable;
                status = -2;
                break;
        }
    }

    if (unrepairable > kMaxUnrepairablePixels) {
        throw kelvo::Exception(
            "Too many defect pixels. No processing possible.",
            kelvo::SourceLocation{
                kSourcePath, kTooManyDefectsLine,
                "kelvo::vision::SuperResolutionBadPixelHandling::detectAndReplaceBadPixel"}
                .text());
    }
    return status;
}

void SuperResolutionBadPixelHandling::maskBadPixel(cv::Mat_<float>& result,
                                                   const std::vector<cv::Point_<float>>& shifts) {
    if (shifts.size() != defectMaps.size()) {
        throw kelvo::Exception(
            "maskBadPixel(): number of shifts ist not equal to number of defectMaps",
            kelvo::SourceLocation{kSourcePath, kShiftCountMismatchLine,
                                  "kelvo::vision::SuperResolutionBadPixelHandling::maskBadPixel"}
                .text());
    }
    for (size_t i = 0; i < defectMaps.size(); ++i) {
        const cv::Mat& defectMap = defectMaps[i];
        for (int y = 0; y < defectMap.rows; ++y) {
            const unsigned char* codes = defectMap.ptr<unsigned char>(y);
            if (!anyNonZero(codes, defectMap.cols)) {
                continue;
            }
            for (int x = 0; x < defectMap.cols; ++x) {
                if (codes[x] == 0) {
                    continue;
                }
                // The defect (x, y) of frame i lies at (x, y) - shift on the reference
                // grid, which the result samples twice as densely.
                const float resultX = kMagnification * (static_cast<float>(x) - shifts[i].x);
                const float resultY = kMagnification * (static_cast<float>(y) - shifts[i].y);
                if (!(resultY >= 0.0f && resultY < static_cast<float>(result.rows) &&
                      resultX >= 0.0f)) {
                    continue;
                }
                const float blockX = std::floor(resultX);
                if (blockX >= static_cast<float>(result.cols + kMaskRadius)) {
                    continue;
                }
                const int centreX = static_cast<int>(blockX);
                const int centreY = static_cast<int>(std::floor(resultY));
                const float marker = floatOfBits(markerOfDefectCode(codes[x]));
                const int top = std::max(centreY - kMaskRadius, 0);
                const int bottom = std::min(centreY + kMaskRadius, result.rows - 1);
                const int left = std::max(centreX - kMaskRadius, 0);
                const int right = std::min(centreX + kMaskRadius, result.cols - 1);
                for (int blockY = top; blockY <= bottom; ++blockY) {
                    float* row = result[blockY];
                    std::fill(row + left, row + right + 1, marker);
                }
            }
        }
    }
}

void SuperResolutionBadPixelHandling::replaceMaskedPixel(
    cv::Mat_<float>& result, const std::vector<cv::Point_<float>>& shifts,
    const std::vector<cv::Mat_<float>>& frames) {
    if (defectMaps.empty()) {
        throw kelvo::Exception(
            "bad pixel masks not initalized",
            kelvo::SourceLocation{
                kSourcePath, kMasksMissingLine,
                "kelvo::vision::SuperResolutionBadPixelHandling::replaceMaskedPixel"}
                .text());
    }
    const size_t frameCount = std::min({shifts.size(), frames.size(), defectMaps.size()});
    for (int y = 0; y < result.rows; ++y) {
        float* row = result[y];
        // Most rows hold no marker at all: one scan of the whole row passes them by.
        if (!anyRefilledMarkerCandidate(row, result.cols)) {
            continue;
        }
        for (int start = 0; start < result.cols; start += kMarkerScanChunk) {
            const int end = std::min(start + kMarkerScanChunk, result.cols);
            if (!anyRefilledMarkerCandidate(row + start, end - start)) {
                continue;
            }
            for (int x = start; x < end; ++x) {
                float mean = 0.0f;
                if (isRefilledMarker(bitsOf(row[x])) &&
                    meanOfGoodFramePixels_(x, y, shifts, frames, frameCount, mean)) {
                    row[x] = mean;
                }
            }
        }
    }
}

int SuperResolutionBadPixelHandling::fillRemainingMarkers(cv::Mat_<float>& result) {
    CV_Assert(result.isContinuous());
    float* pixels = result.ptr<float>();
    const int columns = result.cols;
    const int rows = result.rows;
    unfilledMarkers.clear();
    for (int i = 0; i < columns * rows; ++i) {
        if (isRefilledMarker(bitsOf(pixels[i]))) {
            unfilledMarkers.push_back(i);
        }
    }
    const size_t marked = unfilledMarkers.size();
    // One ring per round: every pixel with an unmarked neighbour takes their mean, and only
    // then are the values written, so that a round does not depend on the order of the list.
    bool progress = true;
    while (!unfilledMarkers.empty() && progress) {
        ringValues.assign(unfilledMarkers.size(), 0.0f);
        progress = false;
        for (size_t k = 0; k < unfilledMarkers.size(); ++k) {
            const int x = unfilledMarkers[k] % columns;
            const int y = unfilledMarkers[k] / columns;
            float sum = 0.0f;
            int count = 0;
            for (int ny = std::max(y - 1, 0); ny <= std::min(y + 1, rows - 1); ++ny) {
                for (int nx = std::max(x - 1, 0); nx <= std::min(x + 1, columns - 1); ++nx) {
                    const float neighbour = pixels[ny * columns + nx];
                    if (!isRefilledMarker(bitsOf(neighbour))) {
                        sum += neighbour;
                        ++count;
                    }
                }
            }
            ringValues[k] =
                count > 0 ? sum / static_cast<float>(count) : pixels[unfilledMarkers[k]];
            progress |= count > 0;
        }
        size_t kept = 0;
        for (size_t k = 0; k < unfilledMarkers.size(); ++k) {
            pixels[unfilledMarkers[k]] = ringValues[k];
            if (isRefilledMarker(bitsOf(ringValues[k]))) {
                unfilledMarkers[kept++] = unfilledMarkers[k];
            }
        }
        unfilledMarkers.resize(kept);
    }
    return static_cast<int>(marked - unfilledMarkers.size());
}

bool SuperResolutionBadPixelHandling::meanOfGoodFramePixels_(
    int x, int y, const std::vector<cv::Point_<float>>& shifts,
    const std::vector<cv::Mat_<float>>& frames, size_t frameCount, float& mean) const {
    float sum = 0.0f;
    int count = 0;
    for (size_t i = 0; i < frameCount; ++i) {
        const cv::Mat_<float>& frame = frames[i];
        const cv::Mat& defectMap = defectMaps[i];
        const float frameX = std::trunc(kReduction * static_cast<float>(x) + shifts[i].x);
        const float frameY = std::trunc(kReduction * static_cast<float>(y) + shifts[i].y);
        if (!(frameX >= 0.0f && frameY >= 0.0f &&
              frameX < static_cast<float>(std::min(frame.cols, defectMap.cols)) &&
              frameY < static_cast<float>(std::min(frame.rows, defectMap.rows)))) {
            continue;
        }
        const int column = static_cast<int>(frameX);
        const int line = static_cast<int>(frameY);
        if (defectMap.at<unsigned char>(line, column) != 0) {
            continue;
        }
        sum += frame(line, column);
        ++count;
    }
    if (count == 0) {
        return false;
    }
    mean = sum / static_cast<float>(count);
    return true;
}

void SuperResolutionBadPixelHandling::colorBadPixel(const cv::Mat_<float>& image,
                                                    cv::Mat_<cv::Vec<unsigned char, 3>>& view) {
    const int rows = std::min(image.rows, view.rows);
    const int cols = std::min(image.cols, view.cols);
    for (int y = 0; y < rows; ++y) {
        const float* values = image[y];
        cv::Vec<unsigned char, 3>* colours = view[y];
        for (int x = 0; x < cols; ++x) {
            const unsigned int bits = bitsOf(values[x]);
            if (bits == kMarkerMaximum) {
                colours[x] = {0, 0, 255};
            } else if (bits == kMarkerMinimum) {
                colours[x] = {255, 0, 0};
            }
        }
    }
}

}  // namespace kelvo::vision
