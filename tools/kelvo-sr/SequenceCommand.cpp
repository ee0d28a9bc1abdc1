#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
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
#include "tools/simulator/ThermalPreview.h"

namespace kelvo::tools {

namespace {

namespace fs = std::filesystem;

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

// The frames of a folder in name order, or of a video file in time order.
class FrameSequence {
public:
    FrameSequence(const std::string& input, const RawFormat* rawFormat) : rawFormat(rawFormat) {
        if (fs::is_directory(input)) {
            for (const auto& entry : fs::directory_iterator(input)) {
                if (entry.is_regular_file() && isFrameFile(entry.path())) {
                    files.push_back(entry.path().string());
                }
            }
            std::sort(files.begin(), files.end());
            if (files.empty()) {
                throw std::runtime_error("'" + input + "' holds no frame files.");
            }
            return;
        }
        if (!fs::is_regular_file(input) || !openQuietly(input)) {
            throw std::runtime_error("Cannot read '" + input +
                                     "': neither a folder of frames nor a video file.");
        }
    }

    // Number of frames, or -1 when a video does not tell.
    int count() const {
        if (!files.empty()) {
            return static_cast<int>(files.size());
        }
        const double frames = video.get(cv::CAP_PROP_FRAME_COUNT);
        return frames > 0 ? static_cast<int>(frames) : -1;
    }

    // The name of the frame at a position, for messages.
    std::string name(std::size_t at) const {
        return at < files.size() ? files[at] : "frame " + std::to_string(at) + " of the video";
    }

    // Reads the next frame; storedDepth, when given, receives the depth of its stored pixels.
    bool next(cv::Mat_<float>& frame, int* storedDepth = nullptr) {
        if (!files.empty()) {
            if (position >= files.size()) {
                return false;
            }
            frame = readFrame(files[position++], rawFormat, storedDepth);
            return true;
        }
        cv::Mat image;
        if (!video.read(image) || image.empty()) {
            return false;
        }
        if (image.channels() == 3) {
            cv::cvtColor(image, image, cv::COLOR_BGR2GRAY);
        }
        if (storedDepth != nullptr) {
            *storedDepth = image.depth();
        }
        image.convertTo(frame, CV_32F);
        ++position;
        return true;
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
    std::size_t position = 0;
};

void showProgress(int done, int total) {
    const int width = 40;
    if (total > 0) {
        const int filled = width * done / total;
        std::fprintf(stderr, "\r[%s%s] %d/%d", std::string(filled, '#').c_str(),
                     std::string(width - filled, ' ').c_str(), done, total);
    } else {
        std::fprintf(stderr, "\r%d frames", done);
    }
    std::fflush(stderr);
}

}  // namespace

int runSequence(const SequenceOptions& options) {
    const auto rawFormat = rawFormatFromOptions(options.rawSize, options.rawType);
    FrameSequence sequence(options.input, rawFormat.get());
    fs::create_directories(options.outputFolder);
    const bool terminal = isatty(STDERR_FILENO) != 0;

    std::unique_ptr<FrameEngine> resolver;
    std::map<int, int> failures;
    int frames = 0, passes = 0, unmatched = 0;
    double passSeconds = 0.0;
    // The opening burst is read ahead: its frames configure the values and the bad pixels.
    std::vector<cv::Mat_<float>> opening;
    cv::Mat_<float> frame;
    int storedDepth = CV_8U;
    while (opening.size() < 5 && sequence.next(frame, opening.empty() ? &storedDepth : nullptr)) {
        opening.push_back(frame.clone());
    }
    std::size_t nextOpening = 0;
    const auto nextFrame = [&](cv::Mat_<float>& next) {
        if (nextOpening < opening.size()) {
            next = opening[nextOpening++];
            return true;
        }
        return sequence.next(next);
    };
    // With --psf-sigma auto, the opening burst's estimate serves every window.
    EngineOptions engine = options.engine;
    std::vector<std::size_t> openingWindow(opening.size());
    std::iota(openingWindow.begin(), openingWindow.end(), std::size_t{0});
    resolvePsfSigma(engine, opening, openingWindow);
    while (nextFrame(frame)) {
        if (!resolver) {
            resolver = makeFrameEngine(engine, opening, storedDepth);
        }
        const auto start = std::chrono::steady_clock::now();
        const int status = addNamedFrame(*resolver, sequence.name(frames), frame);
        ++frames;
        // A pass that matched no frame to its reference leaves the previous result in place:
        // that is no result for this frame.
        if (frames >= 5 && resolver->lastPass().status == kRegistrationFailed) {
            ++unmatched;
            std::cerr << "warning: " << sequence.name(frames - 1)
                      << ": no frame could be matched to the reference frame; no result written"
                      << std::endl;
        } else if (frames >= 5) {
            passSeconds +=
                std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
            ++passes;
            char name[64];
            std::snprintf(name, sizeof(name), "sr_%06d", frames - 1);
            const cv::Mat_<float> result = resolver->result();
            writeFloatTiff(
                (fs::path(options.outputFolder) / (std::string(name) + ".tiff")).string(), result);
            if (options.previews) {
                writeColourImage(
                    (fs::path(options.outputFolder) / (std::string(name) + ".png")).string(),
                    ThermalPreview::render(result, ThermalPreview::robustRange(result)));
            }
        }
        if (status != 0) {
            ++failures[status];
        }
        if (terminal) {
            showProgress(frames, sequence.count());
        }
    }
    if (terminal) {
        std::fprintf(stderr, "\n");
    }

    std::cout << "frames: " << frames << ", results: " << passes << " in " << options.outputFolder
              << std::endl;
    for (const auto& [status, count] : failures) {
        std::cout << "  " << count << " x " << SuperResolver::describe(status) << std::endl;
    }
    if (unmatched > 0) {
        std::cout << "  " << unmatched
                  << " x no frame matched the reference frame (too little structure): no result"
                  << std::endl;
    }
    if (passes > 0) {
        std::cout << "mean time per pass: " << 1000.0 * passSeconds / passes << " ms" << std::endl;
    } else {
        std::cerr << (frames < 5 ? "kelvo-sr: fewer than five frames: no result."
                                 : "kelvo-sr: no pass matched its frames: no result.")
                  << std::endl;
        return 1;
    }
    return failures.empty() && unmatched == 0 ? 0 : 2;
}

}  // namespace kelvo::tools
