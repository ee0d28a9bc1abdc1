#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "tools/simulator/BurstSimulator.h"

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
        if (!folder.empty()) {
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
        BurstOptions options;
        options.frameCount = frameCount;
        options.referenceFrame = 1;
        options.seed = 11;
        const Burst burst = BurstSimulator(options).simulate(cv::Size(128, 96));
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
    EXPECT_NE(fromPng.output.find("wrote png.tiff (128x96)"), std::string::npos) << fromPng.output;

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
    EXPECT_EQ(written, (std::set<std::string>{"sr_000004.tiff", "sr_000005.tiff"}));
    EXPECT_NE(sequence.output.find("frames: 6, results: 2 in results"), std::string::npos)
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
    const ToolRun usable = run("burst -o usable.tiff --usable-frames --psf-sigma auto" + frames);
    EXPECT_EQ(usable.exitCode, 0) << usable.output;
    EXPECT_NE(usable.output.find("00531.jpg (the most consistent)"), std::string::npos)
        << usable.output;
    EXPECT_NE(usable.output.find("left out " + (burstFolder / "1_60_60_0_00529.jpg").string() +
                                 ": correlation "),
              std::string::npos)
        << usable.output;
    EXPECT_NE(usable.output.find("PSF sigma estimated from the first four frames: "),
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
}

}  // namespace
