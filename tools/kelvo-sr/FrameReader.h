// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <opencv2/core.hpp>
#include <string>

namespace kelvo::tools {

// Pixel type of a headerless raw frame.
enum class RawType { kUnsigned16, kSigned16, kFloat32 };

// How to read headerless raw files; images with a header (PNG, TIFF, JPEG) need none.
struct RawFormat {
    int width = 0;
    int height = 0;
    RawType type = RawType::kUnsigned16;
};

// Parses "WxH" (e.g. "640x512"); false on anything else.
bool parseFrameSize(const std::string& text, int& width, int& height);
// Parses "u16", "i16" or "f32"; false on anything else.
bool parseRawType(const std::string& text, RawType& type);

// Reads one frame as a single-channel float image of the stored values: 8- and 16-bit
// PNG, TIFF and JPEG, 32-bit float TIFF (grey stored in colour channels too), and
// headerless raw files (.raw, .bin) when a raw format is given. When storedDepth is given, it
// receives the OpenCV depth of the stored pixels (CV_16U for a 16-bit PNG), which tells
// integer counts from float values. Throws std::runtime_error with a sentence naming the file
// when it cannot, or when no pixel holds a number.
cv::Mat_<float> readFrame(const std::string& path, const RawFormat* rawFormat,
                          int* storedDepth = nullptr);

// A single-channel float frame of the image. Three or four channels are accepted only when
// they hold the same grey; a palette-coloured picture throws std::runtime_error naming
// `name` and saying why its values cannot be measured.
cv::Mat_<float> toSingleChannelFrame(const cv::Mat& image, const std::string& name);

// Reads one image with the channels and pixel type it is stored in (a raw file as its
// type); throws like readFrame.
cv::Mat readStoredImage(const std::string& path, const RawFormat* rawFormat);

}  // namespace kelvo::tools
