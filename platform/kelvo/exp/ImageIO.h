// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <opencv2/core.hpp>
#include <string>

namespace kelvo::exp {

// A diagnostic image sink. It stays closed, and writes nothing, until a folder is
// opened; then every image streamed into it is written there as a numbered
// 32-bit float TIFF (frame_000000.tiff, frame_000001.tiff, ...).
class ImageIO {
public:
    // The mode is the platform's writer kind; this sink knows only one and keeps it
    // for the host to query.
    explicit ImageIO(int mode) : mode_(mode) {}

    int mode() const { return mode_; }
    bool isOpen() const { return !folder_.empty(); }

    // Returns false, and stays closed, when the folder does not exist.
    bool open(const std::string& folder);
    void close();

    // Writes the image when open; a write failure closes the sink.
    ImageIO& operator<<(const cv::Mat& image);

private:
    int mode_;
    std::string folder_;
    int written_ = 0;
};

}  // namespace kelvo::exp
