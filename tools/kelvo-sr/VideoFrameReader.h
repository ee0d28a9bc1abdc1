// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <opencv2/core.hpp>
#include <string>

struct AVCodecContext;
struct AVFormatContext;
struct AVFrame;
struct AVPacket;
struct SwsContext;

namespace kelvo::tools {

// Reads the frames of a video file in order, through FFmpeg's libraries, so that a grey video
// keeps the values the camera stored: gray (8 bits) gives CV_8U frames, gray10 to gray16 (as
// FFV1 stores a 16-bit sensor) give CV_16U frames with their samples unscaled. Frames stored
// in colour are converted, with a warning, to 8- or 16-bit BGR for the caller to accept when
// grey or refuse as a palette.
class VideoFrameReader {
public:
    // Throws std::runtime_error naming the file when it holds no video stream that can be
    // decoded.
    explicit VideoFrameReader(const std::string& path);
    ~VideoFrameReader();
    VideoFrameReader(const VideoFrameReader&) = delete;
    VideoFrameReader& operator=(const VideoFrameReader&) = delete;

    // The next frame; false at the end of the video. A frame that cannot be decoded throws
    // std::runtime_error; reading may go on after it.
    bool read(cv::Mat& image);

    // The number of frames the file announces, or -1 when it does not tell.
    int frameCount() const;

private:
    cv::Mat toImage();

    struct Release {
        void operator()(AVFormatContext* format) const;
        void operator()(AVCodecContext* codec) const;
        void operator()(AVPacket* packet) const;
        void operator()(AVFrame* frame) const;
        void operator()(SwsContext* conversion) const;
    };

    std::string path;
    std::unique_ptr<AVFormatContext, Release> format;
    std::unique_ptr<AVCodecContext, Release> codec;
    std::unique_ptr<AVPacket, Release> packet;
    std::unique_ptr<AVFrame, Release> frame;
    std::unique_ptr<SwsContext, Release> conversion;  // for frames stored in colour
    int stream = -1;
    bool draining = false;      // the file is read to its end; the decoder gives what it holds
    bool warnedColour = false;  // the conversion is announced once per video
};

}  // namespace kelvo::tools
