// SPDX-License-Identifier: Apache-2.0
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <future>
#include <iostream>
#include <map>
#include <numeric>
#include <opencv2/imgproc.hpp>

#include "tools/kelvo-sr/CommandSupport.h"
#include "tools/kelvo-sr/Commands.h"
#include "tools/kelvo-sr/EngineChoice.h"
#include "tools/kelvo-sr/ImageFiles.h"
#include "tools/kelvo-sr/QuietStandardOutput.h"
#include "tools/kelvo-sr/RunReport.h"
#include "tools/kelvo-sr/VideoFrameReader.h"
#include "tools/simulator/ThermalPreview.h"

namespace kelvo::tools {

namespace {

namespace fs = std::filesystem;

constexpr int kWindowSize = 5;
// Frames held at once: enough windows for every job, little memory (64 frames of
// 640x512 take 84 MB).
constexpr int kBatchFrames = 64;

bool isFrameFile(const fs::path& path) {
    std::string extension = path.extension().string();
    std::transform(extension.begin(), extension.end(), extension.begin(), ::tolower);
    for (const char* known : {".png", ".tif", ".tiff", ".jpg", ".jpeg", ".raw", ".bin"}) {
        if (extension == known) {
            return true;
        }
    }
    return false;
}

// File names in the order people number them: "frame2" before "frame10". Runs of digits
// compare by value, everything else character by character.
bool naturalLess(const std::string& a, const std::string& b) {
    std::size_t i = 0, j = 0;
    while (i < a.size() && j < b.size()) {
        if (std::isdigit(static_cast<unsigned char>(a[i])) &&
            std::isdigit(static_cast<unsigned char>(b[j]))) {
            std::size_t endA = i, endB = j;
            while (endA < a.size() && std::isdigit(static_cast<unsigned char>(a[endA])))
                ++endA;
            while (endB < b.size() && std::isdigit(static_cast<unsigned char>(b[endB])))
                ++endB;
            std::size_t startA = a.find_first_not_of('0', i), startB = b.find_first_not_of('0', j);
            startA = std::min(startA, endA);
            startB = std::min(startB, endB);
            if (endA - startA != endB - startB) {
                return endA - startA < endB - startB;
            }
            const int order = a.compare(startA, endA - startA, b, startB, endB - startB);
            if (order != 0) {
                return order < 0;
            }
            i = endA;
            j = endB;
        } else {
            if (a[i] != b[j]) {
                return a[i] < b[j];
            }
            ++i;
            ++j;
        }
    }
    return a.size() - i < b.size() - j || (a.size() - i == b.size() - j && a < b);
}

struct NamedFrame {
    std::string name;  // the file, or the frame's number in a video
    cv::Mat_<float> image;
};

// The frames of a folder in natural name order, or of a video file in time order, from
// position `start` to `end`. Frames that cannot be read are skipped with a warning.
class FrameSequence {
public:
    FrameSequence(const SequenceOptions& options, const RawFormat* rawFormat)
        : input(options.input), rawFormat(rawFormat), position(options.start), end(options.end) {
        if (fs::is_directory(input)) {
            for (const auto& entry : fs::directory_iterator(input)) {
                if (entry.is_regular_file() && isFrameFile(entry.path())) {
                    files.push_back(entry.path().string());
                }
            }
            std::sort(files.begin(), files.end(), [](const std::string& a, const std::string& b) {
                return naturalLess(fs::path(a).filename().string(),
                                   fs::path(b).filename().string());
            });
            if (files.empty()) {
                throw std::runtime_error("'" + input + "' holds no frame files.");
            }
            return;
        }
        if (!fs::is_regular_file(input)) {
            throw std::runtime_error("Cannot read '" + input +
                                     "': neither a folder of frames nor a video file.");
        }
        video = std::make_unique<VideoFrameReader>(input);
        cv::Mat unused;
        for (int skipped = 0; skipped < options.start && video->read(unused); ++skipped) {
        }
    }

