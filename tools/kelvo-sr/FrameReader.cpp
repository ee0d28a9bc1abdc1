// SPDX-License-Identifier: Apache-2.0
#include "tools/kelvo-sr/FrameReader.h"

#include "tools/kelvo-sr/ImageHeader.h"
#include "vision/superresolution/SrEngineCommon.h"

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <stdexcept>

namespace kelvo::tools {

namespace {

bool isRawFile(const std::string& path) {
    const std::string extension = std::filesystem::path(path).extension().string();
    return extension == ".raw" || extension == ".bin";
}

// The JPEG decoder fills a truncated file's missing rows with grey and only warns, so
// completeness is checked here: a whole JPEG ends with the end-of-image marker FF D9
// (followed at most by a little padding).
bool isTruncatedJpeg(const std::string& path) {
    std::string extension = std::filesystem::path(path).extension().string();
    std::transform(extension.begin(), extension.end(), extension.begin(), ::tolower);
    if (extension != ".jpg" && extension != ".jpeg") {
        return false;
    }
    std::ifstream file(path, std::ios::binary | std::ios::ate);
    const std::streamoff size = file.tellg();
    const std::streamoff tail = std::min<std::streamoff>(size, 64);
    std::string end(static_cast<std::size_t>(tail), '\0');
    file.seekg(size - tail);
    file.read(end.data(), tail);
    return end.find("\xff\xd9") == std::string::npos;
}

std::size_t bytesPerPixel(RawType type) {
    return type == RawType::kFloat32 ? 4 : 2;
}

cv::Mat readRawFrame(const std::string& path, const RawFormat& format) {
    const std::size_t pixels = static_cast<std::size_t>(format.width) * format.height;
    const std::size_t expected = pixels * bytesPerPixel(format.type);
    std::error_code error;
    const auto size = std::filesystem::file_size(path, error);
    if (error) {
        throw std::runtime_error("Cannot read '" + path + "': " + error.message() + ".");
    }
    if (size != expected) {
        throw std::runtime_error("'" + path + "' holds " + std::to_string(size) + " bytes, but a " +
                                 std::to_string(format.width) + "x" +
                                 std::to_string(format.height) + " frame of that type needs " +
                                 std::to_string(expected) + ".");
    }
    const int cvType = format.type == RawType::kFloat32    ? CV_32F
                       : format.type == RawType::kSigned16 ? CV_16S
                                                           : CV_16U;
    cv::Mat raw(format.height, format.width, cvType);
    std::ifstream stream(path, std::ios::binary);
    if (!stream.read(reinterpret_cast<char*>(raw.data), static_cast<std::streamsize>(expected))) {
        throw std::runtime_error("Cannot read '" + path + "'.");
    }
    return raw;
}

// A frame without a single number leaves the engine nothing to repair the others from: refused
// here, where the file and the cause can be named.
void requireNumbers(const std::string& path, const cv::Mat_<float>& frame) {
    std::size_t nan = 0, infinite = 0;
    for (const float value : frame) {
        nan += std::isnan(value);
        infinite += std::isinf(value);
    }
    if (frame.empty() || nan + infinite < frame.total()) {
        return;
    }
    const std::string cause = infinite == 0 ? "every pixel is NaN (not a number)"
                              : nan == 0    ? "every pixel is infinite"
                                            : "every pixel is NaN (not a number) or infinite";
    throw std::runtime_error("'" + path + "' holds no usable value: " + cause + ".");
}

}  // namespace

bool parseFrameSize(const std::string& text, int& width, int& height) {
    const auto separator = text.find('x');
    if (separator == std::string::npos) {
        return false;
    }
    try {
        std::size_t usedWidth = 0, usedHeight = 0;
        width = std::stoi(text.substr(0, separator), &usedWidth);
        height = std::stoi(text.substr(separator + 1), &usedHeight);
        return usedWidth == separator && usedHeight == text.size() - separator - 1 && width > 0 &&
               height > 0;
    } catch (const std::exception&) {
        return false;
    }
}

bool parseRawType(const std::string& text, RawType& type) {
    if (text == "u16") {
        type = RawType::kUnsigned16;
    } else if (text == "i16") {
        type = RawType::kSigned16;
    } else if (text == "f32") {
        type = RawType::kFloat32;
    } else {
        return false;
    }
    return true;
}

cv::Mat readStoredImage(const std::string& path, const RawFormat* rawFormat) {
    if (!std::filesystem::is_regular_file(path)) {
        throw std::runtime_error("Cannot read '" + path + "': no such file.");
    }
    if (isRawFile(path)) {
        if (rawFormat == nullptr) {
            throw std::runtime_error("'" + path +
                                     "' is a headerless raw file: give its --size and --type.");
        }
        return readRawFrame(path, *rawFormat);
    }
    // Decoders allocate whatever a header claims: a few bytes can ask for gigabytes. So a file
    // is decoded only in a format whose header was read, and only when the claim fits a frame.
    const std::optional<ImageHeader> header = readImageHeader(path);
    constexpr uint64_t kLargest = vision::kMaxFramePixels;
    if (header && (header->width > kLargest || header->height > kLargest ||
                   header->width * header->height > kLargest)) {
        throw std::runtime_error("Cannot read '" + path + "': its " + header->format +
                                 " header claims " + std::to_string(header->width) + "x" +
                                 std::to_string(header->height) + " pixels, more than the " +
                                 std::to_string(kLargest) + " a frame may have.");
    }
    cv::Mat image;
    try {
        if (header) {
            image = cv::imread(path, cv::IMREAD_UNCHANGED | cv::IMREAD_ANYDEPTH);
        }
    } catch (const cv::Exception&) {
        image.release();
    }
    if (image.empty()) {
        throw std::runtime_error("Cannot read '" + path + "': not an image this tool can decode.");
    }
    if (isTruncatedJpeg(path)) {
        throw std::runtime_error("Cannot read '" + path +
                                 "': the JPEG file is truncated (it lacks its end marker).");
    }
    return image;
}

cv::Mat_<float> toSingleChannelFrame(const cv::Mat& image, const std::string& name) {
    std::vector<cv::Mat> channels;
    cv::split(image, channels);
    for (std::size_t c = 1; c < std::min<std::size_t>(channels.size(), 3); ++c) {
        if (cv::countNonZero(channels[c] != channels[0]) > 0) {
            throw std::runtime_error(
                "'" + name +
                "' is a colour picture: a colour palette maps temperatures to colours in a way "
                "that cannot be turned back into values, so its pixels cannot be measured. Give "
                "the camera's grey or raw frames.");
        }
    }
    cv::Mat_<float> frame;
    channels.front().convertTo(frame, CV_32F);
    return frame;
}

cv::Mat_<float> readFrame(const std::string& path, const RawFormat* rawFormat, int* storedDepth) {
    const cv::Mat image = readStoredImage(path, rawFormat);
    if (storedDepth != nullptr) {
        *storedDepth = image.depth();
    }
    cv::Mat_<float> frame = toSingleChannelFrame(image, path);
    requireNumbers(path, frame);
    return frame;
}

}  // namespace kelvo::tools
