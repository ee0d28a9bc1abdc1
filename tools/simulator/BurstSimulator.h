// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <opencv2/core.hpp>

#include <cstdint>
#include <vector>

namespace kelvo::tools {

enum class DefectKind { Marker129, Marker130, Marker132, Hot };

// A defective sensor pixel: the same frame position in every frame of a burst.
struct Defect {
    cv::Point position;  // (x = column, y = row) in frame pixels
    DefectKind kind;
};

struct BurstOptions {
    int frameCount = 5;
    // The frame whose shift is (0, 0) and on whose grid the truth lies. The entry
    // points' default reference index 3 selects burst position 1 of five frames.
    int referenceFrame = 0;
    // Bound of each random shift component, in frame pixels (at most 64, like explicit ones).
    float maxShift = 1.5f;
    // Shifts to use instead of random ones: frameCount entries, (0, 0) at referenceFrame.
    std::vector<cv::Point2f> shifts;
    // Gaussian sensor PSF in high-resolution pixels, integrated over each pixel and cut
    // to psfHalfTaps taps on either side of the sample centre (2 is the reconstruction's
    // own kernel for a factor of 2).
    float psfSigma = 0.683f;
    int psfHalfTaps = 2;
    // Shift by bilinear interpolation between high-resolution pixels: the reconstruction's
    // own model of a shift (whole pixels exact, the rest by a linearly shifted PSF), which
    // its data term can then meet exactly. Off: the exact band-limited shift of a real
    // camera, which the reconstruction meets only approximately on sharp edges.
    bool engineShiftModel = false;
    float noiseSigma = 0.05f;       // temporal sensor noise, kelvin
    float columnNoiseSigma = 0.0f;  // fixed-pattern offset per frame column, kelvin
    int markerPixels = 0;           // cycled through the marker bits 129, 130, 132
    int hotPixels = 0;
    float hotPixelValue = 10000.0f;  // above any valid temperature
    std::uint64_t seed = 1;
};

// A burst with its answer. frames[k] at pixel p + shifts[k] shows what the reference
// frame shows at p (shifts in frame pixels).
//
// Geometry: truth is W x H, each frame (W/2) x (H/2). The reconstruction's output pixel
// (r, c) is truth(r, c). Frame pixel (r, c) of the reference is centred on the corner
// shared by truth pixels (2r, 2c) and (2r+1, 2c+1), i.e. at truth coordinates
// (2r + 0.5, 2c + 0.5), pixel centres at integers:
//   reference(r, c) = sum_{a,b = 1-t..t} g[a] g[b] truth(2r + a, 2c + b) + noise,
// g[a] = Gaussian mass over [a - 1, a] relative to that centre (t = psfHalfTaps, rows
// and columns outside the truth taken from the margin of the scene). cv::resize of the
// reference by 2 maps to the same grid (see ImageQuality::upscaleBicubic).
struct Burst {
    std::vector<cv::Mat_<float>> frames;
    std::vector<cv::Point2f> shifts;
    int referenceFrame = 0;
    cv::Mat_<float> truth;
    std::vector<Defect> defects;
};

// Renders bursts by the forward model of the reconstruction: the high-resolution scene
// shifted by twice the frame shift (an exact band-limited Fourier shift of a mirrored
// extension, so no wrap-around reaches the frame, or the engine's own shift model),
// blurred with the integrated Gaussian
// PSF, sampled at every second row and column, plus column pattern, noise and defects.
// Deterministic for options.seed; the reference frame is noise-free only if noiseSigma
// and columnNoiseSigma are 0.
class BurstSimulator {
public:
    // Throws std::invalid_argument for options out of range.
    explicit BurstSimulator(BurstOptions options);

    // A ThermalScene of outputSize plus the margin, rendered with options.seed.
    // outputSize must be even in both directions and at least 4 x 4.
    Burst simulate(cv::Size outputSize) const;
    // Any finite scene (degrees Celsius); the truth is the scene without sceneMargin()
    // on each side, cut down to even width and height at the right and bottom.
    Burst simulate(const cv::Mat_<float>& scene) const;

    // Scene pixels around the truth that the shifts and the PSF reach, plus a guard
    // band that keeps the mirror seams of the Fourier shift away.
    int sceneMargin() const;
    const BurstOptions& options() const { return settings; }

    // The float whose bit pattern is the given 32-bit integer (a defect marker).
    static float markerValue(std::uint32_t bits);

private:
    std::vector<cv::Point2f> drawShifts(cv::RNG& rng) const;
    std::vector<Defect> drawDefects(cv::Size frameSize, cv::RNG& rng) const;
    cv::Mat_<float> sampleFrame(const cv::Mat_<float>& shiftedScene, cv::Point truthOrigin,
                                cv::Size frameSize) const;

    BurstOptions settings;
    std::vector<double> psf;  // 2 t taps, sample centre between taps t-1 and t
};

}  // namespace kelvo::tools
