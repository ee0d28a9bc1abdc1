// SPDX-License-Identifier: Apache-2.0
// Drives the C interface the way a careless host would: the input is a script of calls with
// arbitrary sizes, handles, frame bit patterns, buffer sizes and camera texts, in any order.
// Every call must return one of the documented codes; nothing may crash, leak or read or write
// outside the buffers the host gave.
#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "interface/SuperResolutionExtensions.h"

namespace {

// Sizes around the engine's limits; the accepted ones stay small so that a pass is quick.
constexpr int kFrameSides[] = {INT_MIN, -1, 0, 1, 7, 8, 9, 12, 16, 17, 24, INT_MAX};
constexpr int kMaxHandles = 4;

struct Context {
    int handle;
    int width;
    int height;
};

bool isKnownStatus(int status) {
    return status == SR_OK || status == SR_INIT_FAILED || status == SR_BAD_PIXELS ||
           status == SR_MASK_HALF_EMPTY || status == SR_LOW_STRUCTURE ||
           status == SR_TOO_FEW_IMAGES || status == SR_ERROR;
}

void check(int status) {
    if (!isKnownStatus(status)) {
        __builtin_trap();
    }
}

// A handle to try: one of the live ones, a stale one, or an arbitrary number.
int pickHandle(FuzzedDataProvider& data, const std::vector<Context>& live) {
    if (!live.empty() && data.ConsumeBool()) {
        return live[data.ConsumeIntegralInRange<size_t>(0, live.size() - 1)].handle;
    }
    return data.ConsumeIntegralInRange<int>(-2, kMaxHandles + 1);
}

const Context* contextOf(const std::vector<Context>& live, int handle) {
    for (const Context& context : live) {
        if (context.handle == handle) {
            return &context;
        }
    }
    return nullptr;
}

// A frame of arbitrary float bit patterns, repeated from the input; a pattern with few
// distinct values is as likely as noise.
std::vector<float> makeFrame(FuzzedDataProvider& data, const Context& context) {
    std::vector<float> frame(static_cast<size_t>(context.width) * context.height);
    const std::vector<uint8_t> bytes =
        data.ConsumeBytes<uint8_t>(data.ConsumeIntegralInRange<size_t>(0, 4 * frame.size()));
    if (bytes.size() < sizeof(float)) {
        const float base = data.ConsumeFloatingPoint<float>();
        for (size_t i = 0; i < frame.size(); ++i) {
            frame[i] = base + static_cast<float>((i * 7919) % 97);
        }
        return frame;
    }
    const size_t patterns = bytes.size() / sizeof(float);
    for (size_t i = 0; i < frame.size(); ++i) {
        std::memcpy(&frame[i], bytes.data() + (i % patterns) * sizeof(float), sizeof(float));
    }
    return frame;
}

void ignoreLine(const char*, void*) {}

// An arbitrary float: any bit pattern, NaN and infinities included.
float anyFloat(FuzzedDataProvider& data) {
    const uint32_t bits = data.ConsumeIntegral<uint32_t>();
    float value;
    std::memcpy(&value, &bits, sizeof value);
    return value;
}

// One call of the extension header with arbitrary arguments.
int callExtension(FuzzedDataProvider& data, const std::vector<Context>& live) {
    const int handle = pickHandle(data, live);
    const Context* context = contextOf(live, handle);
    int a = 0, b = 0, c = 0, d = 0;
    float x = 0.0f, y = 0.0f, z = 0.0f;
    switch (data.ConsumeIntegralInRange(0, 15)) {
        case 0:
            return SuperResolution_getVersion(&a, data.ConsumeBool() ? &b : nullptr, &c);
        case 1: {
            std::vector<char> text(data.ConsumeIntegralInRange(0, 8));
            return SuperResolution_getVersionText(text.data(), static_cast<int>(text.size()));
        }
        case 2:
            return SuperResolution_setFrameValues(handle, data.ConsumeIntegralInRange(-1, 2));
        case 3:
            return SuperResolution_setValidRange(handle, anyFloat(data), anyFloat(data));
        case 4:
            return SuperResolution_getValidRange(handle, &x, data.ConsumeBool() ? &y : nullptr);
        case 5: {
            // Positions near the frame, the count sometimes larger than the list.
            std::vector<int> positions(2 * data.ConsumeIntegralInRange(0, 6));
            for (int& position : positions) {
                position = data.ConsumeIntegralInRange(-2, 26);
            }
            const int count = data.ConsumeBool() ? static_cast<int>(positions.size() / 2)
                                                 : data.ConsumeIntegralInRange(-1, 3);
            return SuperResolution_setDefectivePixels(
                handle, positions.empty() && data.ConsumeBool() ? nullptr : positions.data(),
                std::min(count, static_cast<int>(positions.size() / 2)));
        }
        case 6:
            return SuperResolution_getDefectivePixelCount(handle, &a);
        case 7:
            return SuperResolution_getLastPass(handle, &a, &x, data.ConsumeBool() ? &b : nullptr,
                                               &c);
        case 8:
            return SuperResolution_getLastPassFrame(handle, data.ConsumeIntegralInRange(-1, 6), &x,
                                                    &y, &z);
        case 9:
            return SuperResolution_setPsfSigma(handle, anyFloat(data));
        case 10:
            return SuperResolution_getPsfSigma(handle, &x);
        case 11:
            return SuperResolution_setReferenceFrameChecked(handle,
                                                            data.ConsumeIntegralInRange(-2, 6));
        case 12:
            return SuperResolution_getReferenceFrame(handle, &d);
        case 13: {
            const int destination = data.ConsumeIntegralInRange(-1, 3);
            return SuperResolution_setTimingLines(
                handle, destination, data.ConsumeBool() ? ignoreLine : nullptr, nullptr);
        }
        case 14: {
            // Capacities around the result's size; the buffer is exactly as large as claimed.
            const size_t needed =
                context != nullptr ? 4 * static_cast<size_t>(context->width) * context->height : 0;
            const int capacity =
                static_cast<int>(needed) + data.ConsumeIntegralInRange(-2, 2) * (needed > 0);
            std::vector<float> output(static_cast<size_t>(std::max(capacity, 0)));
            return SuperResolution_getSuperresolutionImageSized(
                handle, output.empty() ? nullptr : output.data(), capacity);
        }
        default: {
            const int size = data.ConsumeIntegralInRange(-1, 40);
            std::vector<char> text(static_cast<size_t>(std::max(size, 1)), 'x');
            const int status = SuperResolution_getErrorMessageSized(text.data(), size);
            if (status == SR_OK && std::memchr(text.data(), '\0', text.size()) == nullptr) {
                __builtin_trap();  // the sized copy always terminates
            }
            return status;
        }
    }
}

void release(std::vector<Context>& live, int handle) {
    check(SuperResolution_release(handle));
    for (size_t i = 0; i < live.size(); ++i) {
        if (live[i].handle == handle) {
            live.erase(live.begin() + static_cast<long>(i));
            return;
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    FuzzedDataProvider data(bytes, size);
    std::vector<Context> live;
    for (int step = 0; step < 64 && data.remaining_bytes() > 0; ++step) {
        switch (data.ConsumeIntegralInRange<int>(0, 8)) {
            case 0: {
                if (live.size() >= kMaxHandles) {
                    break;
                }
                const int width = data.PickValueInArray(kFrameSides);
                const int height = data.PickValueInArray(kFrameSides);
                const int handle = SuperResolution_init(width, height);
                if (handle >= 0) {
                    live.push_back({handle, width, height});
                    // Timing lines on standard output only slow the search down.
                    check(SuperResolution_setTimingLines(handle, SR_TIMING_NONE, nullptr, nullptr));
                } else {
                    check(handle);
                }
                break;
            }
            case 1: {
                const int handle = pickHandle(data, live);
                const Context* context = contextOf(live, handle);
                if (context == nullptr || data.ConsumeBool()) {
                    check(SuperResolution_addImage(handle, nullptr));
                } else {
                    const std::vector<float> frame = makeFrame(data, *context);
                    check(SuperResolution_addImage(handle, frame.data()));
                }
                break;
            }
            case 2: {
                const int handle = pickHandle(data, live);
                try {
                    check(SuperResolution_setReferenceFrame(handle,
                                                            data.ConsumeIntegralInRange(-2, 6)));
                } catch (const char*) {
                    // An index outside 0..4 is refused by throwing, as documented.
                }
                break;
            }
            case 3: {
                // The handle is the caller's promise here: only live ones are given.
                if (!live.empty()) {
                    const std::string text = data.ConsumeRandomLengthString(64);
                    check(SuperResolution_setCameraAndLensType(live.front().handle, text.c_str()));
                }
                break;
            }
            case 4: {
                int width = -1, height = -1;
                const int handle = pickHandle(data, live);
                const int status = SuperResolution_queryOutputImageSize(handle, &width, &height);
                check(status);
                // With fewer than five frames the query runs the pass itself; when that pass
                // fails (-999), the size is not written.
                const Context* context = contextOf(live, handle);
                if (context != nullptr && status != SR_ERROR &&
                    (width != 2 * context->width || height != 2 * context->height)) {
                    __builtin_trap();
                }
                break;
            }
            case 5: {
                const int handle = pickHandle(data, live);
                const Context* context = contextOf(live, handle);
                if (context == nullptr || data.ConsumeBool()) {
                    check(SuperResolution_getSuperresolutionImage(handle, nullptr));
                } else {
                    std::vector<float> output(4 * static_cast<size_t>(context->width) *
                                              context->height);
                    check(SuperResolution_getSuperresolutionImage(handle, output.data()));
                }
                break;
            }
            case 6: {
                const int capacity = data.ConsumeIntegralInRange(0, 300);
                std::vector<char> text(static_cast<size_t>(capacity) + 1, '\0');
                check(SuperResolution_getErrorMessage(text.data(), capacity));
                break;
            }
            case 7:
                release(live, pickHandle(data, live));
                break;
            case 8:
                check(callExtension(data, live));
                break;
        }
    }
    while (!live.empty()) {
        release(live, live.back().handle);
    }
    return 0;
}
