// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <nlohmann/json.hpp>
#include <opencv2/core.hpp>
#include <string>
#include <vector>

#include "tools/kelvo-sr/Commands.h"
#include "tools/kelvo-sr/SuperResolver.h"
#include "tools/simulator/ThermalPreview.h"

namespace kelvo::tools {

struct ResultRecord;

// What the pixels of a written image mean, stored inside the file (a TIFF's
// ImageDescription, a PNG's Description text) so that a result found on a disk months
// later still says what it holds and where it came from.
struct ImageMeaning {
    std::string values;  // "temperature", "counts", ...
    std::string unit;    // "°C", "counts", ...
    std::vector<std::string> sourceFrames;
    std::string referenceFrame;
    // How the stored numbers map back to values, for encoded files (16-bit PNG, previews).
    nlohmann::json encoding;

    nlohmann::json toJson() const;
};

// The meaning of results computed from frames of that kind; calibrated counts give
// radiance.
ImageMeaning meaningOf(ValueKind values, bool calibrated = false);
// ... and from the frames of that pass.
ImageMeaning meaningOf(ValueKind values, bool calibrated, const ResultRecord& record);
// "temperature" or "counts".
std::string valueKindName(ValueKind values);

// Writes a preview of the image in the palette the options ask for, over the range given,
// with a colour bar labelled in the meaning's unit; a PNG states palette and range.
void writePreview(const std::string& path, const cv::Mat_<float>& image, const PreviewOptions& look,
                  ThermalPreview::Range range, ImageMeaning meaning);
// The meaning's unit as the pictures' labels can show it.
std::string pictureUnit(const ImageMeaning& meaning);
// The options' fixed range, or the robust range of the images.
ThermalPreview::Range previewRange(const PreviewOptions& look,
                                   const std::vector<cv::Mat_<float>>& images);

// The version of this tool and library, e.g. "0.1.0".
std::string toolVersion();

// Throws std::runtime_error with `advice` unless the file name ends in one of the
// extensions (compared without case).
void requireExtension(const std::string& path, const std::vector<std::string>& extensions,
                      const std::string& advice);

// Writes a single-channel float image as a 32-bit float TIFF, deflate-compressed with the
// floating-point predictor (it reads back bit for bit), its meaning in the
// ImageDescription tag and the tool's name and version in the Software tag. Throws
// std::runtime_error naming the file when that fails, leaving no partial file.
void writeFloatTiff(const std::string& path, const cv::Mat_<float>& image,
                    const ImageMeaning& meaning);

// The 16-bit encoding a user of each kind of data expects: counts as they are,
// temperatures in centikelvin.
struct SixteenBitEncoding {
    double scale = 1.0;
    double offset = 0.0;
};
SixteenBitEncoding default16BitEncoding(ValueKind values);

// Writes value * scale + offset, rounded half to even and clamped to 0 .. 65535, as a
// 16-bit PNG, stating the encoding in its Description text.
void write16BitPng(const std::string& path, const cv::Mat_<float>& image,
                   SixteenBitEncoding encoding, ImageMeaning meaning);

// Writes a 16-bit image (CV_16U, or CV_16S for TIFF) with its values as they are.
void write16BitImage(const std::string& path, const cv::Mat& image);

// Writes an 8-bit colour image (preview, comparison); a PNG also carries the meaning.
void writeColourImage(const std::string& path, const cv::Mat& image,
                      const ImageMeaning* meaning = nullptr);

}  // namespace kelvo::tools
