// SPDX-License-Identifier: Apache-2.0
#include <CLI/CLI.hpp>
#include <iostream>

#include "tools/kelvo-sr/Commands.h"
#include "tools/kelvo-sr/EngineChoice.h"
#include "tools/kelvo-sr/ImageFiles.h"

using namespace kelvo::tools;

namespace {

void addEngineOptions(CLI::App& command, EngineOptions& options) {
    command.add_option("--camera", options.cameraAndLensType,
                       "camera and lens type, e.g. \"625 FOV 25\" (sets the sensor blur)");
    command
        .add_option("--reference", options.referenceIndex,
                    "reference frame, counted back from the newest: 0 (newest) to 4")
        ->check(CLI::Range(0, 4))
        ->capture_default_str();
    command
        .add_option(
            "--values", options.values,
            "what the pixels are: temperature (valid -274..5000), counts (raw sensor "
            "counts, valid over the range of the file's integer type, or "
            "-32768..65535 for float files), or auto (counts for integer files; for "
            "float files, counts when the bulk of the pixels, the 1st to 99th "
            "percentile, lies outside the temperature range or above 1000 in whole numbers)")
        ->check(CLI::IsMember({"auto", "temperature", "counts"}))
        ->capture_default_str();
    command.add_option(
        "--bad-pixels", options.badPixels,
        "known defective pixels, repaired in every frame: auto (searched in every frame like "
        "`badpixels`; a pixel found in all of them is defective, a warm spot that moves with "
        "the scene is not), none, or a CSV table of x,y lines such as `badpixels` writes "
        "(default: auto for counts, none for temperatures)");
    command.add_flag("--timings", options.timings, "print the library's timing lines");
    addEngineChoiceOptions(command, options);
    command.add_option("--psf-sigma", options.psfSigma,
                       "sensor blur, the Gaussian sigma in result pixels: a number, or auto to "
                       "estimate it from the first frames (default: the camera's, else 0.683)");
}

void addPreviewOptions(CLI::App& command, PreviewOptions& options) {
    command
        .add_option("--palette", options.palette,
                    "colours of the previews: iron, inferno, grey, white-hot or black-hot")
        ->check(CLI::IsMember({"iron", "inferno", "grey", "white-hot", "black-hot"}))
        ->capture_default_str();
    command
        .add_option("--range", options.range,
                    "LOW HIGH: values the palette spans (default: the 1st to 99th percentile; one "
                    "range for a whole sequence)")
        ->expected(2);
}

void addRawOptions(CLI::App& command, std::string& size, std::string& type,
                   const std::vector<std::string>& types) {
    command.add_option("--size", size, "size of headerless raw frames, WxH (e.g. 640x512)");
    command.add_option("--type", type, "pixel type of headerless raw frames")
        ->check(CLI::IsMember(types));
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"kelvo-sr: super-resolution of thermal-camera bursts (2x in each direction)"};
    app.require_subcommand(1);
    app.set_version_flag("--version", "kelvo-sr " + toolVersion());

    DemoOptions demo;
    CLI::App* demoCommand =
        app.add_subcommand("demo", "simulate a thermal burst and show what super-resolution does");
    demoCommand->add_option("-o,--output", demo.outputFolder, "folder for the pictures")
        ->capture_default_str();
    demoCommand->add_option("--width", demo.width, "input frame width")
        ->check(CLI::Range(16, 4096))
        ->capture_default_str();
    demoCommand->add_option("--height", demo.height, "input frame height")
        ->check(CLI::Range(16, 4096))
        ->capture_default_str();
    demoCommand->add_option("--seed", demo.seed, "seed of the simulated scene and burst")
        ->capture_default_str();
    demoCommand->add_flag("--timings", demo.timings, "print the library's timing lines");

