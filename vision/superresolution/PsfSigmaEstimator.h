// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <opencv2/core.hpp>
#include <stdexcept>
#include <string>
#include <vector>

namespace kelvo::vision {

// Finds the Gaussian sigma of the sensor PSF (in high-resolution pixels, as
// SrFloat::setPsfSigma takes it) from a burst itself.
//
// A frame samples the blurred scene u = h * x every second high-resolution pixel, so
// at each frequency phi of the frame's spectrum four frequencies f of u meet (f = phi/2
// and phi/2 + 1/2 in each direction). Frame k, moved by the sub-pixel shift s_k,
// sees them with the phases exp(-4 pi i f.s_k):
//
//   Y_k(phi) = sum_j exp(-4 pi i f_j.s_k) Z_j,    Z_j = U(f_j) up to a common factor.
//
// With four frames or more at distinct shifts this separates, by least squares at each
// frame frequency, the spectrum of u over the whole band the result can hold (up to
// half a cycle per high-resolution pixel, twice the frames' Nyquist limit); the
// residual of the fit at each frequency measures the noise there, whose share is taken
// off the powers. The spectrum ends at the first band whose power no longer stands out of
// that noise.
//
// The data alone cannot tell blur from scene (u is all they show: a sharper scene
// behind more blur looks the same), so the estimate rests on what real thermal scenes
// look like at the result's resolution: a power spectrum c |f|^-a exp(-(2 pi s0 f)^2).
// The sigma is the one whose PSF response |H_sigma(f)|^2 (the reconstruction's own
// kernel, so that the estimate suits the pass), times that spectrum with its best c,
// fits the radial power spectrum of u best in the log domain. a and s0 come from real
// thermal stills: their spectra fall with a = 3.2 .. 4.0 (3.5 typical) and an own blur
// of s0 = 0.3 .. 0.6; s0 = 0.7 recovers known sigmas on bursts simulated from one of
// them (the others held out). A scene blurred itself (defocus, fog, smooth surfaces
// only) therefore reads as more sensor blur, and a scene sharper than such stills as
// less.
//
// It declines (std::runtime_error, saying why) when a registered frame correlates poorly
// with the reference (another place, or too little structure), or when the frames agree
// on detail only at frequencies where the candidate blurs cannot be told from a steeper
// scene; the message then gives the frames' disagreement at fine scales.
//
// Cost: one registration of the whole frames, one DFT of a crop per frame (by default
// the most textured 128 x 128 frame pixels) and one 8 x 8 least-squares solve per
// crop frequency: about 0.1 s for five frames besides the registration, independent of
// the frame size (on a 2-core x86-64 machine; the registration of five 640 x 512 frames
// adds about 50 ms). For a sequence, estimate once and reuse.
class PsfSigmaEstimator {
public:
    struct Settings {
        float minSigma = 0.05f;
        float maxSigma = 3.0f;
        int candidates = 90;  // spaced evenly in log(sigma)
        cv::Size crop{128, 128};
        float regError = 1e-4f;  // registration threshold, as the C interface sets it
        // The scene as a thermal camera sees it at the resolution of the result: power
        // c |f|^-sceneSlope exp(-(2 pi sceneSigma f)^2), the figures of real thermal
        // stills (the blur of their own optics included).
        double sceneSlope = 3.5;
        double sceneSigma = 0.7;
    };
    // One radial band of the separated spectrum.
    struct Band {
        double frequency;  // mean |f|, cycles per high-resolution pixel
        double power;      // mean power with the noise's share taken off
        double noise;      // mean noise share that was taken off
    };

    // Why an estimate was declined when one frame correlates poorly with the reference:
    // `frame` is its position among the frames given.
    struct UnmatchedFrame : std::runtime_error {
        UnmatchedFrame(int frame, const std::string& message)
            : std::runtime_error(message), frame(frame) {}
        int frame;
    };

    PsfSigmaEstimator() = default;
    explicit PsfSigmaEstimator(const Settings& settings) : settings(settings) {}

    // Frames of one size, oldest first, at least four with distinct sub-pixel shifts;
    // `referencePosition` indexes them. Registers them as the engine does and returns
    // the estimated sigma. Throws std::invalid_argument for unusable input and
    // std::runtime_error when the frames cannot be registered, show too little structure
    // or agree on too little fine detail (UnmatchedFrame for a frame unlike the reference).
    float estimate(const std::vector<cv::Mat_<float>>& frames, int referencePosition);

    // The same for frames already moved onto the reference grid by whole pixels, with
    // the sub-pixel rest of each shift (frame pixels).
    float estimateRegistered(const std::vector<cv::Mat_<float>>& registered,
                             const std::vector<cv::Point2f>& subPixelShifts, int referencePosition);

    // The radial spectrum of the last estimate, and how far the best fit missed it
    // (root mean square in natural log units).
    const std::vector<Band>& bands() const { return spectrum; }
    double fitError() const { return bestFitError; }
    const Settings& getSettings() const { return settings; }

private:
    Settings settings;
    std::vector<Band> spectrum;
    double bestFitError = 0.0;
};

}  // namespace kelvo::vision
