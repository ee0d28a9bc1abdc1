// SPDX-License-Identifier: Apache-2.0
#pragma once

// Marks a function whose loops the compiler vectorises to be built three times on
// x86-64, for AVX-512, AVX2 and the baseline instruction set; the loader picks the
// version the processor runs. The float results are the same in both: the build forbids
// contracting products and sums into fused multiply-adds, so every lane performs the
// same IEEE operations whatever the vector width.
#if defined(__x86_64__) && defined(__GNUC__) && !defined(__clang__)
#define KELVO_VECTOR_CLONES __attribute__((target_clones("avx512f", "avx2", "default")))
#else
#define KELVO_VECTOR_CLONES
#endif

// Tells the vectoriser that the iterations of the loop that follows are independent,
// for loops whose arrays it cannot prove apart (rows reached through tables of
// pointers) and would otherwise leave scalar.
#if defined(__clang__)
#define KELVO_INDEPENDENT_ITERATIONS _Pragma("clang loop vectorize(assume_safety)")
#elif defined(__GNUC__)
#define KELVO_INDEPENDENT_ITERATIONS _Pragma("GCC ivdep")
#else
#define KELVO_INDEPENDENT_ITERATIONS
#endif
