// SPDX-License-Identifier: Apache-2.0
#include "tools/kelvo-sr/EngineChoice.h"

#include <algorithm>
#include <cmath>
#include <iomanip>
#include <sstream>
#include <stdexcept>

#include "interface/SuperResolutionContext.h"
#include "interface/SuperResolutionInterface.h"
#include "platform/kelvo/Exception.h"
#include "tools/kelvo-sr/CommandSupport.h"
#include "tools/kelvo-sr/QuietStandardOutput.h"
#include "vision/superresolution/reference/SuperResolution.h"

namespace kelvo::tools {

namespace {

constexpr int kWindowSize = 5;

std::string sizeText(cv::Size size) {
    return std::to_string(size.width) + "x" + std::to_string(size.height);
}

// The float engine behind the C interface.
class FloatFrameEngine : public FrameEngine {
public:
    explicit FloatFrameEngine(std::unique_ptr<SuperResolver> resolver)
        : resolver(std::move(resolver)) {}
    int addFrame(const cv::Mat_<float>& frame) override { return resolver->addFrame(frame); }
    int loadFrame(const cv::Mat_<float>& frame) override { return resolver->loadFrame(frame); }
    cv::Mat_<float> result() override { return resolver->result(); }
    PassReport lastPass() const override { return resolver->lastPass(); }
    std::vector<cv::Point2f> estimatedShifts() const override {
        return resolver->estimatedShifts();
    }
    const FrameValues& values() const override { return resolver->values(); }

private:
    std::unique_ptr<SuperResolver> resolver;
};

// Radiance for a calibration point: a float image file, or one number for a uniform
// blackbody.
cv::Mat_<float> readRadiance(const std::string& argument, cv::Size size) {
    std::size_t used = 0;
    try {
        const float value = std::stof(argument, &used);
        if (used == argument.size()) {
            return cv::Mat_<float>(size, value);
        }
    } catch (const std::exception&) {
    }
    return readFrame(argument, nullptr);
}

cv::Mat_<short> toCounts(const cv::Mat& image, const std::string& what) {
    cv::Mat values;
    image.convertTo(values, CV_64F);
    double low = 0.0, high = 0.0;
    cv::minMaxLoc(values, &low, &high);
    bool integral = true;
    for (int r = 0; r < values.rows && integral; ++r) {
        for (int c = 0; c < values.cols; ++c) {
            const double v = values.at<double>(r, c);
            if (v != std::floor(v)) {
                integral = false;
                break;
            }
        }
    }
    if (!integral || low < -32768.0 || high > 32767.0) {
        throw std::runtime_error(what + " must hold whole 16-bit counts (-32768..32767).");
    }
    cv::Mat_<short> counts;
    values.convertTo(counts, CV_16S);
    return counts;
}

cv::Mat_<short> readCalibrationCounts(const std::string& path, const std::string& role) {
    const cv::Mat image = readStoredImage(path, nullptr);
    if (image.channels() != 1 || (image.depth() != CV_16U && image.depth() != CV_16S)) {
        throw std::runtime_error(role + " " + path + " must be a single-channel 16-bit image.");
    }
    return toCounts(image, role + " " + path);
}

// The reference engine, fed radiance or, with a calibration, raw counts.
class ReferenceFrameEngine : public FrameEngine {
public:
    ReferenceFrameEngine(const EngineOptions& options, const cv::Mat_<float>& firstFrame,
                         int storedDepth)
        : owned(quietlyConstructed(firstFrame.size(), options.timings)),
          engine(*owned),
          verbose(options.timings),
          frameValues(chooseValues(options.values, firstFrame, storedDepth)) {
        if (options.referenceIndex < 0 || options.referenceIndex >= kWindowSize) {
            throw std::runtime_error("The reference frame must be 0 (newest) to 4 (oldest).");
        }
        // The settings the C interface gives its engine.
        engine.setReferenceIndex(options.referenceIndex);
        engine.setWeightTV(400.0f);
        engine.setRegError(1e-4f);
        engine.setRelativeResidue(0.007f);
        const float chosenSigma = chosenPsfSigma(options);
        engine.setPsfSigma(chosenSigma > 0.0f
                               ? chosenSigma
                               : psfSigmaOf(options.cameraAndLensType, firstFrame.size()));
        if (!options.calibration.empty()) {
            calibrate(options.calibration, firstFrame.size());
        } else if (frameValues.kind == ValueKind::kCounts) {
            throw std::runtime_error(
                "The reference engine needs --calibration LOW_COUNTS LOW_RADIANCE HIGH_COUNTS "
                "HIGH_RADIANCE to turn raw counts into radiance.");
        }
    }

