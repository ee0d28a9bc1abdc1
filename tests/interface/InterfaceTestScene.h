// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "interface/SuperResolutionContext.h"
#include "interface/SuperResolutionInterface.h"

// The synthetic burst and the context guard that the interface tests share.
namespace kelvo::interface::testing {

constexpr int width = 64;
constexpr int height = 48;

// A smooth scene with four warm spots, as a camera sees it when moved by (shiftX, shiftY) pixels.
inline std::vector<float> renderFrame(float shiftX, float shiftY) {
    std::vector<float> frame(width * height);
    const float spots[4][2] = {{15.0f, 12.0f}, {44.0f, 16.0f}, {22.0f, 34.0f}, {50.0f, 38.0f}};
    for (int row = 0; row < height; ++row) {
        for (int column = 0; column < width; ++column) {
            const float x = column - shiftX;
            const float y = row - shiftY;
            float value =
                300.0f + 40.0f * std::sin(0.45f * x + 0.2f * y) * std::cos(0.35f * y - 0.15f * x);
            for (const auto& spot : spots) {
                const float dx = x - spot[0];
                const float dy = y - spot[1];
                value += 60.0f * std::exp(-(dx * dx + dy * dy) / 12.5f);
            }
            frame[row * width + column] = value;
        }
    }
    return frame;
}

const float burstShifts[][2] = {{0.0f, 0.0f},   {0.5f, 0.25f},   {-0.25f, 0.5f},
                                {0.75f, -0.5f}, {-0.5f, -0.75f}, {0.25f, 0.75f}};

inline std::vector<float> burstFrame(int index) {
    return renderFrame(burstShifts[index][0], burstShifts[index][1]);
}

inline std::vector<float> flatFrame(float value) {
    return std::vector<float>(width * height, value);
}

inline std::string lastMessage() {
    char buffer[256] = {};
    EXPECT_EQ(SuperResolution_getErrorMessage(buffer, sizeof(buffer) - 1), SR_OK);
    return buffer;
}

// Leaves a message that no check after it expects, so that each check sees its own call's message.
inline void overwriteMessage(int liveHandle) {
    SuperResolution_addImage(liveHandle, nullptr);
}

// Opens a context for the test and releases it at the end unless the test did.
class Context {
public:
    Context(int contextWidth = width, int contextHeight = height)
        : handle(SuperResolution_init(contextWidth, contextHeight)) {}
    ~Context() {
        if (kelvo::interface::engineOf(handle) != nullptr) {
            SuperResolution_release(handle);
        }
    }
    Context(const Context&) = delete;
    Context& operator=(const Context&) = delete;

    int add(const std::vector<float>& frame) const {
        return SuperResolution_addImage(handle, frame.data());
    }

    const int handle;
};

}  // namespace kelvo::interface::testing
