// SPDX-License-Identifier: Apache-2.0
#include "tools/kelvo-sr/SuperResolver.h"

#include <algorithm>
#include <cmath>
#include <sstream>
#include <stdexcept>

#include "interface/SuperResolutionExtensions.h"
#include "interface/SuperResolutionInterface.h"

namespace kelvo::tools {

namespace {

constexpr float kLowestTemperature = -274.0f;
constexpr float kHighestTemperature = 5000.0f;
constexpr float kLowestCount = -32768.0f;
constexpr float kHighestCount = 65535.0f;
// The share of pixels at either end that cannot sway the automatic choice.
constexpr double kOutlierShare = 0.01;
// Float frames of whole numbers whose bulk lies above this are counts.
constexpr float kLowestWholeCount = 1000.0f;

std::string lastLibraryMessage() {
    char text[512] = {};
    SuperResolution_getErrorMessage(text, sizeof(text) - 1);
    return text;
}

// The valid range of an integer file's values, or false for a float file.
bool integerRange(int storedDepth, float& low, float& high) {
    switch (storedDepth) {
        case CV_8U:
            low = 0.0f, high = 255.0f;
            return true;
        case CV_8S:
            low = -128.0f, high = 127.0f;
            return true;
        case CV_16U:
            low = 0.0f, high = 65535.0f;
            return true;
        case CV_16S:
            low = -32768.0f, high = 32767.0f;
            return true;
        default:
            return false;
    }
}

// The values at the given shares of the sorted finite pixels.
void percentiles(const cv::Mat_<float>& frame, double lowShare, double highShare, float& low,
                 float& high) {
    std::vector<float> values;
    values.reserve(frame.total());
    for (int r = 0; r < frame.rows; ++r) {
        const float* row = frame[r];
        for (int c = 0; c < frame.cols; ++c) {
            if (std::isfinite(row[c])) {
                values.push_back(row[c]);
            }
        }
    }
    if (values.empty()) {
        low = high = 0.0f;
        return;
    }
    const auto at = [&values](double share) {
        const auto nth = values.begin() + static_cast<std::ptrdiff_t>(
                                              share * static_cast<double>(values.size() - 1));
        std::nth_element(values.begin(), nth, values.end());
        return *nth;
    };
    low = at(lowShare);
    high = at(highShare);
}

bool allWholeNumbers(const cv::Mat_<float>& frame) {
    for (int r = 0; r < frame.rows; ++r) {
        const float* row = frame[r];
        for (int c = 0; c < frame.cols; ++c) {
            if (std::isfinite(row[c]) && row[c] != std::floor(row[c])) {
                return false;
            }
        }
    }
    return true;
}

std::string rangeText(float low, float high) {
    std::ostringstream text;
    text << low << ".." << high;
    return text.str();
}

}  // namespace

FrameValues::FrameValues(ValueKind kind)
    : kind(kind),
      low(kind == ValueKind::kCounts ? kLowestCount : kLowestTemperature),
      high(kind == ValueKind::kCounts ? kHighestCount : kHighestTemperature) {}

FrameValues chooseFrameValues(const std::string& option, const cv::Mat_<float>& frame,
                              int storedDepth, std::string* decision) {
    float typeLow = 0.0f, typeHigh = 0.0f;
    const bool integers = integerRange(storedDepth, typeLow, typeHigh);
    const auto counts = [&] {
        return integers ? FrameValues(ValueKind::kCounts, typeLow, typeHigh)
                        : FrameValues(ValueKind::kCounts);
    };
    if (option == "temperature") {
        return FrameValues(ValueKind::kTemperature);
    }
    if (option == "counts") {
        return counts();
    }
    if (integers) {
        const FrameValues values = counts();
        if (decision != nullptr) {
            *decision =
                "values: counts (integer pixels), valid " + rangeText(values.low, values.high);
        }
        return values;
    }
    float bulkLow = 0.0f, bulkHigh = 0.0f;
    percentiles(frame, kOutlierShare, 1.0 - kOutlierShare, bulkLow, bulkHigh);
    const bool outsideTemperatures = bulkLow < kLowestTemperature || bulkHigh > kHighestTemperature;
    // Whole numbers far above room temperature are counts stored as floats, not a scene
    // hotter than a furnace.
    const bool wholeCounts = bulkLow > kLowestWholeCount && allWholeNumbers(frame);
    if (!outsideTemperatures && !wholeCounts) {
        return FrameValues(ValueKind::kTemperature);
    }
    const FrameValues values = counts();
    if (decision != nullptr) {
        *decision = "values: counts (1st to 99th percentile " + rangeText(bulkLow, bulkHigh) +
                    (outsideTemperatures ? " lies outside the temperatures -274..5000"
                                         : ", whole numbers only") +
                    "), valid " + rangeText(values.low, values.high);
    }
    return values;
}

int countOutsideRange(const cv::Mat_<float>& frame, const FrameValues& values) {
    int outside = 0;
    for (int r = 0; r < frame.rows; ++r) {
        const float* row = frame[r];
        for (int c = 0; c < frame.cols; ++c) {
            outside += !(row[c] >= values.low && row[c] <= values.high);
        }
    }
    return outside;
}

void requireFrameSize(const cv::Mat& frame, cv::Size firstFrameSize) {
    if (frame.size() != firstFrameSize) {
        throw std::runtime_error("A frame of " + std::to_string(frame.cols) + "x" +
                                 std::to_string(frame.rows) + " pixels does not match the " +
                                 std::to_string(firstFrameSize.width) + "x" +
                                 std::to_string(firstFrameSize.height) + " of the first frame.");
    }
}

SuperResolver::SuperResolver(cv::Size frameSize, const FrameValues& values,
                             const std::string& cameraAndLensType, int referenceIndex)
    : size(frameSize),
      frameValues(values),
      handle(SuperResolution_init(frameSize.width, frameSize.height)) {
    if (handle < 0) {
        throw std::runtime_error("The library cannot process " + std::to_string(size.width) + "x" +
                                 std::to_string(size.height) + " frames: " + lastLibraryMessage());
    }
    try {
        if (!cameraAndLensType.empty()) {
            check(SuperResolution_setCameraAndLensType(handle, cameraAndLensType.c_str()));
        }
        if (referenceIndex < 0 || referenceIndex > 4) {
            throw std::runtime_error("The reference frame must be 0 (newest) to 4 (oldest).");
        }
        check(SuperResolution_setReferenceFrameChecked(handle, referenceIndex));
        check(SuperResolution_setFrameValues(
            handle, values.kind == ValueKind::kCounts ? SR_VALUES_COUNTS : SR_VALUES_TEMPERATURE));
        check(SuperResolution_setValidRange(handle, values.low, values.high));
        setVerbose(false);
    } catch (...) {
        SuperResolution_release(handle);
        throw;
    }
}

SuperResolver::~SuperResolver() {
    SuperResolution_release(handle);
}

void SuperResolver::check(int status) const {
    if (status != SR_OK) {
        throw std::runtime_error(describe(status));
    }
}

void SuperResolver::setVerbose(bool value) {
    check(SuperResolution_setTimingLines(handle, value ? SR_TIMING_STANDARD_OUTPUT : SR_TIMING_NONE,
                                         nullptr, nullptr));
}

void SuperResolver::setPsfSigma(float sigma) {
    check(SuperResolution_setPsfSigma(handle, sigma));
}

void SuperResolver::setDefectivePixels(const std::vector<cv::Point>& positions) {
    std::vector<int> coordinates;
    for (const cv::Point& position : positions) {
        coordinates.push_back(position.x);
        coordinates.push_back(position.y);
    }
    check(SuperResolution_setDefectivePixels(handle, coordinates.data(),
                                             static_cast<int>(positions.size())));
}

int SuperResolver::addFrame(const cv::Mat_<float>& frame) {
    return take(frame, SuperResolution_addImage);
}

int SuperResolver::loadFrame(const cv::Mat_<float>& frame) {
    return take(frame, SuperResolution_loadImage);
}

int SuperResolver::take(const cv::Mat_<float>& frame, int (*intake)(int, const float*)) {
    requireFrameSize(frame, size);
    const cv::Mat_<float> continuous = frame.isContinuous() ? frame : frame.clone();
    const int status = intake(handle, continuous.ptr<float>());
    if (status == SR_ERROR || status == SR_INIT_FAILED) {
        throw std::runtime_error(describe(status));
    }
    return status;
}

cv::Mat_<float> SuperResolver::result() const {
    cv::Mat_<float> image(2 * size.height, 2 * size.width);
    const int status = SuperResolution_getSuperresolutionImage(handle, image.ptr<float>());
    if (status == SR_ERROR) {
        throw std::runtime_error(describe(status));
    }
    return image;
}

PassReport SuperResolver::lastPass() const {
    PassReport report;
    int frameCount = 0;
    check(SuperResolution_getLastPass(handle, &report.status, &report.factorEstimate, &frameCount,
                                      &report.referencePosition));
    report.frames.resize(frameCount);
    for (int i = 0; i < frameCount; ++i) {
        PassReport::Frame& frame = report.frames[i];
        check(SuperResolution_getLastPassFrame(handle, i, &frame.shift.x, &frame.shift.y,
                                               &frame.validFraction));
    }
    return report;
}

std::vector<cv::Point2f> SuperResolver::estimatedShifts() const {
    std::vector<cv::Point2f> shifts;
    for (const PassReport::Frame& frame : lastPass().frames) {
        shifts.push_back(frame.shift);
    }
    return shifts;
}

std::string SuperResolver::describe(int status) {
    const std::string message = lastLibraryMessage();
    switch (status) {
        case 0:
            return "ok";
        case SR_BAD_PIXELS:
            return "some defective pixels could not be repaired from their neighbours (code -2)";
        case SR_MASK_HALF_EMPTY:
            return "at least half of a frame did not match the reference frame (code -3)";
        case SR_LOW_STRUCTURE:
            return "a frame has too little contrast to register (code -4)";
        case SR_TOO_FEW_IMAGES:
            return "fewer than five frames were given (code -5)";
        default:
            return "the library failed (code " + std::to_string(status) + "): " + message;
    }
}

}  // namespace kelvo::tools
