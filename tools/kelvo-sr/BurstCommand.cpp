// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <chrono>
#include <cmath>
#include <iostream>
#include <stdexcept>

#include "interface/SuperResolutionInterface.h"
#include "tools/kelvo-sr/CommandSupport.h"
#include "tools/kelvo-sr/Commands.h"
#include "tools/kelvo-sr/EngineChoice.h"
#include "tools/kelvo-sr/ImageFiles.h"
#include "tools/kelvo-sr/RunReport.h"
#include "tools/simulator/ImageQuality.h"
#include "tools/simulator/ThermalPreview.h"
#include "vision/superresolution/UsableFrameSelector.h"

namespace kelvo::tools {

namespace {

constexpr std::size_t kBurstFrames = 5;
constexpr int kTooLargeDisplacement = -6;

// The frames of the pass (indices of the frames given, oldest first) and its reference
// index, counted back from the newest: the last five with the chosen --reference, or with
// --usable-frames, the usable frames nearest the most consistent one. Fewer than five
// usable frames are made up to five by repeating the reference, which only weighs it more.
std::vector<std::size_t> choosePassFrames(const BurstCommandOptions& options,
                                          const std::vector<cv::Mat_<float>>& frames,
                                          int& referenceIndex) {
    std::vector<std::size_t> window;
    referenceIndex = options.engine.referenceIndex;
    if (!options.usableFrames) {
        for (std::size_t i = frames.size() - kBurstFrames; i < frames.size(); ++i) {
            window.push_back(i);
        }
        return window;
    }
    const auto selection = vision::UsableFrameSelector().select(frames);
    const std::size_t reference = static_cast<std::size_t>(selection.reference);
    std::cout << "usable frames: reference " << options.frames[reference]
              << " (the most consistent)" << std::endl;
    for (const auto& frame : selection.leftOut) {
        std::cout << "left out " << options.frames[frame.frame] << ": " << frame.reason
                  << std::endl;
    }
    std::vector<std::size_t> nearest(selection.usable.begin(), selection.usable.end());
    std::stable_sort(nearest.begin(), nearest.end(), [&](std::size_t a, std::size_t b) {
        return std::abs(static_cast<long>(a) - static_cast<long>(reference)) <
               std::abs(static_cast<long>(b) - static_cast<long>(reference));
    });
    nearest.resize(std::min(nearest.size(), kBurstFrames));
    while (nearest.size() < kBurstFrames) {
        nearest.push_back(reference);
    }
    std::sort(nearest.begin(), nearest.end());
    const std::size_t position =
        std::find(nearest.begin(), nearest.end(), reference) - nearest.begin();
    referenceIndex = static_cast<int>(kBurstFrames - 1 - position);
    return nearest;
}

void writeComparison(const BurstCommandOptions& options, const cv::Mat_<float>& reference,
                     const cv::Mat_<float>& result, const ImageMeaning& meaning) {
    cv::Rect area(0, 0, result.cols, result.rows);
    if (options.crop.size() == 4) {
        area = cv::Rect(options.crop[0], options.crop[1], options.crop[2], options.crop[3]) & area;
        if (area.empty()) {
            throw std::runtime_error("--crop lies outside the result.");
        }
    }
    const cv::Mat_<float> bicubic = ImageQuality::upscaleBicubic(reference);
    const ThermalPreview::Range range = previewRange(options.look, {result(area).clone()});
    const ThermalPreview::Palette palette = ThermalPreview::paletteNamed(options.look.palette);
    const cv::Mat strip = ThermalPreview::sideBySide(
        {{"bicubic 2x", bicubic(area)}, {"super-resolution 2x", result(area)}}, &range, palette);
    writeColourImage(options.compare,
                     ThermalPreview::withColourBar(strip, range, palette, pictureUnit(meaning)),
                     &meaning);
}

// Names the frames behind a weak pass and says what to try; throws when the pass left no
// result.
void reportPass(const BurstCommandOptions& options, const std::vector<std::size_t>& window,
                int frameHeight, const PassReport& pass) {
    const auto name = [&](std::size_t position) { return options.frames[window[position]]; };
    const std::string reference = name(pass.referencePosition);
    if (pass.status == kRegistrationFailed) {
        throw std::runtime_error(
            "No frame could be matched to the reference frame " + reference +
            ": it offers no structure to track. No result was written; try another --reference "
            "or frames with more contrast.");
    }
    const float limit = static_cast<float>(frameHeight / 10);
    for (std::size_t i = 0; i < pass.frames.size(); ++i) {
        const PassReport::Frame& frame = pass.frames[i];
        if (pass.status == kTooLargeDisplacement &&
            (std::fabs(frame.shift.x) > limit || std::fabs(frame.shift.y) > limit)) {
            std::cerr << "warning: " << name(i) << " is displaced by (" << frame.shift.x << ", "
                      << frame.shift.y << ") pixels from the reference frame " << reference
                      << ", more than a tenth of the frame height (" << limit
                      << "): the result is blurred there. Try frames taken closer together, or a "
                         "--reference nearer to it."
                      << std::endl;
        }
        if (pass.status != 0 && frame.validFraction <= 0.5f) {
            std::cerr << "warning: only " << std::lround(100.0f * frame.validFraction) << "% of "
                      << name(i) << " matched the reference frame " << reference
                      << " (code -3): check that it shows the same scene, or try another "
                         "--reference."
                      << std::endl;
        }
    }
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
    int storedDepth = CV_32F;
    for (const std::string& path : options.frames) {
        frames.push_back(readFrame(path, rawFormat.get(), frames.empty() ? &storedDepth : nullptr));
    }
    EngineOptions engine = options.engine;
    const std::vector<std::size_t> window =
        choosePassFrames(options, frames, engine.referenceIndex);
    resolvePsfSigma(engine, frames, window, options.frames);
    const auto resolver = makeFrameEngine(engine, frames, storedDepth);
    const FrameValues& values = resolver->values();

    // One pass, over five frames; the others served the bad-pixel search only.
    if (!options.usableFrames && frames.size() > kBurstFrames) {
        std::cout << "using the last " << kBurstFrames << " of " << frames.size() << " frames"
                  << std::endl;
    }
    int lastStatus = 0;
    double passMilliseconds = 0.0;
    for (std::size_t i : window) {
        const auto start = std::chrono::steady_clock::now();
        const int status = addNamedFrame(*resolver, options.frames[i], frames[i]);
        passMilliseconds =
            std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
                .count();
        if (status != 0 && status != SR_MASK_HALF_EMPTY) {
            std::cerr << "warning: " << options.frames[i] << ": " << SuperResolver::describe(status)
                      << std::endl;
        }
        lastStatus = status;
    }
    const PassReport pass = resolver->lastPass();
    reportPass(options, window, frames.front().rows, pass);
    if (pass.status != 0) {
        lastStatus = pass.status;
    }
    const cv::Mat_<float> result = resolver->result();
    std::cout << describeQualityMap(resolver->estimatedShifts());
    std::vector<std::string> used;
    for (std::size_t i : window) {
        used.push_back(options.frames[i]);
    }
    RunRecord run{"burst", values.kind, !options.engine.calibration.empty(), {}, {}};
    ResultRecord record = recordPass(pass, used, lastStatus, passMilliseconds);
    const ImageMeaning meaning = meaningOf(values.kind, run.calibrated, record);
    printRecord(std::cout, record);
    std::cout << "values: " << meaning.values << " (" << meaning.unit << ")" << std::endl;

    writeFloatTiff(options.output, result, meaning);
    record.result = options.output;
    record.outputs.push_back(options.output);
    std::cout << "wrote " << options.output << " (" << result.cols << "x" << result.rows
              << ", 32-bit float)" << std::endl;
    if (!options.png.empty()) {
        const SixteenBitEncoding encoding = default16BitEncoding(values.kind);
        warnIfClipped(options.png, result, encoding.scale, encoding.offset);
        write16BitPng(options.png, result, encoding, meaning);
        record.outputs.push_back(options.png);
        std::cout << "wrote " << options.png << " (16-bit, stored = value x " << encoding.scale
                  << " + " << encoding.offset << ")" << std::endl;
    }
    if (!options.preview.empty()) {
        writePreview(options.preview, result, options.look, previewRange(options.look, {result}),
                     meaning);
        record.outputs.push_back(options.preview);
        std::cout << "wrote " << options.preview << std::endl;
    }
    if (!options.compare.empty()) {
        writeComparison(options, frames[window[pass.referencePosition]], result, meaning);
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
