// SPDX-License-Identifier: Apache-2.0
#include "vision/superresolution/BurstRegistration.h"

#include "vision/superresolution/SrFloatRegistration2.h"

namespace kelvo::vision {

BurstRegistration BurstRegistration::of(const std::vector<cv::Mat_<float>>& frames,
                                        int referencePosition, float regError) {
    const int count = static_cast<int>(frames.size());
    const cv::Size size = frames.front().size();
    SrFloatRegistration2 registration(size.width, size.height, count);
    registration.setRegError(regError);
    BurstRegistration burst;
    burst.moved.resize(count);
    burst.masks.resize(count);
    burst.subPixelShifts.resize(count);
    std::vector<cv::Mat_<float>> contiguous(count);
    std::vector<const float*> framePointers(count);
    std::vector<float*> movedPointers(count);
    std::vector<char*> maskPointers(count);
    for (int k = 0; k < count; ++k) {
        contiguous[k] = frames[k].isContinuous() ? frames[k] : frames[k].clone();
        framePointers[k] = contiguous[k].ptr<float>();
        registration.prepareFrame(framePointers[k]);
        burst.moved[k].create(size);
        burst.masks[k].create(size);
        movedPointers[k] = burst.moved[k].ptr<float>();
        maskPointers[k] = reinterpret_cast<char*>(burst.masks[k].ptr<signed char>());
    }
    burst.status = registration.doRegistration(count, referencePosition, framePointers.data(),
                                               burst.subPixelShifts.data(), maskPointers.data(),
                                               movedPointers.data());
    registration.getCompleteShifts(burst.completeShifts);
    return burst;
}

}  // namespace kelvo::vision
