// SPDX-License-Identifier: Apache-2.0
#pragma once

namespace kelvo::vision {

// The sizes shared by every implementation of the operators between a high-resolution image
// and its frames: the full convolution grows the image by the kernel less one in each
// direction, and a frame is the image divided by the magnification, truncated.
struct ConvolutionGeometry {
    ConvolutionGeometry(int hrWidth, int hrHeight, int kernelWidth, int kernelHeight, float factor)
        : hrWidth(hrWidth),
          hrHeight(hrHeight),
          kernelWidth(kernelWidth),
          kernelHeight(kernelHeight),
          fullWidth(hrWidth + kernelWidth - 1),
          fullHeight(hrHeight + kernelHeight - 1),
          factor(factor),
          lrWidth(static_cast<int>(static_cast<float>(hrWidth) / factor)),
          lrHeight(static_cast<int>(static_cast<float>(hrHeight) / factor)) {}

    int hrWidth;
    int hrHeight;
    int kernelWidth;
    int kernelHeight;
    int fullWidth;
    int fullHeight;
    float factor;
    int lrWidth;
    int lrHeight;
};

}  // namespace kelvo::vision
