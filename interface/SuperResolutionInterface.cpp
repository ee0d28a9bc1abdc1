// SPDX-License-Identifier: Apache-2.0
#include "interface/SuperResolutionInterface.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>
#include <mutex>
#include <opencv2/core.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "interface/ContextTable.h"
#include "interface/SuperResolutionExtensions.h"

namespace {

using kelvo::interface::SuperResolutionEngine;

constexpr int framesPerResult = kelvo::interface::contextWindowSize;
constexpr float magnification = kelvo::interface::contextFactor;

// What the pass returns instead of its factor estimate.
constexpr float engineStatusBadPixels = -2.0f;
constexpr float engineStatusMaskHalfEmpty = -3.0f;
constexpr float engineStatusTooLargeDisplacement = -6.0f;

using kelvo::interface::ContextRecord;
using kelvo::interface::liveRecord;
using kelvo::interface::rejectInvalidContext;
using kelvo::interface::setError;

// Handles index this table. Released records stay in it for reuse, so it never shrinks, and
// each record keeps its address while the table grows: a thread working on its context holds
// the record without the lock, while other threads open, look up and release theirs.
// (Both are built on first use, so that hosts may call in from their own static initialisers.)
std::vector<std::unique_ptr<ContextRecord>>& contextTable() {
    static std::vector<std::unique_ptr<ContextRecord>> table;
    return table;
}
std::mutex contextTableMutex;

// The message of the last failure, shared by all contexts.
std::string& lastErrorMessage() {
    static std::string message;
    return message;
}
std::mutex lastErrorMessageMutex;

template <class Request>
int guarded(Request request) {
    return kelvo::interface::guarded(request, "Unknown exception in addImage()", false);
}

// Runs the pass into the output image and keeps what it found for the host to read.
float runPass(ContextRecord& record) {
    record.lastPassFrames = record.engine->getStoredFrames();
    record.lastPassReference = record.engine->getReferencePosition();
    record.lastPassResult = static_cast<float>(SR_ERROR);  // what remains if the pass throws
    record.lastPassResult = record.engine->computeSR(record.outputImage.ptr<float>());
    // Where a cluster of known defects hides the scene in every frame, the result is filled in
    // from around it rather than left at the marker value.
    const bool resultWritten = record.lastPassResult > 0.0f ||
                               record.lastPassResult == engineStatusMaskHalfEmpty ||
                               record.lastPassResult == engineStatusTooLargeDisplacement;
    if (!record.knownBadPixels.empty() && resultWritten) {
        cv::Mat_<float> result = record.outputImage;
        record.engine->getBadPixelHandling().fillRemainingMarkers(result);
    }
    return record.lastPassResult;
}

// Camera models by the number in their type text, in the order they are searched for, with the
// standard deviation of the sensor's point-spread function in result pixels. Only the 625 depends
// on its lens.
struct CameraModel {
    const char* number;
    float psfSigmaNarrowLens;  // field of view below 23 degrees
    float psfSigmaWideLens;
};

constexpr int wideLensFieldOfView = 23;
constexpr float defaultPsfSigma = 0.683f;
constexpr CameraModel cameraModels[] = {
    {"610", 0.81f, 0.81f}, {"615", 0.01f, 0.01f},   {"616", 0.01f, 0.01f}, {"620", 0.01f, 0.01f},
    {"621", 0.01f, 0.01f}, {"622", 0.625f, 0.625f}, {"625", 0.65f, 0.35f}, {"630", 0.34f, 0.34f},
};

struct CameraType {
    const CameraModel* model = nullptr;
    int fieldOfView = -1;
    bool parsed = false;
};

// The first model number of the table found anywhere in the text names the model; the lens is
// the integer that follows "FOV". Both must be there.
CameraType parseCameraType(const std::string& text) {
    CameraType type;
    for (const CameraModel& model : cameraModels) {
        if (text.find(model.number) != std::string::npos) {
            type.model = &model;
            break;
        }
    }
    const std::string lensTag = "FOV";
    const std::string::size_type lensTagPosition = text.find(lensTag);
    if (type.model == nullptr || lensTagPosition == std::string::npos) {
        return type;
    }
    std::istringstream lens(text.substr(lensTagPosition + lensTag.size()));
    lens >> type.fieldOfView;
    type.parsed = type.fieldOfView != -1;
    return type;
}

float psfSigmaOf(const CameraType& type) {
    if (!type.parsed) {
        return defaultPsfSigma;
    }
    return type.fieldOfView < wideLensFieldOfView ? type.model->psfSigmaNarrowLens
                                                  : type.model->psfSigmaWideLens;
}

}  // namespace

