// SPDX-License-Identifier: Apache-2.0
// Drives the C interface the way a careless host would: the input is a script of calls with
// arbitrary sizes, handles, frame bit patterns, buffer sizes and camera texts, in any order.
// Every call must return one of the documented codes; nothing may crash, leak or read or write
// outside the buffers the host gave.
#include <fuzzer/FuzzedDataProvider.h>

#include <climits>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "interface/SuperResolutionInterface.h"

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
        switch (data.ConsumeIntegralInRange<int>(0, 7)) {
            case 0: {
                if (live.size() >= kMaxHandles) {
                    break;
                }
                const int width = data.PickValueInArray(kFrameSides);
                const int height = data.PickValueInArray(kFrameSides);
                const int handle = SuperResolution_init(width, height);
                if (handle >= 0) {
                    live.push_back({handle, width, height});
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
                check(SuperResolution_queryOutputImageSize(handle, &width, &height));
                const Context* context = contextOf(live, handle);
                if (context != nullptr &&
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
        }
    }
    while (!live.empty()) {
        release(live, live.back().handle);
    }
    return 0;
}
