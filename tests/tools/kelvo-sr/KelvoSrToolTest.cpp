// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <tiffio.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

#include "interface/SuperResolutionContext.h"
#include "interface/SuperResolutionInterface.h"
#include "tools/kelvo-sr/VideoFrameReader.h"
#include "tools/simulator/BurstSimulator.h"
#include "tools/simulator/ImageQuality.h"

// The kelvo-sr tool run as a user runs it: arguments in, exit code, printed lines and files out.

namespace {

namespace fs = std::filesystem;

using kelvo::tools::Burst;
using kelvo::tools::BurstOptions;
using kelvo::tools::BurstSimulator;

struct ToolRun {
    int exitCode = -1;
    std::string output;  // standard output and standard error together
};

// Paths in single quotes for the shell (none of ours holds a quote).
std::string shellQuoted(const std::string& text) {
    return "'" + text + "'";
}

// Counts of a radiometric camera: far above the temperature range, so that the tool
// must take them as counts.
cv::Mat_<unsigned short> toCounts(const cv::Mat_<float>& celsius) {
    cv::Mat_<unsigned short> counts;
    celsius.convertTo(counts, CV_16U, 100.0, 10000.0);
    return counts;
}

void writeRaw(const fs::path& path, const cv::Mat& image) {
    std::ofstream file(path, std::ios::binary);
    file.write(reinterpret_cast<const char*>(image.data),
               static_cast<std::streamsize>(image.total() * image.elemSize()));
}

std::vector<std::vector<int>> readCsv(const fs::path& path) {
    std::ifstream file(path);
    std::string line;
    std::getline(file, line);  // header
    std::vector<std::vector<int>> rows;
    while (std::getline(file, line)) {
        std::vector<int> row;
        std::stringstream fields(line);
        std::string field;
        while (std::getline(fields, field, ',')) {
            row.push_back(std::stoi(field));
        }
        rows.push_back(row);
    }
    return rows;
}

// A simulated burst of 64 x 48 frames whose second frame is the reference.
Burst simulatedBurst(std::uint64_t seed, int frameCount = 5) {
    BurstOptions options;
    options.frameCount = frameCount;
    options.referenceFrame = 1;
    options.seed = seed;
    return BurstSimulator(options).simulate(cv::Size(128, 96));
}

class KelvoSrTool : public testing::Test {
protected:
    void SetUp() override {
#ifndef KELVO_SR_TOOL
        GTEST_SKIP() << "the kelvo-sr tool is not part of this build";
#endif
        const std::string name = testing::UnitTest::GetInstance()->current_test_info()->name();
        folder = fs::temp_directory_path() /
                 ("kelvo-sr-" + name + "-" + std::to_string(static_cast<long>(getpid())));
        fs::remove_all(folder);
        fs::create_directories(folder);
    }

    void TearDown() override {
        if (!folder.empty() && !getenv("KEEPTMP")) {
            fs::remove_all(folder);
        }
    }

    ToolRun run(const std::string& arguments) const {
        ToolRun result;
#ifdef KELVO_SR_TOOL
        const std::string command = "cd " + shellQuoted(folder.string()) + " && " +
                                    shellQuoted(KELVO_SR_TOOL) + " " + arguments + " 2>&1";
        FILE* pipe = popen(command.c_str(), "r");
        if (pipe == nullptr) {
            return result;
        }
        char buffer[4096];
        std::size_t read = 0;
        while ((read = std::fread(buffer, 1, sizeof(buffer), pipe)) > 0) {
            result.output.append(buffer, read);
        }
        const int status = pclose(pipe);
        result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
#endif
        return result;
    }

    // Runs the tool expecting it to fail with that exit code and a message holding `message`.
    void expectFailure(const std::string& arguments, const std::string& message,
                       int exitCode = 1) const {
        const ToolRun failed = run(arguments);
        EXPECT_EQ(failed.exitCode, exitCode) << arguments << "\nprinted: " << failed.output;
        EXPECT_NE(failed.output.find(message), std::string::npos)
            << arguments << "\nprinted: " << failed.output;
    }

    fs::path path(const std::string& name) const {
        return folder / name;
    }

    // A simulated burst of 64 x 48 frames, written as 16-bit PNGs of counts; returns the
    // file names, oldest first.
    std::vector<std::string> writeBurst(int frameCount, const std::string& prefix,
                                        std::vector<cv::Mat_<unsigned short>>* frames = nullptr) {
        const Burst burst = simulatedBurst(11, frameCount);
        std::vector<std::string> names;
        for (int i = 0; i < frameCount; ++i) {
            names.push_back(prefix + std::to_string(i) + ".png");
            const cv::Mat_<unsigned short> counts = toCounts(burst.frames[i]);
            cv::imwrite(path(names.back()).string(), counts);
            if (frames != nullptr) {
                frames->push_back(counts);
            }
        }
        return names;
    }

