#include "tools/kelvo-sr/SuperResolver.h"

#include <stdexcept>

#include "interface/SuperResolutionContext.h"
#include "interface/SuperResolutionInterface.h"
#include "tools/kelvo-sr/QuietStandardOutput.h"

namespace kelvo::tools {

namespace {

constexpr float kLowestTemperature = -274.0f;
constexpr float kHighestTemperature = 5000.0f;
constexpr float kLowestCount = -32768.0f;
constexpr float kHighestCount = 32767.0f;

std::string lastLibraryMessage() {
    char text[512] = {};
    SuperResolution_getErrorMessage(text, sizeof(text) - 1);
    return text;
}

}  // namespace

ValueKind guessValueKind(const cv::Mat_<float>& frame) {
    double low = 0.0, high = 0.0;
    cv::minMaxLoc(frame, &low, &high);
    return low < kLowestTemperature || high > kHighestTemperature ? ValueKind::kCounts
                                                                  : ValueKind::kTemperature;
}

int countValidPixels(const cv::Mat_<float>& frame, ValueKind values) {
    const float low = values == ValueKind::kCounts ? kLowestCount : kLowestTemperature;
    const float high = values == ValueKind::kCounts ? kHighestCount : kHighestTemperature;
    int valid = 0;
    for (int r = 0; r < frame.rows; ++r) {
        const float* row = frame.ptr<float>(r);
        for (int c = 0; c < frame.cols; ++c) {
            valid += row[c] >= low && row[c] <= high;
        }
    }
    return valid;
}

SuperResolver::SuperResolver(cv::Size frameSize, ValueKind values,
                             const std::string& cameraAndLensType, int referenceIndex)
    : size(frameSize), handle(SuperResolution_init(frameSize.width, frameSize.height)) {
    if (handle < 0) {
        throw std::runtime_error("The library cannot process " + std::to_string(size.width) + "x" +
                                 std::to_string(size.height) + " frames: " + lastLibraryMessage());
    }
    if (!cameraAndLensType.empty()) {
        SuperResolution_setCameraAndLensType(handle, cameraAndLensType.c_str());
    }
    if (referenceIndex < 0 || referenceIndex > 4) {
        SuperResolution_release(handle);
        throw std::runtime_error("The reference frame must be 0 (newest) to 4 (oldest).");
    }
    SuperResolution_setReferenceFrame(handle, referenceIndex);
    kelvo::interface::engineOf(handle)->setDataIsNUC(values == ValueKind::kCounts);
}

SuperResolver::~SuperResolver() {
    SuperResolution_release(handle);
}

int SuperResolver::addFrame(const cv::Mat_<float>& frame) {
    if (frame.size() != size) {
        throw std::runtime_error("A frame of " + std::to_string(frame.cols) + "x" +
                                 std::to_string(frame.rows) + " pixels does not match the " +
                                 std::to_string(size.width) + "x" + std::to_string(size.height) +
                                 " of the first frame.");
    }
    const cv::Mat_<float> continuous = frame.isContinuous() ? frame : frame.clone();
    int status = 0;
    {
        QuietStandardOutput quiet(!verbose);
        status = SuperResolution_addImage(handle, continuous.ptr<float>());
    }
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

std::vector<cv::Point2f> SuperResolver::estimatedShifts() const {
    std::vector<cv::Point2f> shifts;
    kelvo::interface::engineOf(handle)->getCompleteShifts(shifts);
    return shifts;
}

std::string SuperResolver::describe(int status) {
    const std::string message = lastLibraryMessage();
    switch (status) {
        case SR_OK:
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
