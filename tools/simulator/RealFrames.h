// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <filesystem>
#include <opencv2/core.hpp>
#include <string>
#include <vector>

#include "tools/simulator/BurstSimulator.h"

namespace kelvo::tools {

// The 8-bit grey images of a folder (the real frames of the shared data), as float
// frames in file-name order, oldest first with the data's numbered names; `names`, if
// given, receives the file names without extension. Unreadable files are skipped.
std::vector<cv::Mat_<float>> readGreyFrames(const std::filesystem::path& folder,
                                            std::vector<std::string>* names = nullptr);

// A burst of a real scene: the truth is the rectangle `truth` of an 8-bit grey image (a
// high-resolution still), the image around it the margin the simulator needs. Throws
// std::invalid_argument when the image cannot be read or the margin leaves it.
Burst simulateFromImage(const std::filesystem::path& image, const BurstOptions& options,
                        cv::Rect truth);

}  // namespace kelvo::tools