    fs::path folder;
};

std::string joined(const std::vector<std::string>& names) {
    std::string text;
    for (const std::string& name : names) {
        text += " " + name;
    }
    return text;
}

TEST_F(KelvoSrTool, DemoWritesItsPicturesAndPrintsThePsnr) {
    const ToolRun demo = run("demo --width 64 --height 48 -o pictures");
    EXPECT_EQ(demo.exitCode, 0) << demo.output;
    for (const char* name :
         {"reference.tiff", "bicubic.tiff", "superresolved.tiff", "truth.tiff", "comparison.png"}) {
        EXPECT_TRUE(fs::is_regular_file(path("pictures") / name)) << name;
    }
    EXPECT_NE(demo.output.find("simulated burst: 5 frames of 64x48, result 128x96"),
              std::string::npos)
        << demo.output;
    EXPECT_NE(demo.output.find("PSNR against the ground truth: bicubic "), std::string::npos)
        << demo.output;
    EXPECT_NE(demo.output.find(" dB, super-resolution "), std::string::npos) << demo.output;
    const cv::Mat result =
        cv::imread(path("pictures/superresolved.tiff").string(), cv::IMREAD_UNCHANGED);
    EXPECT_EQ(result.size(), cv::Size(128, 96));
}

// 16-bit counts above the temperature range are taken as counts, from PNG and from
// headerless raw files alike: the same frames give the same result bit for bit.
TEST_F(KelvoSrTool, BurstTakesCountsFromPngAndRawFrames) {
    std::vector<cv::Mat_<unsigned short>> frames;
    const std::vector<std::string> pngs = writeBurst(5, "frame", &frames);
    const ToolRun fromPng = run("burst" + joined(pngs) + " -o png.tiff --png png.png");
    EXPECT_EQ(fromPng.exitCode, 0) << fromPng.output;
    EXPECT_NE(fromPng.output.find("wrote png.tiff (128x96, 32-bit float)"), std::string::npos)
        << fromPng.output;

    std::vector<std::string> raws;
    for (std::size_t i = 0; i < frames.size(); ++i) {
        raws.push_back("frame" + std::to_string(i) + ".raw");
        writeRaw(path(raws.back()), frames[i]);
    }
    const ToolRun fromRaw =
        run("burst" + joined(raws) + " --size 64x48 --type u16 --values auto -o raw.tiff");
    EXPECT_EQ(fromRaw.exitCode, 0) << fromRaw.output;

    const cv::Mat pngResult = cv::imread(path("png.tiff").string(), cv::IMREAD_UNCHANGED);
    const cv::Mat rawResult = cv::imread(path("raw.tiff").string(), cv::IMREAD_UNCHANGED);
    ASSERT_EQ(pngResult.type(), CV_32F);
    ASSERT_EQ(pngResult.size(), cv::Size(128, 96));
    ASSERT_EQ(rawResult.size(), pngResult.size());
    EXPECT_EQ(cv::norm(pngResult, rawResult, cv::NORM_INF), 0.0);
    // Counts stay counts: the result lies in the frames' range, not in temperatures.
    double low = 0.0, high = 0.0;
    cv::minMaxLoc(frames[1], &low, &high);
    const cv::Scalar mean = cv::mean(pngResult);
    EXPECT_GT(mean[0], low);
    EXPECT_LT(mean[0], high);
    const cv::Mat png16 = cv::imread(path("png.png").string(), cv::IMREAD_UNCHANGED);
    EXPECT_EQ(png16.type(), CV_16U);
}

// Raw counts of a simulated camera with a per-pixel gain and offset, calibrated from two
// simulated blackbodies: the reference engine delivers radiance, sharper than bicubic.
TEST_F(KelvoSrTool, ReferenceEngineTurnsCalibratedCountsIntoRadiance) {
    BurstOptions options;
    options.referenceFrame = 1;
    options.seed = 8;
    const Burst burst = BurstSimulator(options).simulate(cv::Size(192, 144));
    cv::Mat_<float> gain(72, 96), offset(72, 96);
    cv::RNG(5).fill(gain, cv::RNG::UNIFORM, 0.009f, 0.011f);
    cv::RNG(6).fill(offset, cv::RNG::UNIFORM, -110.0f, -90.0f);
    const auto countsOf = [&](const cv::Mat_<float>& radiance) {
        cv::Mat_<float> counts;
        cv::divide(radiance - offset, gain, counts);
        cv::Mat_<unsigned short> rounded;
        counts.convertTo(rounded, CV_16U);
        return rounded;
    };
    std::vector<std::string> names;
    for (int i = 0; i < 5; ++i) {
        names.push_back("counts" + std::to_string(i) + ".png");
        cv::imwrite(path(names.back()).string(), countsOf(burst.frames[i]));
    }
    cv::imwrite(path("low.png").string(), countsOf(cv::Mat_<float>(72, 96, 20.0f)));
    cv::imwrite(path("high.png").string(), countsOf(cv::Mat_<float>(72, 96, 40.0f)));
    cv::imwrite(path("high.tiff").string(), cv::Mat_<float>(72, 96, 40.0f));
    cv::imwrite(path("small.png").string(), cv::Mat_<unsigned short>(70, 96, 4000));

    const ToolRun reference = run("burst" + joined(names) +
                                  " --engine reference --calibration low.png 20 high.png high.tiff"
                                  " -o radiance.tiff");
    ASSERT_EQ(reference.exitCode, 0) << reference.output;
    EXPECT_NE(reference.output.find("sub-pixel coverage"), std::string::npos) << reference.output;
    const cv::Mat result = cv::imread(path("radiance.tiff").string(), cv::IMREAD_UNCHANGED);
    ASSERT_EQ(result.size(), cv::Size(192, 144));
    EXPECT_GT(kelvo::tools::ImageQuality::psnr(result, burst.truth),
              kelvo::tools::ImageQuality::psnr(
                  kelvo::tools::ImageQuality::upscaleBicubic(burst.frames[1]), burst.truth) +
                  0.5);

    fs::create_directories(path("sequence"));
    for (int i = 0; i < 6; ++i) {
        fs::copy_file(path(names[i % 5]), path("sequence/counts" + std::to_string(i) + ".png"));
    }
    const ToolRun sequence =
        run("sequence sequence --engine reference --calibration low.png 20 high.png 40 -o results");
    EXPECT_EQ(sequence.exitCode, 0) << sequence.output;
    EXPECT_NE(sequence.output.find("frames: 6, skipped: 0, results: 2"), std::string::npos)
        << sequence.output;

    const std::string frames = "burst" + joined(names) + " --engine reference";
    expectFailure(frames, "needs --calibration");
    expectFailure(frames + " --calibration small.png 20 high.png 40",
                  "The calibration image small.png is 96x70, the frames are 96x72.");
    expectFailure(frames + " --calibration low.png 20 low.png 40", "equal at every pixel");
    cv::imwrite(path("eight.png").string(), cv::Mat_<unsigned char>(72, 96, 40));
    expectFailure(frames + " --calibration eight.png 20 high.png 40",
                  "LOW_COUNTS eight.png must be a single-channel 16-bit image.");
    expectFailure("burst" + joined(names) + " --calibration low.png 20 high.png 40",
                  "--calibration needs --engine reference.");
}

TEST_F(KelvoSrTool, BurstRejectsBadInputWithAClearMessage) {
    const std::vector<std::string> frames = writeBurst(5, "frame");
    const std::vector<std::string> four(frames.begin(), frames.begin() + 4);
    // The option parser's code for a wrong number of arguments.
    expectFailure("burst" + joined(four), "At least 5 required but received 4", 114);

    expectFailure("burst" + joined(four) + " missing.png",
                  "Cannot read 'missing.png': no such file.");
    std::ofstream(path("garbage.png")) << "not a picture";
    expectFailure("burst" + joined(four) + " garbage.png",
                  "Cannot read 'garbage.png': not an image this tool can decode.");

    cv::imwrite(path("small.png").string(), cv::Mat_<unsigned short>(40, 32, 12000));
    expectFailure("burst" + joined(four) + " small.png",
                  "A frame of 32x40 pixels does not match the 64x48 of the first frame.");

    std::vector<std::string> raws;
    for (int i = 0; i < 5; ++i) {
        raws.push_back("frame" + std::to_string(i) + ".raw");
        writeRaw(path(raws.back()), cv::Mat_<unsigned short>(48, 64, 12000));
    }
    writeRaw(path("short.raw"), cv::Mat_<unsigned short>(47, 64, 12000));
    expectFailure("burst" + joined(raws) + " short.raw --size 64x48 --type u16",
                  "'short.raw' holds 6016 bytes, but a 64x48 frame of that type needs 6144.");
    expectFailure("burst" + joined(raws),
                  "'frame0.raw' is a headerless raw file: give its "
                  "--size and --type.");
    expectFailure("burst" + joined(raws) + " --size 64x48",
                  "Headerless raw frames need both --size WxH and --type.");

    // Counts taken for temperatures: nothing the engine would accept.
    for (const std::string& raw : raws) {
        writeRaw(path(raw), cv::Mat_<unsigned short>(48, 64, 40000));
    }
    expectFailure("burst" + joined(raws) + " --size 64x48 --type u16 --values temperature",
                  "Every pixel of the first frame lies outside -274..5000, the temperature range "
                  "the engine accepts: use --values counts for raw sensor counts.");
    // Flat frames offer registration nothing to track: no result is written.
    expectFailure("burst" + joined(raws) + " --size 64x48 --type u16 -o flat.tiff",
                  "No frame could be matched to the reference frame frame1.raw: it offers no "
                  "structure to track. No result was written");
    EXPECT_FALSE(fs::exists(path("flat.tiff")));
}

TEST_F(KelvoSrTool, SequenceWritesOneResultPerFrameFromTheFifth) {
    fs::create_directories(path("frames"));
    writeBurst(6, "frames/frame");
    const ToolRun sequence = run("sequence frames -o results");
    EXPECT_EQ(sequence.exitCode, 0) << sequence.output;
    std::set<std::string> written;
    for (const auto& entry : fs::directory_iterator(path("results"))) {
        written.insert(entry.path().filename().string());
    }
    // Named after the reference frame, the second of each window.
    EXPECT_EQ(written, (std::set<std::string>{"frame1_sr.tiff", "frame2_sr.tiff"}));
    EXPECT_NE(sequence.output.find("frames: 6, skipped: 0, results: 2 in results"),
              std::string::npos)
        << sequence.output;
    EXPECT_NE(sequence.output.find("mean time per pass: "), std::string::npos) << sequence.output;

    const ToolRun missing = run("sequence results/none");
    EXPECT_EQ(missing.exitCode, 1);
    EXPECT_NE(missing.output.find("Cannot read 'results/none': neither a folder of frames nor a "
                                  "video file."),
              std::string::npos)
        << missing.output;
}

// A 14-bit raw image with counts spread evenly over 2000 .. 2039 (no value is rare), and
// defects planted at known places: dead and saturated pixels at the ends of the range and
// stuck pixels at values far from the scene.
struct PlantedImage {
    cv::Mat_<unsigned short> image;
    std::set<std::pair<int, int>> defects;  // (x, y)
};

PlantedImage plantedImage() {
    PlantedImage planted;
    planted.image.create(48, 64);
    for (int y = 0; y < planted.image.rows; ++y) {
        for (int x = 0; x < planted.image.cols; ++x) {
            planted.image(y, x) = static_cast<unsigned short>(2000 + (3 * x + 7 * y) % 40);
        }
    }
    const std::vector<std::pair<std::pair<int, int>, unsigned short>> defects = {
        {{10, 5}, 0}, {{30, 20}, 16383}, {{50, 40}, 9000}, {{5, 30}, 700}, {{0, 0}, 16383}};
    for (const auto& [position, value] : defects) {
        planted.image(position.second, position.first) = value;
        planted.defects.insert(position);
    }
    return planted;
}

// (x, y) of the bad pixel of every table row.
std::set<std::pair<int, int>> badPixelsOf(const std::vector<std::vector<int>>& rows) {
    std::set<std::pair<int, int>> positions;
    for (const std::vector<int>& row : rows) {
        positions.insert({row.at(0), row.at(1)});
    }
    return positions;
}

// Only the listed pixels change, each to the integer mean of its four replacements, which
// are good pixels.
template <typename Value>
void expectRepairedFromTable(const std::vector<std::vector<int>>& rows,
                             const cv::Mat_<Value>& original, const cv::Mat& repaired) {
    ASSERT_EQ(repaired.size(), original.size());
    const std::set<std::pair<int, int>> listed = badPixelsOf(rows);
    for (const std::vector<int>& row : rows) {
        ASSERT_EQ(row.size(), 10u);
        int sum = 0;
        for (int k = 2; k < 10; k += 2) {
            EXPECT_EQ(listed.count({row[k], row[k + 1]}), 0u);
            sum += original(row[k + 1], row[k]);
        }
        EXPECT_EQ(repaired.at<Value>(row[1], row[0]), sum / 4);
    }
    for (int y = 0; y < original.rows; ++y) {
        for (int x = 0; x < original.cols; ++x) {
            if (listed.count({x, y}) == 0) {
                EXPECT_EQ(repaired.at<Value>(y, x), original(y, x)) << x << ", " << y;
            }
        }
    }
}

TEST_F(KelvoSrTool, BadPixelsFindsAndRepairsPlantedDefects) {
    const PlantedImage planted = plantedImage();
    cv::imwrite(path("frame.png").string(), planted.image);
    const ToolRun found = run("badpixels frame.png");
    EXPECT_EQ(found.exitCode, 0) << found.output;
    EXPECT_NE(found.output.find("found: 5 bad pixels in frame.png (3 at or beyond 0..16383, 2 "
                                "at isolated values)"),
              std::string::npos)
        << found.output;
    EXPECT_NE(found.output.find("unreplaced: 0\n"), std::string::npos) << found.output;
    EXPECT_NE(found.output.find("time: "), std::string::npos) << found.output;

    std::ifstream table(path("badpixels.csv"));
    std::string header;
    std::getline(table, header);
    EXPECT_EQ(header,
              "x,y,replacement1_x,replacement1_y,replacement2_x,replacement2_y,replacement3_x,"
              "replacement3_y,replacement4_x,replacement4_y");
    const std::vector<std::vector<int>> rows = readCsv(path("badpixels.csv"));
    EXPECT_EQ(badPixelsOf(rows), planted.defects);

    const cv::Mat repaired = cv::imread(path("repaired.png").string(), cv::IMREAD_UNCHANGED);
    ASSERT_EQ(repaired.type(), CV_16U);
    expectRepairedFromTable(rows, planted.image, repaired);

    // Red squares of side 7 around the defects on a grey picture of the image.
    const cv::Mat drawing = cv::imread(path("badpixels.png").string(), cv::IMREAD_UNCHANGED);
    ASSERT_EQ(drawing.type(), CV_8UC3);
    EXPECT_EQ(drawing.at<cv::Vec3b>(20, 27), cv::Vec3b(0, 0, 255));
    EXPECT_EQ(drawing.at<cv::Vec3b>(17, 30), cv::Vec3b(0, 0, 255));
    const cv::Vec3b scene = drawing.at<cv::Vec3b>(24, 24);
    EXPECT_TRUE(scene[0] == scene[1] && scene[1] == scene[2]);
}

// Signed raw input, a list of known defects the search cannot see, and a signed TIFF out.
TEST_F(KelvoSrTool, BadPixelsTakesRawSignedImagesAndKnownDefects) {
    const PlantedImage planted = plantedImage();
    cv::Mat_<short> image;
    planted.image.convertTo(image, CV_16S, 1.0, -3000.0);
    writeRaw(path("frame.raw"), image);
    std::ofstream(path("known.csv")) << "x,y\n# a column of the sensor that flickers\n"
                                     << "20,20\n20,21\n10,5\n";
    const ToolRun withKnown = run(
        "badpixels frame.raw --size 64x48 --type i16 --low -3000 --high 13383 --known known.csv "
        "-o repaired.tiff");
    EXPECT_EQ(withKnown.exitCode, 0) << withKnown.output;
    EXPECT_NE(withKnown.output.find("found: 5 bad pixels"), std::string::npos) << withKnown.output;
    EXPECT_NE(withKnown.output.find("known: 2 more from known.csv"), std::string::npos)
        << withKnown.output;
    const std::vector<std::vector<int>> rows = readCsv(path("badpixels.csv"));
    std::set<std::pair<int, int>> expected = planted.defects;
    expected.insert({{20, 20}, {20, 21}});
    EXPECT_EQ(badPixelsOf(rows), expected);
    const cv::Mat repaired = cv::imread(path("repaired.tiff").string(), cv::IMREAD_UNCHANGED);
    ASSERT_EQ(repaired.type(), CV_16S);
    expectRepairedFromTable(rows, image, repaired);
    double low = 0.0, high = 0.0;
    cv::minMaxLoc(repaired, &low, &high);
    EXPECT_GE(low, -1000.0);
    EXPECT_LE(high, -961.0);

    // A table written before, given as known bad pixels, gives the same table again.
    const ToolRun again =
        run("badpixels frame.raw --size 64x48 --type i16 --low -3000 --high 13383 "
            "--known badpixels.csv -o again.tiff --table again.csv");
    EXPECT_EQ(again.exitCode, 0) << again.output;
    EXPECT_NE(again.output.find("known: 2 more from badpixels.csv"), std::string::npos)
        << again.output;
    EXPECT_EQ(readCsv(path("again.csv")), rows);
}

TEST_F(KelvoSrTool, BadPixelsFailsClearly) {
    const PlantedImage planted = plantedImage();
    cv::imwrite(path("frame.png").string(), planted.image);
    expectFailure("badpixels frame.png --capacity 4",
                  "More than 4 bad pixels: the table is full. Give a larger --capacity");
    expectFailure("badpixels nothing.png", "Cannot read 'nothing.png': no such file.");
    writeRaw(path("frame.raw"), planted.image);
    expectFailure("badpixels frame.raw --size 64x47 --type u16",
                  "'frame.raw' holds 6144 bytes, but a 64x47 frame of that type needs 6016.");
    cv::imwrite(path("eight.png").string(), cv::Mat_<unsigned char>(48, 64, 100));
    expectFailure("badpixels eight.png",
                  "'eight.png' holds 8-bit unsigned values: bad pixels are searched in "
                  "single-channel 16-bit images");
    expectFailure("badpixels frame.png --low 100 --high 40000",
                  "The search range 100..40000 is wider than the 32767 values the search covers");
    expectFailure("badpixels frame.png --low 3000 --high 2000",
                  "--low 3000 must lie below --high 2000.");
    expectFailure("badpixels frame.png -o repaired.jpg", "must be a .png or a .tif/.tiff file.");
    std::ofstream(path("outside.csv")) << "64,0\n";
    expectFailure("badpixels frame.png --known outside.csv",
                  "The bad pixel (64, 0) on line 1 of 'outside.csv' lies outside the "
                  "64x48 image.");
    const ToolRun floatRaw = run("badpixels frame.raw --size 64x48 --type f32");
    EXPECT_NE(floatRaw.exitCode, 0);
    EXPECT_NE(floatRaw.output.find("--type: f32 not in {u16,i16}"), std::string::npos)
        << floatRaw.output;

    // A cross of saturated pixels: with the direct neighbours only, its centre has no good
    // pixel to take. The result is written, and the exit code says it is incomplete.
    cv::Mat_<unsigned short> cross = planted.image.clone();
    for (const auto& [x, y] :
         std::vector<std::pair<int, int>>{{20, 20}, {19, 20}, {21, 20}, {20, 19}, {20, 21}}) {
        cross(y, x) = 16383;
    }
    cv::imwrite(path("cross.png").string(), cross);
    expectFailure("badpixels cross.png --radius 1 -o cross-repaired.png",
                  "unreplaced: 1 (no good pixel within --radius 1; they keep their values)", 2);
    const cv::Mat repaired = cv::imread(path("cross-repaired.png").string(), cv::IMREAD_UNCHANGED);
    ASSERT_FALSE(repaired.empty());
    EXPECT_EQ(repaired.at<unsigned short>(20, 20), 16383);
    EXPECT_LT(repaired.at<unsigned short>(20, 19), 2040);
}

TEST_F(KelvoSrTool, BurstOfRealFrames) {
    const fs::path burstFolder =
        fs::path(KELVO_SHARED_DATA_DIR) / "hit-uav" / "bursts" / "A_1_60_30_00047-00056";
    if (!fs::is_directory(burstFolder)) {
        GTEST_SKIP() << "real frames not found at " << burstFolder;
    }
    std::vector<std::string> frames;
    for (const auto& entry : fs::directory_iterator(burstFolder)) {
        if (entry.path().extension() == ".jpg") {
            frames.push_back(entry.path().string());
        }
    }
    std::sort(frames.begin(), frames.end());
    ASSERT_GE(frames.size(), 5u);
    std::string arguments = "burst -o real.tiff";
    for (std::size_t i = 0; i < 5; ++i) {
        arguments += " " + shellQuoted(frames[i]);
    }
    const ToolRun real = run(arguments);
    EXPECT_EQ(real.exitCode, 0) << real.output;
    const cv::Mat result = cv::imread(path("real.tiff").string(), cv::IMREAD_UNCHANGED);
    EXPECT_EQ(result.size(), cv::Size(1280, 1024));
}

// The result the library itself gives for those frames taken as counts.
cv::Mat_<float> libraryResult(const std::vector<cv::Mat_<unsigned short>>& frames) {
    const int handle = SuperResolution_init(frames[0].cols, frames[0].rows);
    kelvo::interface::engineOf(handle)->setDataIsNUC(true);
    for (const cv::Mat_<unsigned short>& frame : frames) {
        cv::Mat_<float> values;
        frame.convertTo(values, CV_32F);
        SuperResolution_addImage(handle, values.ptr<float>());
    }
    cv::Mat_<float> result(2 * frames[0].rows, 2 * frames[0].cols);
    SuperResolution_getSuperresolutionImage(handle, result.ptr<float>());
    SuperResolution_release(handle);
    return result;
}

std::string fileText(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), {});
}

