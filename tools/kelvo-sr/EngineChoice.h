// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <CLI/CLI.hpp>
#include <memory>
#include <opencv2/core.hpp>
#include <string>
#include <vector>

#include "tools/kelvo-sr/Commands.h"
#include "tools/kelvo-sr/SuperResolver.h"

namespace kelvo::tools {

// The engine a command drives: the float engine through the C interface (the default),
// or the reference engine, which also takes raw 16-bit counts with a two-point
// calibration and reports how the burst's sub-pixel phases cover the half-pixel grid.
class FrameEngine {
public:
    virtual ~FrameEngine() = default;
    // Adds a frame (from the fifth on, every frame recomputes the result); returns a
    // status code of the C interface (0, or -2 .. -5 for a result to warn about).
    // Failures throw std::runtime_error with a sentence for the user.
    virtual int addFrame(const cv::Mat_<float>& frame) = 0;
    // Adds a frame without a pass, returning and throwing like addFrame. How a window's frames
    // register depends on the frames the engine took before them, so an engine that computes
    // only some windows of a sequence loads the frames of the others.
    virtual int loadFrame(const cv::Mat_<float>& frame) = 0;
    virtual cv::Mat_<float> result() = 0;
    virtual PassReport lastPass() const = 0;
    // The full displacement of every frame of the last pass against the reference.
    virtual std::vector<cv::Point2f> estimatedShifts() const = 0;
    // What the frames' values are.
    virtual const FrameValues& values() const = 0;
};

// --engine float|reference and --calibration LOW_COUNTS LOW_RADIANCE HIGH_COUNTS
// HIGH_RADIANCE.
void addEngineChoiceOptions(CLI::App& command, EngineOptions& options);

// The engine the options ask for, for the frames of a burst (as makeSuperResolver).
// Throws std::runtime_error for a calibration that does not fit, or raw counts without one.
std::unique_ptr<FrameEngine> makeFrameEngine(const EngineOptions& options,
                                             const std::vector<cv::Mat_<float>>& burst,
                                             int storedDepth);

// The 3 x 3 map of how the frames' remaining sub-pixel shifts cover the half-pixel grid,
// as a table with a sentence saying what it means.
std::string describeQualityMap(const std::vector<cv::Point2f>& shifts);

}  // namespace kelvo::tools
