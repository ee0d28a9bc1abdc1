// SPDX-License-Identifier: Apache-2.0
#include "tools/kelvo-sr/ImageHeader.h"

#include <tiffio.h>

#include <algorithm>
#include <cctype>
#include <cstdarg>
#include <fstream>
#include <memory>

namespace kelvo::tools {

namespace {

// Enough for every header below, long comments in a PNM header included.
constexpr std::size_t kHeadBytes = 64 * 1024;
// PNM numbers beyond this are all simply too large.
constexpr uint64_t kLargestNumber = uint64_t{1} << 40;

uint32_t bigEndian(const unsigned char* bytes, int count) {
    uint32_t value = 0;
    for (int i = 0; i < count; ++i) {
        value = value << 8 | bytes[i];
    }
    return value;
}

uint32_t littleEndian(const unsigned char* bytes, int count) {
    uint32_t value = 0;
    for (int i = count - 1; i >= 0; --i) {
        value = value << 8 | bytes[i];
    }
    return value;
}

std::optional<ImageHeader> claimed(const char* format, uint64_t width, uint64_t height) {
    if (width == 0 || height == 0) {
        return std::nullopt;
    }
    return ImageHeader{format, width, height};
}

// PNG: the signature, then the IHDR chunk (length, type, width, height, all big-endian).
std::optional<ImageHeader> pngHeader(const std::string& head) {
    const auto* bytes = reinterpret_cast<const unsigned char*>(head.data());
    if (head.size() < 24 || head.compare(12, 4, "IHDR") != 0) {
        return std::nullopt;
    }
    return claimed("PNG", bigEndian(bytes + 16, 4), bigEndian(bytes + 20, 4));
}

// BMP: the 14-byte file header, then a bitmap header whose length tells its kind: the oldest,
// 12 bytes long, holds 16-bit sizes; the later ones hold 32-bit signed sizes, a negative height
// meaning rows stored top down.
std::optional<ImageHeader> bmpHeader(const std::string& head) {
    const auto* bytes = reinterpret_cast<const unsigned char*>(head.data());
    if (head.size() < 26) {
        return std::nullopt;
    }
    if (littleEndian(bytes + 14, 4) == 12) {
        return claimed("BMP", littleEndian(bytes + 18, 2), littleEndian(bytes + 20, 2));
    }
    const int64_t width = static_cast<int32_t>(littleEndian(bytes + 18, 4));
    const int64_t height = static_cast<int32_t>(littleEndian(bytes + 22, 4));
    if (width <= 0) {
        return std::nullopt;
    }
    return claimed("BMP", width, height < 0 ? -height : height);
}

// The words of a PNM header after its two-character magic: separated by white space, and where
// the format has comments, '#' starting one that a line feed or a carriage return ends. The
// reading follows the decoder's, which must not find numbers that this reading skipped. A word
// must end within the head, so that a number is never read cut short.
class HeaderWords {
public:
    HeaderWords(const std::string& head, bool comments)
        : head(head), comments(comments), position(2) {}

    std::optional<std::string> next() {
        while (position < head.size() &&
               (std::isspace(static_cast<unsigned char>(head[position])) ||
                (comments && head[position] == '#'))) {
            if (head[position] == '#') {
                position = std::min(head.find_first_of("\n\r", position), head.size());
            } else {
                ++position;
            }
        }
        const std::size_t start = position;
        while (position < head.size() &&
               !std::isspace(static_cast<unsigned char>(head[position]))) {
            ++position;
        }
        if (position == start || position == head.size()) {
            return std::nullopt;
        }
        return head.substr(start, position - start);
    }