// The float TIFF holds the library's result bit for bit, compressed, and says what it is;
// the 16-bit PNG and the JSON record agree with it; names that would lose values are
// refused before any work.
TEST_F(KelvoSrTool, BurstResultsKeepTheirValuesAndSayWhatTheyAre) {
    std::vector<cv::Mat_<unsigned short>> frames;
    const std::vector<std::string> names = writeBurst(5, "frame", &frames);
    const ToolRun burst = run("burst" + joined(names) + " -o r.tiff --png r.png --json r.json");
    ASSERT_EQ(burst.exitCode, 0) << burst.output;
    const cv::Mat_<float> expected = libraryResult(frames);
    const cv::Mat stored = cv::imread(path("r.tiff").string(), cv::IMREAD_UNCHANGED);
    ASSERT_EQ(stored.type(), CV_32F);
    EXPECT_EQ(cv::countNonZero(stored != expected), 0);

    TIFF* tiff = TIFFOpen(path("r.tiff").c_str(), "r");
    ASSERT_NE(tiff, nullptr);
    uint16_t compression = 0, predictor = 0;
    char* description = nullptr;
    TIFFGetField(tiff, TIFFTAG_COMPRESSION, &compression);
    TIFFGetField(tiff, TIFFTAG_PREDICTOR, &predictor);
    TIFFGetField(tiff, TIFFTAG_IMAGEDESCRIPTION, &description);
    const nlohmann::json meaning = nlohmann::json::parse(description ? description : "null");
    TIFFClose(tiff);
    EXPECT_EQ(compression, COMPRESSION_ADOBE_DEFLATE);
    EXPECT_EQ(predictor, PREDICTOR_FLOATINGPOINT);
    EXPECT_EQ(meaning["values"], "counts");
    EXPECT_EQ(meaning["reference_frame"], "frame1.png");
    EXPECT_EQ(meaning["source_frames"].size(), 5u);
    EXPECT_EQ(meaning["software"], "kelvo-sr " + run("--version").output.substr(9, 5));

    // Counts are stored as they are, rounded.
    const cv::Mat png = cv::imread(path("r.png").string(), cv::IMREAD_UNCHANGED);
    cv::Mat_<unsigned short> rounded;
    expected.convertTo(rounded, CV_16U);
    EXPECT_EQ(cv::countNonZero(png != rounded), 0);
    EXPECT_NE(fileText(path("r.png")).find("\"scale\":1.0"), std::string::npos);

    // The record gives what the summary printed.
    const nlohmann::json record = nlohmann::json::parse(fileText(path("r.json")));
    EXPECT_EQ(record["values"], "counts");
    const nlohmann::json& result = record["results"][0];
    EXPECT_EQ(result["reference"], "frame1.png");
    ASSERT_EQ(result["frames"].size(), 5u);
    for (const nlohmann::json& frame : result["frames"]) {
        char line[128];
        std::snprintf(line, sizeof(line), "%-32s %9.3f %9.3f %6.1f%%",
                      frame["file"].get<std::string>().c_str(), frame["shift"][0].get<double>(),
                      frame["shift"][1].get<double>(),
                      100.0 * frame["valid_fraction"].get<double>());
        EXPECT_NE(burst.output.find(line), std::string::npos) << line << "\n" << burst.output;
    }

    expectFailure("burst" + joined(names) + " -o r.png",
                  "-o r.png: the result is a 32-bit float TIFF, which keeps the measured values; "
                  "name it .tif or .tiff");
    expectFailure("burst" + joined(names) + " --png r.jpg", "--png r.jpg: name it .png.");
    cv::Mat colour(48, 64, CV_8UC3, cv::Scalar(10, 200, 30));
    cv::imwrite(path("palette.png").string(), colour);
    expectFailure("burst palette.png" + joined(names),
                  "'palette.png' is a colour picture: a colour palette maps temperatures to "
                  "colours in a way that cannot be turned back into values");
}

