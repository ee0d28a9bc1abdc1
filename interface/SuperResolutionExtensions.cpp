// SPDX-License-Identifier: Apache-2.0
#include "interface/SuperResolutionExtensions.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <initializer_list>
#include <string>
#include <vector>

#include "interface/ContextTable.h"
#include "vision/superresolution/PsfSigmaEstimator.h"

namespace {

using kelvo::interface::ContextRecord;
using kelvo::interface::liveRecord;
using kelvo::interface::rejectInvalidContext;
using kelvo::interface::setError;

int reject(const std::string& message) {
    setError(message);
    return SR_ERROR;
}

// Runs a request on the live record of the handle; the engine's own messages reach the host.
template <class Request>
int withRecord(int handle, Request request) {
    ContextRecord* record = liveRecord(handle);
    if (record == nullptr) {
        return rejectInvalidContext();
    }
    return kelvo::interface::guarded([&] { return request(*record); },
                                     "Unknown exception in extension function", true);
}

bool anyNull(std::initializer_list<const void*> pointers) {
    for (const void* pointer : pointers) {
        if (pointer == nullptr) {
            return true;
        }
    }
    return false;
}

int rejectNull() {
    return reject("Output pointer is NULL.");
}

// Copies text with its terminator, or nothing when it does not fit.
int copyText(const std::string& text, char* buffer, int size) {
    if (buffer == nullptr) {
        return rejectNull();
    }
    if (size <= 0 || static_cast<size_t>(size) <= text.size()) {
        return reject("Buffer too small: " + std::to_string(text.size() + 1) + " bytes needed.");
    }
    std::memcpy(buffer, text.c_str(), text.size() + 1);
    return SR_OK;
}

int rejectNoPass() {
    return reject("No pass has run on this context yet.");
}

}  // namespace

