// SPDX-License-Identifier: Apache-2.0
#include "vision/superresolution/PsfSigmaEstimator.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <iomanip>
#include <limits>
#include <numeric>
#include <opencv2/imgproc.hpp>
#include <sstream>
#include <stdexcept>

#include "vision/superresolution/BurstRegistration.h"
#include "vision/superresolution/SrFloatMinimization.h"

namespace kelvo::vision {

namespace {

constexpr double kPi = 3.14159265358979323846;
// Radial bands of the separated spectrum, over |f| in [kLowest, 0.5] cycles per
// high-resolution pixel; the lowest frequencies say more about the window than the PSF.
constexpr int kBands = 24;
constexpr double kLowest = 0.03;
// The finest band the fit needs to take part.
constexpr double kHighestNeeded = 0.18;
// A band takes part in the fit when its power is at least this many times the noise
// share taken off it.
constexpr double kSignalToNoise = 1.0;
// Components near half a cycle per pixel are the aliases of the strongest, lowest
// frequencies, into which the smallest registration error leaks their power.
constexpr double kHighest = 0.4;
// Alias separation is skipped where the shifts make it ill-conditioned: where it
// would multiply the noise power of a component by more than this (four frames at
// ideal shifts give 1/2 for each component, 2 for the trace taken).
constexpr double kMaxNoiseGain = 40.0;
// Registered frames of one scene correlate at least this well with the reference.
constexpr double kMinCorrelation = 0.9;

// The crop of the reference with the most gradient energy: the PSF shows itself at
// edges, not in flat areas.
cv::Rect mostTexturedCrop(const cv::Mat_<float>& reference, cv::Size crop) {
    crop.width = std::min(crop.width, reference.cols);
    crop.height = std::min(crop.height, reference.rows);
    cv::Mat_<float> gx, gy;
    cv::Sobel(reference, gx, CV_32F, 1, 0);
    cv::Sobel(reference, gy, CV_32F, 0, 1);
    cv::Mat_<double> integral;
    cv::integral(gx.mul(gx) + gy.mul(gy), integral, CV_64F);
    // Candidate crops on a half-crop grid, the last one flush with each edge.
    auto starts = [](int length, int size) {
        std::vector<int> positions;
        for (int p = 0; p + size < length; p += std::max(1, size / 2)) {
            positions.push_back(p);
        }
        positions.push_back(length - size);
        return positions;
    };
    cv::Rect best(0, 0, crop.width, crop.height);
    double bestEnergy = -1.0;
    for (int y : starts(reference.rows, crop.height)) {
        for (int x : starts(reference.cols, crop.width)) {
            const double energy = integral(y + crop.height, x + crop.width) -
                                  integral(y, x + crop.width) - integral(y + crop.height, x) +
                                  integral(y, x);
            if (energy > bestEnergy) {
                bestEnergy = energy;
                best = cv::Rect(x, y, crop.width, crop.height);
            }
        }
    }
    return best;
}

// Frequency of DFT index i of n, in cycles per sample, in [-1/2, 1/2).
double signedFrequency(int i, int n) {
    return (2 * i < n ? i : i - n) / static_cast<double>(n);
}

// The two high-resolution frequencies that a frame frequency phi folds together.
std::array<double, 2> aliases(double phi) {
    return {phi / 2.0, phi < 0.0 ? phi / 2.0 + 0.5 : phi / 2.0 - 0.5};
}

// |H(f)|^2 of the reconstruction's centred kernel for one direction.
double kernelPower(const std::vector<float>& taps, double f) {
    double re = 0.0, im = 0.0;
    for (std::size_t j = 0; j < taps.size(); ++j) {
        re += taps[j] * std::cos(2.0 * kPi * f * static_cast<double>(j));
        im -= taps[j] * std::sin(2.0 * kPi * f * static_cast<double>(j));
    }
    return re * re + im * im;
}

// One separated component: indices into the tables of horizontal and vertical
// frequencies, and its radial band.
struct Sample {
    int x, y, band;
    double power;
    // The noise share of the power: the fit's residual variance at the frame frequency
    // times what the separation multiplies it by.
    double noise;
};

// The separated spectrum of the blurred scene: its components, and the frequencies their
// indices stand for.
struct Components {
    std::vector<double> horizontal;  // 2 per crop column: the two aliases
    std::vector<double> vertical;    // 2 per crop row
    std::vector<Sample> samples;
    // Root mean square disagreement of the frames at fine scales, in frame units.
    double disagreement = 0.0;
};

// Spectra of the crops under a Hann window, the mean removed so that the window's own
// spectrum does not swamp the low frequencies.
std::vector<cv::Mat> windowedSpectra(const std::vector<cv::Mat_<float>>& frames, cv::Rect crop) {
    cv::Mat_<double> window;
    cv::createHanningWindow(window, crop.size(), CV_64F);
    std::vector<cv::Mat> spectra(frames.size());
    for (std::size_t k = 0; k < frames.size(); ++k) {
        cv::Mat_<double> frame;
        frames[k](crop).convertTo(frame, CV_64F);
        frame -= cv::mean(frame)[0];
        cv::dft(frame.mul(window), spectra[k], cv::DFT_COMPLEX_OUTPUT);
    }
    return spectra;
}

// Alias separation at every crop frequency: Y = V Z written with real and imaginary parts
// apart (2N equations, 8 unknowns) and solved by least squares.
Components separateAliases(const std::vector<cv::Mat>& spectra,
                           const std::vector<cv::Point2f>& shifts, cv::Size size) {
    const int count = static_cast<int>(spectra.size());
    Components components;
    components.horizontal.resize(2 * size.width);
    components.vertical.resize(2 * size.height);
    for (int u = 0; u < size.width; ++u) {
        const auto f = aliases(signedFrequency(u, size.width));
        std::copy(f.begin(), f.end(), components.horizontal.begin() + 2 * u);
    }
    for (int v = 0; v < size.height; ++v) {
        const auto f = aliases(signedFrequency(v, size.height));
        std::copy(f.begin(), f.end(), components.vertical.begin() + 2 * v);
    }
    const int rows = 2 * count;
    cv::Mat_<double> a(rows, 8), b(rows, 1), normal, inverse, z;
    std::vector<double> residuals;
    for (int v = 0; v < size.height; ++v) {
        const double* fy = &components.vertical[2 * v];
        for (int u = 0; u < size.width; ++u) {
            const double* fx = &components.horizontal[2 * u];
            for (int k = 0; k < count; ++k) {
                const cv::Vec2d y = spectra[k].at<cv::Vec2d>(v, u);
                b(k, 0) = y[0];
                b(k + count, 0) = y[1];
                for (int j = 0; j < 4; ++j) {
                    const double phase =
                        -4.0 * kPi * (fx[j % 2] * shifts[k].x + fy[j / 2] * shifts[k].y);
                    const double re = std::cos(phase), im = std::sin(phase);
                    a(k, j) = re;
                    a(k, j + 4) = -im;
                    a(k + count, j) = im;
                    a(k + count, j + 4) = re;
                }
            }
            cv::mulTransposed(a, normal, true);
            if (cv::invert(normal, inverse, cv::DECOMP_CHOLESKY) == 0.0 ||
                inverse(0, 0) + inverse(1, 1) + inverse(2, 2) + inverse(3, 3) > kMaxNoiseGain) {
                continue;
            }
            z = inverse * (a.t() * b);
            // The residual, with 2N - 8 degrees of freedom, measures the noise at this
            // frequency alone: the frames' disagreement is not white, since registration
            // error and changes of gain leak the strong low frequencies into it. With four
            // frames there is no residual, and the noise stays in the powers.
            const double residual =
                count > 4 ? cv::norm(b - a * z, cv::NORM_L2SQR) / (rows - 8) : 0.0;
            residuals.push_back(residual);
            for (int j = 0; j < 4; ++j) {
                const double f = std::hypot(fx[j % 2], fy[j / 2]);
                const int band = static_cast<int>((f - kLowest) / (0.5 - kLowest) * kBands);
                if (f >= kLowest && band < kBands && std::abs(fx[j % 2]) <= kHighest &&
                    std::abs(fy[j / 2]) <= kHighest) {
                    components.samples.push_back(
                        {2 * u + j % 2, 2 * v + j / 2, band,
                         z(j, 0) * z(j, 0) + z(j + 4, 0) * z(j + 4, 0),
                         residual * (inverse(j, j) + inverse(j + 4, j + 4))});
                }
            }
        }
    }
    // Most frame frequencies hold fine detail only: the median residual is the floor of
    // the disagreement. A Hann window keeps (3/8)^2 of the noise power of each pixel, and
    // each real part of the spectrum carries half of it.
    if (!residuals.empty()) {
        std::nth_element(residuals.begin(), residuals.begin() + residuals.size() / 2,
                         residuals.end());
        components.disagreement =
            std::sqrt(2.0 * residuals[residuals.size() / 2] / (0.140625 * size.area()));
    }
    return components;
}

// Root mean square distance, in natural log units, between the bands' power divided by
// the kernel's mean response and the scene's power spectrum with its best scale c.
double sceneMisfit(const std::vector<PsfSigmaEstimator::Band>& bands,
                   const std::vector<double>& response,
                   const PsfSigmaEstimator::Settings& settings) {
    std::vector<double> misfit(bands.size());
    for (std::size_t i = 0; i < bands.size(); ++i) {
        const double f = bands[i].frequency;
        const double sceneBlur = 2.0 * kPi * settings.sceneSigma * f;
        misfit[i] = std::log(bands[i].power) - std::log(std::max(response[i], 1e-300)) +
                    settings.sceneSlope * std::log(f) + sceneBlur * sceneBlur;
    }
    // The best log c is the mean.
    const double scale = std::accumulate(misfit.begin(), misfit.end(), 0.0) / misfit.size();
    double squared = 0.0;
    for (double value : misfit) {
        squared += (value - scale) * (value - scale);
    }
    return std::sqrt(squared / misfit.size());
}

}  // namespace

float PsfSigmaEstimator::estimate(const std::vector<cv::Mat_<float>>& frames,
                                  int referencePosition) {
    const int count = static_cast<int>(frames.size());
    if (count < 4 || referencePosition < 0 || referencePosition >= count) {
        throw std::invalid_argument(
            "The PSF sigma needs at least four frames and a reference among them.");
    }
    const cv::Size size = frames.front().size();
    for (const auto& frame : frames) {
        if (frame.empty() || frame.size() != size || !cv::checkRange(frame)) {
            throw std::invalid_argument(
                "The PSF sigma needs non-empty frames of one size with finite values.");
        }
    }
    BurstRegistration burst = BurstRegistration::of(frames, referencePosition, settings.regError);
    if (burst.status < 0) {
        throw std::runtime_error("The frames could not be registered to estimate the PSF sigma.");
    }
    // Whole-pixel moves leave zeros (and pixels carried over from the next row) at the
    // edges: only the part every frame covers takes part.
    float largest = 0.0f;
    for (const auto& shift : burst.completeShifts) {
        largest = std::max({largest, std::abs(shift.x), std::abs(shift.y)});
    }
    const int margin = static_cast<int>(std::ceil(largest)) + 1;
    const cv::Rect inside =
        cv::Rect(margin, margin, size.width - 2 * margin, size.height - 2 * margin) &
        cv::Rect(cv::Point(), size);
    if (inside.width < 16 || inside.height < 16) {
        throw std::runtime_error("The frames overlap too little to estimate the PSF sigma.");
    }
    for (auto& frame : burst.moved) {
        frame = frame(inside);
    }
    return estimateRegistered(burst.moved, burst.subPixelShifts, referencePosition);
}

float PsfSigmaEstimator::estimateRegistered(const std::vector<cv::Mat_<float>>& registered,
                                            const std::vector<cv::Point2f>& subPixelShifts,
                                            int referencePosition) {
    const int count = static_cast<int>(registered.size());
    if (count < 4 || subPixelShifts.size() != registered.size() || referencePosition < 0 ||
        referencePosition >= count) {
        throw std::invalid_argument(
            "The PSF sigma needs at least four frames with a shift each and a reference.");
    }
    const cv::Rect crop = mostTexturedCrop(registered[referencePosition], settings.crop);
    // A frame of another place (a cut, a frame torn by a fast move) would pass for detail
    // the others lack. Registered frames of one scene correlate above 0.95 even when
    // compressed; frames with too little structure for the estimate correlate poorly too.
    for (int k = 0; k < count; ++k) {
        cv::Mat_<float> correlation;
        cv::matchTemplate(registered[k](crop), registered[referencePosition](crop), correlation,
                          cv::TM_CCOEFF_NORMED);
        if (!(correlation(0, 0) >= kMinCorrelation)) {
            std::ostringstream text;
            text.precision(2);
            text << "Frame " << k << " of the " << count
                 << " (oldest first, counted from 0) correlates only " << correlation(0, 0)
                 << " with the reference: the PSF sigma needs frames of one scene with clear"
                    " detail.";
            throw UnmatchedFrame(k, text.str());
        }
    }
    const Components components =
        separateAliases(windowedSpectra(registered, crop), subPixelShifts, crop.size());

    // Radial bands with enough components and power well above the noise's share.
    std::vector<double> power(kBands, 0.0), noise(kBands, 0.0), frequency(kBands, 0.0);
    std::vector<int> members(kBands, 0);
    for (const Sample& sample : components.samples) {
        power[sample.band] += sample.power;
        noise[sample.band] += sample.noise;
        frequency[sample.band] +=
            std::hypot(components.horizontal[sample.x], components.vertical[sample.y]);
        ++members[sample.band];
    }
    spectrum.clear();
    std::vector<int> bandIndex(kBands, -1);
    for (int band = 0; band < kBands; ++band) {
        const double n = members[band];
        const Band entry{frequency[band] / n, (power[band] - noise[band]) / n, noise[band] / n};
        if (members[band] >= 8 && entry.power > kSignalToNoise * entry.noise && entry.power > 0.0) {
            bandIndex[band] = static_cast<int>(spectrum.size());
            spectrum.push_back(entry);
        } else if (!spectrum.empty()) {
            // Detail fades with frequency: a band that stands out beyond the first one lost
            // holds the leaked aliases of the strongest frequencies, not the scene.
            break;
        }
    }
    if (spectrum.size() < 4) {
        throw std::runtime_error("The frames show too little structure to estimate the PSF sigma.");
    }
    // Below a fifth of a cycle per pixel the candidate blurs differ too little from a
    // steeper scene to tell them apart: the estimate would swing between the ends of the
    // range. Real frames get there when compression, moving objects or a changing gain
    // raise the frames' disagreement (the noise measured) over the fine detail.
    if (spectrum.back().frequency < kHighestNeeded) {
        std::ostringstream text;
        text.precision(2);
        text << "The frames agree on detail only up to " << std::setprecision(3)
             << spectrum.back().frequency << std::setprecision(2) << " cycles per result pixel ("
             << kHighestNeeded
             << " needed), too little to estimate the PSF sigma: finer detail"
                " is weaker than their disagreement of about "
             << components.disagreement
             << " (root mean square, frame units), from noise, compression or motion the"
                " shifts do not describe.";
        throw std::runtime_error(text.str());
    }

    // Every candidate sigma: the kernel's mean power response per band, and how well the
    // spectrum divided by it follows the scene's.
    SrFloatMinimization kernelSource(4, 4, 1, 2.0f);
    float bestSigma = settings.minSigma;
    bestFitError = std::numeric_limits<double>::infinity();
    const int candidates = std::max(2, settings.candidates);
    const double step =
        std::log(settings.maxSigma / settings.minSigma) / static_cast<double>(candidates - 1);
    std::vector<double> horizontalResponse(components.horizontal.size());
    std::vector<double> verticalResponse(components.vertical.size());
    std::vector<double> response(spectrum.size());
    for (int c = 0; c < candidates; ++c) {
        const float sigma = static_cast<float>(settings.minSigma * std::exp(step * c));
        kernelSource.setPsfSigma(sigma);
        const std::vector<float> taps(kernelSource.getBasePsf(),
                                      kernelSource.getBasePsf() + kernelSource.getPsfSize());
        for (std::size_t i = 0; i < horizontalResponse.size(); ++i) {
            horizontalResponse[i] = kernelPower(taps, components.horizontal[i]);
        }
        for (std::size_t i = 0; i < verticalResponse.size(); ++i) {
            verticalResponse[i] = kernelPower(taps, components.vertical[i]);
        }
        std::fill(response.begin(), response.end(), 0.0);
        for (const Sample& sample : components.samples) {
            if (bandIndex[sample.band] >= 0) {
                response[bandIndex[sample.band]] += horizontalResponse[sample.x] *
                                                    verticalResponse[sample.y] /
                                                    members[sample.band];
            }
        }
        const double error = sceneMisfit(spectrum, response, settings);
        if (error < bestFitError) {
            bestFitError = error;
            bestSigma = sigma;
        }
    }
    return bestSigma;
}

}  // namespace kelvo::vision