    BurstCommandOptions burst;
    CLI::App* burstCommand =
        app.add_subcommand("burst", "super-resolve five or more frames into one image");
    burstCommand
        ->add_option("frames", burst.frames,
                     "frame files, oldest first (PNG, TIFF, JPEG, or raw with --size/--type)")
        ->required()
        ->expected(5, -1);
    burstCommand
        ->add_option("-o,--output", burst.output,
                     "result as a 32-bit float TIFF (.tif/.tiff, deflate-compressed; keeps the "
                     "values bit for bit, and says in its tags what they are and which frames "
                     "made them)")
        ->capture_default_str();
    burstCommand->add_option("--png", burst.png,
                             "also a 16-bit PNG: counts as they are, temperatures in centikelvin "
                             "(stored = value x 100 + 27315), rounded; values beyond 0..65535 are "
                             "clamped with a warning");
    burstCommand->add_option("--json", burst.json,
                             "also a JSON record of the run: frames, reference, shifts, valid "
                             "fractions, status, time, values, version");
    burstCommand->add_option("--preview", burst.preview, "also a colour-palette preview PNG");
    burstCommand->add_option("--compare", burst.compare,
                             "also a PNG of the reference frame's bicubic upscaling beside the "
                             "result");
    burstCommand
        ->add_option("--crop", burst.crop, "crop of --compare: X Y WIDTH HEIGHT in result pixels")
        ->expected(4);
    addPreviewOptions(*burstCommand, burst.look);
    burstCommand->add_flag(
        "--usable-frames", burst.usableFrames,
        "take as reference the frame most consistent with the others and leave out the "
        "frames that do not match it (another view, too far moved), then use the (up to "
        "five) remaining frames nearest the reference; at least three must remain");
    addRawOptions(*burstCommand, burst.rawSize, burst.rawType, {"u16", "i16", "f32"});
    addEngineOptions(*burstCommand, burst.engine);

    SequenceOptions sequence;
    CLI::App* sequenceCommand = app.add_subcommand(
        "sequence", "super-resolve every frame of a folder or video from the fifth on");
    sequenceCommand->add_option("input", sequence.input, "folder of frames or a video file")
        ->required();
    sequenceCommand->add_option("-o,--output", sequence.outputFolder, "folder for the results")
        ->capture_default_str();
    sequenceCommand->add_flag("--previews", sequence.previews,
                              "also write a colour-palette preview per result");
    sequenceCommand->add_option("--json", sequence.json,
                                "also a JSON record of the run: one entry per result, and the "
                                "frames skipped");
    sequenceCommand->add_option("--start", sequence.start, "first frame to use, counted from 0")
        ->check(CLI::NonNegativeNumber)
        ->capture_default_str();
    sequenceCommand
        ->add_option("--end", sequence.end, "last frame to use, counted from 0 (default: the last)")
        ->check(CLI::NonNegativeNumber);
    sequenceCommand
        ->add_option("--every", sequence.every,
                     "one result every N frames (the window still holds five consecutive "
                     "frames)")
        ->check(CLI::Range(1, 1000000))
        ->capture_default_str();
    sequenceCommand
        ->add_option("--jobs", sequence.jobs,
                     "results computed at once, each on its own engine (the same results as "
                     "one at a time)")
        ->check(CLI::Range(1, 64))
        ->capture_default_str();
    addPreviewOptions(*sequenceCommand, sequence.look);
    addRawOptions(*sequenceCommand, sequence.rawSize, sequence.rawType, {"u16", "i16", "f32"});
    addEngineOptions(*sequenceCommand, sequence.engine);

