#pragma once

#include <opencv2/core.hpp>
#include <string>
#include <vector>

namespace kelvo::tools {

// What the frames' values are: the engine accepts temperatures in [-274, 5000] as
// valid pixels by default, and raw sensor counts in [-32768, 32767] when told so.
enum class ValueKind { kTemperature, kCounts };

// Picks the kind that keeps the most pixels valid: counts as soon as a value lies
// outside the temperature range.
ValueKind guessValueKind(const cv::Mat_<float>& frame);

// Number of pixels the engine accepts as valid for that kind of data.
int countValidPixels(const cv::Mat_<float>& frame, ValueKind values);

// Drives one context of the C interface, the way a host application does. Codes that
// leave a usable result (-2 .. -5) are returned for the caller to report; failures
// (-1, -999) throw std::runtime_error with the library's message.
class SuperResolver {
public:
    SuperResolver(cv::Size frameSize, ValueKind values, const std::string& cameraAndLensType,
                  int referenceIndex);
    ~SuperResolver();
    SuperResolver(const SuperResolver&) = delete;
    SuperResolver& operator=(const SuperResolver&) = delete;

    // Adds a frame (from the fifth on, every frame recomputes the result); returns the
    // status code. The engine's timing lines reach standard output only when verbose.
    int addFrame(const cv::Mat_<float>& frame);
    cv::Mat_<float> result() const;
    // The full displacement of every frame of the last pass against the reference.
    std::vector<cv::Point2f> estimatedShifts() const;
    cv::Size frameSize() const { return size; }
    // The handle of the context, for the interface's functions that report on a pass.
    int contextHandle() const { return handle; }

    void setVerbose(bool value) { verbose = value; }

    // The library's message for a code, as a sentence for the user.
    static std::string describe(int status);

private:
    cv::Size size;
    int handle;
    bool verbose = false;
};

}  // namespace kelvo::tools
