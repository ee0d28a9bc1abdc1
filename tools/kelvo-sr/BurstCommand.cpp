#include <algorithm>
#include <iostream>
#include <stdexcept>

#include "tools/kelvo-sr/CommandSupport.h"
#include "tools/kelvo-sr/Commands.h"
#include "tools/kelvo-sr/EngineChoice.h"
#include "tools/kelvo-sr/ImageFiles.h"
#include "tools/simulator/ImageQuality.h"
#include "tools/simulator/ThermalPreview.h"

namespace kelvo::tools {

namespace {

// Window position of the reference frame among the frames given, oldest first.
std::size_t referencePosition(const BurstCommandOptions& options, std::size_t frameCount) {
    const std::size_t held = std::min<std::size_t>(frameCount, 5);
    const std::size_t fromNewest = static_cast<std::size_t>(options.engine.referenceIndex);
    return frameCount - held + (fromNewest < held ? held - 1 - fromNewest : 0);
}

void writeComparison(const BurstCommandOptions& options, const cv::Mat_<float>& reference,
                     const cv::Mat_<float>& result) {
    cv::Rect area(0, 0, result.cols, result.rows);
    if (options.crop.size() == 4) {
        area = cv::Rect(options.crop[0], options.crop[1], options.crop[2], options.crop[3]) & area;
        if (area.empty()) {
            throw std::runtime_error("--crop lies outside the result.");
        }
    }
    const cv::Mat_<float> bicubic = ImageQuality::upscaleBicubic(reference);
    writeColourImage(options.compare,
                     ThermalPreview::sideBySide(
                         {{"bicubic 2x", bicubic(area)}, {"super-resolution 2x", result(area)}}));
}

}  // namespace

int runBurst(const BurstCommandOptions& options) {
    const auto rawFormat = rawFormatFromOptions(options.rawSize, options.rawType);
    std::vector<cv::Mat_<float>> frames;
    for (const std::string& path : options.frames) {
        frames.push_back(readFrame(path, rawFormat.get()));
    }
    const auto resolver = makeFrameEngine(options.engine, frames.front());

    // With more than five frames the window slides: the last five make the result.
    int lastStatus = 0;
    for (std::size_t i = 0; i < frames.size(); ++i) {
        const int status = resolver->addFrame(frames[i]);
        if (status != 0) {
            std::cerr << "warning: " << options.frames[i] << ": " << SuperResolver::describe(status)
                      << std::endl;
        }
        lastStatus = status;
    }
    const cv::Mat_<float> result = resolver->result();
    std::cout << describeQualityMap(resolver->estimatedShifts());

    writeFloatTiff(options.output, result);
    std::cout << "wrote " << options.output << " (" << result.cols << "x" << result.rows << ")"
              << std::endl;
    if (!options.png.empty()) {
        double scale = 1.0, offset = 0.0;
        default16BitEncoding(chooseValueKind(options.engine.values, frames.front()), scale, offset);
        write16BitPng(options.png, result, scale, offset);
        std::cout << "wrote " << options.png << std::endl;
    }
    if (!options.preview.empty()) {
        writeColourImage(options.preview,
                         ThermalPreview::render(result, ThermalPreview::robustRange(result)));
        std::cout << "wrote " << options.preview << std::endl;
    }
    if (!options.compare.empty()) {
        writeComparison(options, frames[referencePosition(options, frames.size())], result);
        std::cout << "wrote " << options.compare << std::endl;
    }
    // A result exists; a non-zero code of the final pass still tells the caller it is weak.
    return lastStatus == 0 ? 0 : 2;
}

}  // namespace kelvo::tools
