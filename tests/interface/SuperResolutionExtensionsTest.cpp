// SPDX-License-Identifier: Apache-2.0
#include "interface/SuperResolutionExtensions.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "InterfaceTestScene.h"
#include "interface/SuperResolutionContext.h"
#include "vision/superresolution/KnownBadPixels.h"

namespace {

using kelvo::interface::engineOf;
using namespace kelvo::interface::testing;

constexpr float nan = std::numeric_limits<float>::quiet_NaN();
constexpr float infinity = std::numeric_limits<float>::infinity();

void collectLine(const char* line, void* user) {
    static_cast<std::vector<std::string>*>(user)->push_back(line);
}

// The five burst frames as 14-bit counts: 1 kelvin is 20 counts around 8000.
std::vector<float> countsFrame(int index) {
    std::vector<float> frame = burstFrame(index);
    for (float& pixel : frame) {
        pixel = std::round(8000.0f + 20.0f * (pixel - 330.0f));
    }
    return frame;
}

struct PassDetails {
    int status = 1;
    float factor = -1.0f;
    int frames = -1;
    int reference = -1;
};

PassDetails lastPass(int handle) {
    PassDetails pass;
    EXPECT_EQ(SuperResolution_getLastPass(handle, &pass.status, &pass.factor, &pass.frames,
                                          &pass.reference),
              SR_OK)
        << lastMessage();
    return pass;
}

float validFraction(int handle, int frame) {
    float x = 0.0f, y = 0.0f, fraction = -1.0f;
    EXPECT_EQ(SuperResolution_getLastPassFrame(handle, frame, &x, &y, &fraction), SR_OK);
    return fraction;
}

TEST(SuperResolutionExtensions, EveryFunctionRejectsInvalidHandlesNullPointersAndBadValues) {
    Context live;
    Context released;
    ASSERT_EQ(SuperResolution_release(released.handle), SR_OK);
    int i = 0;
    float f = 0.0f, g = 0.0f, h = 0.0f;
    const int position[2] = {1, 1};
    auto expectFailure = [&](int status, const std::string& message) {
        EXPECT_EQ(status, SR_ERROR);
        EXPECT_EQ(lastMessage(), message);
        overwriteMessage(live.handle);
    };
    for (const int handle : {-1, released.handle, 1 << 20}) {
        SCOPED_TRACE(handle);
        const std::string invalid = "Context invalid.";
        expectFailure(SuperResolution_setFrameValues(handle, SR_VALUES_COUNTS), invalid);
        expectFailure(SuperResolution_setValidRange(handle, 0.0f, 1.0f), invalid);
        expectFailure(SuperResolution_getValidRange(handle, &f, &g), invalid);
        expectFailure(SuperResolution_setDefectivePixels(handle, position, 1), invalid);
        expectFailure(SuperResolution_getDefectivePixelCount(handle, &i), invalid);
        expectFailure(SuperResolution_getLastPass(handle, &i, &f, &i, &i), invalid);
        expectFailure(SuperResolution_getLastPassFrame(handle, 0, &f, &g, &h), invalid);
        expectFailure(SuperResolution_setPsfSigma(handle, 0.5f), invalid);
        expectFailure(SuperResolution_getPsfSigma(handle, &f), invalid);
        expectFailure(SuperResolution_setReferenceFrameChecked(handle, 1), invalid);
        expectFailure(SuperResolution_getReferenceFrame(handle, &i), invalid);
        expectFailure(SuperResolution_setTimingLines(handle, SR_TIMING_NONE, nullptr, nullptr),
                      invalid);
        expectFailure(SuperResolution_setThreads(handle, 2), invalid);
        expectFailure(SuperResolution_getThreads(handle, &i), invalid);
    }

    const int handle = live.handle;
    const std::string null = "Output pointer is NULL.";
    expectFailure(SuperResolution_getVersion(&i, nullptr, &i), null);
    expectFailure(SuperResolution_getVersionText(nullptr, 8), null);
    expectFailure(SuperResolution_getValidRange(handle, &f, nullptr), null);
    expectFailure(SuperResolution_getDefectivePixelCount(handle, nullptr), null);
    expectFailure(SuperResolution_getLastPass(handle, &i, nullptr, &i, &i), null);
    expectFailure(SuperResolution_getLastPassFrame(handle, 0, &f, &g, nullptr), null);
    expectFailure(SuperResolution_getPsfSigma(handle, nullptr), null);
    expectFailure(SuperResolution_getReferenceFrame(handle, nullptr), null);
    expectFailure(SuperResolution_getThreads(handle, nullptr), null);
    for (const int threads : {0, 65}) {
        expectFailure(SuperResolution_setThreads(handle, threads),
                      "Invalid number of threads specified.");
    }

    expectFailure(SuperResolution_setFrameValues(handle, 2),
                  "Invalid frame values specified: 2 (SR_VALUES_TEMPERATURE 0 or "
                  "SR_VALUES_COUNTS 1).");
    for (const auto& range : {std::pair(5.0f, 5.0f), std::pair(nan, 1.0f),
                              std::pair(-infinity, 1.0f), std::pair(0.0f, infinity)}) {
        expectFailure(SuperResolution_setValidRange(handle, range.first, range.second),
                      "Invalid range of valid values specified.");
    }
    for (const float sigma : {0.0f, -1.0f, nan, infinity}) {
        expectFailure(SuperResolution_setPsfSigma(handle, sigma),
                      "Invalid standard deviation of the sensor psf specified.");
    }
    for (const int index : {-1, 5}) {
        expectFailure(SuperResolution_setReferenceFrameChecked(handle, index),
                      "Invalid reference index specified.");
    }
    expectFailure(SuperResolution_setTimingLines(handle, 3, nullptr, nullptr),
                  "Invalid timing-line destination specified: 3.");
    expectFailure(SuperResolution_setTimingLines(handle, SR_TIMING_CALLBACK, nullptr, nullptr),
                  "Timing-line callback is NULL.");
    expectFailure(SuperResolution_setTimingLines(handle, SR_TIMING_NONE, collectLine, nullptr),
                  "A timing-line callback is only taken with SR_TIMING_CALLBACK.");
    expectFailure(SuperResolution_setDefectivePixels(handle, position, -1),
                  "Invalid number of defective pixels specified: -1.");
    expectFailure(SuperResolution_setDefectivePixels(handle, position, width * height + 1),
                  "Invalid number of defective pixels specified: 3073 in a frame of 3072 "
                  "pixels.");
    expectFailure(SuperResolution_setDefectivePixels(handle, nullptr, 1),
                  "Defective pixel positions pointer is NULL.");
    expectFailure(SuperResolution_getLastPass(handle, &i, &f, &i, &i),
                  "No pass has run on this context yet.");

    // Rejected values changed nothing.
    EXPECT_EQ(SuperResolution_getValidRange(handle, &f, &g), SR_OK);
    EXPECT_EQ(f, -274.0f);
    EXPECT_EQ(g, 5000.0f);
    EXPECT_EQ(SuperResolution_getPsfSigma(handle, &f), SR_OK);
    EXPECT_EQ(f, 0.683f);
    EXPECT_EQ(SuperResolution_getReferenceFrame(handle, &i), SR_OK);
    EXPECT_EQ(i, 3);
    EXPECT_EQ(SuperResolution_getThreads(handle, &i), SR_OK);
    EXPECT_EQ(i, 1);
}

// Frames loaded without a pass count like added ones: the pass after them gives the result, to
// the bit, of a context that was given every frame with a pass.
TEST(SuperResolutionExtensions, LoadedFramesRunNoPassButCountForTheNext) {
    Context everyPass;
    Context loaded;
    for (int index = 0; index < 5; ++index) {
        everyPass.add(burstFrame(index));
        EXPECT_EQ(SuperResolution_loadImage(loaded.handle, burstFrame(index).data()), SR_OK);
    }
    int i = 0;
    float f = 0.0f;
    EXPECT_EQ(SuperResolution_getLastPass(loaded.handle, &i, &f, &i, &i), SR_ERROR);
    EXPECT_EQ(everyPass.add(burstFrame(5)), SR_OK);
    EXPECT_EQ(loaded.add(burstFrame(5)), SR_OK);
    std::vector<float> expected(4 * width * height), result(expected.size());
    ASSERT_EQ(SuperResolution_getSuperresolutionImage(everyPass.handle, expected.data()), SR_OK);
    ASSERT_EQ(SuperResolution_getSuperresolutionImage(loaded.handle, result.data()), SR_OK);
    EXPECT_EQ(std::memcmp(result.data(), expected.data(), result.size() * sizeof(float)), 0);

    EXPECT_EQ(SuperResolution_loadImage(loaded.handle, nullptr), SR_ERROR);
    EXPECT_EQ(lastMessage(), "ir image data pointer is NULL");
    EXPECT_EQ(SuperResolution_loadImage(-1, expected.data()), SR_ERROR);
    EXPECT_EQ(lastMessage(), "Context invalid.");
}

TEST(SuperResolutionExtensions, VersionIsTheProjectVersion) {
    int major = -1, minor = -1, patch = -1;
    ASSERT_EQ(SuperResolution_getVersion(&major, &minor, &patch), SR_OK);
    EXPECT_EQ(std::to_string(major) + "." + std::to_string(minor) + "." + std::to_string(patch),
              KELVO_PROJECT_VERSION);
    EXPECT_STREQ(KELVO_SUPERRES_VERSION_TEXT, KELVO_PROJECT_VERSION);
    char text[6];
    std::memset(text, 'x', sizeof text);
    EXPECT_EQ(SuperResolution_getVersionText(text, 5), SR_ERROR);
    EXPECT_EQ(lastMessage(), "Buffer too small: 6 bytes needed.");
    EXPECT_EQ(text[0], 'x') << "a buffer too small was written";
    EXPECT_EQ(SuperResolution_getVersionText(text, 6), SR_OK);
    EXPECT_STREQ(text, KELVO_PROJECT_VERSION);
}

TEST(SuperResolutionExtensions, SettingsReachTheEngine) {
    Context context;
    auto* engine = engineOf(context.handle);
    float minimum = 0.0f, maximum = 0.0f;
    ASSERT_EQ(SuperResolution_setFrameValues(context.handle, SR_VALUES_COUNTS), SR_OK);
    EXPECT_EQ(SuperResolution_getValidRange(context.handle, &minimum, &maximum), SR_OK);
    EXPECT_EQ(minimum, -32768.0f);
    EXPECT_EQ(maximum, 32767.0f);
    ASSERT_EQ(SuperResolution_setValidRange(context.handle, 0.0f, 65535.0f), SR_OK);
    EXPECT_EQ(engine->getBadPixelHandling().getValidMax(), 65535.0f);
    ASSERT_EQ(SuperResolution_setFrameValues(context.handle, SR_VALUES_TEMPERATURE), SR_OK);
    EXPECT_EQ(engine->getBadPixelHandling().getValidMin(), -274.0f);

    ASSERT_EQ(SuperResolution_setPsfSigma(context.handle, 0.9f), SR_OK);
    EXPECT_EQ(engine->getPsfSigma(), 0.9f);
    ASSERT_EQ(SuperResolution_setReferenceFrameChecked(context.handle, 4), SR_OK);
    EXPECT_EQ(engine->getReferenceIndex(), 4);
    ASSERT_EQ(SuperResolution_setThreads(context.handle, 3), SR_OK);
    EXPECT_EQ(engine->getThreads(), 3);

    // A context opened in a released slot starts from the defaults again.
    const int positions[] = {3, 4, 5, 6};
    ASSERT_EQ(SuperResolution_setDefectivePixels(context.handle, positions, 2), SR_OK);
    ASSERT_EQ(SuperResolution_setTimingLines(context.handle, SR_TIMING_NONE, nullptr, nullptr),
              SR_OK);
    ASSERT_EQ(SuperResolution_release(context.handle), SR_OK);
    Context reopened;
    ASSERT_EQ(reopened.handle, context.handle);
    int count = -1;
    EXPECT_EQ(SuperResolution_getDefectivePixelCount(reopened.handle, &count), SR_OK);
    EXPECT_EQ(count, 0);
    testing::internal::CaptureStdout();
    for (int frame = 0; frame < 5; ++frame) {
        reopened.add(burstFrame(frame));
    }
    EXPECT_NE(testing::internal::GetCapturedStdout().find("++++++++++ SrFloat ++++++++++"),
              std::string::npos);
}

TEST(SuperResolutionExtensions, TimingLinesGoToStandardOutputNowhereOrACallback) {
    Context quiet;
    ASSERT_EQ(SuperResolution_setTimingLines(quiet.handle, SR_TIMING_NONE, nullptr, nullptr),
              SR_OK);
    Context collected;
    std::vector<std::string> lines;
    ASSERT_EQ(
        SuperResolution_setTimingLines(collected.handle, SR_TIMING_CALLBACK, collectLine, &lines),
        SR_OK);
    testing::internal::CaptureStdout();
    for (int frame = 0; frame < 6; ++frame) {
        EXPECT_EQ(quiet.add(burstFrame(frame)), SR_OK);
        EXPECT_EQ(collected.add(burstFrame(frame)), SR_OK);
    }
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");

    ASSERT_EQ(lines.size(), 12u) << "six lines per pass, two passes";
    const char* labels[] = {"++++++++++ SrFloat ++++++++++", " registration:         ",
                            " large_displacement:   ",       " minimization:         ",
                            " save+srfactor calc:   ",       "+++++++++++++++++++++++++++++"};
    for (size_t line = 0; line < lines.size(); ++line) {
        const std::string label = labels[line % 6];
        EXPECT_EQ(lines[line].rfind(label, 0), 0u) << lines[line];
        if (line % 6 != 0 && line % 6 != 5) {
            EXPECT_EQ(lines[line].substr(lines[line].size() - 4), "[ms]");
        }
    }
}

TEST(SuperResolutionExtensions, LastPassDetailsAreTheEnginesOwn) {
    Context context;
    for (int frame = 0; frame < 5; ++frame) {
        context.add(burstFrame(frame));
    }
    PassDetails pass = lastPass(context.handle);
    auto* engine = engineOf(context.handle);
    std::vector<cv::Point2f> engineShifts;
    engine->getCompleteShifts(engineShifts);
    EXPECT_EQ(pass.status, 0);
    EXPECT_EQ(pass.factor, engine->getLastSrFactor());
    EXPECT_GT(pass.factor, 1.5f);
    EXPECT_EQ(pass.frames, 5);
    EXPECT_EQ(pass.reference, 1);
    for (int frame = 0; frame < 5; ++frame) {
        float x = 0.0f, y = 0.0f, fraction = 0.0f;
        ASSERT_EQ(SuperResolution_getLastPassFrame(context.handle, frame, &x, &y, &fraction),
                  SR_OK);
        EXPECT_EQ(x, engineShifts[frame].x);
        EXPECT_EQ(y, engineShifts[frame].y);
        // frame(p + s) = reference(p) for a scene drawn at p - cameraShift.
        EXPECT_NEAR(x, burstShifts[frame][0] - burstShifts[1][0], 0.1f);
        EXPECT_NEAR(y, burstShifts[frame][1] - burstShifts[1][1], 0.1f);
        EXPECT_GT(fraction, 0.5f);
        EXPECT_LE(fraction, 1.0f);
    }
    EXPECT_EQ(validFraction(context.handle, 1), 1.0f) << "the reference frame";
    float unused = 0.0f;
    EXPECT_EQ(SuperResolution_getLastPassFrame(context.handle, 5, &unused, &unused, &unused),
              SR_ERROR);
    EXPECT_EQ(lastMessage(), "Invalid frame 5: the last pass used 5 frames.");

    // Moved by six pixels, more than a tenth of the height: a result, status -6.
    context.add(renderFrame(6.0f, 0.0f));
    pass = lastPass(context.handle);
    EXPECT_EQ(pass.status, -6);
    EXPECT_GT(pass.factor, 0.75f);
    bool beyondLimit = false;
    for (int frame = 0; frame < 5; ++frame) {
        float x = 0.0f, y = 0.0f, fraction = 0.0f;
        ASSERT_EQ(SuperResolution_getLastPassFrame(context.handle, frame, &x, &y, &fraction),
                  SR_OK);
        beyondLimit |= std::fabs(x) > height / 10 || std::fabs(y) > height / 10;
    }
    EXPECT_TRUE(beyondLimit) << "status -6 without a displacement beyond the limit";

    // Drowned in noise, the newest frame matches the reference almost nowhere.
    Context noisy;
    for (int frame = 0; frame < 4; ++frame) {
        noisy.add(burstFrame(frame));
    }
    std::vector<float> drowned = burstFrame(4);
    cv::RNG noise(7);
    for (float& pixel : drowned) {
        pixel += static_cast<float>(noise.gaussian(100.0));
    }
    EXPECT_EQ(noisy.add(drowned), SR_MASK_HALF_EMPTY);
    EXPECT_EQ(lastPass(noisy.handle).status, -3);
    EXPECT_LE(validFraction(noisy.handle, 4), 0.5f);

    // A flat reference frame offers no corner to track: registration fails, the host sees only
    // the contrast finding.
    Context flat;
    for (int frame = 0; frame < 5; ++frame) {
        EXPECT_EQ(flat.add(flatFrame(300.0f)), SR_LOW_STRUCTURE);
    }
    pass = lastPass(flat.handle);
    EXPECT_EQ(pass.status, -998);
    EXPECT_EQ(pass.factor, 0.0f);
}

TEST(SuperResolutionExtensions, KnownDefectsAreRepairedOnTheWayIn) {
    Context context;
    ASSERT_EQ(SuperResolution_setFrameValues(context.handle, SR_VALUES_COUNTS), SR_OK);
    // A 3 x 3 cluster (its centre has no good neighbour) and two lone defects.
    std::vector<int> positions;
    for (int y = 20; y < 23; ++y) {
        for (int x = 30; x < 33; ++x) {
            positions.insert(positions.end(), {x, y});
        }
    }
    positions.insert(positions.end(), {5, 5, 60, 40});
    const int count = static_cast<int>(positions.size() / 2);
    const int outside[] = {1, 1, width, 3};
    EXPECT_EQ(SuperResolution_setDefectivePixels(context.handle, outside, 2), SR_ERROR);
    EXPECT_EQ(lastMessage(), "Defective pixel 1 at (64, 3) lies outside the 64 x 48 frame.");
    ASSERT_EQ(SuperResolution_setDefectivePixels(context.handle, positions.data(), count), SR_OK);
    int stored = 0;
    EXPECT_EQ(SuperResolution_getDefectivePixelCount(context.handle, &stored), SR_OK);
    EXPECT_EQ(stored, count);

    std::vector<std::vector<float>> truth;
    for (int frame = 0; frame < 5; ++frame) {
        truth.push_back(countsFrame(frame));
        std::vector<float> raw = truth.back();
        for (int i = 0; i < count; ++i) {
            raw[positions[2 * i + 1] * width + positions[2 * i]] = (i % 2 == 0) ? 0.0f : 16383.0f;
        }
        const std::vector<float> handedIn = raw;
        EXPECT_EQ(context.add(raw), SR_OK) << lastMessage();
        EXPECT_EQ(raw, handedIn) << "the host's frame was changed";
        // The engine's copy holds no dead or hot value any more.
        const float* stored = engineOf(context.handle)->getFrame(frame);
        for (int i = 0; i < count; ++i) {
            const float value = stored[positions[2 * i + 1] * width + positions[2 * i]];
            EXPECT_GT(value, 5000.0f);
            EXPECT_LT(value, 11000.0f);
        }
    }
    // No blob: around every defect the result stays within the scene's range there.
    std::vector<float> result(4 * width * height);
    ASSERT_EQ(SuperResolution_getSuperresolutionImage(context.handle, result.data()), SR_OK);
    for (int i = 0; i < count; ++i) {
        const int x = positions[2 * i], y = positions[2 * i + 1];
        float low = 1e9f, high = -1e9f;
        for (int dy = -3; dy <= 3; ++dy) {
            for (int dx = -3; dx <= 3; ++dx) {
                const int ty = std::clamp(y + dy, 0, height - 1);
                const int tx = std::clamp(x + dx, 0, width - 1);
                low = std::min(low, truth[1][ty * width + tx]);
                high = std::max(high, truth[1][ty * width + tx]);
            }
        }
        const float margin = 0.1f * (high - low) + 20.0f;
        for (int dy = -4; dy < 4; ++dy) {
            for (int dx = -4; dx < 4; ++dx) {
                const int ry = std::clamp(2 * y + dy, 0, 2 * height - 1);
                const int rx = std::clamp(2 * x + dx, 0, 2 * width - 1);
                const float value = result[ry * 2 * width + rx];
                EXPECT_GE(value, low - margin) << "at (" << rx << ", " << ry << ")";
                EXPECT_LE(value, high + margin) << "at (" << rx << ", " << ry << ")";
            }
        }
    }
}

TEST(KnownBadPixels, MarkersGoIntoACopyOfTheFrame) {
    kelvo::vision::KnownBadPixels known;
    const float frame[6] = {1, 2, 3, 4, 5, 6};
    EXPECT_EQ(known.marked(frame), frame) << "nothing known: the frame itself";
    known.set({{2, 0}, {0, 1}}, cv::Size(3, 2));
    const float* marked = known.marked(frame);
    ASSERT_NE(marked, frame);
    std::uint32_t bits = 0;
    std::memcpy(&bits, &marked[2], sizeof bits);
    EXPECT_EQ(bits, 130u);
    std::memcpy(&bits, &marked[3], sizeof bits);
    EXPECT_EQ(bits, 130u);
    EXPECT_EQ(std::vector<float>(marked, marked + 6),
              std::vector<float>({1, 2, marked[2], marked[3], 5, 6}));
    EXPECT_THROW(known.set({{0, 2}}, cv::Size(3, 2)), std::invalid_argument);
    EXPECT_EQ(known.count(), 2) << "a rejected list replaced the previous one";
}

}  // namespace