// Frames 1 .. 10 in numeric order with the sixth truncated: it is skipped and named,
// results are named after their reference frames, any number of jobs gives the same
// files, and --start/--end/--every pick the windows.
TEST_F(KelvoSrTool, SequenceOrdersSkipsAndSplitsItsWindows) {
    fs::create_directories(path("frames"));
    std::vector<cv::Mat_<unsigned short>> frames;
    writeBurst(10, "frames/tmp", &frames);
    for (int i = 0; i < 10; ++i) {
        fs::rename(path("frames/tmp" + std::to_string(i) + ".png"),
                   path("frames/" + std::to_string(i + 1) + ".png"));
    }
    fs::remove(path("frames/6.png"));
    std::vector<unsigned char> jpeg;
    cv::imencode(".jpg", cv::Mat_<unsigned char>(48, 64, 100), jpeg);
    std::ofstream(path("frames/6.jpg"), std::ios::binary)
        .write(reinterpret_cast<const char*>(jpeg.data()),
               static_cast<std::streamsize>(jpeg.size() - 2));

    const ToolRun serial = run("sequence frames -o serial --json serial.json");
    EXPECT_EQ(serial.exitCode, 2) << serial.output;
    EXPECT_NE(serial.output.find("warning: skipped frames/6.jpg: Cannot read 'frames/6.jpg': the "
                                 "JPEG file is truncated"),
              std::string::npos)
        << serial.output;
    EXPECT_NE(serial.output.find("frames: 9, skipped: 1, results: 5 in serial"), std::string::npos)
        << serial.output;
    const std::vector<std::string> expected = {"2_sr.tiff", "3_sr.tiff", "4_sr.tiff", "5_sr.tiff",
                                               "7_sr.tiff"};
    const nlohmann::json record = nlohmann::json::parse(fileText(path("serial.json")));
    ASSERT_EQ(record["results"].size(), expected.size());
    EXPECT_EQ(record["skipped"][0]["file"], "frames/6.jpg");
    EXPECT_EQ(record["results"][4]["frames"][4]["file"], "frames/10.png");

    const ToolRun parallel = run("sequence frames -o parallel --jobs 3");
    EXPECT_EQ(parallel.exitCode, 2) << parallel.output;
    for (const std::string& name : expected) {
        const std::string serialFile = fileText(path("serial") / name);
        EXPECT_FALSE(serialFile.empty()) << name;
        EXPECT_TRUE(fileText(path("parallel") / name) == serialFile) << name;
    }

    const ToolRun picked = run("sequence frames -o picked --start 1 --end 8 --every 2 --previews");
    EXPECT_EQ(picked.exitCode, 2) << picked.output;
    std::set<std::string> written;
    for (const auto& entry : fs::directory_iterator(path("picked"))) {
        written.insert(entry.path().filename().string());
    }
    EXPECT_EQ(written, (std::set<std::string>{"3_sr.tiff", "3_sr.png", "5_sr.tiff", "5_sr.png"}));
    // The previews of a sequence share one range, so their colours mean the same.
    const auto previewLook = [&](const std::string& name) {  // palette and range
        const std::string text = fileText(path("picked") / name);
        const std::size_t start = text.find("\"encoding\":") + 11;
        return nlohmann::json::parse(text.substr(start, text.find('}', start) + 1 - start));
    };
    EXPECT_EQ(previewLook("3_sr.png"), previewLook("5_sr.png"));
    EXPECT_EQ(previewLook("3_sr.png")["palette"], "inferno");
    ASSERT_EQ(run("sequence frames -o fixed --previews --palette iron --range 10000 14000 --end 4")
                  .exitCode,
              0);
    EXPECT_EQ(
        fileText(path("fixed/2_sr.png")).find("\"palette\":\"iron\",\"range\":[10000.0,14000.0]") !=
            std::string::npos,
        true);
    expectFailure("sequence frames --start 5 --end 2", "--end 2 lies before --start 5.");
}

