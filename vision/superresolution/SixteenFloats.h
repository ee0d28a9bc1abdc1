// SPDX-License-Identifier: Apache-2.0
// Sixteen floats as one vector of the compiler's vector extensions, for row loops that
// read the neighbours one column to either side of every pixel. Written as plain loops,
// those neighbours are loaded again, unaligned, for every vector of pixels; a row read
// as consecutive vectors hands them out as shuffles of two vectors it holds anyway.
//
// Vectors are passed by reference: a 64-byte vector passed by value would change the
// calling convention between the instruction-set clones of a function.
#pragma once

#include <cstring>

namespace kelvo::vision {

constexpr int kSixteenLanes = 16;
using SixteenFloats = float __attribute__((vector_size(kSixteenLanes * sizeof(float))));

using SixteenInts = int __attribute__((vector_size(kSixteenLanes * sizeof(int))));

// |v| lane by lane, by clearing the sign bits as std::fabs does, NaNs included.
inline void absoluteSixteen(const SixteenFloats& vector, SixteenFloats& out) {
    out = reinterpret_cast<SixteenFloats>(reinterpret_cast<SixteenInts>(vector) & 0x7fffffff);
}

inline void loadSixteen(const float* values, SixteenFloats& vector) {
    std::memcpy(&vector, values, sizeof vector);
}

inline void storeSixteen(const SixteenFloats& vector, float* values) {
    std::memcpy(values, &vector, sizeof vector);
}

// A row read sixteen values at a time from x[0] on. At each step `current` holds
// x[i .. i+15] and `previous` x[i-16 .. i-1] (only x[-1] on the first step, given as
// `left`, since a row at the start of an image has none: any value serves where left()
// is not used); readAhead() reads x[i+16 .. i+31], which right() and the next step use.
class SixteenFloatsRow {
public:
    SixteenFloatsRow(const float* row, float left) : ahead(row + kSixteenLanes) {
        previous[kSixteenLanes - 1] = left;
        loadSixteen(row, current);
    }

    void readAhead() { loadSixteen(ahead, following); }

    // x[i-1 .. i+14]
    void left(SixteenFloats& out) const {
        out = __builtin_shufflevector(previous, current, 15, 16, 17, 18, 19, 20, 21, 22, 23, 24, 25,
                                      26, 27, 28, 29, 30);
    }

    // x[i+1 .. i+16], after readAhead()
    void right(SixteenFloats& out) const {
        out = __builtin_shufflevector(current, following, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13,
                                      14, 15, 16);
    }

    // On to x[i+16 ..], after readAhead().
    void advance() {
        previous = current;
        current = following;
        ahead += kSixteenLanes;
    }

    SixteenFloats current;

private:
    const float* ahead;
    SixteenFloats previous{};
    SixteenFloats following{};
};

}  // namespace kelvo::vision
