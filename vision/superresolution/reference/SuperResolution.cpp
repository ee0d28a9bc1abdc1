// SPDX-License-Identifier: Apache-2.0
#include "vision/superresolution/reference/SuperResolution.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <stdexcept>
#include <type_traits>

#include "platform/kelvo/Exception.h"
#include "platform/kelvo/StopWatch.h"
#include "vision/superresolution/SrEngineCommon.h"
#include "vision/superresolution/reference/SuperResolutionMinimization.h"
#include "vision/superresolution/reference/SuperResolutionRegistration.h"

namespace kelvo::vision {

namespace {

constexpr char kSourcePath[] = "vision/superresolution/reference/SuperResolution";
constexpr int kProcessFrame2Line = 377;
constexpr int kRegistrationGaussRadius = 5;

// Calibration coefficients outside (-1000, 1000) are taken as missing; -1000 marks a
// pixel whose two calibration points had equal counts.
constexpr float kMissingCoefficient = -1000.0f;
constexpr float kCoefficientLimit = 1000.0f;

double elapsedMilliseconds(const kelvo::StopWatch& watch) {
    return watch.stop() * 1000.0;
}

bool inCoefficientRange(float value) {
    return value > -kCoefficientLimit && value < kCoefficientLimit;
}

// Replaces every out-of-range value, row by row and in place, by the mean of its
// in-range direct neighbours; 0 / 0 = NaN where there are none, so that the pixel stays
// visibly invalid.
void repairOutOfRange(cv::Mat_<float>& map) {
    for (int y = 0; y < map.rows; ++y) {
        for (int x = 0; x < map.cols; ++x) {
            if (inCoefficientRange(map(y, x))) {
                continue;
            }
            float sum = 0.0f;
            float count = 0.0f;
            const int neighbours[4][2] = {{x - 1, y}, {x + 1, y}, {x, y - 1}, {x, y + 1}};
            for (const auto& n : neighbours) {
                if (n[0] >= 0 && n[0] < map.cols && n[1] >= 0 && n[1] < map.rows &&
                    inCoefficientRange(map(n[1], n[0]))) {
                    sum += map(n[1], n[0]);
                    count += 1.0f;
                }
            }
            map(y, x) = sum / count;
        }
    }
}

void ensureShape(cv::Mat_<float>& matrix, int rows, int cols) {
    if (matrix.rows != rows || matrix.cols != cols || !matrix.isContinuous()) {
        matrix.release();
        matrix.create(rows, cols);
    }
}

}  // namespace

SuperResolution::SuperResolution(int width, int height, int windowSize, float factor)
    : EngineGeometry(width, height, windowSize, factor),
      badPixelHandling(static_cast<unsigned int>(windowSize)),
      registration(std::make_unique<SuperResolutionRegistration>(width, height, factor,
                                                                 kRegistrationGaussRadius)),
      minimization(
          std::make_unique<SuperResolutionMinimization>(width, height, windowSize, factor)),
      frameStore(windowSize, std::vector<float>(inputSize, 0.0f)),
      spectrumStore(windowSize, std::vector<float>(2 * spectrumSize, 0.0f)),
      registeredStore(windowSize, std::vector<float>(inputSize, 0.0f)),
      maskStore(windowSize, std::vector<char>(inputSize, 0)),
      result(outputSize, 0.0f),
      shifts(windowSize, PointF{0.0f, 0.0f}) {
    for (int i = 0; i < windowSize; ++i) {
        frames.push_back(frameStore[i].data());
        spectra.push_back(reinterpret_cast<float(*)[2]>(spectrumStore[i].data()));
        registeredFrames.push_back(registeredStore[i].data());
        masks.push_back(maskStore[i].data());
    }
    frameViews.reserve(windowSize);
    badPixelShifts.reserve(windowSize);
}

SuperResolution::~SuperResolution() = default;

void SuperResolution::setReferenceIndex(int index) {
    referenceIndex = checkedReferenceIndex(index, windowSize);
}

void SuperResolution::setPsfSigma(float sigma) {
    minimization->setPsfSigma(checkedPsfSigma(sigma));
}

float SuperResolution::getPsfSigma() const {
    return minimization->getPsfSigma();
}

void SuperResolution::setMaxCGIters(int iterations) {
    minimization->setMaxIter(checkedMaxCGIters(iterations));
}

int SuperResolution::getMaxCGIters() const {
    return minimization->getMaxIter();
}

void SuperResolution::setRegError(float error) {
    registration->setRegError(checkedRegError(error));
}

float SuperResolution::getRegError() const {
    return registration->getRegError();
}

void SuperResolution::setWeightTV(float weight) {
    minimization->setWeightTV(checkedWeightTV(weight));
}

float SuperResolution::getWeightTV() const {
    return minimization->getWeightTV();
}

void SuperResolution::setRelativeResidue(float residue) {
    minimization->setRelRes(checkedRelativeResidue(residue));
}

float SuperResolution::getRelativeResidue() const {
    return minimization->getRelRes();
}

template <typename T>
int SuperResolution::addFrame(const T* frame) {
    if (frame == nullptr) {
        throw std::invalid_argument("Frame data pointer is NULL.");
    }
    const int loaded = loadFrame(frame);
    return loaded < 0 ? loaded : 0;
}

template <typename T>
int SuperResolution::loadFrame(const T* frame) {
    if (storedFrames >= windowSize) {
        std::rotate(frames.begin(), frames.begin() + 1, frames.end());
        std::rotate(spectra.begin(), spectra.begin() + 1, spectra.end());
    } else {
        ++storedFrames;
    }
    float* newest = frames[storedFrames - 1];
    if constexpr (std::is_same_v<T, float>) {
        const float* marked = knownBadPixels.marked(frame);
        std::copy(marked, marked + inputSize, newest);
    } else {
        std::copy(frame, frame + inputSize, newest);
    }

    int badPixelResult = 0;
    if constexpr (std::is_same_v<T, float>) {
        cv::Mat_<float> view(height, width, newest);
        try {
            badPixelResult = badPixelHandling.detectAndReplaceBadPixel(view);
        } catch (...) {
            // Keep the spectrum in step with the stored frame before reporting.
            registration->getFft().forward(newest, spectra[storedFrames - 1]);
            throw;
        }
    }

    registration->getFft().forward(newest, spectra[storedFrames - 1]);
    const float* spectrum = spectra[storedFrames - 1][0];
    for (int i = 0; i < 2 * spectrumSize; ++i) {
        if (std::isinf(spectrum[i])) {
            throw kelvo::Exception(
                "FFT resulted in infinite values. No processing possible",
                kelvo::SourceLocation{kSourcePath, __LINE__,
                                      "kelvo::vision::SuperResolution::loadFrame"}
                    .text());
        }
    }
    return badPixelResult < 0 ? badPixelResult : 0;
}

template <typename T>
float SuperResolution::computeSR(T* out) {
    std::ostream& timing = timingSink.stream();
    timing << "++++++++++ SuperResolution ++++++++++" << std::endl;
    if (storedFrames < 1) {
        return -998.0f;
    }
    const int ref = std::max(storedFrames - referenceIndex - 1, 0);

    kelvo::StopWatch watch;
    const int registered =
        registration->doRegistration(storedFrames, ref, frames.data(), spectra.data(),
                                     shifts.data(), masks.data(), registeredFrames.data());
    const double registrationTime = elapsedMilliseconds(watch);
    if (registered < 0) {
        return -998.0f;
    }
    timing << " registration:         " << registrationTime << "[ms]" << std::endl;
    registration->getCompleteShifts(completeShifts);

    watch.start();
    const int status =
        displacementAndMaskStatus(completeShifts.data(), masks.data(), storedFrames, width, height);
    timing << " large_displacement:   " << elapsedMilliseconds(watch) << "[ms]" << std::endl;

    watch.start();
    const int iterations = minimization->minimize(storedFrames, ref, registeredFrames.data(),
                                                  shifts.data(), masks.data(), result.data());
    timing << " minimization:         " << elapsedMilliseconds(watch) << "[ms]" << std::endl;
    if (iterations < 0) {
        return static_cast<float>(iterations);
    }

    if constexpr (std::is_same_v<T, float>) {
        badPixelShifts.clear();
        for (const PointF& shift : completeShifts) {
            badPixelShifts.emplace_back(shift.x, shift.y);
        }
        repairResultBadPixels(badPixelHandling, result.data(), {outputWidth, outputHeight},
                              badPixelShifts, frames.data(), storedFrames, {width, height},
                              frameViews);
    }

    watch.start();
    saveFrame(out);
    // Computed once per process and input type, from the first engine's factor.
    static const int cap = static_cast<int>(factor * factor + 1.0);
    const float srFactor = estimateSrFactor(masks.data(), storedFrames, inputSize, cap);
    timing << " save+srfactor calc:   " << elapsedMilliseconds(watch) << "[ms]" << std::endl;
    timing << "+++++++++++++++++++++++++++++" << std::endl;
    computeQuality_();
    return status != 0 ? static_cast<float>(status) : srFactor;
}

template <typename T>
void SuperResolution::saveFrame(T* out) const {
    if constexpr (std::is_same_v<T, float>) {
        std::memcpy(out, result.data(), sizeof(float) * outputSize);
    } else {
        for (int i = 0; i < outputSize; ++i) {
            out[i] = cv::saturate_cast<T>(result[i]);
        }
    }
}

template <typename T>
bool SuperResolution::checkImageStructureQuality(const cv::Mat_<T>& image) const {
    double minValue = 0.0;
    double maxValue = 0.0;
    cv::minMaxLoc(image, &minValue, &maxValue);
    return maxValue - minValue >= static_cast<double>(minStructureThreshold);
}

void SuperResolution::simpleCombine() {
    if (storedFrames < 1) {
        return;
    }
    const int ref = std::max(storedFrames - referenceIndex - 1, 0);
    if (registration->doRegistration(storedFrames, ref, frames.data(), spectra.data(),
                                     shifts.data(), masks.data(), registeredFrames.data()) < 0) {
        return;
    }
    const float frameCount = static_cast<float>(storedFrames);
    for (int k = 0; k < outputSize; ++k) {
        const int r = std::min(k / outputWidth / 2, height - 1);
        const int c = std::min(k % outputWidth / 2, width - 1);
        float sum = 0.0f;
        for (int i = 0; i < storedFrames; ++i) {
            sum += registeredFrames[i][r * width + c];
        }
        result[k] = sum / frameCount;
    }
}

void SuperResolution::setNucToRad(const cv::Mat_<short>& nucA, const cv::Mat_<float>& radA,
                                  const cv::Mat_<short>& nucB, const cv::Mat_<float>& radB) {
    if (radA.size() != nucA.size() || nucB.size() != nucA.size() || radB.size() != nucA.size()) {
        throw std::invalid_argument("setNucToRad(): the calibration images differ in size.");
    }
    ensureShape(gainMap, nucA.rows, nucA.cols);
    ensureShape(offsetMap, nucA.rows, nucA.cols);
    for (int y = 0; y < nucA.rows; ++y) {
        for (int x = 0; x < nucA.cols; ++x) {
            const float a = static_cast<float>(nucA(y, x));
            const float b = static_cast<float>(nucB(y, x));
            if (b != a) {
                const float gain = (radB(y, x) - radA(y, x)) / (b - a);
                gainMap(y, x) = gain;
                offsetMap(y, x) = radA(y, x) - gain * a;
            } else {
                gainMap(y, x) = kMissingCoefficient;
                offsetMap(y, x) = kMissingCoefficient;
            }
        }
    }
    repairOutOfRange(gainMap);
    repairOutOfRange(offsetMap);
}

void SuperResolution::NucToRad(const cv::Mat_<short>& counts) {
    if (counts.size() != gainMap.size() || counts.size() != offsetMap.size()) {
        throw std::invalid_argument("NucToRad(): the counts do not match the calibration size.");
    }
    ensureShape(radianceImage, counts.rows, counts.cols);
    for (int y = 0; y < counts.rows; ++y) {
        for (int x = 0; x < counts.cols; ++x) {
            radianceImage(y, x) =
                static_cast<float>(counts(y, x)) * gainMap(y, x) + offsetMap(y, x);
        }
    }
}

float SuperResolution::processFrame2(const short* counts, float* out) {
    if (offsetMap.cols != width || gainMap.rows != height) {
        throw kelvo::Exception(
            "NucToRad() not initialized",
            kelvo::SourceLocation{kSourcePath, kProcessFrame2Line,
                                  "kelvo::vision::SuperResolution::processFrame2"}
                .text());
    }
    if (counts == nullptr || out == nullptr) {
        throw std::invalid_argument("Frame data pointer is NULL.");
    }
    const cv::Mat_<short> frame(height, width, const_cast<short*>(counts),
                                static_cast<size_t>(2 * width));
    NucToRad(frame);
    loadFrame(radianceImage.ptr<float>());
    return computeSR(out);
}

void computeQualityMap(const PointF* shifts, int count, cv::Mat_<float>& map) {
    ensureShape(map, 3, 3);
    map.setTo(0.0f);
    for (int i = 0; i < count; ++i) {
        const float gx = 2.0f * shifts[i].x + 1.0f;
        const float gy = 2.0f * shifts[i].y + 1.0f;
        const int ix = static_cast<int>(std::floor(gx));
        const int iy = static_cast<int>(std::floor(gy));
        const float fx = gx - static_cast<float>(ix);
        const float fy = gy - static_cast<float>(iy);
        // A shift outside [-0.5, 0.5) would land outside the map; registration never
        // leaves one, and such weights are dropped rather than written astray.
        auto add = [&](int row, int column, float weight) {
            if (row >= 0 && row < 3 && column >= 0 && column < 3) {
                map(row, column) += weight;
            }
        };
        add(iy, ix, (1.0f - fx) * (1.0f - fy));
        add(iy, ix + 1, fx * (1.0f - fy));
        add(iy + 1, ix + 1, fx * fy);
        add(iy + 1, ix, (1.0f - fx) * fy);
    }
    const double frameCount = static_cast<double>(count);
    for (float& cell : map) {
        cell = static_cast<float>(cell / frameCount);
    }
}

void SuperResolution::computeQuality_() {
    computeQualityMap(shifts.data(), storedFrames, qualityMap);
}

void SuperResolution::getMasks(std::vector<cv::Mat_<unsigned char>>& out) const {
    copyMasks(masks.data(), windowSize, width, height, out);
}

void SuperResolution::getCompleteShifts(std::vector<PointF>& out) const {
    registration->getCompleteShifts(out);
}

template int SuperResolution::addFrame<short>(const short*);
template int SuperResolution::addFrame<float>(const float*);
template float SuperResolution::computeSR<short>(short*);
template float SuperResolution::computeSR<float>(float*);
template void SuperResolution::saveFrame<short>(short*) const;
template void SuperResolution::saveFrame<float>(float*) const;
template bool SuperResolution::checkImageStructureQuality<short>(const cv::Mat_<short>&) const;
template bool SuperResolution::checkImageStructureQuality<float>(const cv::Mat_<float>&) const;

}  // namespace kelvo::vision
