// SPDX-License-Identifier: Apache-2.0
// The checks behind the Python module: its SuperResolver hands the caller's settings and arrays,
// once their shapes and dtypes are checked, to the C++ resolver, which must refuse whatever the
// engines cannot take with a LibraryError (a Python exception), never crash. Settings of any
// value (the sensor blur given or estimated from the first window), frames of arbitrary float bit
// patterns, raw counts and calibrations, in any order.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <string>
#include <type_traits>
#include <vector>

#include "python/src/Resolver.h"

namespace {

using kelvo::python::LibraryError;
using kelvo::python::Resolver;
using kelvo::python::ResolverOptions;

constexpr const char* kEngines[] = {"float", "phase", "lanes", "reference", "Float", ""};

ResolverOptions makeOptions(FuzzedDataProvider& data, int width, int height) {
    ResolverOptions options;
    options.engine = data.PickValueInArray(kEngines);
    options.counts = data.ConsumeBool();
    options.validRangeGiven = data.ConsumeBool();
    options.validMinimum = data.ConsumeFloatingPoint<float>();
    options.validMaximum = data.ConsumeFloatingPoint<float>();
    options.reference = data.ConsumeIntegralInRange(-2, 6);
    options.psfSigma = data.ConsumeBool() ? 0.683f : data.ConsumeFloatingPoint<float>();
    options.psfSigmaFromFrames = data.ConsumeBool();
    for (int count = data.ConsumeIntegralInRange(0, 4); count > 0; --count) {
        options.badPixels.emplace_back(data.ConsumeIntegralInRange(-2, width + 1),
                                       data.ConsumeIntegralInRange(-2, height + 1));
    }
    options.threads = data.ConsumeIntegralInRange(-1, 3);
    return options;
}

// Mostly smooth frames that registration can match, with arbitrary bit patterns mixed in.
template <class Value>
std::vector<Value> makeFrame(FuzzedDataProvider& data, int width, int height, int index) {
    std::vector<Value> frame(static_cast<size_t>(width) * height);
    const bool arbitrary = data.ConsumeBool();
    for (size_t i = 0; i < frame.size(); ++i) {
        const int x = static_cast<int>(i) % width, y = static_cast<int>(i) / width;
        frame[i] = static_cast<Value>(300 + 40 * ((x + index) % 7) + 30 * ((y * 3) % 5));
        if (arbitrary && data.ConsumeBool()) {
            if constexpr (std::is_floating_point_v<Value>) {
                frame[i] = data.ConsumeFloatingPoint<Value>();  // NaN and infinities included
            } else {
                frame[i] = data.ConsumeIntegral<Value>();
            }
        }
    }
    return frame;
}

template <class Value>
cv::Mat_<Value> matOf(std::vector<Value>& frame, int width, int height) {
    return cv::Mat_<Value>(height, width, frame.data());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    FuzzedDataProvider data(bytes, size);
    const int width = data.ConsumeIntegralInRange(-1, 24);
    const int height = data.ConsumeIntegralInRange(-1, 24);
    try {
        Resolver resolver(width, height, makeOptions(data, width, height));
        std::vector<float> output(static_cast<size_t>(resolver.outputWidth()) *
                                  resolver.outputHeight());
        for (int call = 0; call < 8 && data.remaining_bytes() > 0; ++call) {
            try {
                switch (data.ConsumeIntegralInRange(0, 3)) {
                    case 0: {
                        std::vector<float> frame = makeFrame<float>(data, width, height, call);
                        const int status = resolver.add(frame.data());
                        if (status != 0 && status != -2 && status != -3 && status != -4) {
                            __builtin_trap();  // only the codes the C interface returns
                        }
                        break;
                    }
                    case 1: {
                        std::vector<short> counts = makeFrame<short>(data, width, height, call);
                        resolver.processCounts(counts.data());
                        break;
                    }
                    case 2: {
                        std::vector<short> countsA = makeFrame<short>(data, width, height, 0);
                        std::vector<short> countsB = makeFrame<short>(data, width, height, 1);
                        std::vector<float> radianceA = makeFrame<float>(data, width, height, 2);
                        std::vector<float> radianceB = makeFrame<float>(data, width, height, 3);
                        resolver.setCalibration(
                            matOf(countsA, width, height), matOf(radianceA, width, height),
                            matOf(countsB, width, height), matOf(radianceB, width, height));
                        break;
                    }
                    case 3: {
                        std::vector<cv::Point_<float>> shifts;
                        std::vector<cv::Mat_<unsigned char>> masks;
                        if (resolver.copyLastPass(output.data(), &shifts, &masks) &&
                            resolver.framesAdded() < 5) {
                            __builtin_trap();  // no pass before a window of five frames
                        }
                        if (!(resolver.psfSigma() >= 0.0f)) {
                            __builtin_trap();  // a checked sigma, or 0 while still to estimate
                        }
                        break;
                    }
                }
            } catch (const LibraryError&) {
                // Refused: the module raises it as a Python exception.
            }
        }
    } catch (const LibraryError&) {
        // Settings or a frame size the engines do not take.
    }
    return 0;
}
