// SPDX-License-Identifier: Apache-2.0
//
// A C++ host on the engine classes: five grey frames (files given on the command line, or a
// simulated burst without arguments) go into the float engine with corner registration;
// out come the result as a float TIFF, each frame's displacement against the reference and
// the engine's estimate of how much resolution the burst gained.
#include <cstdio>
#include <iostream>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <vector>

#include "vision/superresolution/SrFloat.h"
#include "vision/superresolution/SrFloatRegistration2.h"

using Engine = kelvo::vision::SrFloat<kelvo::vision::SrFloatRegistration2>;

namespace {

// A smooth random scene seen five times with the camera moved by a fraction of a pixel.
std::vector<cv::Mat_<float>> simulatedBurst() {
    cv::Mat_<float> scene(256, 320);
    cv::randu(scene, 0.0f, 400.0f);
    cv::GaussianBlur(scene, scene, cv::Size(0, 0), 3.0);
    std::vector<cv::Mat_<float>> frames;
    const float shifts[5][2] = {{0, 0}, {1, 0.5f}, {-0.5f, 1}, {1.5f, -1}, {-1, -0.5f}};
    for (const auto& shift : shifts) {
        const cv::Matx23f move(0.5f, 0, shift[0] / 2, 0, 0.5f, shift[1] / 2);
        cv::Mat_<float> frame;
        cv::warpAffine(scene, frame, move, cv::Size(160, 128), cv::INTER_AREA);
        frames.push_back(frame);
    }
    return frames;
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<cv::Mat_<float>> frames;
    for (int i = 1; i < argc; ++i) {
        const cv::Mat image = cv::imread(argv[i], cv::IMREAD_GRAYSCALE | cv::IMREAD_ANYDEPTH);
        if (image.empty()) {
            std::cerr << "cannot read " << argv[i] << "\n";
            return 1;
        }
        frames.emplace_back();
        image.convertTo(frames.back(), CV_32F);
    }
    if (frames.empty()) {
        frames = simulatedBurst();
    }
    if (frames.size() != 5) {
        std::cerr << "usage: cpp-host [FRAME FRAME FRAME FRAME FRAME]\n";
        return 1;
    }

    // The settings the C interface starts its contexts with.
    Engine engine(frames[0].cols, frames[0].rows, 5, 2.0f);
    engine.setReferenceIndex(3);
    engine.setWeightTV(400.0f);
    engine.setRegError(0.0001f);
    engine.setRelativeResidue(0.007f);
    for (const cv::Mat_<float>& frame : frames) {
        engine.addFrame(frame.isContinuous() ? frame : frame.clone());
    }
    cv::Mat_<float> result(engine.getOutputHeight(), engine.getOutputWidth());
    const float factor = engine.computeSR(result);
    if (factor < 0.0f) {
        std::cerr << "the pass failed with status " << factor << "\n";
        return 1;
    }
    std::vector<cv::Point2f> shifts;
    engine.getCompleteShifts(shifts);
    for (std::size_t i = 0; i < shifts.size(); ++i) {
        std::printf("frame %zu: shift (%.3f, %.3f)\n", i, shifts[i].x, shifts[i].y);
    }
    std::printf("cpp-host: %dx%d result, factor estimate %.2f, written to result.tiff\n",
                result.cols, result.rows, factor);
    return cv::imwrite("result.tiff", result) ? 0 : 1;
}
