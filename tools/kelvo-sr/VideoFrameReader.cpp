// SPDX-License-Identifier: Apache-2.0
#include "tools/kelvo-sr/VideoFrameReader.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/pixdesc.h>
#include <libswscale/swscale.h>
}

#include <cmath>
#include <iostream>
#include <stdexcept>
#include <utility>

namespace kelvo::tools {

namespace {

std::string errorText(int code) {
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(code, text, sizeof(text));
    return text;
}

// One component of at most 16 bits, integer samples: the frame holds the values themselves.
bool isGrey(const AVPixFmtDescriptor& format) {
    const auto notValues = AV_PIX_FMT_FLAG_PAL | AV_PIX_FMT_FLAG_BITSTREAM | AV_PIX_FMT_FLAG_FLOAT |
                           AV_PIX_FMT_FLAG_HWACCEL;
    return format.nb_components == 1 && (format.flags & notValues) == 0 &&
           format.comp[0].depth <= 16;
}

}  // namespace

void VideoFrameReader::Release::operator()(AVFormatContext* context) const {
    avformat_close_input(&context);
}
void VideoFrameReader::Release::operator()(AVCodecContext* context) const {
    avcodec_free_context(&context);
}
void VideoFrameReader::Release::operator()(AVPacket* packet) const {
    av_packet_free(&packet);
}
void VideoFrameReader::Release::operator()(AVFrame* frame) const {
    av_frame_free(&frame);
}
void VideoFrameReader::Release::operator()(SwsContext* conversion) const {
    sws_freeContext(conversion);
}

VideoFrameReader::VideoFrameReader(const std::string& path)
    : path(path), packet(av_packet_alloc()), frame(av_frame_alloc()) {
    // Failures are reported here, once, naming the file; the libraries' own lines would only
    // repeat them in their words.
    av_log_set_level(AV_LOG_QUIET);
    const auto fail = [&](const std::string& why) {
        throw std::runtime_error("Cannot read '" + path + "': " + why + ".");
    };
    AVFormatContext* opened = nullptr;
    if (avformat_open_input(&opened, path.c_str(), nullptr, nullptr) < 0) {
        fail("neither a folder of frames nor a video file");
    }
    format.reset(opened);
    if (avformat_find_stream_info(format.get(), nullptr) < 0) {
        fail("the video's streams cannot be read");
    }
    const AVCodec* decoder = nullptr;
    stream = av_find_best_stream(format.get(), AVMEDIA_TYPE_VIDEO, -1, -1, &decoder, 0);
    if (stream < 0 || decoder == nullptr) {
        fail(stream == AVERROR_DECODER_NOT_FOUND ? "no decoder for its video"
                                                 : "the file holds no video");
    }
    codec.reset(avcodec_alloc_context3(decoder));
    if (!codec || !packet || !frame ||
        avcodec_parameters_to_context(codec.get(), format->streams[stream]->codecpar) < 0 ||
        avcodec_open2(codec.get(), decoder, nullptr) < 0) {
        fail(std::string("its video (") + decoder->name + ") cannot be decoded");
    }
}

VideoFrameReader::~VideoFrameReader() = default;

int VideoFrameReader::frameCount() const {
    const AVStream& video = *format->streams[stream];
    if (video.nb_frames > 0) {
        return static_cast<int>(video.nb_frames);
    }
    // Containers such as Matroska store only the duration.
    const double rate = av_q2d(video.avg_frame_rate);
    if (format->duration > 0 && rate > 0.0) {
        return static_cast<int>(
            std::lround(static_cast<double>(format->duration) / AV_TIME_BASE * rate));
    }
    return -1;
}

bool VideoFrameReader::read(cv::Mat& image) {
    for (;;) {
        const int received = avcodec_receive_frame(codec.get(), frame.get());
        if (received == 0) {
            image = toImage();
            return true;
        }
        if (received == AVERROR_EOF) {
            return false;
        }
        if (received != AVERROR(EAGAIN)) {
            throw std::runtime_error("a frame of '" + path +
                                     "' cannot be decoded: " + errorText(received) + ".");
        }
        if (draining) {
            return false;
        }
        const int status = av_read_frame(format.get(), packet.get());
        if (status < 0) {
            draining = true;  // the end of the file, or as far as it can be read
            avcodec_send_packet(codec.get(), nullptr);
            continue;
        }
        const int sent =
            packet->stream_index == stream ? avcodec_send_packet(codec.get(), packet.get()) : 0;
        av_packet_unref(packet.get());
        if (sent < 0 && sent != AVERROR(EAGAIN)) {
            throw std::runtime_error("a frame of '" + path +
                                     "' cannot be decoded: " + errorText(sent) + ".");
        }
    }
}

cv::Mat VideoFrameReader::toImage() {
    const auto pixelFormat = static_cast<AVPixelFormat>(frame->format);
    const AVPixFmtDescriptor* layout = av_pix_fmt_desc_get(pixelFormat);
    if (layout == nullptr) {
        throw std::runtime_error("a frame of '" + path + "' has no known pixel format.");
    }
    const int depth = layout->comp[0].depth;
    if (isGrey(*layout)) {
        // libavutil reads the samples of any grey layout (bit depth, byte order) unscaled.
        cv::Mat_<unsigned short> samples(frame->height, frame->width);
        for (int row = 0; row < frame->height; ++row) {
            av_read_image_line2(samples.ptr(row), const_cast<const uint8_t**>(frame->data),
                                frame->linesize, layout, 0, row, 0, frame->width, 0, 2);
        }
        if (depth > 8) {
            return std::move(samples);
        }
        cv::Mat bytes;
        samples.convertTo(bytes, CV_8U);
        return bytes;
    }
    if (!warnedColour) {
        std::cerr << "warning: '" << path << "' stores its frames in a colour format ("
                  << av_get_pix_fmt_name(pixelFormat)
                  << "): they are converted to grey, which keeps values only where the camera "
                     "wrote grey; a colour palette cannot be turned back into values, so frames "
                     "that show one are refused. Record grey video (gray, gray16le) to measure."
                  << std::endl;
        warnedColour = true;
    }
    const bool wide = depth > 8;
    const AVPixelFormat target = wide ? AV_PIX_FMT_BGR48 : AV_PIX_FMT_BGR24;
    conversion.reset(sws_getCachedContext(conversion.release(), frame->width, frame->height,
                                          pixelFormat, frame->width, frame->height, target,
                                          SWS_POINT | SWS_ACCURATE_RND, nullptr, nullptr, nullptr));
    if (!conversion) {
        throw std::runtime_error("the frames of '" + path + "' (" +
                                 av_get_pix_fmt_name(pixelFormat) + ") cannot be converted.");
    }
    cv::Mat bgr(frame->height, frame->width, wide ? CV_16UC3 : CV_8UC3);
    uint8_t* planes[4] = {bgr.data, nullptr, nullptr, nullptr};
    int steps[4] = {static_cast<int>(bgr.step), 0, 0, 0};
    sws_scale(conversion.get(), frame->data, frame->linesize, 0, frame->height, planes, steps);
    return bgr;
}

}  // namespace kelvo::tools
