// SPDX-License-Identifier: Apache-2.0
// Double sums over float data, taken the same way by every float engine of the library.
#pragma once

#include <algorithm>

#include "vision/superresolution/VectorClones.h"

namespace kelvo::vision {

// Sums in double are split over this many lanes (term i goes to lane i mod kSumLanes,
// the lanes are added in order at the end), so that the compiler can vectorise them
// and a sum can be gathered piece by piece with the same result.
constexpr int kSumLanes = 8;

class LaneSum {
public:
    // Adds term(i) for i in [begin, end).
    template <typename Term>
    KELVO_VECTOR_CLONES void add(int begin, int end, Term term) {
        double sums[kSumLanes];
        std::copy(lanes, lanes + kSumLanes, sums);
        int i = begin;
        for (; i < end && i % kSumLanes != 0; ++i) {
            sums[i % kSumLanes] += term(i);
        }
        for (; i + kSumLanes <= end; i += kSumLanes) {
            for (int lane = 0; lane < kSumLanes; ++lane) {
                sums[lane] += term(i + lane);
            }
        }
        for (; i < end; ++i) {
            sums[i % kSumLanes] += term(i);
        }
        std::copy(sums, sums + kSumLanes, lanes);
    }

    double total() const {
        double sum = 0.0;
        for (double lane : lanes) {
            sum += lane;
        }
        return sum;
    }

private:
    double lanes[kSumLanes] = {};
};

template <typename Term>
double sumInLanes(int count, Term term) {
    LaneSum sum;
    sum.add(0, count, term);
    return sum.total();
}

}  // namespace kelvo::vision
