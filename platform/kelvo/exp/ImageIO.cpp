// SPDX-License-Identifier: Apache-2.0
#include "platform/kelvo/exp/ImageIO.h"

#include <cstdio>
#include <filesystem>
#include <opencv2/imgcodecs.hpp>

namespace kelvo::exp {

bool ImageIO::open(const std::string& folder) {
    std::error_code error;
    if (folder.empty() || !std::filesystem::is_directory(folder, error)) {
        return false;
    }
    folder_ = folder;
    written_ = 0;
    return true;
}

void ImageIO::close() { folder_.clear(); }

ImageIO& ImageIO::operator<<(const cv::Mat& image) {
    if (!isOpen()) {
        return *this;
    }
    char name[32];
    std::snprintf(name, sizeof(name), "frame_%06d.tiff", written_);
    cv::Mat asFloat;
    image.convertTo(asFloat, CV_32F);
    bool written = false;
    try {
        written = cv::imwrite((std::filesystem::path(folder_) / name).string(), asFloat);
    } catch (const cv::Exception&) {
        written = false;
    }
    if (written) {
        ++written_;
    } else {
        close();
    }
    return *this;
}

}  // namespace kelvo::exp
