// SPDX-License-Identifier: Apache-2.0
#include "tools/simulator/RealFrames.h"

#include <algorithm>
#include <opencv2/imgcodecs.hpp>
#include <stdexcept>

namespace kelvo::tools {

std::vector<cv::Mat_<float>> readGreyFrames(const std::filesystem::path& folder,
                                            std::vector<std::string>* names) {
    std::vector<std::filesystem::path> files;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        files.push_back(entry.path());
    }
    std::sort(files.begin(), files.end());
    std::vector<cv::Mat_<float>> frames;
    for (const auto& file : files) {
        const cv::Mat grey = cv::imread(file.string(), cv::IMREAD_GRAYSCALE);
        if (grey.empty()) {
            continue;
        }
        frames.emplace_back();
        grey.convertTo(frames.back(), CV_32F);
        if (names != nullptr) {
            names->push_back(file.stem().string());
        }
    }
    return frames;
}

Burst simulateFromImage(const std::filesystem::path& image, const BurstOptions& options,
                        cv::Rect truth) {
    const BurstSimulator simulator(options);
    const cv::Mat grey = cv::imread(image.string(), cv::IMREAD_GRAYSCALE);
    const int margin = simulator.sceneMargin();
    const cv::Rect scene(truth.x - margin, truth.y - margin, truth.width + 2 * margin,
                         truth.height + 2 * margin);
    if (grey.empty() || (scene & cv::Rect(0, 0, grey.cols, grey.rows)) != scene) {
        throw std::invalid_argument("simulateFromImage: " + image.string() +
                                    " is unreadable or too small for the truth and its margin");
    }
    cv::Mat_<float> values;
    grey(scene).convertTo(values, CV_32F);
    return simulator.simulate(values);
}

}  // namespace kelvo::tools
