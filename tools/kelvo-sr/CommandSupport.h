#pragma once

#include <memory>
#include <opencv2/core.hpp>
#include <string>
#include <vector>

#include "tools/kelvo-sr/Commands.h"
#include "tools/kelvo-sr/FrameReader.h"
#include "tools/kelvo-sr/SuperResolver.h"

namespace kelvo::tools {

// The raw format the options describe, or null when neither --size nor --type was
// given; throws std::runtime_error when only one of them is, or the size is malformed.
std::unique_ptr<RawFormat> rawFormatFromOptions(const std::string& size, const std::string& type);

// The value kind the options ask for, "auto" deciding from the first frame. Throws
// std::runtime_error with advice when the engine would reject every pixel.
ValueKind chooseValueKind(const std::string& option, const cv::Mat_<float>& firstFrame);

// A super-resolver configured from the options for frames like the first one.
std::unique_ptr<SuperResolver> makeSuperResolver(const EngineOptions& options,
                                                 const cv::Mat_<float>& firstFrame);

}  // namespace kelvo::tools