    BadPixelsOptions badPixels;
    CLI::App* badPixelsCommand = app.add_subcommand(
        "badpixels", "find the defective pixels of a 16-bit raw image and repair them");
    badPixelsCommand
        ->add_option("image", badPixels.input,
                     "16-bit image: PNG, TIFF, or headerless raw with --size/--type")
        ->required();
    addRawOptions(*badPixelsCommand, badPixels.rawSize, badPixels.rawType, {"u16", "i16"});
    badPixelsCommand->add_option("--table", badPixels.table, "CSV of the bad pixels found")
        ->capture_default_str();
    badPixelsCommand
        ->add_option("-o,--output", badPixels.output,
                     "repaired image: 16-bit PNG, or TIFF (keeps signed values)")
        ->capture_default_str();
    badPixelsCommand
        ->add_option("--drawing", badPixels.drawing,
                     "colour PNG of the image with every bad pixel outlined")
        ->capture_default_str();
    badPixelsCommand->add_option("--known", badPixels.known,
                                 "CSV of bad pixels known beforehand, x,y per line (a table "
                                 "written by this command will do)");
    badPixelsCommand
        ->add_option("--low", badPixels.low,
                     "values at or below it are defective (default 0, or -2^n for signed "
                     "images with negative values)")
        ->check(CLI::Range(-32768, 65535));
    badPixelsCommand
        ->add_option("--high", badPixels.high,
                     "values at or above it are defective (default 2^n - 1, the full scale of "
                     "the image's bit depth); at most 32767 above --low")
        ->check(CLI::Range(-32768, 65535));
    badPixelsCommand
        ->add_option("--search", badPixels.search,
                     "histogram: every value at or beyond --low/--high and every value that "
                     "few pixels share; this finds dead and hot pixels, but also a scene's "
                     "few hottest and coldest pixels. local: of those, only the pixels that "
                     "stand out from the pixels around them, lying off every line through "
                     "two opposite neighbours by more than half the local contrast; a pixel "
                     "on an edge, a warm object blurred over several pixels or a saturated "
                     "region stays as it is")
        ->check(CLI::IsMember({"local", "histogram"}))
        ->capture_default_str();
    badPixelsCommand
        ->add_option("--max-neighbours", badPixels.maxNeighbours,
                     "a value is isolated, and its pixels defective, when fewer pixels than "
                     "this hold values up to --span below it, up to --span above it, and "
                     "within --span/2 around it (its own counted in each)")
        ->check(CLI::Range(1, 65535))
        ->capture_default_str();
    badPixelsCommand
        ->add_option("--span", badPixels.span, "values on either side that count as near")
        ->check(CLI::Range(2, 32767))
        ->capture_default_str();
    badPixelsCommand
        ->add_option("--capacity", badPixels.capacity, "most bad pixels the search may find")
        ->check(CLI::Range(1, 32767))
        ->capture_default_str();
    badPixelsCommand
        ->add_option("--radius", badPixels.radius,
                     "reach of the replacement search: good pixels up to this far (1: the four "
                     "direct neighbours only)")
        ->check(CLI::Range(1, 64))
        ->capture_default_str();
    badPixelsCommand
        ->add_option("--mark-size", badPixels.markSize,
                     "side of the square drawn around each bad pixel")
        ->check(CLI::Range(1, 255))
        ->capture_default_str();
    badPixelsCommand->add_flag("--random-colours", badPixels.randomColours,
                               "draw each square in its own colour instead of red");

    // Scripts branch on these; the README lists them too.
    const std::string parserCodes =
        "\n  above 100: a mistyped option or argument (the option parser's codes)";
    app.footer("Exit codes: see --help of each command.");
    demoCommand->footer(
        "Exit codes:\n  0: the pictures were written\n  1: they could not be written" +
        parserCodes);
    burstCommand->footer(
        "Exit codes:\n  0: the result was written\n  2: the result was written, but the pass "
        "warned (defective pixels left, a frame half masked, too little contrast): the "
        "warning names it\n  1: nothing was written (a frame that cannot be read, a file name "
        "that does not work)" +
        parserCodes);
    sequenceCommand->footer(
        "Exit codes:\n  0: every result was written from every frame\n  2: results were "
        "written, but frames were skipped or passes warned (the summary counts them)\n  1: no "
        "result (fewer than five readable frames, an input that cannot be read)" +
        parserCodes);
    badPixelsCommand->footer(
        "Exit codes:\n  0: every bad pixel was repaired\n  2: the files were written, but some "
        "bad pixels found no good pixel within --radius\n  1: an image that cannot be read, a "
        "range or file name that does not work, or a full table" +
        parserCodes);

    CLI11_PARSE(app, argc, argv);

    try {
        if (*demoCommand) {
            return runDemo(demo);
        }
        if (*burstCommand) {
            return runBurst(burst);
        }
        if (*sequenceCommand) {
            return runSequence(sequence);
        }
        return runBadPixels(badPixels);
    } catch (const std::exception& error) {
        std::cerr << "kelvo-sr: " << error.what() << std::endl;
        return 1;
    }
}
