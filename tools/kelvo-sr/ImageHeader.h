// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace kelvo::tools {

// What an image file says about itself before any pixel is decoded.
struct ImageHeader {
    std::string format;  // "PNG", "JPEG", "TIFF", "BMP" or "PNM"
    uint64_t width = 0;
    uint64_t height = 0;
};

// The format and the pixel size the header of the file at `path` claims, for the formats the
// tool decodes: PNG, JPEG, TIFF, BMP and the PNM family (PBM, PGM, PPM, PAM, PFM). Nothing for a
// file that starts like none of them, or whose header is cut short, malformed or claims no
// pixels. Reading only the header lets a file that claims gigapixels in a few bytes be refused
// before a decoder allocates for it.
std::optional<ImageHeader> readImageHeader(const std::string& path);

}  // namespace kelvo::tools
