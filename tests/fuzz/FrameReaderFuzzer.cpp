// SPDX-License-Identifier: Apache-2.0
// The tool's frame readers on arbitrary bytes, stored under every extension they read: an image
// must come back at the size its header claims or be refused with std::runtime_error naming the
// file, never crash nor allocate for a size no frame may have; a video gives frames or refuses
// them the same way.
#include <fuzzer/FuzzedDataProvider.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

#include "tools/kelvo-sr/FrameReader.h"
#include "tools/kelvo-sr/ImageHeader.h"
#include "tools/kelvo-sr/VideoFrameReader.h"

namespace {

constexpr const char* kExtensions[] = {".png", ".tif", ".tiff", ".jpg", ".jpeg", ".raw", ".bin",
                                       ".pgm", "",     ".bmp",  ".avi", ".mkv",  ".nut"};
constexpr const char* kVideoExtensions[] = {".avi", ".mkv", ".nut"};
// Enough frames to reach the decoder's draining at the end of a short file.
constexpr int kVideoFramesRead = 8;
constexpr kelvo::tools::RawType kRawTypes[] = {kelvo::tools::RawType::kUnsigned16,
                                               kelvo::tools::RawType::kSigned16,
                                               kelvo::tools::RawType::kFloat32};

std::string scratchPath(const std::string& extension) {
    return "/tmp/kelvo-frame-fuzz-" + std::to_string(getpid()) + extension;
}

// Every refusal names the file.
void requireNamed(const std::runtime_error& error, const std::string& path) {
    if (std::string(error.what()).find(path) == std::string::npos) {
        __builtin_trap();
    }
}

void readVideo(const std::string& path) {
    try {
        kelvo::tools::VideoFrameReader video(path);
        cv::Mat image;
        for (int i = 0; i < kVideoFramesRead; ++i) {
            try {
                if (!video.read(image)) {
                    break;
                }
                if (image.empty()) {
                    __builtin_trap();  // a frame read is a frame
                }
            } catch (const std::runtime_error& error) {
                requireNamed(error, path);  // one undecodable frame; reading goes on
            }
        }
    } catch (const std::runtime_error& error) {
        requireNamed(error, path);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    FuzzedDataProvider data(bytes, size);
    const std::string extension = data.PickValueInArray(kExtensions);
    const bool rawFile = extension == ".raw" || extension == ".bin";
    const std::string path = scratchPath(extension);
    kelvo::tools::RawFormat format;
    format.type = data.PickValueInArray(kRawTypes);
    format.width = data.ConsumeIntegralInRange(1, 64);
    const bool giveFormat = data.ConsumeBool();
    const bool storedTypes = data.ConsumeBool();
    const std::string contents = data.ConsumeRemainingBytesAsString();
    // Most raw files hold a whole number of rows, so that the reader gets past the size check.
    const size_t rowBytes = format.width * (format.type == kelvo::tools::RawType::kFloat32 ? 4 : 2);
    format.height = static_cast<int>(std::max<size_t>(1, contents.size() / rowBytes));
    {
        std::ofstream file(path, std::ios::binary | std::ios::trunc);
        file.write(contents.data(), static_cast<std::streamsize>(contents.size()));
    }
    const bool videoFile = std::find(std::begin(kVideoExtensions), std::end(kVideoExtensions),
                                     extension) != std::end(kVideoExtensions);
    if (videoFile) {
        readVideo(path);
        std::remove(path.c_str());
        return 0;
    }
    try {
        const kelvo::tools::RawFormat* raw = giveFormat ? &format : nullptr;
        const cv::Mat frame = storedTypes ? kelvo::tools::readStoredImage(path, raw)
                                          : kelvo::tools::readFrame(path, raw);
        if (frame.empty()) {
            __builtin_trap();  // an empty frame must have been refused with a message
        }
        // A decoded image has the size its header claimed: the size the reader checks before
        // decoding is the one the decoder allocates.
        const auto header = kelvo::tools::readImageHeader(path);
        if (!rawFile && header &&
            (header->width != static_cast<uint64_t>(frame.cols) ||
             header->height != static_cast<uint64_t>(frame.rows))) {
            __builtin_trap();
        }
    } catch (const std::runtime_error& error) {
        requireNamed(error, path);
    }
    std::remove(path.c_str());
    return 0;
}
