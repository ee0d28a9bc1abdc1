#include "tools/kelvo-sr/ImageFiles.h"

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

}  // namespace

void writeFloatTiff(const std::string& path, const cv::Mat_<float>& image) {
    write(path, image);
}

void write16BitPng(const std::string& path, const cv::Mat_<float>& image, double scale,
                   double offset) {
    cv::Mat encoded;
    image.convertTo(encoded, CV_16U, scale, offset);
    write(path, encoded);
}

void write16BitImage(const std::string& path, const cv::Mat& image) {
    write(path, image);
}

void default16BitEncoding(ValueKind values, double& scale, double& offset) {
    if (values == ValueKind::kCounts) {
        scale = 1.0;
        offset = 0.0;
    } else {
        scale = 100.0;
        offset = 27315.0;
    }
}

void writeColourImage(const std::string& path, const cv::Mat& image) {
    write(path, image);
}

}  // namespace kelvo::tools
