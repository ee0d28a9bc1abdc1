// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>

namespace kelvo {

// Measures wall-clock intervals on a monotonic clock; construction starts it.
class StopWatch {
public:
    StopWatch() : begin_(Clock::now()) {}

    void start() { begin_ = Clock::now(); }

    // Seconds since construction or the last start().
    double stop() const { return std::chrono::duration<double>(Clock::now() - begin_).count(); }

private:
    using Clock = std::chrono::steady_clock;
    Clock::time_point begin_;
};

}  // namespace kelvo
