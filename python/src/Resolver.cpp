// SPDX-License-Identifier: Apache-2.0
#include "python/src/Resolver.h"

#include <cmath>
#include <cstring>
#include <type_traits>

#include "interface/SuperResolutionContext.h"
#include "interface/SuperResolutionInterface.h"
#include "platform/kelvo/Exception.h"
#include "tools/kelvo-sr/QuietStandardOutput.h"
#include "vision/superresolution/PsfSigmaEstimator.h"
#include "vision/superresolution/SrFloat.h"
#include "vision/superresolution/SrFloatNeon.h"
#include "vision/superresolution/SrFloatNeonRegistration.h"
#include "vision/superresolution/SrFloatRegistration1.h"
#include "vision/superresolution/SrFloatRegistration2.h"
#include "vision/superresolution/reference/SuperResolution.h"

namespace kelvo::python {

namespace {

cv::Point_<float> pointOf(const cv::Point_<float>& shift) {
    return shift;
}

cv::Point_<float> pointOf(const vision::PointF& shift) {
    return {shift.x, shift.y};
}

// What the engines that repair defective pixels are told about them.
template <class Engine>
void setValidRange(Engine& engine, float minimum, float maximum) {
    engine.setValidRange(minimum, maximum);
}

// The reference engine checks no range of its own: the float engine's rule applies.
void setValidRange(vision::SuperResolution& engine, float minimum, float maximum) {
    if (!(std::isfinite(minimum) && std::isfinite(maximum) && minimum < maximum)) {
        throw LibraryError(SR_ERROR, "Invalid range of valid values specified.");
    }
    engine.getBadPixelHandling().setValidRange(minimum, maximum);
}

template <class Engine>
void configureDefects(Engine& engine, const ResolverOptions& options) {
    engine.setDataIsNUC(options.counts);
    if (options.validRangeGiven) {
        setValidRange(engine, options.validMinimum, options.validMaximum);
    }
}

using LanesEngine = vision::SrFloatNeon<vision::SrFloatNeonRegistration>;

void configureDefects(LanesEngine&, const ResolverOptions& options) {
    if (options.counts || options.validRangeGiven || !options.badPixels.empty()) {
        throw LibraryError(SR_ERROR,
                           "The four-lane engine has no bad-pixel stage: values, valid_range and "
                           "bad_pixels are not for it.");
    }
}

template <class Registration>
void setThreads(vision::SrFloat<Registration>& engine, int threads) {
    engine.setThreads(threads);
}

template <class Engine>
void setThreads(Engine&, int threads) {
    if (threads != 1) {
        throw LibraryError(SR_ERROR, "Only the float engines share a pass among threads.");
    }
}

template <class Engine>
void setTimings(Engine& engine, bool timings) {
    if (!timings) {
        engine.getTimingSink().toNowhere();
    }
}

// The four-lane engine times nothing.
void setTimings(LanesEngine&, bool) {}

template <class Engine>
void copyMasks(const Engine& engine, std::vector<cv::Mat_<unsigned char>>& out) {
    engine.getMasks(out);
}

// Its masks are floats, 1 where a pixel is usable.
void copyMasks(const LanesEngine& engine, std::vector<cv::Mat_<unsigned char>>& out) {
    std::vector<cv::Mat_<float>> masks;
    engine.getMasks(masks);
    out.resize(masks.size());
    for (size_t i = 0; i < masks.size(); ++i) {
        out[i] = masks[i] != 0.0f;
    }
}

// The engines agree on the calls a resolver makes; they differ in their shift type and in
// the reference engine's calibration.
template <class Engine>
class Adapter : public EngineAdapter {
public:
    Adapter(int width, int height, const ResolverOptions& options)
        : engine(width, height, interface::contextWindowSize, interface::contextFactor) {
        interface::applyContextSettings(engine);
        engine.setReferenceIndex(options.reference);
        engine.setPsfSigma(options.psfSigma);
        configureDefects(engine, options);
        setThreads(engine, options.threads);
        setTimings(engine, options.timings);
    }
    int addFrame(const float* frame) override { return engine.addFrame(frame); }
    float computeSR(float* out) override { return engine.computeSR(out); }
    void getCompleteShifts(std::vector<cv::Point_<float>>& out) const override {
        std::vector<typename std::decay_t<decltype(engine.getShifts())>::value_type> shifts;
        engine.getCompleteShifts(shifts);
        out.clear();
        for (const auto& shift : shifts) {
            out.push_back(pointOf(shift));
        }
    }
    void getMasks(std::vector<cv::Mat_<unsigned char>>& out) const override {
        copyMasks(engine, out);
    }
    bool repairsDefects() const override { return !std::is_same_v<Engine, LanesEngine>; }
    float getMinStructureThreshold() const override { return engine.getMinStructureThreshold(); }
    int getStoredFrames() const override { return engine.getStoredFrames(); }
    void setPsfSigma(float sigma) override { engine.setPsfSigma(sigma); }

protected:
    Engine engine;
};

class ReferenceAdapter : public Adapter<vision::SuperResolution> {
public:
    using Adapter::Adapter;
    void setCalibration(const cv::Mat_<short>& countsA, const cv::Mat_<float>& radianceA,
                        const cv::Mat_<short>& countsB, const cv::Mat_<float>& radianceB) override {
        if (countsA.rows != engine.getHeight() || countsA.cols != engine.getWidth()) {
            throw LibraryError(SR_ERROR, "The calibration images are not of the frame size.");
        }
        engine.setNucToRad(countsA, radianceA, countsB, radianceB);
    }
    float processCounts(const short* counts, float* out, bool pass) override {
        if (pass) {
            return engine.processFrame2(counts, out);
        }
        engine.NucToRad(
            cv::Mat_<short>(engine.getHeight(), engine.getWidth(), const_cast<short*>(counts)));
        engine.addFrame(engine.getRadianceImage().ptr<float>());
        return Resolver::kNoPassYet;
    }
    void getCalibrationMaps(cv::Mat_<float>& gain, cv::Mat_<float>& offset,
                            cv::Mat_<float>& radiance, cv::Mat_<float>& quality) const override {
        engine.getGainMap().copyTo(gain);
        engine.getOffsetMap().copyTo(offset);
        engine.getRadianceImage().copyTo(radiance);
        engine.getQuality(quality);
    }
};

std::unique_ptr<EngineAdapter> makeEngine(int width, int height, const ResolverOptions& options) {
    if (options.engine == "float") {
        return std::make_unique<Adapter<vision::SrFloat<vision::SrFloatRegistration2>>>(
            width, height, options);
    }
    if (options.engine == "phase") {
        return std::make_unique<Adapter<vision::SrFloat<vision::SrFloatRegistration1>>>(
            width, height, options);
    }
    if (options.engine == "lanes") {
        return std::make_unique<Adapter<LanesEngine>>(width, height, options);
    }
    if (options.engine == "reference") {
        // The reference engine prints the taps of its registration blur when it is built.
        tools::QuietStandardOutput quiet(!options.timings);
        return std::make_unique<ReferenceAdapter>(width, height, options);
    }
    throw LibraryError(SR_ERROR, "Unknown engine '" + options.engine + "'.");
}

// Runs an engine call and turns whatever the engine throws into a LibraryError with the
// C interface's code for it. Parameter setters throw their message as a plain C string.
template <class Call>
auto guarded(Call call) -> decltype(call()) {
    try {
        return call();
    } catch (const LibraryError&) {
        throw;
    } catch (const cv::Exception& error) {
        throw LibraryError(SR_ERROR, "cv::Exception: " + error.msg);
    } catch (const std::exception& error) {
        throw LibraryError(SR_ERROR, error.what());
    } catch (const char* message) {
        throw LibraryError(SR_ERROR, message);
    }
}

}  // namespace

void EngineAdapter::setCalibration(const cv::Mat_<short>&, const cv::Mat_<float>&,
                                   const cv::Mat_<short>&, const cv::Mat_<float>&) {
    throw LibraryError(SR_ERROR, "Only the reference engine converts counts to radiance.");
}

float EngineAdapter::processCounts(const short*, float*, bool) {
    throw LibraryError(SR_ERROR, "Only the reference engine converts counts to radiance.");
}

void EngineAdapter::getCalibrationMaps(cv::Mat_<float>&, cv::Mat_<float>&, cv::Mat_<float>&,
                                       cv::Mat_<float>&) const {
    throw LibraryError(SR_ERROR, "Only the reference engine converts counts to radiance.");
}

Resolver::Resolver(int width, int height, const ResolverOptions& options)
    : frameSize(width, height),
      // The pass's own choice of reference in a full window.
      referencePosition(std::max(interface::contextWindowSize - options.reference - 1, 0)),
      sigmaInUse(options.psfSigmaFromFrames ? 0.0f : options.psfSigma),
      fallbackSigma(options.psfSigma) {
    engine = guarded([&] { return makeEngine(width, height, options); });
    guarded([&] {
        knownBadPixels.set(options.badPixels, frameSize);
        screening.setDataIsNUC(options.counts);
        if (options.validRangeGiven) {
            screening.setValidRange(options.validMinimum, options.validMaximum);
        }
        return 0;
    });
    screened.create(height, width);
    result.assign(static_cast<size_t>(outputWidth()) * outputHeight(), 0.0f);
}

int Resolver::take(const float* frame, bool passWhenFull) {
    std::lock_guard<std::mutex> hold(busy);
    const float* marked = knownBadPixels.marked(frame);
    std::memcpy(screened.ptr<float>(), marked, sizeof(float) * screened.total());
    if (engine->repairsDefects()) {
        guarded([&] { return screening.detectAndReplaceBadPixel(screened); });
    } else if (!cv::checkRange(screened)) {
        throw LibraryError(SR_ERROR,
                           "The four-lane engine takes finite pixels only: the frame holds NaN or "
                           "infinite ones.");
    }

    // The same steps, in the same order, as SuperResolution_addImage.
    double low = 0.0, high = 0.0;
    cv::minMaxLoc(cv::Mat_<float>(frameSize.height, frameSize.width, const_cast<float*>(frame)),
                  &low, &high);
    int status = high - low < engine->getMinStructureThreshold() ? SR_LOW_STRUCTURE : SR_OK;
    const int frameStatus = guarded([&] { return engine->addFrame(marked); });
    ++added;
    const bool windowFull = added >= interface::contextWindowSize;
    const bool passNow = passWhenFull && windowFull;
    // The estimate comes from the first window whether or not its pass runs, so that loaded
    // frames leave the later passes as they would be.
    if (sigmaInUse == 0.0f) {
        opening.push_back(screened.clone());
        if (windowFull) {
            settlePsfSigma();
        }
    }
    if (passNow) {
        passRan = true;
        lastPass = guarded([&] { return engine->computeSR(result.data()); });
    }
    if (frameStatus == SR_BAD_PIXELS || (passNow && lastPass == -2.0f)) {
        status = SR_BAD_PIXELS;
    }
    if (passNow && lastPass == -3.0f) {
        status = SR_MASK_HALF_EMPTY;
    }
    return status;
}

void Resolver::setCalibration(const cv::Mat_<short>& countsA, const cv::Mat_<float>& radianceA,
                              const cv::Mat_<short>& countsB, const cv::Mat_<float>& radianceB) {
    std::lock_guard<std::mutex> hold(busy);
    guarded([&] {
        engine->setCalibration(countsA, radianceA, countsB, radianceB);
        return 0;
    });
}

float Resolver::processCounts(const short* counts) {
    std::lock_guard<std::mutex> hold(busy);
    const bool passNow = added + 1 >= interface::contextWindowSize;
    const float outcome =
        guarded([&] { return engine->processCounts(counts, result.data(), passNow); });
    ++added;
    if (passNow) {
        lastPass = outcome;
        passRan = true;
    }
    return lastPass;
}

void Resolver::copyCalibrationMaps(cv::Mat_<float>& gain, cv::Mat_<float>& offset,
                                   cv::Mat_<float>& radiance, cv::Mat_<float>& quality) const {
    std::lock_guard<std::mutex> hold(busy);
    guarded([&] {
        engine->getCalibrationMaps(gain, offset, radiance, quality);
        return 0;
    });
}

void Resolver::settlePsfSigma() {
    try {
        sigmaInUse = vision::PsfSigmaEstimator().estimate(opening, referencePosition);
        engine->setPsfSigma(sigmaInUse);
    } catch (const std::exception& error) {
        sigmaRefusal = error.what();
        sigmaInUse = fallbackSigma;
    }
    opening.clear();
    opening.shrink_to_fit();
}

float Resolver::psfSigma() const {
    std::lock_guard<std::mutex> hold(busy);
    return sigmaInUse;
}

std::string Resolver::psfSigmaRefusal() const {
    std::lock_guard<std::mutex> hold(busy);
    return sigmaRefusal;
}

int Resolver::framesAdded() const {
    std::lock_guard<std::mutex> hold(busy);
    return added;
}

float Resolver::passResult() const {
    std::lock_guard<std::mutex> hold(busy);
    return lastPass;
}

bool Resolver::copyLastPass(float* image, std::vector<cv::Point_<float>>* shifts,
                            std::vector<cv::Mat_<unsigned char>>* masks) const {
    std::lock_guard<std::mutex> hold(busy);
    if (!passRan) {
        return false;
    }
    if (image != nullptr) {
        std::memcpy(image, result.data(), sizeof(float) * result.size());
    }
    if (shifts != nullptr) {
        engine->getCompleteShifts(*shifts);
        shifts->resize(engine->getStoredFrames());
    }
    if (masks != nullptr) {
        engine->getMasks(*masks);
        masks->resize(engine->getStoredFrames());
    }
    return true;
}

}  // namespace kelvo::python
