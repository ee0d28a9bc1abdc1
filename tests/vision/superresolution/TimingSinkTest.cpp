// SPDX-License-Identifier: Apache-2.0
#include "vision/superresolution/TimingSink.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using kelvo::vision::TimingSink;

void collect(const char* line, void* user) {
    static_cast<std::vector<std::string>*>(user)->push_back(line);
}

TEST(TimingSink, LinesReachTheCallbackWholeOrInPiecesAndCopiesFollow) {
    std::vector<std::string> lines;
    TimingSink sink;
    sink.toCallback(collect, &lines);
    sink.stream() << " minimization:         " << 12.5 << "[ms]" << std::endl;
    ASSERT_EQ(lines, std::vector<std::string>{" minimization:         12.5[ms]"});

    // A line longer than the buffer arrives in pieces, none lost.
    const std::string longLine(300, 'x');
    sink.stream() << longLine << std::endl;
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[1] + lines[2], longLine);

    TimingSink copy(sink);
    copy.stream() << "copy" << std::endl;
    EXPECT_EQ(lines.back(), "copy");

    copy.toNowhere();
    copy.stream() << "dropped" << std::endl;
    EXPECT_EQ(lines.back(), "copy");
    testing::internal::CaptureStdout();
    copy.toStandardOutput();
    copy.stream() << "printed" << std::endl;
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "printed\n");
}

}  // namespace