// How burst E registers depends on the frames before each window (two windows warn), so
// engines that split the windows must still give each the serial result, byte for byte, and
// so must a run that computes only every second window.
TEST_F(KelvoSrTool, SequenceResultsDoNotDependOnJobsOrEvery) {
    const fs::path burstFolder =
        fs::path(KELVO_SHARED_DATA_DIR) / "hit-uav" / "bursts" / "E_1_60_60_00524-00532";
    if (!fs::is_directory(burstFolder)) {
        GTEST_SKIP() << "real frames not found at " << burstFolder;
    }
    const std::string input = shellQuoted(burstFolder.string());
    const ToolRun serial = run("sequence " + input + " -o serial");
    ASSERT_EQ(serial.exitCode, 2) << serial.output;
    EXPECT_NE(serial.output.find("1 x a frame was displaced"), std::string::npos) << serial.output;
    EXPECT_NE(serial.output.find("3 x at least half of a frame"), std::string::npos)
        << serial.output;
    ASSERT_EQ(run("sequence " + input + " -o parallel --jobs 2").exitCode, 2);
    ASSERT_EQ(run("sequence " + input + " -o picked --jobs 2 --every 2").exitCode, 2);
    for (int number = 525; number <= 529; ++number) {
        const std::string name = "1_60_60_0_00" + std::to_string(number) + "_sr.tiff";
        const std::string serialFile = fileText(path("serial") / name);
        ASSERT_FALSE(serialFile.empty()) << name;
        EXPECT_TRUE(fileText(path("parallel") / name) == serialFile) << name;
        EXPECT_EQ(fs::exists(path("picked") / name), number % 2 == 1) << name;
        if (number % 2 == 1) {
            EXPECT_TRUE(fileText(path("picked") / name) == serialFile) << name;
        }
    }
}

