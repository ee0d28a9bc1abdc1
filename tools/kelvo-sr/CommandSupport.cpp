#include "tools/kelvo-sr/CommandSupport.h"

#include <stdexcept>

namespace kelvo::tools {

std::unique_ptr<RawFormat> rawFormatFromOptions(const std::string& size, const std::string& type) {
    if (size.empty() && type.empty()) {
        return nullptr;
    }
    if (size.empty() || type.empty()) {
        throw std::runtime_error("Headerless raw frames need both --size WxH and --type.");
    }
    auto format = std::make_unique<RawFormat>();
    if (!parseFrameSize(size, format->width, format->height)) {
        throw std::runtime_error("--size must look like 640x512, not '" + size + "'.");
    }
    if (!parseRawType(type, format->type)) {
        throw std::runtime_error("--type must be u16, i16 or f32, not '" + type + "'.");
    }
    return format;
}

ValueKind chooseValueKind(const std::string& option, const cv::Mat_<float>& firstFrame) {
    const ValueKind values = option == "counts"        ? ValueKind::kCounts
                             : option == "temperature" ? ValueKind::kTemperature
                                                       : guessValueKind(firstFrame);
    if (countValidPixels(firstFrame, values) == 0) {
        throw std::runtime_error(
            values == ValueKind::kCounts
                ? "Every pixel of the first frame lies outside -32768..32767, the range of "
                  "sensor counts the engine accepts: convert the frames to signed counts or "
                  "temperatures first."
                : "Every pixel of the first frame lies outside -274..5000, the temperature "
                  "range the engine accepts: use --values counts for raw sensor counts.");
    }
    return values;
}

std::unique_ptr<SuperResolver> makeSuperResolver(const EngineOptions& options,
                                                 const cv::Mat_<float>& firstFrame) {
    auto resolver = std::make_unique<SuperResolver>(
        firstFrame.size(), chooseValueKind(options.values, firstFrame), options.cameraAndLensType,
        options.referenceIndex);
    resolver->setVerbose(options.timings);
    return resolver;
}

}  // namespace kelvo::tools
