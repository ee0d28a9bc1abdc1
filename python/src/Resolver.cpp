// SPDX-License-Identifier: Apache-2.0
#include "python/src/Resolver.h"

#include <cstring>

#include "interface/SuperResolutionContext.h"
#include "interface/SuperResolutionInterface.h"
#include "platform/kelvo/Exception.h"
#include "vision/superresolution/SrFloat.h"
#include "vision/superresolution/SrFloatRegistration1.h"
#include "vision/superresolution/SrFloatRegistration2.h"

namespace kelvo::python {

namespace {

template <class Engine>
class SrFloatAdapter : public EngineAdapter {
public:
    SrFloatAdapter(int width, int height, const ResolverOptions& options)
        : engine(width, height, interface::contextWindowSize, interface::contextFactor) {
        interface::applyContextSettings(engine);
        engine.setReferenceIndex(options.reference);
        engine.setPsfSigma(options.psfSigma);
        engine.setDataIsNUC(options.counts);
        if (options.validRangeGiven) {
            engine.setValidRange(options.validMinimum, options.validMaximum);
        }
        if (!options.timings) {
            engine.getTimingSink().toNowhere();
        }
    }
    int addFrame(const float* frame) override { return engine.addFrame(frame); }
    float computeSR(float* out) override { return engine.computeSR(out); }
    void getCompleteShifts(std::vector<cv::Point_<float>>& out) const override {
        engine.getCompleteShifts(out);
    }
    void getMasks(std::vector<cv::Mat_<unsigned char>>& out) const override {
        engine.getMasks(out);
    }
    float getMinStructureThreshold() const override { return engine.getMinStructureThreshold(); }
    vision::TimingSink& getTimingSink() override { return engine.getTimingSink(); }
    int getStoredFrames() const override { return engine.getStoredFrames(); }

private:
    Engine engine;
};

std::unique_ptr<EngineAdapter> makeEngine(int width, int height, const ResolverOptions& options) {
    if (options.engine == "float") {
        return std::make_unique<SrFloatAdapter<vision::SrFloat<vision::SrFloatRegistration2>>>(
            width, height, options);
    }
    if (options.engine == "phase") {
        return std::make_unique<SrFloatAdapter<vision::SrFloat<vision::SrFloatRegistration1>>>(
            width, height, options);
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

Resolver::Resolver(int width, int height, const ResolverOptions& options)
    : frameSize(width, height) {
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

int Resolver::add(const float* frame) {
    std::lock_guard<std::mutex> hold(busy);
    const float* marked = knownBadPixels.marked(frame);
    std::memcpy(screened.ptr<float>(), marked, sizeof(float) * screened.total());
    guarded([&] { return screening.detectAndReplaceBadPixel(screened); });

    // The same steps, in the same order, as SuperResolution_addImage.
    double low = 0.0, high = 0.0;
    cv::minMaxLoc(cv::Mat_<float>(frameSize.height, frameSize.width, const_cast<float*>(frame)),
                  &low, &high);
    int status = high - low < engine->getMinStructureThreshold() ? SR_LOW_STRUCTURE : SR_OK;
    const int frameStatus = guarded([&] { return engine->addFrame(marked); });
    ++added;
    bool passRan = false;
    if (added >= interface::contextWindowSize) {
        lastPass = guarded([&] { return engine->computeSR(result.data()); });
        passRan = true;
    }
    if (frameStatus == SR_BAD_PIXELS || (passRan && lastPass == -2.0f)) {
        status = SR_BAD_PIXELS;
    }
    if (passRan && lastPass == -3.0f) {
        status = SR_MASK_HALF_EMPTY;
    }
    return status;
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
    if (added < interface::contextWindowSize) {
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
