// SPDX-License-Identifier: Apache-2.0
// Every bad input of bad_inputs.tsv, given to the tool: the exit code and the text the user reads.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <limits>
#include <opencv2/imgcodecs.hpp>
#include <sstream>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

struct BadInput {
    std::string name;
    std::string arguments;
    int exitCode;
    std::string expected;
};

std::vector<BadInput> readTable(const fs::path& path) {
    std::ifstream file(path);
    std::vector<BadInput> table;
    std::string line;
    while (std::getline(file, line)) {
        if (line.empty() || line[0] == '#') {
            continue;
        }
        std::istringstream fields(line);
        BadInput input;
        std::string exitCode;
        std::getline(fields, input.name, '\t');
        std::getline(fields, input.arguments, '\t');
        std::getline(fields, exitCode, '\t');
        std::getline(fields, input.expected);
        input.exitCode = std::stoi(exitCode);
        table.push_back(input);
    }
    return table;
}

cv::Mat_<float> sceneFrame(int index) {
    cv::Mat_<float> frame(48, 64);
    for (int row = 0; row < frame.rows; ++row) {
        for (int column = 0; column < frame.cols; ++column) {
            frame(row, column) = 20.0f + 10.0f * std::sin(0.3f * (column + 0.4f * index)) *
                                             std::cos(0.25f * (row + 0.3f * index));
        }
    }
    return frame;
}

void writeBytes(const fs::path& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
}

std::string littleEndian(unsigned value, int bytes) {
    std::string text;
    for (int i = 0; i < bytes; ++i) {
        text += static_cast<char>((value >> (8 * i)) & 0xff);
    }
    return text;
}

// The files the table names.
void makeFiles(const fs::path& folder) {
    fs::create_directories(folder / "flat");
    for (int index = 0; index < 5; ++index) {
        const std::string name = std::to_string(index) + ".tiff";
        cv::imwrite((folder / ("good" + name)).string(), sceneFrame(index));
        cv::imwrite((folder / ("flat" + name)).string(), cv::Mat_<float>(48, 64, 25.0f));
        cv::imwrite((folder / "flat" / ("flat" + name)).string(), cv::Mat_<float>(48, 64, 25.0f));
    }
    cv::imwrite((folder / "nan.tiff").string(),
                cv::Mat_<float>(48, 64, std::numeric_limits<float>::quiet_NaN()));
    cv::imwrite((folder / "inf.tiff").string(),
                cv::Mat_<float>(48, 64, std::numeric_limits<float>::infinity()));
    cv::Mat_<float> nanRow = sceneFrame(2);
    nanRow.row(10).setTo(std::numeric_limits<float>::quiet_NaN());
    cv::imwrite((folder / "nanrow.tiff").string(), nanRow);
    cv::imwrite((folder / "small.tiff").string(), sceneFrame(0)(cv::Rect(0, 0, 32, 24)));
    cv::imwrite((folder / "long.png").string(), cv::Mat_<unsigned short>(1, 100000, 1000));
    std::ifstream tiff(folder / "good0.tiff", std::ios::binary);
    std::string head(60, '\0');
    tiff.read(&head[0], 60);
    writeBytes(folder / "truncated.tiff", head);
    writeBytes(folder / "empty.png", "");
    writeBytes(folder / "frame.raw", std::string(100, '\x7f'));
    writeBytes(folder / "video.avi", "not a video\n");
    // Headers claiming more pixels than a frame may have; no decoder must get to allocate them.
    fs::copy_file(
        fs::path(KELVO_TESTS_SOURCE_DIR) / "fuzz/corpus/frame_reader/huge-claimed-size.jpg",
        folder / "huge.jpg");
    writeBytes(folder / "huge.png", std::string("\x89PNG\r\n\x1a\n\0\0\0\x0dIHDR\0\x01\x86\xa0"
                                                "\0\x01\x86\xa0\x08\0\0\0\0\0\0\0\0",
                                                33));
    writeBytes(folder / "huge.bmp", std::string("BM\0\0\0\0\0\0\0\0\0\0\0\0\x28\0\0\0"
                                                "\x50\xc3\0\0\xb0\x3c\xff\xff",
                                                26) +
                                        std::string(30, '\0'));
    writeBytes(folder / "huge.pgm", "P5\n# a comment\n70000 70000\n255\n");
    writeBytes(folder / "hidden.pgm", "P5\n# a comment\r30000 30000 255\n4 4\n");
    writeBytes(folder / "hidden.pam",
               "P7\nWIDTH 4\nHEIGHT 4\nwidth 30000\nheight 30000\nDEPTH 1\n"
               "MAXVAL 255\nENDHDR\n");
    // A TIFF of 80000 x 80000 8-bit pixels in one strip: its header, then a directory of five
    // entries (tag, type long, count 1, value) and no further directory.
    std::string hugeTiff = std::string("II*\0", 4) + littleEndian(8, 4) + littleEndian(5, 2);
    for (const auto& [tag, value] :
         {std::pair{256u, 80000u}, {257u, 80000u}, {258u, 8u}, {273u, 8u}, {279u, 1u}}) {
        hugeTiff +=
            littleEndian(tag, 2) + littleEndian(4, 2) + littleEndian(1, 4) + littleEndian(value, 4);
    }
    writeBytes(folder / "huge.tiff", hugeTiff + std::string(4, '\0'));
    writeBytes(folder / "picture.webp",
               std::string("RIFF\x1a\0\0\0WEBPVP8L\x0d\0\0\0\x2f", 21) + std::string(13, '\0'));
}

TEST(BadInputs, EveryOneGivesItsExitCodeAndNamesTheCause) {
#ifndef KELVO_SR_TOOL
    GTEST_SKIP() << "the kelvo-sr tool is not part of this build";
#else
    const fs::path folder =
        fs::temp_directory_path() / ("kelvo-sr-bad-inputs-" + std::to_string(getpid()));
    fs::remove_all(folder);
    makeFiles(folder);
    const std::vector<BadInput> table =
        readTable(fs::path(KELVO_TESTS_SOURCE_DIR) / "tools/kelvo-sr/bad_inputs.tsv");
    ASSERT_GE(table.size(), 10u);
    for (const BadInput& input : table) {
        const fs::path output = folder / "output.txt";
        const std::string command = "cd '" + folder.string() + "' && '" KELVO_SR_TOOL "' " +
                                    input.arguments + " >'" + output.string() + "' 2>&1";
        const int status = std::system(command.c_str());
        std::stringstream printed;
        printed << std::ifstream(output).rdbuf();
        EXPECT_EQ(WIFEXITED(status) ? WEXITSTATUS(status) : -1, input.exitCode) << input.name;
        EXPECT_NE(printed.str().find(input.expected), std::string::npos)
            << input.name << ": " << printed.str();
    }
    fs::remove_all(folder);
#endif
}

}  // namespace
