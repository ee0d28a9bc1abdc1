#pragma once

#include <opencv2/core.hpp>
#include <string>

#include "tools/kelvo-sr/SuperResolver.h"

namespace kelvo::tools {

// Writes a single-channel float image as a 32-bit float TIFF; throws
// std::runtime_error naming the file when that fails.
void writeFloatTiff(const std::string& path, const cv::Mat_<float>& image);

// Writes round(value * scale + offset), clamped to 0 .. 65535, as a 16-bit PNG.
void write16BitPng(const std::string& path, const cv::Mat_<float>& image, double scale,
                   double offset);

// Writes a 16-bit image (CV_16U, or CV_16S for TIFF) with its values as they are.
void write16BitImage(const std::string& path, const cv::Mat& image);

// The 16-bit encoding a user of each kind of data expects: counts as they are,
// temperatures in centikelvin.
void default16BitEncoding(ValueKind values, double& scale, double& offset);

// Writes an 8-bit colour image (preview, comparison).
void writeColourImage(const std::string& path, const cv::Mat& image);

}  // namespace kelvo::tools
