// SPDX-License-Identifier: Apache-2.0
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <iostream>

#include <opencv2/imgproc.hpp>
#include "tools/kelvo-sr/Commands.h"
#include "tools/kelvo-sr/ImageFiles.h"
#include "tools/kelvo-sr/SuperResolver.h"
#include "tools/simulator/BurstSimulator.h"
#include "tools/simulator/ImageQuality.h"
#include "tools/simulator/ThermalPreview.h"

namespace kelvo::tools {

namespace {

namespace fs = std::filesystem;

// The entry points' default reference index 3 counts back from the newest of five
// frames: burst position 1.
constexpr int kReferencePosition = 1;

cv::Mat_<float> nearestUpscale(const cv::Mat_<float>& frame) {
    cv::Mat_<float> large;
    cv::resize(frame, large, cv::Size(), 2.0, 2.0, cv::INTER_NEAREST);
    return large;
}

}  // namespace

int runDemo(const DemoOptions& options) {
    BurstOptions burstOptions;
    burstOptions.referenceFrame = kReferencePosition;
    burstOptions.seed = options.seed;
    const Burst burst =
        BurstSimulator(burstOptions).simulate(cv::Size(2 * options.width, 2 * options.height));
    const cv::Mat_<float>& reference = burst.frames[kReferencePosition];

    SuperResolver resolver(reference.size(), ValueKind::kTemperature, "", 3);
    resolver.setVerbose(options.timings);
    double passMilliseconds = 0.0;
    for (std::size_t i = 0; i < burst.frames.size(); ++i) {
        const auto start = std::chrono::steady_clock::now();
        const int status = resolver.addFrame(burst.frames[i]);
        passMilliseconds =
            std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
                .count();
        if (status != 0) {
            std::cerr << "warning: frame " << i << ": " << SuperResolver::describe(status)
                      << std::endl;
        }
    }
    const cv::Mat_<float> superResolved = resolver.result();
    const cv::Mat_<float> bicubic = ImageQuality::upscaleBicubic(reference);

    fs::create_directories(options.outputFolder);
    const fs::path folder(options.outputFolder);
    ImageMeaning meaning = meaningOf(ValueKind::kTemperature);
    meaning.sourceFrames = {"simulated burst, seed " + std::to_string(options.seed)};
    writeFloatTiff((folder / "reference.tiff").string(), reference, meaning);
    writeFloatTiff((folder / "bicubic.tiff").string(), bicubic, meaning);
    writeFloatTiff((folder / "superresolved.tiff").string(), superResolved, meaning);
    writeFloatTiff((folder / "truth.tiff").string(), burst.truth, meaning);
    const cv::Mat comparison =
        ThermalPreview::sideBySide({{"reference frame", nearestUpscale(reference)},
                                    {"bicubic 2x", bicubic},
                                    {"super-resolution 2x", superResolved},
                                    {"ground truth", burst.truth}});
    writeColourImage((folder / "comparison.png").string(), comparison);

    std::printf("simulated burst: %d frames of %dx%d, result %dx%d\n",
                static_cast<int>(burst.frames.size()), reference.cols, reference.rows,
                superResolved.cols, superResolved.rows);
    std::printf("PSNR against the ground truth: bicubic %.2f dB, super-resolution %.2f dB\n",
                ImageQuality::psnr(bicubic, burst.truth),
                ImageQuality::psnr(superResolved, burst.truth));
    const std::vector<cv::Point2f> estimated = resolver.estimatedShifts();
    std::printf("frame  true shift (x, y)    estimated shift (x, y)\n");
    for (std::size_t i = 0; i < burst.shifts.size() && i < estimated.size(); ++i) {
        std::printf("%5d  (%6.3f, %6.3f)     (%6.3f, %6.3f)\n", static_cast<int>(i),
                    burst.shifts[i].x, burst.shifts[i].y, estimated[i].x, estimated[i].y);
    }
    std::printf("time per pass: %.1f ms\n", passMilliseconds);
    std::printf(
        "pictures in %s: reference.tiff, bicubic.tiff, superresolved.tiff, truth.tiff, "
        "comparison.png\n",
        options.outputFolder.c_str());
    return 0;
}

}  // namespace kelvo::tools
