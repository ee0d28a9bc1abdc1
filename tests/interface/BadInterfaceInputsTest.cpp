// SPDX-License-Identifier: Apache-2.0
// Bad input at the C interface, one row per case: the code, the message, and that the context
// still gives its result afterwards. The sized copies never write past the capacity given.
#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <functional>
#include <limits>
#include <string>
#include <vector>

#include "InterfaceTestScene.h"
#include "interface/SuperResolutionExtensions.h"

namespace {

using namespace kelvo::interface::testing;

struct BadCall {
    const char* what;
    std::function<int(int handle)> call;
    int code;
    const char* message;
};

constexpr float nan = std::numeric_limits<float>::quiet_NaN();
constexpr float infinity = std::numeric_limits<float>::infinity();

TEST(BadInterfaceInputs, EachGivesItsCodeAndMessageAndLosesNothing) {
    Context context;
    for (int index = 0; index < 5; ++index) {
        ASSERT_EQ(context.add(burstFrame(index)), SR_OK);
    }
    std::vector<float> before(4 * width * height);
    ASSERT_EQ(SuperResolution_getSuperresolutionImage(context.handle, before.data()), SR_OK);
    float* none = nullptr;
    int size = 0;
    const BadCall table[] = {
        {"init below the smallest side", [](int) { return SuperResolution_init(7, 48); },
         SR_INIT_FAILED, "Invalid image size specified."},
        {"init of INT_MAX columns", [](int) { return SuperResolution_init(INT_MAX, INT_MAX); },
         SR_INIT_FAILED, "Invalid image size specified."},
        {"frame to a negative handle",
         [](int) { return SuperResolution_addImage(-1, burstFrame(0).data()); }, SR_ERROR,
         "Context invalid."},
        {"frame to a handle never opened",
         [](int) { return SuperResolution_addImage(1000, burstFrame(0).data()); }, SR_ERROR,
         "Context invalid."},
        {"null frame", [](int handle) { return SuperResolution_addImage(handle, nullptr); },
         SR_ERROR, "ir image data pointer is NULL"},
        {"size query to a closed handle",
         [&](int) { return SuperResolution_queryOutputImageSize(INT_MIN, &size, &size); }, SR_ERROR,
         "Context invalid."},
        {"null result buffer",
         [&](int handle) { return SuperResolution_getSuperresolutionImage(handle, none); },
         SR_ERROR, "Memcpy called on nullptr!!!!"},
        {"sized copy into one float too few",
         [](int handle) {
             std::vector<float> output(4 * width * height - 1, -1.0f);
             const int code = SuperResolution_getSuperresolutionImageSized(
                 handle, output.data(), static_cast<int>(output.size()));
             return output.back() == -1.0f ? code : 0;  // nothing written
         },
         SR_ERROR, "Buffer too small: 12288 floats needed."},
        {"sized copy with a negative capacity",
         [&](int handle) {
             return SuperResolution_getSuperresolutionImageSized(handle, before.data(), -1);
         },
         SR_ERROR, "Buffer too small: 12288 floats needed."},
        {"sized copy into null",
         [](int handle) {
             return SuperResolution_getSuperresolutionImageSized(handle, nullptr, INT_MAX);
         },
         SR_ERROR, "Output pointer is NULL."},
        {"sized copy from a closed handle",
         [&](int) {
             return SuperResolution_getSuperresolutionImageSized(-5, before.data(), INT_MAX);
         },
         SR_ERROR, "Context invalid."},
        {"release of a handle never opened", [](int) { return SuperResolution_release(1000); },
         SR_ERROR, "Context invalid."},
        {"reference index 5, checked",
         [](int handle) { return SuperResolution_setReferenceFrameChecked(handle, 5); }, SR_ERROR,
         "Invalid reference index specified."},
    };
    for (const BadCall& row : table) {
        overwriteMessage(context.handle);
        EXPECT_EQ(row.call(context.handle), row.code) << row.what;
        EXPECT_EQ(lastMessage(), row.message) << row.what;
    }
    // The index outside 0..4 given to the plain setter reaches a C++ host as the thrown text.
    EXPECT_THROW(SuperResolution_setReferenceFrame(context.handle, -1), const char*);

    // Frames that are not numbers enter the window as defects beyond repair: NaN is refused
    // outright, infinities leave a pass that reports its weakness. Once the burst is given
    // again, the context gives the same result as before.
    EXPECT_EQ(context.add(flatFrame(nan)), SR_ERROR);
    EXPECT_EQ(lastMessage(), "Too many defect pixels. No processing possible.");
    EXPECT_EQ(context.add(flatFrame(infinity)), SR_MASK_HALF_EMPTY);
    EXPECT_EQ(context.add(flatFrame(-infinity)), SR_BAD_PIXELS);
    for (int index = 0; index < 5; ++index) {
        ASSERT_EQ(context.add(burstFrame(index)), SR_OK);
    }
    std::vector<float> after(before.size());
    ASSERT_EQ(SuperResolution_getSuperresolutionImageSized(context.handle, after.data(),
                                                           static_cast<int>(after.size())),
              SR_OK);
    EXPECT_EQ(std::memcmp(after.data(), before.data(), after.size() * sizeof(float)), 0);
}

TEST(BadInterfaceInputs, SizedMessageIsAlwaysTerminated) {
    SuperResolution_addImage(-1, nullptr);  // "Context invalid.", 16 characters
    char text[20];
    for (int size = 1; size <= 20; ++size) {
        std::memset(text, 'x', sizeof text);
        ASSERT_EQ(SuperResolution_getErrorMessageSized(text, size), SR_OK);
        EXPECT_EQ(std::string(text), std::string("Context invalid.").substr(0, size - 1));
        EXPECT_EQ(text[size - 1 < 16 ? size - 1 : 16], '\0');
        if (size < 20) {
            EXPECT_EQ(text[size], 'x') << "written past the buffer at size " << size;
        }
    }
    // Refusals keep the message the host is asking for.
    EXPECT_EQ(SuperResolution_getErrorMessageSized(nullptr, 8), SR_ERROR);
    EXPECT_EQ(SuperResolution_getErrorMessageSized(text, 0), SR_ERROR);
    EXPECT_EQ(lastMessage(), "Context invalid.");
}

}  // namespace