    int addFrame(const cv::Mat_<float>& frame) override { return take(frame, true); }
    int loadFrame(const cv::Mat_<float>& frame) override { return take(frame, false); }

    cv::Mat_<float> result() override {
        if (frames < kWindowSize) {
            QuietStandardOutput quiet(!verbose);
            lastResult = engine.computeSR(output.ptr<float>());
            statusOfPass(lastResult, SR_OK);
        }
        return output.clone();
    }

    PassReport lastPass() const override {
        PassReport report;
        report.status = lastResult < 0.0f ? static_cast<int>(lastResult) : 0;
        report.factorEstimate = lastResult > 0.0f ? lastResult : 0.0f;
        const int stored = engine.getStoredFrames();
        report.referencePosition = std::max(stored - engine.getReferenceIndex() - 1, 0);
        const std::vector<cv::Point2f> shifts = estimatedShifts();
        std::vector<cv::Mat_<unsigned char>> masks;
        engine.getMasks(masks);
        for (int i = 0; i < stored && i < static_cast<int>(shifts.size()); ++i) {
            report.frames.push_back({shifts[i], static_cast<float>(cv::countNonZero(masks[i])) /
                                                    static_cast<float>(masks[i].total())});
        }
        return report;
    }

    const FrameValues& values() const override { return frameValues; }

    void setKnownBadPixels(const std::vector<cv::Point>& positions) {
        engine.setKnownBadPixels(positions);
    }

    std::vector<cv::Point2f> estimatedShifts() const override {
        std::vector<vision::PointF> shifts;
        engine.getCompleteShifts(shifts);
        std::vector<cv::Point2f> points;
        for (const vision::PointF& shift : shifts) {
            points.emplace_back(shift.x, shift.y);
        }
        return points;
    }

private:
    // Takes a frame into the window; with `pass`, a full window computes its result.
    int take(const cv::Mat_<float>& frame, bool pass) {
        requireFrameSize(frame, cv::Size(engine.getWidth(), engine.getHeight()));
        int status = engine.checkImageStructureQuality(frame) ? SR_OK : SR_LOW_STRUCTURE;
        ++frames;
        output.create(engine.getOutputHeight(), engine.getOutputWidth());
        QuietStandardOutput quiet(!verbose);
        try {
            float passResult = 0.0f;
            if (calibrated) {
                const cv::Mat_<short> counts = toCounts(frame, "A frame of raw counts");
                if (pass && frames >= kWindowSize) {
                    passResult = engine.processFrame2(counts.ptr<short>(), output.ptr<float>());
                } else {
                    engine.NucToRad(counts);
                    engine.addFrame(engine.getRadianceImage().ptr<float>());
                }
            } else {
                const cv::Mat_<float> continuous = frame.isContinuous() ? frame : frame.clone();
                if (engine.addFrame(continuous.ptr<float>()) == SR_BAD_PIXELS) {
                    status = SR_BAD_PIXELS;
                }
                if (pass && frames >= kWindowSize) {
                    passResult = engine.computeSR(output.ptr<float>());
                }
            }
            if (pass && frames >= kWindowSize) {
                lastResult = passResult;
            }
            return statusOfPass(passResult, status);
        } catch (const kelvo::Exception& error) {
            throw std::runtime_error("The reference engine failed: " + error.message());
        }
    }

    // The engine prints the taps of its registration blur when it is built.
    static vision::SuperResolution* quietlyConstructed(cv::Size size, bool verbose) {
        QuietStandardOutput quiet(!verbose);
        return new vision::SuperResolution(size.width, size.height, kWindowSize, 2.0f);
    }

    // The sensor blur the C interface derives from a camera and lens type.
    static float psfSigmaOf(const std::string& cameraAndLensType, cv::Size size) {
        const int handle = SuperResolution_init(size.width, size.height);
        if (handle < 0) {
            throw std::runtime_error("The library cannot process " + sizeText(size) + " frames.");
        }
        if (!cameraAndLensType.empty()) {
            SuperResolution_setCameraAndLensType(handle, cameraAndLensType.c_str());
        }
        const float sigma = kelvo::interface::engineOf(handle)->getPsfSigma();
        SuperResolution_release(handle);
        return sigma;
    }

