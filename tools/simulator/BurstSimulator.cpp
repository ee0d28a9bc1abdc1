// SPDX-License-Identifier: Apache-2.0
#include "tools/simulator/BurstSimulator.h"

#include <opencv2/imgproc.hpp>

#include "tools/simulator/ThermalScene.h"

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace kelvo::tools {

namespace {

// Scene pixels between the mirror seams of the Fourier shift and the farthest pixel a
// frame reads: the seams carry only kinks, whose ringing has faded out by then.
constexpr int kSeamGuard = 16;
// Bound of shift components in frame pixels: keeps the scene margin reasonable.
constexpr float kShiftLimit = 64.0f;

// Independent random streams for scene, shifts, noise and defects, so that changing
// one option leaves the others' draws alone (splitmix64 finaliser).
enum Stream : std::uint64_t { kSceneStream, kShiftStream, kNoiseStream, kDefectStream };
cv::RNG streamRng(std::uint64_t seed, Stream stream) {
    std::uint64_t z = seed + 0x9E3779B97F4A7C15ull * (static_cast<std::uint64_t>(stream) + 1);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return cv::RNG(z ^ (z >> 31));
}

void require(bool condition, const std::string& message) {
    if (!condition) {
        throw std::invalid_argument(message);
    }
}

// Spectrum of the scene extended to an even, mirror-symmetric periodic image: the
// extension is continuous across its seams, so a sub-pixel Fourier shift does not ring
// there the way the jump of a plain periodic wrap would.
class FourierShifter {
public:
    explicit FourierShifter(const cv::Mat_<float>& scene) : sceneSize(scene.size()) {
        cv::Mat padded;
        cv::copyMakeBorder(scene, padded, 0, cv::getOptimalDFTSize(scene.rows) - scene.rows, 0,
                           cv::getOptimalDFTSize(scene.cols) - scene.cols, cv::BORDER_REFLECT);
        cv::Mat mirrored;
        cv::copyMakeBorder(padded, mirrored, 0, padded.rows, 0, padded.cols, cv::BORDER_REFLECT);
        cv::dft(mirrored, spectrum, cv::DFT_COMPLEX_OUTPUT);
    }

    // out(p) = scene(p - shift): content moves by +shift (pixels, any real value).
    cv::Mat_<float> shifted(cv::Point2d shift) const {
        const std::vector<std::complex<double>> phaseX = phaseRamp(spectrum.cols, shift.x);
        const std::vector<std::complex<double>> phaseY = phaseRamp(spectrum.rows, shift.y);
        cv::Mat product(spectrum.size(), spectrum.type());
        for (int y = 0; y < spectrum.rows; ++y) {
            const auto* in = spectrum.ptr<std::complex<float>>(y);
            auto* out = product.ptr<std::complex<float>>(y);
            for (int x = 0; x < spectrum.cols; ++x) {
                out[x] = in[x] * std::complex<float>(phaseY[y] * phaseX[x]);
            }
        }
        cv::Mat image;
        cv::dft(product, image, cv::DFT_INVERSE | cv::DFT_SCALE | cv::DFT_REAL_OUTPUT);
        return cv::Mat_<float>(image(cv::Rect(cv::Point(), sceneSize)).clone());
    }

private:
    // exp(-2 pi i f shift / n) over the signed frequencies f. The Nyquist bin of the
    // even length n gets the real part cos(pi shift), which keeps the spectrum Hermitian
    // and the shifted image real.
    static std::vector<std::complex<double>> phaseRamp(int n, double shift) {
        std::vector<std::complex<double>> ramp(n);
        for (int k = 0; k < n; ++k) {
            const int frequency = k <= n / 2 ? k : k - n;
            const double angle = -2.0 * CV_PI * frequency * shift / n;
            ramp[k] =
                2 * k == n ? std::complex<double>(std::cos(angle), 0.0) : std::polar(1.0, angle);
        }
        return ramp;
    }

    cv::Size sceneSize;
    cv::Mat spectrum;
};

// out(p) = scene(p - shift) by bilinear interpolation, scene pixels beyond the edge
// repeated. Along a row, for 0 <= shift < 1: (1 - shift) v[X] + shift v[X - 1], the blend
// the reconstruction's shifted PSF applies to the residual shift.
cv::Mat_<float> bilinearShift(const cv::Mat_<float>& scene, cv::Point2d shift) {
    struct Tap {
        int lower;
        float weight;
    };
    const auto tap = [](int index, double axisShift) {
        const double position = index - axisShift;
        const double lower = std::floor(position);
        return Tap{static_cast<int>(lower), static_cast<float>(position - lower)};
    };
    const auto at = [&](int row, int col) {
        return scene(std::clamp(row, 0, scene.rows - 1), std::clamp(col, 0, scene.cols - 1));
    };
    cv::Mat_<float> out(scene.size());
    for (int y = 0; y < scene.rows; ++y) {
        const Tap ty = tap(y, shift.y);
        for (int x = 0; x < scene.cols; ++x) {
            const Tap tx = tap(x, shift.x);
            const float upper = (1.0f - tx.weight) * at(ty.lower, tx.lower) +
                                tx.weight * at(ty.lower, tx.lower + 1);
            const float lower = (1.0f - tx.weight) * at(ty.lower + 1, tx.lower) +
                                tx.weight * at(ty.lower + 1, tx.lower + 1);
            out(y, x) = (1.0f - ty.weight) * upper + ty.weight * lower;
        }
    }
    return out;
}

}  // namespace

BurstSimulator::BurstSimulator(BurstOptions options) : settings(std::move(options)) {
    const BurstOptions& o = settings;
    require(o.frameCount >= 1, "frameCount must be at least 1");
    require(o.referenceFrame >= 0 && o.referenceFrame < o.frameCount,
            "referenceFrame must lie in [0, frameCount)");
    require(o.maxShift >= 0.0f && o.maxShift <= kShiftLimit, "maxShift must lie in [0, 64]");
    require(o.shifts.empty() || static_cast<int>(o.shifts.size()) == o.frameCount,
            "shifts must be empty or hold frameCount entries");
    for (const cv::Point2f& shift : o.shifts) {
        require(std::abs(shift.x) <= kShiftLimit && std::abs(shift.y) <= kShiftLimit,
                "shift components must lie in [-64, 64]");
    }
    require(o.shifts.empty() || o.shifts[o.referenceFrame] == cv::Point2f(0.0f, 0.0f),
            "the reference frame's shift must be (0, 0)");
    require(std::isfinite(o.psfSigma) && o.psfSigma > 0.0f, "psfSigma must be finite and > 0");
    require(o.psfHalfTaps >= 1 && o.psfHalfTaps <= 16, "psfHalfTaps must lie in [1, 16]");
    require(std::isfinite(o.noiseSigma) && o.noiseSigma >= 0.0f,
            "noiseSigma must be finite and >= 0");
    require(std::isfinite(o.columnNoiseSigma) && o.columnNoiseSigma >= 0.0f,
            "columnNoiseSigma must be finite and >= 0");
    require(o.markerPixels >= 0 && o.hotPixels >= 0, "defect counts must be >= 0");

    // g[a] = (erf(a / (sqrt 2 sigma)) - erf((a - 1) / (sqrt 2 sigma))) / 2 for
    // a = 1-t .. t, the Gaussian's mass over one pixel, normalised to sum 1.
    const double scale = 1.0 / (std::sqrt(2.0) * o.psfSigma);
    double sum = 0.0;
    for (int a = 1 - o.psfHalfTaps; a <= o.psfHalfTaps; ++a) {
        psf.push_back(0.5 * (std::erf(a * scale) - std::erf((a - 1) * scale)));
        sum += psf.back();
    }
    for (double& tap : psf) {
        tap /= sum;
    }
}

int BurstSimulator::sceneMargin() const {
    float largest = settings.maxShift;
    for (const cv::Point2f& shift : settings.shifts) {
        largest = std::max({largest, std::abs(shift.x), std::abs(shift.y)});
    }
    return settings.psfHalfTaps + static_cast<int>(std::ceil(2.0f * largest)) + kSeamGuard;
}

float BurstSimulator::markerValue(std::uint32_t bits) {
    float value;
    std::memcpy(&value, &bits, sizeof value);
    return value;
}

Burst BurstSimulator::simulate(cv::Size outputSize) const {
    require(outputSize.width >= 4 && outputSize.height >= 4 && outputSize.width % 2 == 0 &&
                outputSize.height % 2 == 0,
            "the output size must be even and at least 4 x 4");
    const int margin = sceneMargin();
    const cv::Size sceneSize(outputSize.width + 2 * margin, outputSize.height + 2 * margin);
    return simulate(ThermalScene::render(sceneSize, streamRng(settings.seed, kSceneStream).state));
}

Burst BurstSimulator::simulate(const cv::Mat_<float>& scene) const {
    const int margin = sceneMargin();
    const cv::Size truthSize((scene.cols - 2 * margin) / 2 * 2, (scene.rows - 2 * margin) / 2 * 2);
    require(truthSize.width >= 4 && truthSize.height >= 4,
            "the scene must exceed the margin " + std::to_string(margin) +
                " on each side by at least 4 x 4 pixels");
    require(cv::checkRange(scene), "the scene must be finite");
    const cv::Point origin(margin, margin);
    const cv::Size frameSize(truthSize.width / 2, truthSize.height / 2);

    Burst burst;
    burst.referenceFrame = settings.referenceFrame;
    burst.truth = scene(cv::Rect(origin, truthSize)).clone();
    cv::RNG shiftRng = streamRng(settings.seed, kShiftStream);
    burst.shifts = settings.shifts.empty() ? drawShifts(shiftRng) : settings.shifts;
    cv::RNG defectRng = streamRng(settings.seed, kDefectStream);
    burst.defects = drawDefects(frameSize, defectRng);

    cv::RNG noiseRng = streamRng(settings.seed, kNoiseStream);
    cv::Mat_<float> columnPattern(1, frameSize.width);
    noiseRng.fill(columnPattern, cv::RNG::NORMAL, 0.0, settings.columnNoiseSigma);
    std::optional<FourierShifter> fourier;
    if (!settings.engineShiftModel) {
        fourier.emplace(scene);
    }
    for (const cv::Point2f& shift : burst.shifts) {
        // Scene content moves by twice the frame shift: two scene pixels per frame pixel.
        const cv::Point2d sceneShift = cv::Point2d(shift) * 2.0;
        const cv::Mat_<float> shiftedScene = shift == cv::Point2f(0.0f, 0.0f) ? scene
                                             : fourier ? fourier->shifted(sceneShift)
                                                       : bilinearShift(scene, sceneShift);
        cv::Mat_<float> frame = sampleFrame(shiftedScene, origin, frameSize);
        cv::Mat_<float> noise(frameSize);
        noiseRng.fill(noise, cv::RNG::NORMAL, 0.0, settings.noiseSigma);
        frame += noise + cv::repeat(columnPattern, frameSize.height, 1);
        for (const Defect& defect : burst.defects) {
            static const std::uint32_t markerBits[] = {129, 130, 132};
            frame(defect.position) = defect.kind == DefectKind::Hot
                                         ? settings.hotPixelValue
                                         : markerValue(markerBits[static_cast<int>(defect.kind)]);
        }
        burst.frames.push_back(frame);
    }
    return burst;
}

std::vector<cv::Point2f> BurstSimulator::drawShifts(cv::RNG& rng) const {
    std::vector<cv::Point2f> shifts(settings.frameCount);
    for (int k = 0; k < settings.frameCount; ++k) {
        const float x = rng.uniform(-settings.maxShift, settings.maxShift);
        const float y = rng.uniform(-settings.maxShift, settings.maxShift);
        shifts[k] = k == settings.referenceFrame ? cv::Point2f() : cv::Point2f(x, y);
    }
    return shifts;
}

// Isolated defects off the frame border: every defect keeps four good neighbours, as a
// repair from the neighbourhood expects.
std::vector<Defect> BurstSimulator::drawDefects(cv::Size frameSize, cv::RNG& rng) const {
    const int count = settings.markerPixels + settings.hotPixels;
    std::vector<Defect> defects;
    for (int attempt = 0; static_cast<int>(defects.size()) < count; ++attempt) {
        require(attempt < 100 * count + 100 && frameSize.width > 2 && frameSize.height > 2,
                "too many defective pixels for the frame size");
        // One draw per statement: the order in which arguments are evaluated is the compiler's.
        const int row = rng.uniform(1, frameSize.height - 1);
        const cv::Point candidate(rng.uniform(1, frameSize.width - 1), row);
        const bool isolated =
            std::none_of(defects.begin(), defects.end(), [&](const Defect& other) {
                return std::abs(other.position.x - candidate.x) < 2 &&
                       std::abs(other.position.y - candidate.y) < 2;
            });
        if (isolated) {
            const int index = static_cast<int>(defects.size());
            const DefectKind kind = index < settings.markerPixels
                                        ? static_cast<DefectKind>(index % 3)
                                        : DefectKind::Hot;
            defects.push_back({candidate, kind});
        }
    }
    return defects;
}

// frame(r, c) = sum_{i,j} g[i] g[j] image(origin.y + 2r + a_i, origin.x + 2c + a_j) with
// tap offsets a = 1-t .. t, as a horizontal pass over the rows the vertical pass reads.
cv::Mat_<float> BurstSimulator::sampleFrame(const cv::Mat_<float>& shiftedScene,
                                            cv::Point truthOrigin, cv::Size frameSize) const {
    const int taps = static_cast<int>(psf.size());
    const int firstOffset = 1 - settings.psfHalfTaps;
    const int rowsRead = 2 * (frameSize.height - 1) + taps;
    cv::Mat_<double> horizontal(rowsRead, frameSize.width);
    for (int y = 0; y < rowsRead; ++y) {
        const float* row =
            shiftedScene[truthOrigin.y + firstOffset + y] + truthOrigin.x + firstOffset;
        for (int c = 0; c < frameSize.width; ++c) {
            double sum = 0.0;
            for (int j = 0; j < taps; ++j) {
                sum += psf[j] * row[2 * c + j];
            }
            horizontal(y, c) = sum;
        }
    }
    cv::Mat_<float> frame(frameSize);
    for (int r = 0; r < frameSize.height; ++r) {
        for (int c = 0; c < frameSize.width; ++c) {
            double sum = 0.0;
            for (int i = 0; i < taps; ++i) {
                sum += psf[i] * horizontal(2 * r + i, c);
            }
            frame(r, c) = static_cast<float>(sum);
        }
    }
    return frame;
}

}  // namespace kelvo::tools