// Writes frames as a lossless FFV1 video: grey (CV_8U or CV_16U), as a thermal camera records
// gray or gray16le, or colour (CV_8UC4, stored as bgr0).
void writeGreyVideo(const fs::path& path, const std::vector<cv::Mat>& frames) {
    av_log_set_level(AV_LOG_ERROR);
    AVFormatContext* format = nullptr;
    ASSERT_GE(avformat_alloc_output_context2(&format, nullptr, nullptr, path.c_str()), 0);
    const AVCodec* encoder = avcodec_find_encoder(AV_CODEC_ID_FFV1);
    ASSERT_NE(encoder, nullptr);
    AVStream* stream = avformat_new_stream(format, nullptr);
    AVCodecContext* codec = avcodec_alloc_context3(encoder);
    codec->width = frames[0].cols;
    codec->height = frames[0].rows;
    codec->pix_fmt = frames[0].channels() == 4     ? AV_PIX_FMT_BGR0
                     : frames[0].depth() == CV_16U ? AV_PIX_FMT_GRAY16LE
                                                   : AV_PIX_FMT_GRAY8;
    codec->time_base = {1, 30};
    if (format->oformat->flags & AVFMT_GLOBALHEADER) {
        codec->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    }
    ASSERT_EQ(avcodec_open2(codec, encoder, nullptr), 0);
    avcodec_parameters_from_context(stream->codecpar, codec);
    stream->time_base = codec->time_base;
    ASSERT_GE(avio_open(&format->pb, path.c_str(), AVIO_FLAG_WRITE), 0);
    ASSERT_GE(avformat_write_header(format, nullptr), 0);
    AVFrame* frame = av_frame_alloc();
    frame->format = codec->pix_fmt;
    frame->width = codec->width;
    frame->height = codec->height;
    av_frame_get_buffer(frame, 0);
    AVPacket* packet = av_packet_alloc();
    const auto send = [&](const AVFrame* picture) {
        avcodec_send_frame(codec, picture);
        while (avcodec_receive_packet(codec, packet) == 0) {
            packet->duration = 1;  // one frame, as cameras write it
            av_packet_rescale_ts(packet, codec->time_base, stream->time_base);
            av_interleaved_write_frame(format, packet);
        }
    };
    for (std::size_t i = 0; i < frames.size(); ++i) {
        av_frame_make_writable(frame);
        frames[i].copyTo(cv::Mat(frame->height, frame->width, frames[i].type(), frame->data[0],
                                 static_cast<std::size_t>(frame->linesize[0])));
        frame->pts = static_cast<std::int64_t>(i);
        send(frame);
    }
    send(nullptr);
    av_write_trailer(format);
    avio_closep(&format->pb);
    av_packet_free(&packet);
    av_frame_free(&frame);
    avcodec_free_context(&codec);
    avformat_free_context(format);
}

// A 16-bit grey video keeps its counts from the file to the result and an 8-bit one its bytes,
// also when stored in a colour format; a palette and a file that is no video are refused.
TEST_F(KelvoSrTool, VideoKeepsGreyValuesAndRefusesPalettes) {
    std::vector<cv::Mat_<unsigned short>> counts;
    writeBurst(6, "frame", &counts);
    std::vector<cv::Mat> frames(counts.begin(), counts.end());
    writeGreyVideo(path("counts.mkv"), frames);
    kelvo::tools::VideoFrameReader reader(path("counts.mkv").string());
    EXPECT_EQ(reader.frameCount(), 6);
    cv::Mat image;
    for (const cv::Mat& written : frames) {
        ASSERT_TRUE(reader.read(image));
        ASSERT_EQ(image.type(), CV_16UC1);
        EXPECT_EQ(cv::norm(image, written, cv::NORM_INF), 0.0);
    }
    EXPECT_FALSE(reader.read(image));

    const ToolRun sequence = run("sequence counts.mkv -o results");
    ASSERT_EQ(sequence.exitCode, 0) << sequence.output;
    EXPECT_NE(sequence.output.find("values: counts"), std::string::npos) << sequence.output;
    const cv::Mat result =
        cv::imread(path("results/frame_000001_sr.tiff").string(), cv::IMREAD_UNCHANGED);
    ASSERT_EQ(result.type(), CV_32F);
    EXPECT_EQ(cv::countNonZero(result != libraryResult({counts.begin(), counts.begin() + 5})), 0);

    for (cv::Mat& frame : frames) {
        frame.convertTo(frame, CV_8U, 1.0 / 64.0, -100.0);
    }
    writeGreyVideo(path("bytes.mkv"), frames);
    kelvo::tools::VideoFrameReader bytes(path("bytes.mkv").string());
    ASSERT_TRUE(bytes.read(image));
    EXPECT_EQ(image.type(), CV_8UC1);
    EXPECT_EQ(cv::norm(image, frames[0], cv::NORM_INF), 0.0);

    // Colour frames are converted with a warning; grey ones keep their values, a palette is
    // refused.
    for (cv::Mat& frame : frames) {
        cv::cvtColor(frame, frame, cv::COLOR_GRAY2BGRA);
    }
    writeGreyVideo(path("grey-in-colour.mkv"), frames);
    const ToolRun converted = run("sequence grey-in-colour.mkv -o converted");
    EXPECT_EQ(converted.exitCode, 0) << converted.output;
    EXPECT_NE(converted.output.find("warning: 'grey-in-colour.mkv' stores its frames in a colour "
                                    "format (bgr0): they are converted to grey"),
              std::string::npos)
        << converted.output;
    ASSERT_EQ(run("sequence bytes.mkv -o bytes").exitCode, 0);
    EXPECT_TRUE(fileText(path("converted/frame_000001_sr.tiff")) ==
                fileText(path("bytes/frame_000001_sr.tiff")));
    for (cv::Mat& frame : frames) {
        frame.col(0).setTo(cv::Scalar(0, 0, 255, 0));
    }
    writeGreyVideo(path("palette.mkv"), frames);
    expectFailure("sequence palette.mkv",
                  "'palette.mkv (frame_000000)' is a colour picture: a colour palette maps");

    std::ofstream(path("noise.mkv")) << std::string(4096, 'x');
    expectFailure("sequence noise.mkv",
                  "Cannot read 'noise.mkv': neither a folder of frames nor a video file.");
}

TEST_F(KelvoSrTool, VersionAndExitCodesAreDocumented) {
    const ToolRun version = run("--version");
    EXPECT_EQ(version.exitCode, 0);
    EXPECT_EQ(version.output.rfind("kelvo-sr ", 0), 0u) << version.output;
    for (const char* command : {"demo", "burst", "sequence", "badpixels"}) {
        const ToolRun help = run(std::string(command) + " --help");
        EXPECT_EQ(help.exitCode, 0);
        EXPECT_NE(help.output.find("Exit codes:\n  0: "), std::string::npos) << command;
    }
}

