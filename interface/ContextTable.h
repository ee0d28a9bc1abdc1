// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <exception>
#include <memory>
#include <opencv2/core.hpp>
#include <string>

#include "interface/SuperResolutionContext.h"
#include "interface/SuperResolutionInterface.h"
#include "platform/kelvo/exp/ImageIO.h"
#include "vision/superresolution/KnownBadPixels.h"

// The contexts behind the handles, shared by the entry points and their extensions. Internal to
// the library.
namespace kelvo::interface {

// The image writer's mode; the writer stays closed unless a host opens it.
constexpr int diagnosticWriterMode = 2;

struct ContextRecord {
    int width = 0;
    int height = 0;
    cv::Mat outputImage = cv::Mat(0, 0, CV_32F);
    std::unique_ptr<SuperResolutionEngine> engine;  // null: the record is free
    kelvo::exp::ImageIO diagnosticWriter{diagnosticWriterMode};
    int imageCount = 0;

    // Marked into every frame before the engine sees it.
    vision::KnownBadPixels knownBadPixels;
    // What the last pass returned (SR_ERROR if it threw), how many frames it used (-1: no pass
    // yet) and its reference position.
    float lastPassResult = 0.0f;
    int lastPassFrames = -1;
    int lastPassReference = 0;
};

// The live record of a handle, or null.
ContextRecord* liveRecord(int handle);

// Replaces the message SuperResolution_getErrorMessage hands out.
void setError(const std::string& message);

// Sets "Context invalid." and returns SR_ERROR.
int rejectInvalidContext();

// Runs one request against the engine, turning whatever it throws into SR_ERROR and a message.
// The engine's setters throw their message as a plain C string: with passEngineMessages it becomes
// the message, otherwise unknownFailure does.
template <class Request>
int guarded(Request request, const char* unknownFailure, bool passEngineMessages) {
    try {
        return request();
    } catch (const cv::Exception& error) {
        setError(std::string("cv::Exception: ") + error.what());
    } catch (const std::exception& error) {
        setError(error.what());
    } catch (const char* message) {
        setError(passEngineMessages && message != nullptr ? message : unknownFailure);
    } catch (...) {
        setError(unknownFailure);
    }
    return SR_ERROR;
}

}  // namespace kelvo::interface
