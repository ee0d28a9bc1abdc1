// SPDX-License-Identifier: Apache-2.0
#pragma once

// Four-lane float vector operations under their ARM NEON names: the compiler's own
// intrinsics on ARM, SIMDe's portable implementation (SSE/AVX or scalar) elsewhere.
#if defined(__ARM_NEON) || defined(__ARM_NEON__)
#include <arm_neon.h>
#else
#define SIMDE_ENABLE_NATIVE_ALIASES
#include <simde/arm/neon.h>
#endif
