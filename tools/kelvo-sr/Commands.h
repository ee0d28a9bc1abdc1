// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace kelvo::tools {

// Options shared by the commands that process the user's own frames.
struct EngineOptions {
    std::string cameraAndLensType;
    int referenceIndex = 3;
    std::string values = "auto";  // auto, temperature or counts
    // auto, none, or a CSV table of bad pixels; empty: auto for counts, none for temperatures
    std::string badPixels;
    bool timings = false;
    std::string engine = "float";          // float or reference
    std::vector<std::string> calibration;  // reference engine: two-point calibration of counts
    // Sensor blur in result pixels: empty for the camera's (or the default), "auto" to
    // estimate it from the frames, or a number.
    std::string psfSigma;
};

// How previews are coloured: the palette, and a fixed range (low, high) or none for one
// chosen from the data.
struct PreviewOptions {
    std::string palette = "inferno";
    std::vector<float> range;
};

struct DemoOptions {
    std::string outputFolder = "kelvo-sr-demo";
    int width = 320;
    int height = 256;
    unsigned long seed = 7;
    bool timings = false;
};

struct BurstCommandOptions {
    std::vector<std::string> frames;
    std::string rawSize;
    std::string rawType;
    std::string output = "superresolved.tiff";
    std::string png;
    std::string preview;
    std::string compare;
    std::vector<int> crop;  // x, y, width, height in result pixels; empty: the whole image
    std::string json;       // machine-readable record of the run; empty: none
    PreviewOptions look;
    // Choose the reference and leave out the frames that do not match it, instead of
    // taking the last five frames as they come.
    bool usableFrames = false;
    EngineOptions engine;
};

struct SequenceOptions {
    std::string input;
    std::string outputFolder = "kelvo-sr-sequence";
    std::string rawSize;
    std::string rawType;
    bool previews = false;
    std::string json;  // machine-readable record of the run; empty: none
    // Frames by their position in the sequence (0 = the first), both ends included, and
    // one result for every `every` windows.
    int start = 0;
    int end = -1;  // -1: up to the last frame
    int every = 1;
    int jobs = 1;  // windows computed at once, each on its own engine
    PreviewOptions look;
    EngineOptions engine;
};

struct BadPixelsOptions {
    std::string input;
    std::string rawSize;
    std::string rawType;
    std::string table = "badpixels.csv";
    std::string output = "repaired.png";
    std::string drawing = "badpixels.png";
    std::string known;  // CSV of bad pixels known beforehand; empty: none
    // Values at or beyond either end count as defective; unset: the full scale of the
    // image's bit depth (0 .. 2^n - 1, or -2^n .. 2^n - 1 with negative values).
    std::optional<int> low;
    std::optional<int> high;
    std::string search = "local";  // local or histogram
    int capacity = 10000;
    int maxNeighbours = 3;
    int span = 4;
    int radius = 3;
    int markSize = 7;
    bool randomColours = false;
};

// Each returns the process exit code; errors are reported on standard error.
int runDemo(const DemoOptions& options);
int runBurst(const BurstCommandOptions& options);
int runSequence(const SequenceOptions& options);
int runBadPixels(const BadPixelsOptions& options);

}  // namespace kelvo::tools
