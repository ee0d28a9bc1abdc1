// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <opencv2/core.hpp>
#include <string>
#include <vector>

#include "tools/kelvo-sr/Commands.h"
#include "tools/kelvo-sr/EngineChoice.h"
#include "tools/kelvo-sr/FrameReader.h"
#include "tools/kelvo-sr/SuperResolver.h"

namespace kelvo::tools {

class FrameEngine;

// The raw format the options describe, or null when neither --size nor --type was
// given; throws std::runtime_error when only one of them is, or the size is malformed.
std::unique_ptr<RawFormat> rawFormatFromOptions(const std::string& size, const std::string& type);

// The values the options ask for, "auto" deciding from the first frame (and printing what it
// decided unless the frames are plain temperatures). Throws std::runtime_error with advice
// when the engine would reject every pixel.
FrameValues chooseValues(const std::string& option, const cv::Mat_<float>& firstFrame,
                         int storedDepth);

// Warns on standard error when some pixels of the frame are not numbers or lie outside the
// valid range: the engine repairs them from their neighbours.
void warnOutsideRange(const std::string& frameName, const cv::Mat_<float>& frame,
                      const FrameValues& values);

// Warns like warnOutsideRange and adds the frame; returns the status code. A failure throws
// std::runtime_error naming the frame.
int addNamedFrame(FrameEngine& engine, const std::string& frameName, const cv::Mat_<float>& frame);

// The known defective pixels the --bad-pixels option names for these frames: none, those of a
// table written by `kelvo-sr badpixels`, or those the search finds in every frame (auto).
std::vector<cv::Point> chooseDefectivePixels(const std::string& option,
                                             const std::vector<cv::Mat_<float>>& frames,
                                             const FrameValues& values);

// Warns on standard error when the 16-bit encoding value x scale + offset of some pixels lies
// beyond 0..65535, so that a 16-bit image of the result clips them.
void warnIfClipped(const std::string& path, const cv::Mat_<float>& image, double scale,
                   double offset);

// A super-resolver configured from the options for the frames of a burst (its first frame
// decides the values; all of them, the defective pixels).
std::unique_ptr<SuperResolver> makeSuperResolver(const EngineOptions& options,
                                                 const std::vector<cv::Mat_<float>>& burst,
                                                 int storedDepth);

// The sensor blur --psf-sigma gives as a number, or 0 when it names none (empty: the
// camera's or the default). Throws std::runtime_error for anything but auto or a
// positive number.
float chosenPsfSigma(const EngineOptions& options);

// With --psf-sigma auto, estimates the sensor blur from the frames of the pass (indices
// into `frames`, oldest first, with options.referenceIndex counted back from the newest),
// says so on standard output and puts the number into the options; when the frames do not
// allow an estimate, warns on standard error (naming a frame unlike the others by its
// entry in `names`, one per frame) and leaves the camera's or the default blur.
void resolvePsfSigma(EngineOptions& options, const std::vector<cv::Mat_<float>>& frames,
                     const std::vector<std::size_t>& window, const std::vector<std::string>& names);

}  // namespace kelvo::tools
