// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <opencv2/core.hpp>
#include <string>
#include <vector>

namespace kelvo::tools {

// What the frames' values are: temperatures, or raw sensor counts.
enum class ValueKind { kTemperature, kCounts };

// The kind of the frames' values and the range the engine takes as valid pixels; a pixel
// outside it counts as defective and is repaired from its neighbours.
struct FrameValues {
    // That kind's usual range: -274..5000 for temperatures, -32768..65535 for counts (signed
    // and unsigned 16-bit alike).
    FrameValues(ValueKind kind = ValueKind::kTemperature);
    FrameValues(ValueKind kind, float low, float high) : kind(kind), low(low), high(high) {}

    ValueKind kind;
    float low;
    float high;
};

// The values of frames like this one, whose file stored pixels of the OpenCV depth given.
// "temperature" and "counts" are taken as asked, counts over the range of an integer file's
// type. "auto" takes integer files (8- and 16-bit images, u16 and i16 raw) for counts, and
// float ones for temperatures unless the bulk of their pixels, the 1st to the 99th
// percentile, lies outside -274..5000 (a handful of extreme pixels does not decide), or above
// 1000 in whole numbers only (counts stored as floats). When
// `decision` is given, it receives a sentence saying what auto decided and why.
FrameValues chooseFrameValues(const std::string& option, const cv::Mat_<float>& frame,
                              int storedDepth, std::string* decision = nullptr);

// Number of pixels outside the valid range (NaN and infinite ones included).
int countOutsideRange(const cv::Mat_<float>& frame, const FrameValues& values);

// Throws std::runtime_error unless the frame has the size of the first frame.
void requireFrameSize(const cv::Mat& frame, cv::Size firstFrameSize);

// The pass status when registration failed: the pass wrote no result.
constexpr int kRegistrationFailed = -998;

// What the engine found in its last pass.
struct PassReport {
    struct Frame {
        cv::Point2f shift;    // complete displacement against the reference, input pixels
        float validFraction;  // share of the frame its mask let the reconstruction use
    };
    int status = 0;  // 0, -3 (a mask half empty), -6 (too large a displacement), -998, ...
    float factorEstimate = 0.0f;
    int referencePosition = 0;
    std::vector<Frame> frames;  // window positions, oldest first
};

// Drives one context of the C interface, the way a host application does. Codes that
// leave a usable result (-2 .. -5) are returned for the caller to report; failures
// (-1, -999) throw std::runtime_error with the library's message.
class SuperResolver {
public:
    SuperResolver(cv::Size frameSize, const FrameValues& values,
                  const std::string& cameraAndLensType, int referenceIndex);
    ~SuperResolver();
    SuperResolver(const SuperResolver&) = delete;
    SuperResolver& operator=(const SuperResolver&) = delete;

    // Known defective pixels of the sensor: repaired in every frame added from now on.
    void setDefectivePixels(const std::vector<cv::Point>& positions);

    // Adds a frame (from the fifth on, every frame recomputes the result); returns the
    // status code.
    int addFrame(const cv::Mat_<float>& frame);
    // Adds a frame without a pass (the windows of a sequence that another engine computes).
    int loadFrame(const cv::Mat_<float>& frame);
    cv::Mat_<float> result() const;
    PassReport lastPass() const;
    // The full displacement of every frame of the last pass against the reference.
    std::vector<cv::Point2f> estimatedShifts() const;
    cv::Size frameSize() const { return size; }
    const FrameValues& values() const { return frameValues; }

    // The sensor blur of the passes to come.
    void setPsfSigma(float sigma);

    // The engine's timing lines reach standard output only when verbose.
    void setVerbose(bool value);

    // The library's message for a code, as a sentence for the user.
    static std::string describe(int status);

private:
    // Throws std::runtime_error with the library's message unless the status is SR_OK.
    void check(int status) const;
    // Hands the frame to the context through `intake` (with or without a pass).
    int take(const cv::Mat_<float>& frame, int (*intake)(int, const float*));

    cv::Size size;
    FrameValues frameValues;
    int handle;
};

}  // namespace kelvo::tools
