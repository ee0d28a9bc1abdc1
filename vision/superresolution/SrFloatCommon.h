// SPDX-License-Identifier: Apache-2.0
#pragma once

namespace kelvo::vision {

// The validation of the geometry and parameters of the engines (SrFloatEngineBase).
// The checks return the value when it is valid. Parameter checks throw the message as
// a plain C string, which is what hosts of the engines catch; the geometry and frame
// checks throw std::invalid_argument.
int checkedGeometry(int width, int height, float factor);
// A frame pointer that is not null (std::invalid_argument otherwise).
const float* checkedFrame(const float* frame);
int checkedWindowSize(int windowSize);
int checkedReferenceIndex(int index, int windowSize);
float checkedPsfSigma(float sigma);
int checkedMaxCGIters(int iterations);
float checkedRegError(float error);
float checkedWeightTV(float weight);
float checkedRelativeResidue(float residue);

}  // namespace kelvo::vision
