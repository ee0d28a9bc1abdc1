// SPDX-License-Identifier: Apache-2.0
// The text the tool reads besides images, as arbitrary bytes: bad-pixel tables (CSV of x,y lines)
// for an image of any size, and the raw-frame size and type options. A table must give
// positions inside the image or throw std::runtime_error naming its file; the option parsers
// accept only what they can use.
#include <fuzzer/FuzzedDataProvider.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <stdexcept>
#include <string>

#include "tools/kelvo-sr/DefectSearch.h"
#include "tools/kelvo-sr/FrameReader.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    FuzzedDataProvider data(bytes, size);
    const cv::Size imageSize(data.ConsumeIntegralInRange(0, 700),
                             data.ConsumeIntegralInRange(0, 600));
    const std::string text = data.ConsumeRemainingBytesAsString();

    int width = 0, height = 0;
    if (kelvo::tools::parseFrameSize(text, width, height) && (width <= 0 || height <= 0)) {
        __builtin_trap();
    }
    kelvo::tools::RawType type;
    if (kelvo::tools::parseRawType(text, type) && text != "u16" && text != "i16" && text != "f32") {
        __builtin_trap();
    }

    const std::string path = "/tmp/kelvo-table-fuzz-" + std::to_string(getpid()) + ".csv";
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
    try {
        for (const cv::Point& position : kelvo::tools::readBadPixelPositions(path, imageSize)) {
            if (!cv::Rect(cv::Point(), imageSize).contains(position)) {
                __builtin_trap();  // a position outside the image would be repaired out of bounds
            }
        }
    } catch (const std::runtime_error& error) {
        if (std::string(error.what()).find(path) == std::string::npos) {
            __builtin_trap();  // every refusal names the file
        }
    }
    std::remove(path.c_str());
    return 0;
}
