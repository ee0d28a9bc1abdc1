/* SPDX-License-Identifier: Apache-2.0 */
#pragma once

#include <string>

#include "vision/superresolution/SrFloat.h"
#include "vision/superresolution/SrFloatRegistration2.h"

// C++ access to the contexts behind the handles of SuperResolutionInterface.h, for hosts that
// tune what the plain functions do not reach, and for inspecting a context.
namespace kelvo::interface {

using SuperResolutionEngine = vision::SrFloat<vision::SrFloatRegistration2>;

// The engine of a live context, or null for an invalid handle. It stays valid until the context
// is released.
SuperResolutionEngine* engineOf(int handle);

// Opens the context's diagnostic image writer on an existing folder: from then on every frame
// given to SuperResolution_addImage is also written there, until the context is released.
// Returns false for an invalid handle or a folder that does not exist.
bool openDiagnosticWriter(int handle, const std::string& folder);

// What SuperResolution_init gives every context, for C++ hosts that build their own engines (the
// phase-correlation registration, one engine per thread) and want the results of a context.
constexpr int contextWindowSize = 5;
constexpr float contextFactor = 2.0f;
template <class Engine>
void applyContextSettings(Engine& engine) {
    engine.setReferenceIndex(3);
    engine.setWeightTV(400.0f);
    engine.setRegError(0.0001f);
    engine.setRelativeResidue(0.007f);
}

// The sensor PSF sigma that SuperResolution_setCameraAndLensType sets for a camera and lens text.
float psfSigmaOfCameraAndLensType(const std::string& cameraAndLensType);

}  // namespace kelvo::interface
