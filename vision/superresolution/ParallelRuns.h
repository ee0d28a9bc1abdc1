// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <opencv2/core/utility.hpp>

namespace kelvo::vision {

// work(item, run) for every item in [0, count): the items are dealt out in `runs` runs of
// consecutive items (fewer when there are fewer items), and the runs are shared among OpenCV's
// threads (cv::parallel_for_). A single run works on the caller's thread. Which items form a run
// depends on count and runs only, so that a run may use scratch space of its own.
template <typename Work>
void forEachInRuns(int count, int runs, Work work) {
    runs = std::max(std::min(runs, count), 1);
    auto runItems = [&](const cv::Range& range) {
        for (int run = range.start; run < range.end; ++run) {
            for (int item = count * run / runs; item < count * (run + 1) / runs; ++item) {
                work(item, run);
            }
        }
    };
    if (runs == 1) {
        runItems(cv::Range(0, 1));
    } else {
        cv::parallel_for_(cv::Range(0, runs), runItems, runs);
    }
}

}  // namespace kelvo::vision