    static int statusOfPass(float passResult, int status) {
        if (passResult == -998.0f) {
            throw std::runtime_error("The reference engine could not register the frames.");
        }
        if (passResult == -3.0f) {
            return SR_MASK_HALF_EMPTY;
        }
        return status;
    }

    void calibrate(const std::vector<std::string>& arguments, cv::Size size) {
        const cv::Mat_<short> lowCounts = readCalibrationCounts(arguments[0], "LOW_COUNTS");
        const cv::Mat_<short> highCounts = readCalibrationCounts(arguments[2], "HIGH_COUNTS");
        const cv::Mat_<float> lowRadiance = readRadiance(arguments[1], size);
        const cv::Mat_<float> highRadiance = readRadiance(arguments[3], size);
        const std::pair<const cv::Mat*, std::string> images[] = {{&lowCounts, arguments[0]},
                                                                 {&lowRadiance, arguments[1]},
                                                                 {&highCounts, arguments[2]},
                                                                 {&highRadiance, arguments[3]}};
        for (const auto& [image, name] : images) {
            if (image->size() != size) {
                throw std::runtime_error("The calibration image " + name + " is " +
                                         sizeText(image->size()) + ", the frames are " +
                                         sizeText(size) + ".");
            }
        }
        if (cv::countNonZero(lowCounts != highCounts) == 0) {
            throw std::runtime_error(
                "The two calibration count images are equal at every pixel: they give no "
                "gain. Record the low and the high blackbody at different temperatures.");
        }
        engine.setNucToRad(lowCounts, lowRadiance, highCounts, highRadiance);
        calibrated = true;
    }

    std::unique_ptr<vision::SuperResolution> owned;
    vision::SuperResolution& engine;
    cv::Mat_<float> output;
    bool verbose;
    FrameValues frameValues;
    bool calibrated = false;
    int frames = 0;
    float lastResult = 0.0f;
};

}  // namespace

void addEngineChoiceOptions(CLI::App& command, EngineOptions& options) {
    command
        .add_option("--engine", options.engine,
                    "float (fast, the default) or reference (the literal engine, same results on "
                    "every build; takes raw counts with --calibration)")
        ->check(CLI::IsMember({"float", "reference"}))
        ->capture_default_str();
    command
        .add_option("--calibration", options.calibration,
                    "two-point calibration of raw counts for the reference engine: LOW_COUNTS "
                    "LOW_RADIANCE HIGH_COUNTS HIGH_RADIANCE (counts: 16-bit images; radiance: a "
                    "float image or one number for a uniform blackbody)")
        ->expected(4);
}

std::unique_ptr<FrameEngine> makeFrameEngine(const EngineOptions& options,
                                             const std::vector<cv::Mat_<float>>& burst,
                                             int storedDepth) {
    if (options.engine == "reference") {
        for (const cv::Mat_<float>& frame : burst) {
            requireFrameSize(frame, burst.front().size());
        }
        auto engine = std::make_unique<ReferenceFrameEngine>(options, burst.front(), storedDepth);
        engine->setKnownBadPixels(
            chooseDefectivePixels(options.badPixels, burst, engine->values()));
        return engine;
    }
    if (!options.calibration.empty()) {
        throw std::runtime_error("--calibration needs --engine reference.");
    }
    return std::make_unique<FloatFrameEngine>(makeSuperResolver(options, burst, storedDepth));
}

std::string describeQualityMap(const std::vector<cv::Point2f>& shifts) {
    std::vector<vision::PointF> phases;
    for (const cv::Point2f& shift : shifts) {
        // The sub-pixel remainder the reconstruction works with, in [-0.5, 0.5).
        phases.push_back(
            {shift.x - std::floor(shift.x + 0.5f), shift.y - std::floor(shift.y + 0.5f)});
    }
    cv::Mat_<float> map;
    vision::computeQualityMap(phases.data(), static_cast<int>(phases.size()), map);
    std::ostringstream text;
    text << "sub-pixel coverage:" << std::endl << std::fixed << std::setprecision(2);
    for (int r = 0; r < 3; ++r) {
        text << " ";
        for (int c = 0; c < 3; ++c) {
            text << " " << std::setw(4) << map(r, c);
        }
        text << std::endl;
    }
    text << "The table shows how evenly the frames' sub-pixel phases cover the half-pixel grid: "
            "all weight in the centre means the frames did not move and super-resolution "
            "cannot add detail."
         << std::endl;
    return text.str();
}

}  // namespace kelvo::tools