// Frame 00529 of burst E shows another place: chosen as the reference or kept in the
// window, it leaves a ghost of another part of the scene in the result.
TEST_F(KelvoSrTool, BurstLeavesOutTheFrameThatShowsAnotherPlace) {
    const fs::path burstFolder =
        fs::path(KELVO_SHARED_DATA_DIR) / "hit-uav" / "bursts" / "E_1_60_60_00524-00532";
    if (!fs::is_directory(burstFolder)) {
        GTEST_SKIP() << "real frames not found at " << burstFolder;
    }
    std::string frames;
    for (int number = 524; number <= 532; ++number) {
        frames +=
            " " + shellQuoted(
                      (burstFolder / ("1_60_60_0_00" + std::to_string(number) + ".jpg")).string());
    }
    const ToolRun usable = run("burst -o usable.tiff --usable-frames" + frames);
    EXPECT_EQ(usable.exitCode, 0) << usable.output;
    EXPECT_NE(usable.output.find("00531.jpg (the most consistent)"), std::string::npos)
        << usable.output;
    EXPECT_NE(usable.output.find("left out " + (burstFolder / "1_60_60_0_00529.jpg").string() +
                                 ": correlation "),
              std::string::npos)
        << usable.output;
    EXPECT_EQ(usable.output.find("warning"), std::string::npos) << usable.output;
    // The pass ran on one scene: the result, taken back to the sensor grid, is the
    // reference frame up to noise and compression.
    cv::Mat_<float> result, reference, back;
    cv::imread(path("usable.tiff").string(), cv::IMREAD_UNCHANGED).convertTo(result, CV_32F);
    cv::imread((burstFolder / "1_60_60_0_00531.jpg").string(), cv::IMREAD_GRAYSCALE)
        .convertTo(reference, CV_32F);
    ASSERT_EQ(result.size(), cv::Size(1280, 1024));
    cv::resize(result, back, reference.size(), 0, 0, cv::INTER_AREA);
    const cv::Rect inside(16, 16, 608, 480);
    EXPECT_LT(cv::mean(cv::abs(back(inside) - reference(inside)))[0], 3.0);

    expectFailure("burst --psf-sigma -1" + frames, "--psf-sigma takes auto or a positive number");
    // These compressed frames, with people walking, agree on too little fine detail for an
    // estimate of the sensor blur: the tool says so and keeps the default.
    const ToolRun automatic =
        run("burst -o automatic.tiff --usable-frames --psf-sigma auto" + frames);
    EXPECT_EQ(automatic.exitCode, 0) << automatic.output;
    EXPECT_NE(automatic.output.find("warning: --psf-sigma auto: The frames agree on detail only "
                                    "up to "),
              std::string::npos)
        << automatic.output;
    // Without the selection the last five frames pass, with 00529 as the reference: the
    // estimate is declined, and the warning names the frames.
    const ToolRun ghosted = run("burst -o ghosted.tiff --psf-sigma auto" + frames);
    EXPECT_NE(ghosted.output.find(
                  "with the reference: the PSF sigma needs frames of one scene with clear detail. "
                  "Frame 0 is " +
                  (burstFolder / "1_60_60_0_00528.jpg").string() + ", the reference " +
                  (burstFolder / "1_60_60_0_00529.jpg").string() +
                  ". The sensor blur stays the camera's or the default.\n"),
              std::string::npos)
        << ghosted.output;
}

}  // namespace

// The simulated burst as frames of 14-bit counts (40 per kelvin) with dead and hot pixels at
// the same sensor positions in every frame: lone ones and a 2 x 2 cluster.
class RawCounts : public KelvoSrTool {
protected:
    const std::vector<cv::Point> dead = {{10, 10}, {40, 30}, {21, 35}, {22, 36}};
    const std::vector<cv::Point> hot = {{30, 12}, {55, 40}, {21, 36}, {22, 35}};

    std::vector<std::string> writeRawBurst(const std::string& prefix, bool withDefects) {
        const Burst burst = simulatedBurst(11);
        std::vector<std::string> names;
        for (int i = 0; i < 5; ++i) {
            cv::Mat_<unsigned short> counts;
            burst.frames[i].convertTo(counts, CV_16U, 40.0, 4000.0);
            for (const cv::Point& p : withDefects ? dead : std::vector<cv::Point>()) {
                counts(p) = 0;
            }
            for (const cv::Point& p : withDefects ? hot : std::vector<cv::Point>()) {
                counts(p) = 16383;
            }
            names.push_back(prefix + std::to_string(i) + ".png");
            cv::imwrite(path(names.back()).string(), counts);
        }
        return names;
    }

    // How far the result leaves the range of the defect-free result within four result pixels
    // of a defect: a blob does, a repair that smooths the scene there does not.
    float worstExcursion(const std::string& result, const cv::Mat& clean) const {
        const cv::Mat image = cv::imread(path(result).string(), cv::IMREAD_UNCHANGED);
        double worst = 0.0;
        for (const auto* defects : {&dead, &hot}) {
            for (const cv::Point& p : *defects) {
                const cv::Rect area = cv::Rect(2 * p.x - 4, 2 * p.y - 4, 9, 9) &
                                      cv::Rect(0, 0, image.cols, image.rows);
                double low = 0.0, high = 0.0, cleanLow = 0.0, cleanHigh = 0.0;
                cv::minMaxLoc(image(area), &low, &high);
                cv::minMaxLoc(clean(area), &cleanLow, &cleanHigh);
                worst = std::max({worst, cleanLow - low, high - cleanHigh});
            }
        }
        return static_cast<float>(worst);
    }
};

TEST_F(RawCounts, DeadAndHotPixelsLeaveNoBlob) {
    const ToolRun clean = run("burst" + joined(writeRawBurst("clean", false)) + " -o clean.tiff");
    ASSERT_EQ(clean.exitCode, 0) << clean.output;
    const cv::Mat cleanResult = cv::imread(path("clean.tiff").string(), cv::IMREAD_UNCHANGED);
    const std::string frames = joined(writeRawBurst("frame", true));

    // Integer counts; by default their defects are searched in every frame of the burst.
    const ToolRun automatic = run("burst" + frames + " -o auto.tiff");
    EXPECT_EQ(automatic.exitCode, 0) << automatic.output;
    EXPECT_NE(automatic.output.find("values: counts (integer pixels), valid 0..65535\n"
                                    "bad pixels: 8 found in all 5 frames (--bad-pixels auto)\n"),
              std::string::npos)
        << automatic.output;
    // A table from the badpixels command does as well.
    ASSERT_EQ(run("badpixels frame0.png --table table.csv").exitCode, 0);
    const ToolRun fromTable = run("burst" + frames + " --bad-pixels table.csv -o table.tiff");
    EXPECT_EQ(fromTable.exitCode, 0) << fromTable.output;
    EXPECT_NE(fromTable.output.find("bad pixels: 8 from table.csv"), std::string::npos)
        << fromTable.output;
    const ToolRun untreated = run("burst" + frames + " --bad-pixels none -o none.tiff");
    EXPECT_EQ(untreated.exitCode, 0) << untreated.output;

    // A sequence searches its first five frames.
    fs::create_directories(path("sequence"));
    writeRawBurst("sequence/frame", true);
    const ToolRun sequence = run("sequence sequence -o results");
    EXPECT_EQ(sequence.exitCode, 0) << sequence.output;
    EXPECT_NE(sequence.output.find("bad pixels: 8 found in all 5 frames"), std::string::npos)
        << sequence.output;

    // The scene spans about 1000 counts there; untreated defects ring thousands beyond it.
    EXPECT_LT(worstExcursion("results/frame1_sr.tiff", cleanResult), 20.0f);
    EXPECT_LT(worstExcursion("auto.tiff", cleanResult), 20.0f);
    EXPECT_LT(worstExcursion("table.tiff", cleanResult), 20.0f);
    EXPECT_GT(worstExcursion("none.tiff", cleanResult), 2000.0f);
}