    // Number of frames to read, or -1 when a video does not tell.
    int count() const {
        const int total = files.empty() ? video->frameCount() : static_cast<int>(files.size());
        if (total <= 0) {
            return -1;
        }
        const int last = end >= 0 ? std::min(end, total - 1) : total - 1;
        return std::max(0, last - position + 1);
    }

    // The next readable frame; false at the end. Unreadable files are added to `skipped`.
    // storedDepth, when given, receives the depth of the frame's stored pixels.
    bool next(NamedFrame& frame, std::vector<std::pair<std::string, std::string>>& skipped,
              int* storedDepth = nullptr) {
        while (end < 0 || position <= end) {
            if (files.empty()) {
                char name[32];
                std::snprintf(name, sizeof(name), "frame_%06d", position++);
                frame.name = name;
                cv::Mat image;
                try {
                    if (!video->read(image)) {
                        return false;
                    }
                } catch (const std::runtime_error& error) {
                    std::cerr << "warning: skipped " << frame.name << ": " << error.what()
                              << std::endl;
                    skipped.emplace_back(frame.name, error.what());
                    continue;
                }
                frame.image = toSingleChannelFrame(image, input + " (" + name + ")");
                if (storedDepth != nullptr) {
                    *storedDepth = image.depth();
                }
                return true;
            }
            if (position >= static_cast<int>(files.size())) {
                return false;
            }
            frame.name = files[position++];
            try {
                frame.image = readFrame(frame.name, rawFormat, storedDepth);
                return true;
            } catch (const std::runtime_error& error) {
                std::cerr << "warning: skipped " << frame.name << ": " << error.what() << std::endl;
                skipped.emplace_back(frame.name, error.what());
            }
        }
        return false;
    }

private:
    const std::string input;
    const RawFormat* rawFormat;
    std::vector<std::string> files;
    std::unique_ptr<VideoFrameReader> video;
    int position;
    int end;
};

std::string resultStem(const std::string& referenceName) {
    return fs::path(referenceName).stem().string() + "_sr";
}

void showProgress(int done, int total) {
    const int width = 40;
    if (total > 0) {
        const int filled = width * std::min(done, total) / total;
        std::fprintf(stderr, "\r[%s%s] %d/%d", std::string(filled, '#').c_str(),
                     std::string(width - filled, ' ').c_str(), done, total);
    } else {
        std::fprintf(stderr, "\r%d results", done);
    }
    std::fflush(stderr);
}

// Computes the results of its share of the windows on an engine of its own. How a window's
// frames register depends on frames the engine took before the window: registration converts
// frames to 8 bits over a range that follows them only when one leaves it, however long ago
// that was. So the engine takes every frame of the sequence in order, the frames that end its
// windows with a pass and all others without one (a few milliseconds each instead of a pass),
// and each result is the one a single engine given every frame computes, whatever the share.
class WindowWorker {
public:
    WindowWorker(const SequenceOptions& options, std::unique_ptr<FrameEngine> engine,
                 ValueKind values, ThermalPreview::Range previewRange)
        : options(options), engine(std::move(engine)), values(values), previewRange(previewRange) {}

    // Takes the frames of the batch it has not taken yet (`batchStart` is the position of
    // the batch's first frame in the sequence) and returns the results of the windows ending
    // at the batch positions `ends` (ascending).
    std::vector<ResultRecord> run(const std::vector<NamedFrame>& batch, int batchStart,
                                  const std::vector<int>& ends) {
        std::vector<ResultRecord> records;
        auto nextEnd = ends.begin();
        for (int end = framesTaken - batchStart; end < static_cast<int>(batch.size()); ++end) {
            const bool windowEnds = nextEnd != ends.end() && *nextEnd == end;
            const auto start = std::chrono::steady_clock::now();
            int status = 0;
            try {
                status = windowEnds ? engine->addFrame(batch[end].image)
                                    : engine->loadFrame(batch[end].image);
            } catch (const std::runtime_error& error) {
                throw std::runtime_error(batch[end].name + ": " + error.what());
            }
            ++framesTaken;
            if (windowEnds) {
                ++nextEnd;
                records.push_back(finishWindow(batch, end, status,
                                               std::chrono::duration<double, std::milli>(
                                                   std::chrono::steady_clock::now() - start)
                                                   .count()));
            }
        }
        return records;
    }

private:
    ResultRecord finishWindow(const std::vector<NamedFrame>& batch, int end, int status,
                              double passMilliseconds) {
        std::vector<std::string> window;
        for (int i = end - kWindowSize + 1; i <= end; ++i) {
            window.push_back(batch[i].name);
        }
        const PassReport pass = engine->lastPass();
        ResultRecord record =
            recordPass(pass, window, pass.status != 0 ? pass.status : status, passMilliseconds);
        // A pass that matched no frame to its reference leaves no result of its own.
        if (record.status != kRegistrationFailed) {
            write(engine->result(), record);
        } else {
            std::cerr << "warning: " << batch[end].name
                      << ": no frame could be matched to the reference frame; no result written"
                      << std::endl;
        }
        return record;
    }