    std::optional<uint64_t> nextNumber() {
        const std::optional<std::string> word = next();
        if (!word) {
            return std::nullopt;
        }
        uint64_t value = 0;
        for (const char digit : *word) {
            if (!std::isdigit(static_cast<unsigned char>(digit))) {
                return std::nullopt;
            }
            value = std::min(value * 10 + static_cast<uint64_t>(digit - '0'), kLargestNumber);
        }
        return value;
    }

private:
    const std::string& head;
    const bool comments;
    std::size_t position;
};

// A PAM keyword as the decoder compares it: without case, up to a NUL character.
std::string keyword(const std::string& word) {
    std::string key = word.substr(0, word.find('\0'));
    std::transform(key.begin(), key.end(), key.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    return key;
}

// PBM, PGM, PPM ("P1" to "P6") and PFM ("PF", "Pf", without comments) give width and height
// first; PAM ("P7") names them on WIDTH and HEIGHT lines before ENDHDR, the last naming counting.
std::optional<ImageHeader> pnmHeader(const std::string& head) {
    const bool floatMap = head[1] == 'F' || head[1] == 'f';
    HeaderWords words(head, !floatMap);
    std::optional<uint64_t> width, height;
    if (head[1] != '7') {
        width = words.nextNumber();
        height = words.nextNumber();
    } else {
        for (auto word = words.next(); word && keyword(*word) != "ENDHDR"; word = words.next()) {
            if (keyword(*word) == "WIDTH") {
                width = words.nextNumber();
            } else if (keyword(*word) == "HEIGHT") {
                height = words.nextNumber();
            }
        }
    }
    if (!width || !height) {
        return std::nullopt;
    }
    return claimed("PNM", *width, *height);
}

// JPEG: markers after the start of image, each segment but the standalone markers led by its
// length, up to the frame header (SOF0 to SOF15 except DHT, JPG and DAC, which share the
// range): length, precision, height, width. Stray bytes between segments are passed over as
// decoders do.
std::optional<ImageHeader> jpegHeader(std::istream& file) {
    file.seekg(2);
    for (int byte = file.get(); byte != EOF; byte = file.get()) {
        if (byte != 0xff) {
            continue;
        }
        int marker = file.get();
        while (marker == 0xff) {
            marker = file.get();
        }
        const bool standalone =
            marker == 0x00 || marker == 0x01 || (marker >= 0xd0 && marker <= 0xd8);
        if (marker == EOF || marker == 0xd9 || marker == 0xda) {
            return std::nullopt;  // the end, or the first scan, without a frame header
        }
        if (standalone) {
            continue;
        }
        unsigned char segment[7];
        if (!file.read(reinterpret_cast<char*>(segment), 2)) {
            return std::nullopt;
        }
        const bool frameHeader =
            marker >= 0xc0 && marker <= 0xcf && marker != 0xc4 && marker != 0xc8 && marker != 0xcc;
        if (frameHeader) {
            if (!file.read(reinterpret_cast<char*>(segment) + 2, 5)) {
                return std::nullopt;
            }
            return claimed("JPEG", bigEndian(segment + 5, 2), bigEndian(segment + 3, 2));
        }
        const uint32_t length = bigEndian(segment, 2);
        if (length < 2) {
            return std::nullopt;
        }
        file.seekg(length - 2, std::ios::cur);
    }
    return std::nullopt;
}

int ignoreTiffMessage(TIFF*, void*, const char*, const char*, va_list) {
    return 1;
}

// TIFF: libtiff reads the first directory, the image the decoder would read. Its messages stay
// with this file: a header that cannot be read is reported once, by the caller.
std::optional<ImageHeader> tiffHeader(const std::string& path) {
    const std::unique_ptr<TIFFOpenOptions, void (*)(TIFFOpenOptions*)> options(
        TIFFOpenOptionsAlloc(), TIFFOpenOptionsFree);
    TIFFOpenOptionsSetErrorHandlerExtR(options.get(), ignoreTiffMessage, nullptr);
    TIFFOpenOptionsSetWarningHandlerExtR(options.get(), ignoreTiffMessage, nullptr);
    TIFF* tiff = TIFFOpenExt(path.c_str(), "r", options.get());
    if (tiff == nullptr) {
        return std::nullopt;
    }
    uint32_t width = 0, height = 0;
    const bool sized = TIFFGetField(tiff, TIFFTAG_IMAGEWIDTH, &width) == 1 &&
                       TIFFGetField(tiff, TIFFTAG_IMAGELENGTH, &height) == 1;
    TIFFClose(tiff);
    return sized ? claimed("TIFF", width, height) : std::nullopt;
}

bool startsWith(const std::string& head, const char* magic, std::size_t length) {
    return head.compare(0, length, magic, length) == 0;
}

}  // namespace

std::optional<ImageHeader> readImageHeader(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::string head(kHeadBytes, '\0');
    file.read(head.data(), static_cast<std::streamsize>(head.size()));
    head.resize(static_cast<std::size_t>(file.gcount()));
    file.clear();
    if (startsWith(head, "\x89PNG\r\n\x1a\n", 8)) {
        return pngHeader(head);
    }
    if (startsWith(head, "\xff\xd8\xff", 3)) {
        return jpegHeader(file);
    }
    if (startsWith(head, "II*\0", 4) || startsWith(head, "MM\0*", 4) ||
        startsWith(head, "II+\0", 4) || startsWith(head, "MM\0+", 4)) {
        return tiffHeader(path);
    }
    if (startsWith(head, "BM", 2)) {
        return bmpHeader(head);
    }
    if (head.size() > 2 && head[0] == 'P' &&
        ((head[1] >= '1' && head[1] <= '7') || head[1] == 'F' || head[1] == 'f')) {
        return pnmHeader(head);
    }
    return std::nullopt;
}

}  // namespace kelvo::tools
