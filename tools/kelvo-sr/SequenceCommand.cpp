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
#include <opencv2/core/utils/logger.hpp>
#include <opencv2/imgproc.hpp>
#include <opencv2/videoio.hpp>

#include "tools/kelvo-sr/CommandSupport.h"
#include "tools/kelvo-sr/Commands.h"
#include "tools/kelvo-sr/EngineChoice.h"
#include "tools/kelvo-sr/ImageFiles.h"
#include "tools/kelvo-sr/QuietStandardOutput.h"
#include "tools/kelvo-sr/RunReport.h"
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
        : rawFormat(rawFormat), position(options.start), end(options.end) {
        const std::string& input = options.input;
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
        if (!fs::is_regular_file(input) || !openQuietly(input)) {
            throw std::runtime_error("Cannot read '" + input +
                                     "': neither a folder of frames nor a video file.");
        }
        for (int skipped = 0; skipped < options.start && video.grab(); ++skipped) {
        }
    }

    // Number of frames to read, or -1 when a video does not tell.
    int count() const {
        const double total =
            files.empty() ? video.get(cv::CAP_PROP_FRAME_COUNT) : static_cast<double>(files.size());
        if (total <= 0) {
            return -1;
        }
        const int last = end >= 0 ? std::min<int>(end, static_cast<int>(total) - 1)
                                  : static_cast<int>(total) - 1;
        return std::max(0, last - position + 1);
    }

    // The next readable frame; false at the end. Unreadable files are added to `skipped`.
    // storedDepth, when given, receives the depth of the frame's stored pixels.
    bool next(NamedFrame& frame, std::vector<std::pair<std::string, std::string>>& skipped,
              int* storedDepth = nullptr) {
        while (end < 0 || position <= end) {
            if (files.empty()) {
                cv::Mat image;
                if (!video.read(image) || image.empty()) {
                    return false;
                }
                char name[32];
                std::snprintf(name, sizeof(name), "frame_%06d", position++);
                frame.name = name;
                frame.image = toSingleChannelFrame(image, name);
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
    // Each video back end that fails to open the file logs its own exception; the one message
    // below says what matters.
    bool openQuietly(const std::string& input) {
        const auto level = cv::utils::logging::getLogLevel();
        cv::utils::logging::setLogLevel(cv::utils::logging::LOG_LEVEL_SILENT);
        const bool opened = video.open(input);
        cv::utils::logging::setLogLevel(level);
        return opened;
    }

    const RawFormat* rawFormat;
    std::vector<std::string> files;
    cv::VideoCapture video;
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

// How every engine of the run is made: from the run's opening burst, which decides the
// values and the known bad pixels once for all of them.
struct EngineRecipe {
    EngineOptions options;
    std::vector<cv::Mat_<float>> opening;
    int storedDepth;

    std::unique_ptr<FrameEngine> make() const {
        return makeFrameEngine(options, opening, storedDepth);
    }
};

// Computes the results of a run of consecutive windows on one engine of its own: the
// first window fills it, each further one slides it by a frame. A result depends on
// the frames of its window only, so any split of the windows gives the same results.
class WindowWorker {
public:
    WindowWorker(const SequenceOptions& options, const EngineRecipe& recipe, ValueKind values,
                 ThermalPreview::Range previewRange)
        : options(options), recipe(recipe), values(values), previewRange(previewRange) {}

    // Results for the windows ending at the batch positions `ends` (ascending).
    std::vector<ResultRecord> run(const std::vector<NamedFrame>& batch,
                                  const std::vector<int>& ends) {
        std::vector<ResultRecord> records;
        std::unique_ptr<FrameEngine> engine;
        int fedUpTo = -1;
        for (const int end : ends) {
            if (!engine || fedUpTo != end - 1) {
                renewEngine(engine, true);
                fedUpTo = end - kWindowSize;
            }
            std::vector<std::string> window;
            for (int i = end - kWindowSize + 1; i <= end; ++i) {
                window.push_back(batch[i].name);
            }
            cv::Mat_<float> result;
            ResultRecord record;
            {
                int status = 0;
                double passMilliseconds = 0.0;
                while (fedUpTo < end) {
                    const auto start = std::chrono::steady_clock::now();
                    const NamedFrame& frame = batch[++fedUpTo];
                    try {
                        status = engine->addFrame(frame.image);
                    } catch (const std::runtime_error& error) {
                        throw std::runtime_error(frame.name + ": " + error.what());
                    }
                    passMilliseconds = std::chrono::duration<double, std::milli>(
                                           std::chrono::steady_clock::now() - start)
                                           .count();
                }
                const PassReport pass = engine->lastPass();
                result = engine->result();
                record = recordPass(pass, window, pass.status != 0 ? pass.status : status,
                                    passMilliseconds);
            }
            // A pass that matched no frame to its reference leaves no result of its own.
            if (record.status != kRegistrationFailed) {
                write(result, record);
            } else {
                std::cerr << "warning: " << batch[end].name
                          << ": no frame could be matched to the reference frame; no result written"
                          << std::endl;
            }
            records.push_back(record);
        }
        renewEngine(engine, false);
        return records;
    }

private:
    // Closes the engine, and opens a new one for the next run of windows when asked.
    void renewEngine(std::unique_ptr<FrameEngine>& engine, bool open) {
        engine.reset();
        if (open) {
            engine = recipe.make();
        }
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
    const EngineRecipe& recipe;
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

    // The first readable frames (the batch's start) open the run: they decide the values.
    RunRecord run{"sequence", ValueKind::kTemperature, !options.engine.calibration.empty(), {}, {}};
    std::vector<NamedFrame> batch;  // frames read; the first four repeat the last batch's end
    EngineRecipe recipe{options.engine, {}, CV_8U};
    NamedFrame frame;
    while (batch.size() < kWindowSize &&
           sequence.next(frame, run.skipped, batch.empty() ? &recipe.storedDepth : nullptr)) {
        recipe.opening.push_back(frame.image);
        batch.push_back(std::move(frame));
    }
    if (batch.size() < kWindowSize) {
        std::cerr << "kelvo-sr: fewer than five readable frames: no result." << std::endl;
        return 1;
    }
    FrameValues values;
    // With --psf-sigma auto, the opening burst's estimate serves every window.
    std::vector<std::size_t> openingWindow(recipe.opening.size());
    std::iota(openingWindow.begin(), openingWindow.end(), std::size_t{0});
    std::vector<std::string> openingNames;
    for (const NamedFrame& opening : batch) {
        openingNames.push_back(opening.name);
    }
    resolvePsfSigma(recipe.options, recipe.opening, openingWindow, openingNames);
    {
        // Every job's engine gets a slot in the interface's table before the jobs start.
        std::vector<std::unique_ptr<FrameEngine>> reserved;
        reserved.push_back(recipe.make());
        values = reserved.front()->values();
        run.values = values.kind;
        QuietStandardOutput quiet;  // the decisions about the frames are printed once
        while (static_cast<int>(reserved.size()) < options.jobs) {
            reserved.push_back(recipe.make());
        }
        for (const NamedFrame& opening : batch) {
            warnOutsideRange(opening.name, opening.image, reserved.front()->values());
        }
    }
    int goodFrames = static_cast<int>(batch.size());
    const ThermalPreview::Range range = previewRange(options.look, recipe.opening);
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
            // Contiguous shares of the windows, one per job.
            const std::size_t jobs =
                std::min<std::size_t>(options.jobs, std::max<std::size_t>(1, ends.size()));
            std::vector<std::future<std::vector<ResultRecord>>> shares;
            for (std::size_t job = 0; job < jobs; ++job) {
                const std::vector<int> share(ends.begin() + ends.size() * job / jobs,
                                             ends.begin() + ends.size() * (job + 1) / jobs);
                shares.push_back(std::async(std::launch::async, [&, share] {
                    return WindowWorker(options, recipe, run.values, range).run(batch, share);
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