namespace kelvo::interface {

float psfSigmaOfCameraAndLensType(const std::string& cameraAndLensType) {
    return psfSigmaOf(parseCameraType(cameraAndLensType));
}

ContextRecord* liveRecord(int handle) {
    const std::lock_guard<std::mutex> lock(contextTableMutex);
    const auto& table = contextTable();
    if (handle < 0 || handle >= static_cast<int>(table.size()) || !table[handle]->engine) {
        return nullptr;
    }
    return table[handle].get();
}

void setError(const std::string& message) {
    const std::lock_guard<std::mutex> lock(lastErrorMessageMutex);
    lastErrorMessage() = message;
}

int rejectInvalidContext() {
    setError("Context invalid.");
    return SR_ERROR;
}

SuperResolutionEngine* engineOf(int handle) {
    ContextRecord* record = liveRecord(handle);
    return record != nullptr ? record->engine.get() : nullptr;
}

bool openDiagnosticWriter(int handle, const std::string& folder) {
    ContextRecord* record = liveRecord(handle);
    return record != nullptr && record->diagnosticWriter.open(folder);
}

}  // namespace kelvo::interface

extern "C" {

int SuperResolution_init(int width, int height) {
    // The platform's log-file setting is accepted but unused: this library does not log.
    if (const char* logFile = std::getenv("KILIB_LOG_FILE")) {
        const std::string unusedLogFile(logFile);
    }
    try {
        // The engine is built outside the lock; the record turns live only once everything
        // succeeded.
        auto engine =
            std::make_unique<SuperResolutionEngine>(width, height, framesPerResult, magnification);
        cv::Mat outputImage = cv::Mat::zeros(static_cast<int>(magnification * height),
                                             static_cast<int>(magnification * width), CV_32F);
        kelvo::interface::applyContextSettings(*engine);
        const std::lock_guard<std::mutex> lock(contextTableMutex);
        auto& table = contextTable();
        auto freeRecord = std::find_if(
            table.begin(), table.end(),
            [](const std::unique_ptr<ContextRecord>& record) { return !record->engine; });
        if (freeRecord == table.end()) {
            table.push_back(std::make_unique<ContextRecord>());
            freeRecord = std::prev(table.end());
        }
        ContextRecord& record = **freeRecord;
        record.width = width;
        record.height = height;
        record.imageCount = 0;
        record.outputImage = outputImage;
        record.knownBadPixels.clear();
        record.lastPassFrames = -1;
        record.engine = std::move(engine);
        return static_cast<int>(freeRecord - table.begin());
    } catch (const std::exception& error) {
        setError(error.what());
        return SR_INIT_FAILED;
    }
}

namespace {

// Takes a frame into the context's window; the pass runs only when asked and the window is full.
int takeImage(int handle, const float* image, bool passWhenFull) {
    ContextRecord* record = liveRecord(handle);
    if (record == nullptr) {
        return rejectInvalidContext();
    }
    if (record->width == 0 || record->height == 0) {
        setError("Size of expected Ir images unknown");
        return SR_ERROR;
    }
    if (image == nullptr) {
        setError("ir image data pointer is NULL");
        return SR_ERROR;
    }
    return guarded([record, image, passWhenFull] {
        const cv::Mat frame(record->height, record->width, CV_32F, const_cast<float*>(image));
        if (record->diagnosticWriter.isOpen()) {
            record->diagnosticWriter << frame;
        }
        int status = SR_OK;
        double minimum = 0.0;
        double maximum = 0.0;
        cv::minMaxLoc(frame, &minimum, &maximum);
        if (maximum - minimum < record->engine->getMinStructureThreshold()) {
            setError("  image has not enough structure");
            status = SR_LOW_STRUCTURE;
        }
        const int frameStatus = record->engine->addFrame(record->knownBadPixels.marked(image));
        ++record->imageCount;
        const bool passRan = passWhenFull && record->imageCount >= framesPerResult;
        const float passResult = passRan ? runPass(*record) : 0.0f;
        // The pass's quality factor and its other findings are not the host's concern here.
        if ((passRan && passResult == engineStatusBadPixels) || frameStatus == SR_BAD_PIXELS) {
            status = SR_BAD_PIXELS;
        }
        if (passRan && passResult == engineStatusMaskHalfEmpty) {
            status = SR_MASK_HALF_EMPTY;
        }
        return status;
    });
}

}  // namespace

int SuperResolution_addImage(int handle, const float* image) {
    return takeImage(handle, image, true);
}

int SuperResolution_loadImage(int handle, const float* image) {
    return takeImage(handle, image, false);
}

int SuperResolution_setReferenceFrame(int handle, int index) {
    ContextRecord* record = liveRecord(handle);
    if (record == nullptr) {
        return rejectInvalidContext();
    }
    // An index outside the window throws the engine's message (a C string) on to the host.
    record->engine->setReferenceIndex(index);
    return SR_OK;
}

int SuperResolution_setCameraAndLensType(int handle, const char* cameraAndLensType) {
    ContextRecord* record = liveRecord(handle);
    if (record == nullptr) {
        return rejectInvalidContext();
    }
    const std::string text = cameraAndLensType != nullptr ? cameraAndLensType : "";
    record->engine->setPsfSigma(kelvo::interface::psfSigmaOfCameraAndLensType(text));
    return SR_OK;
}

int SuperResolution_queryOutputImageSize(int handle, int* width, int* height) {
    ContextRecord* record = liveRecord(handle);
    if (record == nullptr) {
        return rejectInvalidContext();
    }
    return guarded([record, width, height] {
        int status = SR_OK;
        if (record->imageCount < framesPerResult) {
            setError("Not enough input images (<5)");
            status = SR_TOO_FEW_IMAGES;
            runPass(*record);
        }
        if (width != nullptr) {
            *width = record->outputImage.cols;
        }
        if (height != nullptr) {
            *height = record->outputImage.rows;
        }
        return status;
    });
}

int SuperResolution_getSuperresolutionImage(int handle, float* output) {
    ContextRecord* record = liveRecord(handle);
    if (record == nullptr) {
        return rejectInvalidContext();
    }
    if (output == nullptr) {
        setError("Ir mosaic data pointer is NULL.");
    }
    int status = SR_OK;
    if (record->imageCount < framesPerResult) {
        setError("Not enough input images (<5)");
        status = SR_TOO_FEW_IMAGES;
    }
    if (output == nullptr || record->outputImage.data == nullptr) {
        setError("Memcpy called on nullptr!!!!");
        return SR_ERROR;
    }
    std::memcpy(output, record->outputImage.ptr<float>(),
                record->outputImage.total() * sizeof(float));
    return status;
}

int SuperResolution_getErrorMessage(char* buffer, int size) {
    if (buffer != nullptr && size > 0) {
        const std::lock_guard<std::mutex> lock(lastErrorMessageMutex);
        std::strncpy(buffer, lastErrorMessage().c_str(), static_cast<std::size_t>(size));
    }
    return SR_OK;
}

int SuperResolution_release(int handle) {
    ContextRecord* record = liveRecord(handle);
    if (record == nullptr) {
        return rejectInvalidContext();
    }
    if (record->diagnosticWriter.isOpen()) {
        record->diagnosticWriter.close();
    }
    record->outputImage.release();
    record->knownBadPixels.clear();
    record->width = 0;
    record->height = 0;
    // Freeing the engine frees the record for the next SuperResolution_init.
    std::unique_ptr<SuperResolutionEngine> engine;
    const std::lock_guard<std::mutex> lock(contextTableMutex);
    engine.swap(record->engine);
    return SR_OK;
}

}  // extern "C"
