#include <algorithm>
#include <chrono>
#include <iostream>
#include <stdexcept>

#include "tools/kelvo-sr/CommandSupport.h"
#include "tools/kelvo-sr/Commands.h"
#include "tools/kelvo-sr/ImageFiles.h"
#include "tools/kelvo-sr/RunReport.h"
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
    // Names are checked before any work, so that a long run never ends unable to save.
    requireExtension(options.output, {".tif", ".tiff"},
                     "-o " + options.output +
                         ": the result is a 32-bit float TIFF, which keeps the measured values; "
                         "name it .tif or .tiff (--png writes a 16-bit PNG, --preview a colour "
                         "picture).");
    if (!options.png.empty()) {
        requireExtension(options.png, {".png"}, "--png " + options.png + ": name it .png.");
    }
    const auto rawFormat = rawFormatFromOptions(options.rawSize, options.rawType);
    std::vector<cv::Mat_<float>> frames;
    for (const std::string& path : options.frames) {
        frames.push_back(readFrame(path, rawFormat.get()));
    }
    const ValueKind values = chooseValueKind(options.engine.values, frames.front());
    const auto resolver = makeSuperResolver(options.engine, frames.front());

    // With more than five frames the window slides: the last five make the result.
    int lastStatus = 0;
    double passMilliseconds = 0.0;
    for (std::size_t i = 0; i < frames.size(); ++i) {
        const auto start = std::chrono::steady_clock::now();
        const int status = resolver->addFrame(frames[i]);
        passMilliseconds =
            std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
                .count();
        if (status != 0) {
            std::cerr << "warning: " << options.frames[i] << ": " << SuperResolver::describe(status)
                      << std::endl;
        }
        lastStatus = status;
    }
    const cv::Mat_<float> result = resolver->result();
    RunRecord run{"burst", values, {}, {}};
    ResultRecord record = recordLastPass(*resolver, options.frames, options.engine.referenceIndex,
                                         lastStatus, passMilliseconds);
    ImageMeaning meaning = meaningOf(values);
    for (const FrameRecord& frame : record.frames) {
        meaning.sourceFrames.push_back(frame.file);
    }
    meaning.referenceFrame = record.reference;
    printRecord(std::cout, record);
    std::cout << "values: " << meaning.values << " (" << meaning.unit << ")" << std::endl;

    writeFloatTiff(options.output, result, meaning);
    record.result = options.output;
    record.outputs.push_back(options.output);
    std::cout << "wrote " << options.output << " (" << result.cols << "x" << result.rows
              << ", 32-bit float)" << std::endl;
    if (!options.png.empty()) {
        const SixteenBitEncoding encoding = default16BitEncoding(values);
        const int clamped = write16BitPng(options.png, result, encoding, meaning);
        record.outputs.push_back(options.png);
        std::cout << "wrote " << options.png << " (16-bit, stored = value x " << encoding.scale
                  << " + " << encoding.offset << ")" << std::endl;
        if (clamped > 0) {
            std::cerr << "warning: " << options.png << ": " << clamped
                      << " pixels lie outside what a 16-bit PNG holds and were clamped to 0 or "
                         "65535; the TIFF keeps their values."
                      << std::endl;
        }
    }
    if (!options.preview.empty()) {
        writeColourImage(options.preview,
                         ThermalPreview::render(result, ThermalPreview::robustRange(result)),
                         &meaning);
        record.outputs.push_back(options.preview);
        std::cout << "wrote " << options.preview << std::endl;
    }
    if (!options.compare.empty()) {
        writeComparison(options, frames[referencePosition(options, frames.size())], result);
        record.outputs.push_back(options.compare);
        std::cout << "wrote " << options.compare << std::endl;
    }
    run.results.push_back(record);
    if (!options.json.empty()) {
        writeJson(options.json, run);
        std::cout << "wrote " << options.json << std::endl;
    }
    // A result exists; a non-zero code of the final pass still tells the caller it is weak.
    return lastStatus == 0 ? 0 : 2;
}

}  // namespace kelvo::tools