extern "C" {

/* ---- Version ---- */

int SuperResolution_getVersion(int* major, int* minor, int* patch) {
    if (anyNull({major, minor, patch})) {
        return rejectNull();
    }
    *major = KELVO_SUPERRES_VERSION_MAJOR;
    *minor = KELVO_SUPERRES_VERSION_MINOR;
    *patch = KELVO_SUPERRES_VERSION_PATCH;
    return SR_OK;
}

int SuperResolution_getVersionText(char* buffer, int size) {
    return copyText(KELVO_SUPERRES_VERSION_TEXT, buffer, size);
}

/* ---- What the frames hold ---- */

int SuperResolution_setFrameValues(int handle, int values) {
    return withRecord(handle, [values](ContextRecord& record) -> int {
        if (values != SR_VALUES_TEMPERATURE && values != SR_VALUES_COUNTS) {
            return reject("Invalid frame values specified: " + std::to_string(values) +
                          " (SR_VALUES_TEMPERATURE 0 or SR_VALUES_COUNTS 1).");
        }
        record.engine->setDataIsNUC(values == SR_VALUES_COUNTS);
        return SR_OK;
    });
}

int SuperResolution_setValidRange(int handle, float minimum, float maximum) {
    return withRecord(handle, [minimum, maximum](ContextRecord& record) -> int {
        record.engine->setValidRange(minimum, maximum);
        return SR_OK;
    });
}

int SuperResolution_getValidRange(int handle, float* minimum, float* maximum) {
    return withRecord(handle, [minimum, maximum](ContextRecord& record) -> int {
        if (anyNull({minimum, maximum})) {
            return rejectNull();
        }
        *minimum = record.engine->getBadPixelHandling().getValidMin();
        *maximum = record.engine->getBadPixelHandling().getValidMax();
        return SR_OK;
    });
}

/* ---- Known defective pixels ---- */

int SuperResolution_setDefectivePixels(int handle, const int* positions, int count) {
    return withRecord(handle, [positions, count](ContextRecord& record) -> int {
        if (count < 0) {
            return reject("Invalid number of defective pixels specified: " + std::to_string(count) +
                          ".");
        }
        if (count > record.width * record.height) {
            return reject("Invalid number of defective pixels specified: " + std::to_string(count) +
                          " in a frame of " + std::to_string(record.width * record.height) +
                          " pixels.");
        }
        if (count > 0 && positions == nullptr) {
            return reject("Defective pixel positions pointer is NULL.");
        }
        std::vector<cv::Point> list(static_cast<size_t>(count));
        for (int i = 0; i < count; ++i) {
            list[i] = cv::Point(positions[2 * i], positions[2 * i + 1]);
        }
        record.knownBadPixels.set(list, cv::Size(record.width, record.height));
        return SR_OK;
    });
}

int SuperResolution_getDefectivePixelCount(int handle, int* count) {
    return withRecord(handle, [count](ContextRecord& record) -> int {
        if (count == nullptr) {
            return rejectNull();
        }
        *count = record.knownBadPixels.count();
        return SR_OK;
    });
}

/* ---- The last pass ---- */

int SuperResolution_getLastPass(int handle, int* status, float* factorEstimate, int* frameCount,
                                int* referencePosition) {
    return withRecord(handle, [=](ContextRecord& record) -> int {
        if (anyNull({status, factorEstimate, frameCount, referencePosition})) {
            return rejectNull();
        }
        if (record.lastPassFrames < 0) {
            return rejectNoPass();
        }
        // A successful pass returns its factor estimate, which is never below 0.75.
        *status = record.lastPassResult > 0.0f ? 0 : static_cast<int>(record.lastPassResult);
        *factorEstimate = record.engine->getLastSrFactor();
        *frameCount = record.lastPassFrames;
        *referencePosition = record.lastPassReference;
        return SR_OK;
    });
}

int SuperResolution_getLastPassFrame(int handle, int frame, float* shiftX, float* shiftY,
                                     float* validFraction) {
    return withRecord(handle, [=](ContextRecord& record) -> int {
        if (anyNull({shiftX, shiftY, validFraction})) {
            return rejectNull();
        }
        if (record.lastPassFrames < 0) {
            return rejectNoPass();
        }
        if (frame < 0 || frame >= record.lastPassFrames) {
            return reject("Invalid frame " + std::to_string(frame) + ": the last pass used " +
                          std::to_string(record.lastPassFrames) + " frames.");
        }
        std::vector<cv::Point_<float>> shifts;
        record.engine->getCompleteShifts(shifts);
        const cv::Point_<float> shift =
            frame < static_cast<int>(shifts.size()) ? shifts[frame] : cv::Point_<float>();
        const int pixels = record.engine->getInputSize();
        const char* mask = record.engine->getMask(frame);
        int valid = 0;
        for (int p = 0; p < pixels; ++p) {
            valid += mask[p] != 0;
        }
        *shiftX = shift.x;
        *shiftY = shift.y;
        *validFraction = static_cast<float>(valid) / static_cast<float>(pixels);
        return SR_OK;
    });
}

/* ---- Sensor blur and reference frame ---- */

int SuperResolution_setPsfSigma(int handle, float sigma) {
    return withRecord(handle, [sigma](ContextRecord& record) -> int {
        if (!std::isfinite(sigma)) {
            throw "Invalid standard deviation of the sensor psf specified.";
        }
        record.engine->setPsfSigma(sigma);
        return SR_OK;
    });
}

int SuperResolution_getPsfSigma(int handle, float* sigma) {
    return withRecord(handle, [sigma](ContextRecord& record) -> int {
        if (sigma == nullptr) {
            return rejectNull();
        }
        *sigma = record.engine->getPsfSigma();
        return SR_OK;
    });
}

int SuperResolution_setThreads(int handle, int threads) {
    return withRecord(handle, [threads](ContextRecord& record) {
        record.engine->setThreads(threads);
        return static_cast<int>(SR_OK);
    });
}

int SuperResolution_getThreads(int handle, int* threads) {
    return withRecord(handle, [threads](ContextRecord& record) {
        if (threads == nullptr) {
            return rejectNull();
        }
        *threads = record.engine->getThreads();
        return static_cast<int>(SR_OK);
    });
}

int SuperResolution_setReferenceFrameChecked(int handle, int index) {
    return withRecord(handle, [index](ContextRecord& record) -> int {
        record.engine->setReferenceIndex(index);
        return SR_OK;
    });
}

int SuperResolution_getReferenceFrame(int handle, int* index) {
    return withRecord(handle, [index](ContextRecord& record) -> int {
        if (index == nullptr) {
            return rejectNull();
        }
        *index = record.engine->getReferenceIndex();
        return SR_OK;
    });
}

/* ---- Sensor blur estimate ---- */

int SuperResolution_estimatePsfSigma(int handle, float* sigma) {
    return withRecord(handle, [sigma](ContextRecord& record) {
        if (sigma == nullptr) {
            return rejectNull();
        }
        const auto& engine = *record.engine;
        const int held = engine.getStoredFrames();
        std::vector<cv::Mat_<float>> frames;
        for (int position = 0; position < held; ++position) {
            frames.emplace_back(engine.getHeight(), engine.getWidth(),
                                const_cast<float*>(engine.getFrame(position)));
        }
        // The pass's own choice of reference among the frames held.
        const int reference = std::max(held - engine.getReferenceIndex() - 1, 0);
        *sigma = kelvo::vision::PsfSigmaEstimator().estimate(frames, reference);
        return static_cast<int>(SR_OK);
    });
}

/* ---- Timing lines ---- */

int SuperResolution_setTimingLines(int handle, int destination,
                                   SuperResolutionLineCallback callback, void* user) {
    return withRecord(handle, [=](ContextRecord& record) -> int {
        kelvo::vision::TimingSink& sink = record.engine->getTimingSink();
        switch (destination) {
            case SR_TIMING_STANDARD_OUTPUT:
            case SR_TIMING_NONE:
                if (callback != nullptr) {
                    return reject("A timing-line callback is only taken with SR_TIMING_CALLBACK.");
                }
                if (destination == SR_TIMING_NONE) {
                    sink.toNowhere();
                } else {
                    sink.toStandardOutput();
                }
                return SR_OK;
            case SR_TIMING_CALLBACK:
                if (callback == nullptr) {
                    return reject("Timing-line callback is NULL.");
                }
                sink.toCallback(callback, user);
                return SR_OK;
            default:
                return reject("Invalid timing-line destination specified: " +
                              std::to_string(destination) + ".");
        }
    });
}

/* ---- Sized copies ---- */

int SuperResolution_getSuperresolutionImageSized(int handle, float* output, int capacity) {
    const ContextRecord* record = liveRecord(handle);
    if (record == nullptr) {
        return rejectInvalidContext();
    }
    if (output == nullptr) {
        return rejectNull();
    }
    const size_t needed = record->outputImage.total();
    if (capacity < 0 || static_cast<size_t>(capacity) < needed) {
        return reject("Buffer too small: " + std::to_string(needed) + " floats needed.");
    }
    return SuperResolution_getSuperresolutionImage(handle, output);
}

int SuperResolution_getErrorMessageSized(char* buffer, int size) {
    // A failure here must not replace the message the host is asking for.
    if (buffer == nullptr || size < 1) {
        return SR_ERROR;
    }
    buffer[size - 1] = '\0';
    return SuperResolution_getErrorMessage(buffer, size - 1);
}

}  // extern "C"
