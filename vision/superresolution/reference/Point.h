// SPDX-License-Identifier: Apache-2.0
#pragma once

namespace kelvo::vision {

// Plain points of the reference engine: a displacement in input pixels, and a
// whole-pixel displacement.
struct PointF {
    float x;
    float y;
};

struct PointI {
    int x;
    int y;
};

}  // namespace kelvo::vision