TEST_F(KelvoSrTool, ATemperatureBurstWithExtremePixelsStaysInTemperatures) {
    const Burst burst = simulatedBurst(5);
    std::vector<std::string> names;
    for (int i = 0; i < 5; ++i) {
        cv::Mat_<float> frame = burst.frames[i].clone();
        if (i == 2) {
            frame(5, 5) = 9999.0f;
            frame(20, 40) = -9999.0f;
            frame(30, 10) = 9999.0f;
        }
        names.push_back("t" + std::to_string(i) + ".tiff");
        cv::imwrite(path(names.back()).string(), frame);
    }
    const ToolRun result = run("burst" + joined(names) + " -o result.tiff --png result.png");
    EXPECT_EQ(result.exitCode, 0) << result.output;
    EXPECT_EQ(result.output.find("values: counts"), std::string::npos) << result.output;
    EXPECT_NE(result.output.find("warning: t2.tiff: 3 pixels lie outside the valid temperatures "
                                 "-274..5000 and will be repaired from the pixels around them"),
              std::string::npos)
        << result.output;
    double sceneLow = 0.0, sceneHigh = 0.0, low = 0.0, high = 0.0;
    cv::minMaxLoc(burst.truth, &sceneLow, &sceneHigh);
    cv::minMaxLoc(cv::imread(path("result.tiff").string(), cv::IMREAD_UNCHANGED), &low, &high);
    EXPECT_GT(low, sceneLow - 5.0);
    EXPECT_LT(high, sceneHigh + 5.0);

    // Asked to, the search finds a pixel stuck at one temperature in every frame, and not the
    // extremes of a single frame.
    for (int i = 0; i < 5; ++i) {
        cv::Mat_<float> frame = cv::imread(path(names[i]).string(), cv::IMREAD_UNCHANGED);
        frame(25, 50) = static_cast<float>(sceneHigh) + 60.0f;
        cv::imwrite(path(names[i]).string(), frame);
    }
    const ToolRun stuck = run("burst" + joined(names) + " --bad-pixels auto -o stuck.tiff");
    EXPECT_NE(stuck.output.find("bad pixels: 1 found in all 5 frames"), std::string::npos)
        << stuck.output;

    // Counts stored as floats look like temperatures of a furnace, but are whole numbers.
    for (int i = 0; i < 5; ++i) {
        cv::Mat_<float> counts = burst.frames[i] * 40.0f + 3000.0f;
        for (float& value : counts) {
            value = std::round(value);
        }
        cv::imwrite(path(names[i]).string(), counts);
    }
    const ToolRun floatCounts = run("burst" + joined(names) + " -o counts.tiff");
    EXPECT_NE(floatCounts.output.find(", whole numbers only), valid -32768..65535"),
              std::string::npos)
        << floatCounts.output;

    // Above 382 degrees Celsius centikelvin no longer fit 16 bits: the PNG says so.
    for (int i = 0; i < 5; ++i) {
        cv::imwrite(path(names[i]).string(), cv::Mat(burst.frames[i] + 400.0f));
    }
    const ToolRun hot = run("burst" + joined(names) + " -o hot.tiff --png hot.png");
    EXPECT_NE(hot.output.find("warning: hot.png: 12288 pixels lie outside what 16 bits hold "
                              "(value x 100 + 27315 beyond 0..65535) and were clipped"),
              std::string::npos)
        << hot.output;
}

TEST_F(KelvoSrTool, OnePassOnTheLastFiveFramesNamesAFrameMovedTooFar) {
    BurstOptions options;
    options.frameCount = 7;
    options.referenceFrame = 3;
    options.shifts = {{0.3f, 0.2f}, {-0.4f, 0.1f}, {0.2f, -0.3f}, {0.0f, 0.0f},
                      {0.5f, 0.4f}, {-0.3f, 0.6f}, {7.0f, 0.2f}};
    const Burst burst = BurstSimulator(options).simulate(cv::Size(128, 96));
    std::vector<std::string> names;
    for (int i = 0; i < 7; ++i) {
        names.push_back("m" + std::to_string(i) + ".tiff");
        cv::imwrite(path(names.back()).string(), burst.frames[i]);
    }
    const ToolRun moved = run("burst" + joined(names) + " --timings");
    EXPECT_EQ(moved.exitCode, 2) << moved.output;
    EXPECT_NE(moved.output.find("using the last 5 of 7 frames"), std::string::npos) << moved.output;
    std::size_t passes = 0;
    for (std::size_t at = 0;
         (at = moved.output.find("++++++++++ SrFloat", at)) != std::string::npos; ++at) {
        ++passes;
    }
    EXPECT_EQ(passes, 1u) << moved.output;
    EXPECT_NE(moved.output.find("warning: m6.tiff is displaced by ("), std::string::npos)
        << moved.output;
    EXPECT_NE(moved.output.find("pixels from the reference frame m3.tiff, more than a tenth of the "
                                "frame height (4)"),
              std::string::npos)
        << moved.output;

    // Drowned in noise, the newest frame matches the reference almost nowhere.
    cv::Mat_<float> noise(burst.frames[6].size());
    cv::RNG(3).fill(noise, cv::RNG::NORMAL, 0.0, 50.0);
    cv::imwrite(path("m6.tiff").string(), cv::Mat(burst.frames[5] + noise));
    const ToolRun drowned = run("burst" + joined(names));
    EXPECT_EQ(drowned.exitCode, 2) << drowned.output;
    EXPECT_NE(
        drowned.output.find("% of m6.tiff matched the reference frame m3.tiff (code -3): "
                            "check that it shows the same scene, or try another --reference."),
        std::string::npos)
        << drowned.output;
}

// A real frame as noisy 14-bit counts with planted defects: dead, hot, and stuck at values
// above the scene. The histogram alone also takes the scene's hottest and coldest pixels.
TEST_F(KelvoSrTool, BadPixelsKeepsARealScenesExtremes) {
    const fs::path still =
        fs::path(KELVO_SHARED_DATA_DIR) / "hit-uav/hr_stills/0_100_30_0_08079.jpg";
    if (!fs::is_regular_file(still)) {
        GTEST_SKIP() << "real frames not found in " << still;
    }
    cv::Mat_<float> scene;
    cv::imread(still.string(), cv::IMREAD_GRAYSCALE).convertTo(scene, CV_32F, 40.0, 3000.0);
    cv::GaussianBlur(scene, scene, cv::Size(0, 0), 0.7);
    cv::RNG random(5);
    cv::Mat_<float> noise(scene.size());
    random.fill(noise, cv::RNG::NORMAL, 0.0, 4.0);
    cv::Mat_<unsigned short> counts;
    cv::Mat(scene + noise).convertTo(counts, CV_16U);
    std::set<std::pair<int, int>> planted;
    while (planted.size() < 60) {
        const int x = random.uniform(0, counts.cols), y = random.uniform(0, counts.rows);
        const int kind = static_cast<int>(planted.size() % 3);
        counts(y, x) = kind == 0 ? 0 : kind == 1 ? 16383 : random.uniform(14000, 16000);
        planted.insert({x, y});
    }
    cv::imwrite(path("real.png").string(), counts);

    const ToolRun local = run("badpixels real.png --table local.csv");
    EXPECT_EQ(local.exitCode, 0) << local.output;
    EXPECT_EQ(badPixelsOf(readCsv(path("local.csv"))), planted);
    EXPECT_NE(local.output.find(" extreme values that match the pixels around it as scene "
                                "(--search histogram would repair them too)"),
              std::string::npos)
        << local.output;
    const ToolRun histogram = run("badpixels real.png --search histogram --table histogram.csv");
    EXPECT_EQ(histogram.exitCode, 0) << histogram.output;
    const std::set<std::pair<int, int>> everything = badPixelsOf(readCsv(path("histogram.csv")));
    EXPECT_TRUE(
        std::includes(everything.begin(), everything.end(), planted.begin(), planted.end()));
    EXPECT_GT(everything.size(), planted.size() + 5);
}
