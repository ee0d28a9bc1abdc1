// SPDX-License-Identifier: Apache-2.0
#include "tools/kelvo-sr/CommandSupport.h"

#include <cmath>
#include <iostream>
#include <sstream>
#include <stdexcept>

#include "tools/kelvo-sr/DefectSearch.h"
#include "tools/kelvo-sr/EngineChoice.h"
#include "vision/superresolution/PsfSigmaEstimator.h"

namespace kelvo::tools {

namespace {

std::string rangeText(const FrameValues& values) {
    std::ostringstream text;
    text << values.low << ".." << values.high;
    return text.str();
}

}  // namespace

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

FrameValues chooseValues(const std::string& option, const cv::Mat_<float>& firstFrame,
                         int storedDepth) {
    std::string decision;
    const FrameValues values = chooseFrameValues(option, firstFrame, storedDepth, &decision);
    if (countOutsideRange(firstFrame, values) == static_cast<int>(firstFrame.total())) {
        throw std::runtime_error(
            values.kind == ValueKind::kCounts
                ? "Every pixel of the first frame lies outside " + rangeText(values) +
                      ", the range of sensor counts the engine accepts: convert the frames to "
                      "counts or temperatures first."
                : "Every pixel of the first frame lies outside -274..5000, the temperature "
                  "range the engine accepts: use --values counts for raw sensor counts.");
    }
    if (!decision.empty()) {
        std::cout << decision << std::endl;
    }
    return values;
}

void warnOutsideRange(const std::string& frameName, const cv::Mat_<float>& frame,
                      const FrameValues& values) {
    int notNumbers = 0;
    for (const float value : frame) {
        notNumbers += !std::isfinite(value);
    }
    if (notNumbers > 0) {
        std::cerr << "warning: " << frameName << ": " << notNumbers
                  << (notNumbers == 1 ? " pixel is" : " pixels are")
                  << " NaN (not a number) or infinite and will be repaired from the pixels around "
                  << (notNumbers == 1 ? "it" : "them") << std::endl;
    }
    const int outside = countOutsideRange(frame, values) - notNumbers;
    if (outside > 0) {
        std::cerr << "warning: " << frameName << ": " << outside
                  << (outside == 1 ? " pixel lies" : " pixels lie") << " outside the valid "
                  << (values.kind == ValueKind::kCounts ? "counts " : "temperatures ")
                  << rangeText(values) << " and will be repaired from the pixels around "
                  << (outside == 1 ? "it" : "them") << std::endl;
    }
}

std::vector<cv::Point> chooseDefectivePixels(const std::string& option,
                                             const std::vector<cv::Mat_<float>>& frames,
                                             const FrameValues& values) {
    const std::string chosen = !option.empty()                     ? option
                               : values.kind == ValueKind::kCounts ? "auto"
                                                                   : "none";
    if (chosen == "none" || frames.empty()) {
        return {};
    }
    if (chosen != "auto") {
        const std::vector<cv::Point> positions =
            readBadPixelPositions(chosen, frames.front().size());
        std::cout << "bad pixels: " << positions.size() << " from " << chosen << std::endl;
        return positions;
    }
    const std::vector<cv::Point> found = findBurstDefects(frames, values.kind, {});
    std::cout << "bad pixels: " << found.size() << " found in all " << frames.size()
              << " frames (--bad-pixels auto)" << std::endl;
    return found;
}

int addNamedFrame(FrameEngine& engine, const std::string& frameName, const cv::Mat_<float>& frame) {
    warnOutsideRange(frameName, frame, engine.values());
    try {
        return engine.addFrame(frame);
    } catch (const std::runtime_error& error) {
        throw std::runtime_error(frameName + ": " + error.what());
    }
}

void warnIfClipped(const std::string& path, const cv::Mat_<float>& image, double scale,
                   double offset) {
    int clipped = 0;
    for (int r = 0; r < image.rows; ++r) {
        const float* row = image[r];
        for (int c = 0; c < image.cols; ++c) {
            const double encoded = row[c] * scale + offset;
            clipped += !(encoded >= 0.0 && encoded <= 65535.0);
        }
    }
    if (clipped > 0) {
        std::cerr << "warning: " << path << ": " << clipped
                  << (clipped == 1 ? " pixel lies" : " pixels lie")
                  << " outside what 16 bits hold (value x " << scale << " + " << offset
                  << " beyond 0..65535) and " << (clipped == 1 ? "was" : "were")
                  << " clipped; the float TIFF keeps every value" << std::endl;
    }
}

std::unique_ptr<SuperResolver> makeSuperResolver(const EngineOptions& options,
                                                 const std::vector<cv::Mat_<float>>& burst,
                                                 int storedDepth) {
    for (const cv::Mat_<float>& frame : burst) {
        requireFrameSize(frame, burst.front().size());
    }
    const FrameValues values = chooseValues(options.values, burst.front(), storedDepth);
    auto resolver = std::make_unique<SuperResolver>(
        burst.front().size(), values, options.cameraAndLensType, options.referenceIndex);
    resolver->setVerbose(options.timings);
    resolver->setDefectivePixels(chooseDefectivePixels(options.badPixels, burst, values));
    if (const float sigma = chosenPsfSigma(options); sigma > 0.0f) {
        resolver->setPsfSigma(sigma);
    }
    return resolver;
}

float chosenPsfSigma(const EngineOptions& options) {
    if (options.psfSigma.empty() || options.psfSigma == "auto") {
        return 0.0f;
    }
    std::size_t used = 0;
    float sigma = 0.0f;
    try {
        sigma = std::stof(options.psfSigma, &used);
    } catch (const std::exception&) {
        used = 0;
    }
    if (used != options.psfSigma.size() || !(sigma > 0.0f) || !std::isfinite(sigma)) {
        throw std::runtime_error("--psf-sigma takes auto or a positive number, not \"" +
                                 options.psfSigma + "\".");
    }
    return sigma;
}

void resolvePsfSigma(EngineOptions& options, const std::vector<cv::Mat_<float>>& frames,
                     const std::vector<std::size_t>& window,
                     const std::vector<std::string>& names) {
    if (options.psfSigma != "auto") {
        return;
    }
    std::vector<cv::Mat_<float>> pass;
    for (std::size_t i : window) {
        pass.push_back(frames[i]);
    }
    const int held = static_cast<int>(pass.size());
    const int reference = std::max(held - options.referenceIndex - 1, 0);
    float sigma = 0.0f;
    std::string refusal;
    try {
        sigma = vision::PsfSigmaEstimator().estimate(pass, reference);
    } catch (const vision::PsfSigmaEstimator::UnmatchedFrame& error) {
        refusal = std::string(error.what()) + " Frame " + std::to_string(error.frame) + " is " +
                  names[window[error.frame]] + ", the reference " + names[window[reference]] + ".";
    } catch (const std::exception& error) {
        refusal = error.what();
    }
    if (!refusal.empty()) {
        options.psfSigma.clear();
        std::cerr << "warning: --psf-sigma auto: " << refusal
                  << " The sensor blur stays the camera's or the default." << std::endl;
        return;
    }
    std::ostringstream text;
    text << sigma;
    options.psfSigma = text.str();
    std::cout << "PSF sigma estimated from the frames: " << options.psfSigma << std::endl;
}

}  // namespace kelvo::tools
