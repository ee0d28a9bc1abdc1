// SPDX-License-Identifier: Apache-2.0
#include "vision/superresolution/reference/SuperResolutionFft2d.h"

#include <iostream>

namespace kelvo::vision {

void SuperResolutionFft2d::gaussFft(int radius, float sigma, float (*spectrum)[2], float* kernel) {
    transform.gaussFft(radius, sigma, spectrum, kernel);
    for (int i = 0; i <= radius; ++i) {
        std::cout << kernel[i] << std::endl;
    }
}

}  // namespace kelvo::vision