    void write(const cv::Mat_<float>& result, ResultRecord& record) const {
        const ImageMeaning meaning = meaningOf(values, !options.engine.calibration.empty(), record);
        const fs::path stem = fs::path(options.outputFolder) / resultStem(record.reference);
        record.result = stem.string() + ".tiff";
        writeFloatTiff(record.result, result, meaning);
        record.outputs.push_back(record.result);
        if (options.previews) {
            const std::string preview = stem.string() + ".png";
            writePreview(preview, result, options.look, previewRange, meaning);
            record.outputs.push_back(preview);
        }
    }

    const SequenceOptions& options;
    std::unique_ptr<FrameEngine> engine;
    int framesTaken = 0;  // frames of the sequence the engine has taken
    ValueKind values;
    ThermalPreview::Range previewRange;  // one for the whole sequence, so colours stay put
};

}  // namespace

int runSequence(const SequenceOptions& options) {
    if (options.end >= 0 && options.end < options.start) {
        throw std::runtime_error("--end " + std::to_string(options.end) + " lies before --start " +
                                 std::to_string(options.start) + ".");
    }
    const auto rawFormat = rawFormatFromOptions(options.rawSize, options.rawType);
    FrameSequence sequence(options, rawFormat.get());
    fs::create_directories(options.outputFolder);
    const bool terminal = isatty(STDERR_FILENO) != 0;
    const int frameCount = sequence.count();
    const int expectedResults =
        frameCount >= kWindowSize ? (frameCount - kWindowSize) / options.every + 1 : 0;

    // The first readable frames (the batch's start) open the run: they decide the values and
    // the known bad pixels once for every engine.
    RunRecord run{"sequence", ValueKind::kTemperature, !options.engine.calibration.empty(), {}, {}};
    std::vector<NamedFrame> batch;  // frames read; the first four repeat the last batch's end
    std::vector<cv::Mat_<float>> opening;
    int storedDepth = CV_8U;
    NamedFrame frame;
    while (batch.size() < kWindowSize &&
           sequence.next(frame, run.skipped, batch.empty() ? &storedDepth : nullptr)) {
        opening.push_back(frame.image);
        batch.push_back(std::move(frame));
    }
    if (batch.size() < kWindowSize) {
        std::cerr << "kelvo-sr: fewer than five readable frames: no result." << std::endl;
        return 1;
    }
    // With --psf-sigma auto, the opening burst's estimate serves every window.
    EngineOptions engineOptions = options.engine;
    std::vector<std::size_t> openingWindow(opening.size());
    std::iota(openingWindow.begin(), openingWindow.end(), std::size_t{0});
    std::vector<std::string> openingNames;
    for (const NamedFrame& openingFrame : batch) {
        openingNames.push_back(openingFrame.name);
    }
    resolvePsfSigma(engineOptions, opening, openingWindow, openingNames);
    const ThermalPreview::Range range = previewRange(options.look, opening);
    // One engine per job, all made before the jobs start.
    std::vector<WindowWorker> workers;
    workers.reserve(options.jobs);
    std::unique_ptr<FrameEngine> firstEngine = makeFrameEngine(engineOptions, opening, storedDepth);
    const FrameValues values = firstEngine->values();
    run.values = values.kind;
    workers.emplace_back(options, std::move(firstEngine), run.values, range);
    {
        QuietStandardOutput quiet;  // the decisions about the frames are printed once
        while (static_cast<int>(workers.size()) < options.jobs) {
            workers.emplace_back(options, makeFrameEngine(engineOptions, opening, storedDepth),
                                 run.values, range);
        }
    }
    for (const NamedFrame& openingFrame : batch) {
        warnOutsideRange(openingFrame.name, openingFrame.image, values);
    }
    int goodFrames = static_cast<int>(batch.size());
    {
        QuietStandardOutput quiet(!options.engine.timings);
        for (bool more = true; more;) {
            more = sequence.next(frame, run.skipped);
            if (more) {
                warnOutsideRange(frame.name, frame.image, values);
                batch.push_back(std::move(frame));
                ++goodFrames;
            }
            if (static_cast<int>(batch.size()) < (more ? kBatchFrames : kWindowSize)) {
                continue;
            }
            // Windows end at every `every`-th good frame from the fifth on.
            const int firstGood = goodFrames - static_cast<int>(batch.size());
            std::vector<int> ends;
            for (int end = kWindowSize - 1; end < static_cast<int>(batch.size()); ++end) {
                if ((firstGood + end - (kWindowSize - 1)) % options.every == 0) {
                    ends.push_back(end);
                }
            }
            // Contiguous shares of the windows, one per job; every job takes every frame.
            const std::size_t jobs = workers.size();
            std::vector<std::future<std::vector<ResultRecord>>> shares;
            for (std::size_t job = 0; job < jobs; ++job) {
                const std::vector<int> share(ends.begin() + ends.size() * job / jobs,
                                             ends.begin() + ends.size() * (job + 1) / jobs);
                shares.push_back(std::async(std::launch::async, [&, job, share] {
                    return workers[job].run(batch, firstGood, share);
                }));
            }
            for (auto& share : shares) {
                for (ResultRecord& record : share.get()) {
                    run.results.push_back(std::move(record));
                }
            }
            if (terminal) {
                showProgress(static_cast<int>(run.results.size()), expectedResults);
            }
            batch.erase(batch.begin(),
                        batch.end() - std::min<std::size_t>(batch.size(), kWindowSize - 1));
        }
    }
    if (terminal) {
        std::fprintf(stderr, "\n");
    }

    // Passes that matched no frame to their reference wrote nothing: they are no results.
    const auto unmatched = std::stable_partition(
        run.results.begin(), run.results.end(),
        [](const ResultRecord& record) { return record.status != kRegistrationFailed; });
    const long unmatchedCount = std::distance(unmatched, run.results.end());
    run.results.erase(unmatched, run.results.end());
    std::map<int, int> warnings;
    double passMilliseconds = 0.0;
    for (const ResultRecord& record : run.results) {
        passMilliseconds += record.passMilliseconds;
        if (record.status != 0) {
            ++warnings[record.status];
        }
    }
    std::cout << "frames: " << goodFrames << ", skipped: " << run.skipped.size()
              << ", results: " << run.results.size() << " in " << options.outputFolder << std::endl;
    for (const auto& [status, count] : warnings) {
        std::cout << "  " << count << " x " << statusText(status) << std::endl;
    }
    if (unmatchedCount > 0) {
        std::cout << "  " << unmatchedCount
                  << " x no frame matched the reference frame (too little structure): no result"
                  << std::endl;
    }
    if (!options.json.empty()) {
        writeJson(options.json, run);
        std::cout << "wrote " << options.json << std::endl;
    }
    if (run.results.empty()) {
        std::cerr << "kelvo-sr: no pass matched its frames: no result." << std::endl;
        return 1;
    }
    std::cout << "mean time per pass: " << passMilliseconds / run.results.size() << " ms"
              << std::endl;
    return warnings.empty() && run.skipped.empty() && unmatchedCount == 0 ? 0 : 2;
}

}  // namespace kelvo::tools
