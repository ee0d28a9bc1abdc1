// SPDX-License-Identifier: Apache-2.0
#include "interface/SuperResolutionInterface.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <limits>
#include <opencv2/imgproc.hpp>
#include <string>
#include <thread>
#include <vector>

#include "InterfaceTestScene.h"
#include "interface/SuperResolutionContext.h"
#include "interface/SuperResolutionExtensions.h"

namespace {

using kelvo::interface::engineOf;
using namespace kelvo::interface::testing;

std::vector<float> resultOf(int handle, int expectedStatus) {
    std::vector<float> result(4 * width * height, -1.0f);
    EXPECT_EQ(SuperResolution_getSuperresolutionImage(handle, result.data()), expectedStatus);
    return result;
}

TEST(SuperResolutionInterface, InvalidHandlesAreRejected) {
    Context live;
    Context released;
    ASSERT_EQ(SuperResolution_release(released.handle), SR_OK);
    const std::vector<float> frame = burstFrame(0);
    std::vector<float> output(4 * width * height);
    for (const int handle : {-1, released.handle, 1 << 20}) {
        SCOPED_TRACE(handle);
        EXPECT_EQ(engineOf(handle), nullptr);
        overwriteMessage(live.handle);
        EXPECT_EQ(SuperResolution_addImage(handle, frame.data()), SR_ERROR);
        EXPECT_EQ(lastMessage(), "Context invalid.");
        overwriteMessage(live.handle);
        EXPECT_EQ(SuperResolution_setReferenceFrame(handle, 1), SR_ERROR);
        EXPECT_EQ(lastMessage(), "Context invalid.");
        overwriteMessage(live.handle);
        EXPECT_EQ(SuperResolution_setCameraAndLensType(handle, "625 FOV 22"), SR_ERROR);
        EXPECT_EQ(lastMessage(), "Context invalid.");
        overwriteMessage(live.handle);
        int outputWidth = -7;
        int outputHeight = -7;
        EXPECT_EQ(SuperResolution_queryOutputImageSize(handle, &outputWidth, &outputHeight),
                  SR_ERROR);
        EXPECT_EQ(lastMessage(), "Context invalid.");
        EXPECT_EQ(outputWidth, -7);
        EXPECT_EQ(outputHeight, -7);
        overwriteMessage(live.handle);
        EXPECT_EQ(SuperResolution_getSuperresolutionImage(handle, output.data()), SR_ERROR);
        EXPECT_EQ(lastMessage(), "Context invalid.");
        overwriteMessage(live.handle);
        EXPECT_EQ(SuperResolution_release(handle), SR_ERROR);
        EXPECT_EQ(lastMessage(), "Context invalid.");
    }
}

TEST(SuperResolutionInterface, InitConfiguresTheEngineAndReusesTheLowestFreedHandle) {
    ASSERT_EQ(setenv("KILIB_LOG_FILE", "/nonexistent/kelvo.log", 1), 0);
    Context first;
    unsetenv("KILIB_LOG_FILE");
    Context second;
    Context third;
    ASSERT_GE(first.handle, 0);
    EXPECT_LT(first.handle, second.handle);
    EXPECT_LT(second.handle, third.handle);

    const auto* engine = engineOf(first.handle);
    ASSERT_NE(engine, nullptr);
    EXPECT_EQ(engine->getWidth(), width);
    EXPECT_EQ(engine->getHeight(), height);
    EXPECT_EQ(engine->getWindowSize(), 5);
    EXPECT_EQ(engine->getOutputWidth(), 2 * width);
    EXPECT_EQ(engine->getReferenceIndex(), 3);
    EXPECT_EQ(engine->getWeightTV(), 400.0f);
    EXPECT_EQ(engine->getRegError(), 0.0001f);
    EXPECT_EQ(engine->getRelativeResidue(), 0.007f);

    for (int frame = 0; frame < 5; ++frame) {
        second.add(burstFrame(frame));
    }
    ASSERT_EQ(SuperResolution_release(second.handle), SR_OK);
    ASSERT_EQ(SuperResolution_release(first.handle), SR_OK);
    const int reopened = SuperResolution_init(width, height);
    EXPECT_EQ(reopened, first.handle);
    const int reopenedWithSize = SuperResolution_init(width + 1, height + 1);
    EXPECT_EQ(reopenedWithSize, second.handle);
    // The slot had five frames before: a new context starts counting again.
    int outputWidth = 0;
    int outputHeight = 0;
    EXPECT_EQ(SuperResolution_queryOutputImageSize(reopenedWithSize, &outputWidth, &outputHeight),
              SR_TOO_FEW_IMAGES);
    EXPECT_EQ(outputWidth, 2 * (width + 1));
    EXPECT_EQ(outputHeight, 2 * (height + 1));
    EXPECT_EQ(SuperResolution_release(reopened), SR_OK);
    EXPECT_EQ(SuperResolution_release(reopenedWithSize), SR_OK);
}

TEST(SuperResolutionInterface, UnusableSizesAndNullFramesAreRejected) {
    int freeHandle = -1;
    {
        Context probe;
        freeHandle = probe.handle;
    }
    for (const auto& size : {cv::Size(0, height), cv::Size(width, 0), cv::Size(-1, -1)}) {
        SCOPED_TRACE(size);
        EXPECT_EQ(SuperResolution_init(size.width, size.height), SR_INIT_FAILED);
        EXPECT_EQ(lastMessage(), "Invalid image size specified.");
    }
    Context live;
    EXPECT_EQ(live.handle, freeHandle) << "a failed init kept its slot";
    EXPECT_EQ(SuperResolution_addImage(live.handle, nullptr), SR_ERROR);
    EXPECT_EQ(lastMessage(), "ir image data pointer is NULL");
}

TEST(SuperResolutionInterface, ThePassRunsFromTheFifthFrameOn) {
    Context context;
    for (int frame = 0; frame < 4; ++frame) {
        EXPECT_EQ(context.add(burstFrame(frame)), SR_OK);
    }
    const std::vector<float> beforePass = resultOf(context.handle, SR_TOO_FEW_IMAGES);
    EXPECT_EQ(lastMessage(), "Not enough input images (<5)");
    EXPECT_EQ(cv::countNonZero(cv::Mat(beforePass)), 0) << "the pass ran before the fifth frame";

    EXPECT_EQ(context.add(burstFrame(4)), SR_OK);
    const std::vector<float> fromFive = resultOf(context.handle, SR_OK);
    int outputWidth = 0;
    int outputHeight = 0;
    EXPECT_EQ(SuperResolution_queryOutputImageSize(context.handle, &outputWidth, &outputHeight),
              SR_OK);
    EXPECT_EQ(outputWidth, 2 * width);
    EXPECT_EQ(outputHeight, 2 * height);
    EXPECT_EQ(resultOf(context.handle, SR_OK), fromFive) << "the query ran the pass again";

    // The result resembles the reference frame (window position 1) magnified.
    cv::Mat magnifiedReference;
    cv::resize(cv::Mat(height, width, CV_32F, burstFrame(1).data()), magnifiedReference,
               cv::Size(2 * width, 2 * height), 0, 0, cv::INTER_CUBIC);
    cv::Mat correlation;
    cv::matchTemplate(cv::Mat(2 * height, 2 * width, CV_32F, const_cast<float*>(fromFive.data())),
                      magnifiedReference, correlation, cv::TM_CCOEFF_NORMED);
    EXPECT_GT(correlation.at<float>(0, 0), 0.99f);

    EXPECT_EQ(context.add(burstFrame(5)), SR_OK);
    EXPECT_EQ(engineOf(context.handle)->getStoredFrames(), 5);
    EXPECT_NE(resultOf(context.handle, SR_OK), fromFive) << "the sixth frame did not recompute";
}

TEST(SuperResolutionInterface, OnlyMaskLossAndBadPixelsTurnAPassIntoAStatus) {
    // Moved by six pixels, more than a tenth of the height: the pass says -6, the host sees SR_OK.
    Context moved;
    for (int frame = 0; frame < 4; ++frame) {
        moved.add(burstFrame(frame));
    }
    EXPECT_EQ(moved.add(renderFrame(6.0f, 0.0f)), SR_OK);
    std::vector<float> result(4 * width * height);
    EXPECT_EQ(engineOf(moved.handle)->computeSR(result.data()), -6.0f);

    // Drowned in noise, the fifth frame matches the reference almost nowhere.
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
}

TEST(SuperResolutionInterface, TooLittleContrastIsReportedButTheFrameCounts) {
    Context context;
    auto* engine = engineOf(context.handle);
    ASSERT_NE(engine, nullptr);
    SuperResolution_setReferenceFrame(context.handle, 0);
    std::vector<float> barelyEnough = flatFrame(300.0f);
    barelyEnough[100] = 302.0f;
    EXPECT_EQ(context.add(barelyEnough), SR_OK);
    std::vector<float> tooFlat = flatFrame(300.0f);
    tooFlat[100] = 301.99f;
    overwriteMessage(context.handle);
    EXPECT_EQ(context.add(tooFlat), SR_LOW_STRUCTURE);
    EXPECT_EQ(lastMessage(), "  image has not enough structure");
    EXPECT_EQ(engine->getStoredFrames(), 2);

    // The threshold is the engine's.
    engine->setMinStructureThreshold(1000.0f);
    EXPECT_EQ(context.add(burstFrame(2)), SR_LOW_STRUCTURE);
    engine->setMinStructureThreshold(2.0f);
    EXPECT_EQ(context.add(burstFrame(3)), SR_OK);
    EXPECT_EQ(engine->getStoredFrames(), 4);
    context.add(burstFrame(4));
    int outputWidth = 0;
    int outputHeight = 0;
    EXPECT_EQ(SuperResolution_queryOutputImageSize(context.handle, &outputWidth, &outputHeight),
              SR_OK);
}

TEST(SuperResolutionInterface, QueryWithTooFewFramesStillRunsThePass) {
    Context context;
    int outputWidth = 0;
    int outputHeight = 0;
    EXPECT_EQ(SuperResolution_queryOutputImageSize(context.handle, &outputWidth, &outputHeight),
              SR_TOO_FEW_IMAGES)
        << "without frames";
    context.add(burstFrame(0));
    context.add(burstFrame(1));
    overwriteMessage(context.handle);
    EXPECT_EQ(SuperResolution_queryOutputImageSize(context.handle, &outputWidth, &outputHeight),
              SR_TOO_FEW_IMAGES);
    EXPECT_EQ(lastMessage(), "Not enough input images (<5)");
    EXPECT_EQ(outputWidth, 2 * width);
    EXPECT_EQ(outputHeight, 2 * height);
    const std::vector<float> result = resultOf(context.handle, SR_TOO_FEW_IMAGES);
    EXPECT_GT(cv::countNonZero(cv::Mat(result)), 0) << "the query did not run the pass";

    // Either output may be left out.
    EXPECT_EQ(SuperResolution_queryOutputImageSize(context.handle, nullptr, nullptr),
              SR_TOO_FEW_IMAGES);
}

TEST(SuperResolutionInterface, ANullOutputBufferIsNeverWritten) {
    Context context;
    context.add(burstFrame(0));
    EXPECT_EQ(SuperResolution_getSuperresolutionImage(context.handle, nullptr), SR_ERROR);
    EXPECT_EQ(lastMessage(), "Memcpy called on nullptr!!!!");
    for (int frame = 1; frame < 5; ++frame) {
        context.add(burstFrame(frame));
    }
    EXPECT_EQ(SuperResolution_getSuperresolutionImage(context.handle, nullptr), SR_ERROR);
    EXPECT_EQ(lastMessage(), "Memcpy called on nullptr!!!!");
}

TEST(SuperResolutionInterface, ErrorMessageIsCopiedLikeStrncpy) {
    EXPECT_EQ(SuperResolution_release(-1), SR_ERROR);
    const std::string message = "Context invalid.";
    char buffer[32];
    std::memset(buffer, 'x', sizeof(buffer));
    EXPECT_EQ(SuperResolution_getErrorMessage(buffer, 8), SR_OK);
    EXPECT_EQ(std::string(buffer, 9), "Context x");
    std::memset(buffer, 'x', sizeof(buffer));
    SuperResolution_getErrorMessage(buffer, static_cast<int>(message.size()));
    EXPECT_EQ(std::string(buffer, message.size() + 1), message + "x") << "must stay unterminated";
    std::memset(buffer, 'x', sizeof(buffer));
    SuperResolution_getErrorMessage(buffer, sizeof(buffer));
    EXPECT_STREQ(buffer, message.c_str());
    EXPECT_EQ(buffer[sizeof(buffer) - 1], '\0') << "strncpy pads with zeros";

    std::memset(buffer, 'x', sizeof(buffer));
    EXPECT_EQ(SuperResolution_getErrorMessage(buffer, 0), SR_OK);
    EXPECT_EQ(SuperResolution_getErrorMessage(buffer, -5), SR_OK);
    EXPECT_EQ(SuperResolution_getErrorMessage(nullptr, 16), SR_OK);
    EXPECT_EQ(buffer[0], 'x');

    // Success does not clear the message.
    Context context;
    EXPECT_EQ(context.add(burstFrame(0)), SR_OK);
    EXPECT_EQ(lastMessage(), message);
}

TEST(SuperResolutionInterface, CameraAndLensTypeSetThePsfSigma) {
    Context context;
    auto* engine = engineOf(context.handle);
    ASSERT_NE(engine, nullptr);
    const struct {
        const char* type;
        float sigma;
    } cases[] = {
        {"K610 FOV 45", 0.81f},
        {"K615 FOV 45", 0.01f},
        {"K616 FOV 45", 0.01f},
        {"K620 FOV 45", 0.01f},
        {"K621 FOV 45", 0.01f},
        {"K622 FOV 45", 0.625f},
        {"K625 FOV 22", 0.65f},
        {"K625 FOV 23", 0.35f},
        {"K625FOV22deg", 0.65f},
        {"K630 FOV 12", 0.34f},
        {"K630/K610 FOV 12", 0.81f},  // the first number of the model list wins
        {"K640 FOV 25", 0.683f},      // unknown model
        {"K625 lens 22", 0.683f},     // no field of view
        {"FOV 25", 0.683f},           // no model
        {"K625 FOV", 0.683f},         // nothing after the tag
        {"K625 FOV -1", 0.683f},      // reads back as "not parsed"
        {"K625 FOV wide", 0.65f},     // a failed number reads as 0, which counts as parsed
        {"", 0.683f},
        {nullptr, 0.683f},
    };
    for (const auto& row : cases) {
        SCOPED_TRACE(row.type != nullptr ? row.type : "(null)");
        engine->setPsfSigma(1.5f);
        EXPECT_EQ(SuperResolution_setCameraAndLensType(context.handle, row.type), SR_OK);
        EXPECT_EQ(engine->getPsfSigma(), row.sigma);
    }
}

TEST(SuperResolutionInterface, AnOutOfRangeReferenceIndexIsThrownToTheHost) {
    Context context;
    for (int index = 0; index < 5; ++index) {
        EXPECT_EQ(SuperResolution_setReferenceFrame(context.handle, index), SR_OK);
        EXPECT_EQ(engineOf(context.handle)->getReferenceIndex(), index);
    }
    for (const int index : {-1, 5}) {
        try {
            SuperResolution_setReferenceFrame(context.handle, index);
            ADD_FAILURE() << "index " << index << " accepted";
        } catch (const char* message) {
            EXPECT_STREQ(message, "Invalid reference index specified.");
        }
        EXPECT_EQ(engineOf(context.handle)->getReferenceIndex(), 4);
    }
}

TEST(SuperResolutionInterface, DefectiveFramesGiveAStatusNeverACrash) {
    Context context;
    // Two neighbouring defects inside the frame cannot be repaired from four good neighbours;
    // that outranks the contrast finding.
    std::vector<float> defective = flatFrame(1.0f);
    defective[10 * width + 10] = std::numeric_limits<float>::quiet_NaN();
    defective[10 * width + 11] = std::numeric_limits<float>::quiet_NaN();
    EXPECT_EQ(context.add(defective), SR_BAD_PIXELS);

    EXPECT_EQ(context.add(flatFrame(std::numeric_limits<float>::infinity())), SR_BAD_PIXELS);
    EXPECT_EQ(context.add(flatFrame(std::numeric_limits<float>::quiet_NaN())), SR_ERROR);
    EXPECT_EQ(lastMessage(), "Too many defect pixels. No processing possible.");
    for (int frame = 0; frame < 5; ++frame) {
        const int status = context.add(burstFrame(frame));
        EXPECT_TRUE(status == SR_OK || status == SR_BAD_PIXELS || status == SR_MASK_HALF_EMPTY ||
                    status == SR_ERROR)
            << status;
    }
}

TEST(SuperResolutionInterface, FramesCanBeWrittenToADiagnosticFolder) {
    const auto folder = std::filesystem::temp_directory_path() / "kelvo_interface_frames";
    std::filesystem::remove_all(folder);
    std::filesystem::create_directories(folder);
    int handle = -1;
    {
        Context context;
        handle = context.handle;
        EXPECT_FALSE(kelvo::interface::openDiagnosticWriter(context.handle, "/nonexistent/dir"));
        context.add(burstFrame(0));
        EXPECT_TRUE(std::filesystem::is_empty(folder));
        ASSERT_TRUE(kelvo::interface::openDiagnosticWriter(context.handle, folder.string()));
        context.add(burstFrame(1));
        EXPECT_TRUE(std::filesystem::exists(folder / "frame_000000.tiff"));
    }
    EXPECT_FALSE(kelvo::interface::openDiagnosticWriter(handle, folder.string()));
    Context reopened;
    ASSERT_EQ(reopened.handle, handle);
    reopened.add(burstFrame(2));
    EXPECT_FALSE(std::filesystem::exists(folder / "frame_000001.tiff")) << "release closes it";
    std::filesystem::remove_all(folder);
}

// Four contexts on four threads at once, each opened, fed, read and released on its thread while
// the others fail calls and read the shared message, two of them sharing their passes with a
// thread of their own: every result equals the one computed alone.
TEST(SuperResolutionInterface, ContextsOnDifferentThreadsRunConcurrently) {
    constexpr int threadCount = 4;
    auto run = [](int offset) {
        const int handle = SuperResolution_init(width, height);
        EXPECT_EQ(SuperResolution_setThreads(handle, 1 + offset % 2), SR_OK);
        std::vector<float> result(4 * width * height, -1.0f);
        for (int i = 0; i < 6; ++i) {
            SuperResolution_addImage(handle, burstFrame((i + offset) % 6).data());
            EXPECT_EQ(SuperResolution_addImage(handle, nullptr), SR_ERROR);
            char message[64] = {};
            SuperResolution_getErrorMessage(message, sizeof(message) - 1);
            EXPECT_TRUE(std::string(message) == "ir image data pointer is NULL" ||
                        std::string(message) == "Context invalid.")
                << message;
        }
        EXPECT_EQ(SuperResolution_getSuperresolutionImage(handle, result.data()), SR_OK);
        EXPECT_EQ(SuperResolution_release(handle), SR_OK);
        EXPECT_EQ(SuperResolution_release(handle), SR_ERROR);
        return result;
    };
    std::vector<std::vector<float>> alone;
    for (int t = 0; t < threadCount; ++t) {
        alone.push_back(run(t));
    }
    std::vector<std::vector<float>> together(threadCount);
    std::vector<std::thread> threads;
    for (int t = 0; t < threadCount; ++t) {
        threads.emplace_back([&, t] { together[t] = run(t); });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    for (int t = 0; t < threadCount; ++t) {
        EXPECT_EQ(together[t], alone[t]) << "thread " << t;
    }
}

}  // namespace
