// SPDX-License-Identifier: Apache-2.0
#include "tools/kelvo-sr/ImageFiles.h"

#include "interface/SuperResolutionExtensions.h"
#include "tools/kelvo-sr/RunReport.h"

#include <tiffio.h>
#include <zlib.h>

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <opencv2/imgcodecs.hpp>
#include <stdexcept>

namespace kelvo::tools {

namespace {

void write(const std::string& path, const cv::Mat& image) {
    bool written = false;
    try {
        written = cv::imwrite(path, image);
    } catch (const cv::Exception& error) {
        throw std::runtime_error("Cannot write '" + path + "': " + error.err);
    }
    if (!written) {
        throw std::runtime_error("Cannot write '" + path +
                                 "': check the folder and the file extension.");
    }
}

std::string lowerCaseExtension(const std::string& path) {
    std::string extension = std::filesystem::path(path).extension().string();
    std::transform(extension.begin(), extension.end(), extension.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return extension;
}

// libtiff reports failures through a process-wide handler; each thread keeps the last
// message of its own file.
thread_local std::string tiffMessage;

void keepTiffMessage(const char* module, const char* format, va_list arguments) {
    char text[512];
    std::vsnprintf(text, sizeof(text), format, arguments);
    tiffMessage = module != nullptr ? std::string(module) + ": " + text : std::string(text);
}

// Strips of about 256 KiB: large enough for deflate to find the repetitions of a row,
// small enough to keep the writer's buffers small.
constexpr std::size_t kStripBytes = 256 * 1024;

bool writeTiffFile(TIFF* tiff, const cv::Mat_<float>& image, const std::string& description) {
    const std::string software = "kelvo-sr " + toolVersion();
    const std::size_t rowBytes = image.cols * sizeof(float);
    const uint32_t rowsPerStrip =
        static_cast<uint32_t>(std::max<std::size_t>(1, kStripBytes / rowBytes));
    bool ok = TIFFSetField(tiff, TIFFTAG_IMAGEWIDTH, static_cast<uint32_t>(image.cols)) &&
              TIFFSetField(tiff, TIFFTAG_IMAGELENGTH, static_cast<uint32_t>(image.rows)) &&
              TIFFSetField(tiff, TIFFTAG_BITSPERSAMPLE, 32) &&
              TIFFSetField(tiff, TIFFTAG_SAMPLESPERPIXEL, 1) &&
              TIFFSetField(tiff, TIFFTAG_SAMPLEFORMAT, SAMPLEFORMAT_IEEEFP) &&
              TIFFSetField(tiff, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_MINISBLACK) &&
              TIFFSetField(tiff, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG) &&
              TIFFSetField(tiff, TIFFTAG_COMPRESSION, COMPRESSION_ADOBE_DEFLATE) &&
              TIFFSetField(tiff, TIFFTAG_PREDICTOR, PREDICTOR_FLOATINGPOINT) &&
              TIFFSetField(tiff, TIFFTAG_ROWSPERSTRIP, rowsPerStrip) &&
              TIFFSetField(tiff, TIFFTAG_IMAGEDESCRIPTION, description.c_str()) &&
              TIFFSetField(tiff, TIFFTAG_SOFTWARE, software.c_str());
    // The predictor rewrites the row it encodes in place: hand it a copy.
    std::vector<float> row(image.cols);
    for (int r = 0; ok && r < image.rows; ++r) {
        std::copy(image[r], image[r] + image.cols, row.begin());
        ok = TIFFWriteScanline(tiff, row.data(), static_cast<uint32_t>(r), 0) == 1;
    }
    return ok;
}

void appendBigEndian(std::string& bytes, uint32_t value) {
    for (int shift = 24; shift >= 0; shift -= 8) {
        bytes += static_cast<char>((value >> shift) & 0xff);
    }
}

// A PNG text chunk in UTF-8 (iTXt, uncompressed): length, type, keyword, flags, text, CRC.
std::string pngTextChunk(const std::string& keyword, const std::string& text) {
    std::string data = "iTXt" + keyword;
    data += std::string("\0\0\0\0\0", 5);  // keyword end, no compression, no language
    data += text;
    const uint32_t length = static_cast<uint32_t>(data.size() - 4);
    const uint32_t crc = static_cast<uint32_t>(
        crc32(0, reinterpret_cast<const Bytef*>(data.data()), static_cast<uInt>(data.size())));
    std::string chunk;
    appendBigEndian(chunk, length);
    chunk += data;
    appendBigEndian(chunk, crc);
    return chunk;
}

// Encodes the image as PNG and puts the text right after the header chunk, where every
// reader finds it before the pixels.
void writePngWithText(const std::string& path, const cv::Mat& image, const ImageMeaning& meaning) {
    std::vector<unsigned char> encoded;
    if (!cv::imencode(".png", image, encoded)) {
        throw std::runtime_error("Cannot encode '" + path + "' as PNG.");
    }
    constexpr std::size_t kSignatureAndHeader = 8 + 25;
    const std::string text = pngTextChunk("Description", meaning.toJson().dump()) +
                             pngTextChunk("Software", "kelvo-sr " + toolVersion());
    std::ofstream file(path, std::ios::binary);
    file.write(reinterpret_cast<const char*>(encoded.data()), kSignatureAndHeader);
    file.write(text.data(), static_cast<std::streamsize>(text.size()));
    file.write(reinterpret_cast<const char*>(encoded.data()) + kSignatureAndHeader,
               static_cast<std::streamsize>(encoded.size() - kSignatureAndHeader));
    if (!file.flush()) {
        file.close();
        std::filesystem::remove(path);
        throw std::runtime_error("Cannot write '" + path + "': check the folder.");
    }
}

}  // namespace

nlohmann::json ImageMeaning::toJson() const {
    nlohmann::json description = {{"values", values},
                                  {"unit", unit},
                                  {"source_frames", sourceFrames},
                                  {"reference_frame", referenceFrame},
                                  {"software", "kelvo-sr " + toolVersion()}};
    if (!encoding.is_null()) {
        description["encoding"] = encoding;
    }
    return description;
}

std::string valueKindName(ValueKind values) {
    return values == ValueKind::kCounts ? "counts" : "temperature";
}

ImageMeaning meaningOf(ValueKind values, bool calibrated) {
    ImageMeaning meaning;
    if (calibrated) {
        meaning.values = "radiance";
        meaning.unit = "as the calibration's radiances";
    } else {
        meaning.values = valueKindName(values);
        meaning.unit = values == ValueKind::kCounts ? "counts" : "°C";
    }
    return meaning;
}

ImageMeaning meaningOf(ValueKind values, bool calibrated, const ResultRecord& record) {
    ImageMeaning meaning = meaningOf(values, calibrated);
    for (const FrameRecord& frame : record.frames) {
        meaning.sourceFrames.push_back(frame.file);
    }
    meaning.referenceFrame = record.reference;
    return meaning;
}

void writePreview(const std::string& path, const cv::Mat_<float>& image, const PreviewOptions& look,
                  ThermalPreview::Range range, ImageMeaning meaning) {
    const ThermalPreview::Palette palette = ThermalPreview::paletteNamed(look.palette);
    meaning.encoding = {{"palette", look.palette}, {"range", {range.low, range.high}}};
    writeColourImage(path,
                     ThermalPreview::withColourBar(ThermalPreview::render(image, range, palette),
                                                   range, palette, pictureUnit(meaning)),
                     &meaning);
}

std::string pictureUnit(const ImageMeaning& meaning) {
    // The pictures' font has no degree sign.
    return meaning.unit == "°C" ? "C" : meaning.values == "radiance" ? "" : meaning.unit;
}

ThermalPreview::Range previewRange(const PreviewOptions& look,
                                   const std::vector<cv::Mat_<float>>& images) {
    if (look.range.size() == 2) {
        if (!(look.range[0] < look.range[1])) {
            throw std::runtime_error("--range needs LOW below HIGH.");
        }
        return {look.range[0], look.range[1]};
    }
    cv::Mat_<float> all;
    cv::vconcat(images, all);
    return ThermalPreview::robustRange(all);
}

std::string toolVersion() {
    // The loaded library's version: the tool may run against a newer library than it was
    // built with.
    char text[32] = {};
    return SuperResolution_getVersionText(text, sizeof(text)) == SR_OK ? text : "unknown";
}

void requireExtension(const std::string& path, const std::vector<std::string>& extensions,
                      const std::string& advice) {
    const std::string extension = lowerCaseExtension(path);
    if (std::find(extensions.begin(), extensions.end(), extension) == extensions.end()) {
        throw std::runtime_error(advice);
    }
}

void writeFloatTiff(const std::string& path, const cv::Mat_<float>& image,
                    const ImageMeaning& meaning) {
    static const bool handlerSet = [] {
        TIFFSetErrorHandler(keepTiffMessage);
        TIFFSetWarningHandler(nullptr);
        return true;
    }();
    (void)handlerSet;
    tiffMessage = "check the folder";
    TIFF* tiff = TIFFOpen(path.c_str(), "w");
    if (tiff == nullptr) {
        throw std::runtime_error("Cannot write '" + path + "': " + tiffMessage + ".");
    }
    const bool written = writeTiffFile(tiff, image, meaning.toJson().dump());
    const bool flushed = written && TIFFFlush(tiff) == 1;
    TIFFClose(tiff);
    if (!flushed) {
        std::filesystem::remove(path);
        throw std::runtime_error("Cannot write '" + path + "': " + tiffMessage + ".");
    }
}

SixteenBitEncoding default16BitEncoding(ValueKind values) {
    return values == ValueKind::kCounts ? SixteenBitEncoding{1.0, 0.0}
                                        : SixteenBitEncoding{100.0, 27315.0};
}

void write16BitPng(const std::string& path, const cv::Mat_<float>& image,
                   SixteenBitEncoding encoding, ImageMeaning meaning) {
    cv::Mat stored;
    image.convertTo(stored, CV_16U, encoding.scale, encoding.offset);
    meaning.encoding = {{"value", "(stored - offset) / scale"},
                        {"scale", encoding.scale},
                        {"offset", encoding.offset}};
    writePngWithText(path, stored, meaning);
}

void write16BitImage(const std::string& path, const cv::Mat& image) {
    write(path, image);
}

void writeColourImage(const std::string& path, const cv::Mat& image, const ImageMeaning* meaning) {
    if (meaning != nullptr && lowerCaseExtension(path) == ".png") {
        writePngWithText(path, image, *meaning);
    } else {
        write(path, image);
    }
}

}  // namespace kelvo::tools
