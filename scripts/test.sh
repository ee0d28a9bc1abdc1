#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# From a fresh Debian machine: installs dependencies, builds, runs every test, four times over:
#   build/        GCC, the release build, every test;
#   build-clang/  clang, every test, and results that must match GCC's bit for bit;
#   build-asan/   clang with AddressSanitizer and UndefinedBehaviorSanitizer (float-to-int
#                 overflow included), every test, then each fuzz target for KELVO_CI_FUZZ_SECONDS
#                 (default 45);
#   build-tsan/   clang with ThreadSanitizer, contexts on several threads of the host;
# and then cross-builds for ARM64 and runs the tests under emulation (scripts/test-arm64.sh).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
jobs=$(nproc)
run_tests() {
    ctest --test-dir "$1" --output-on-failure -j "$jobs" "${@:2}"
}
configure_clang() {
    CC=clang CXX=clang++ cmake -S . -B "$1" -DCMAKE_BUILD_TYPE=Release -DKELVO_BUILD_BENCH=OFF \
        "${@:2}" >/dev/null
}

echo "== GCC"
bash scripts/build.sh
run_tests build

echo "== clang"
configure_clang build-clang
cmake --build build-clang -j "$jobs"
run_tests build-clang
# The same real burst and the same simulated one through both builds: identical files.
burst=$(find ../shared/data -path '*bursts/*' -name '*.jpg' | sort | head -6)
compared=$(mktemp -d)
trap 'rm -rf "$compared"' EXIT
for compiler in build build-clang; do
    # shellcheck disable=SC2086
    "$compiler/tools/kelvo-sr" burst $burst -o "$compared/$compiler-burst.tiff" >/dev/null
    "$compiler/tools/kelvo-sr" demo --width 96 --height 64 -o "$compared/$compiler-demo" >/dev/null
    # shellcheck disable=SC2086
    "$compiler/tools/kelvo-sr" burst $burst --engine reference --values temperature \
        -o "$compared/$compiler-reference.tiff" >/dev/null
done
cmp "$compared/build-burst.tiff" "$compared/build-clang-burst.tiff"
cmp "$compared/build-reference.tiff" "$compared/build-clang-reference.tiff"
for file in "$compared/build-demo"/*; do
    cmp "$file" "$compared/build-clang-demo/$(basename "$file")"
done
echo "GCC and clang results are identical"

echo "== AddressSanitizer + UndefinedBehaviorSanitizer"
configure_clang build-asan -DKELVO_SANITIZERS=address,undefined,float-cast-overflow \
    -DKELVO_BUILD_FUZZERS=ON
cmake --build build-asan -j "$jobs"
run_tests build-asan --timeout 900
KELVO_FUZZ_BUILD=build-asan bash scripts/fuzz.sh "${KELVO_CI_FUZZ_SECONDS:-45}"

echo "== ThreadSanitizer"
configure_clang build-tsan -DKELVO_SANITIZERS=thread
cmake --build build-tsan -j "$jobs" --target kelvo_tests
# Contexts on the host's threads. OpenCV's worker pool (TBB) is not instrumented, so the
# sanitizer cannot see how it hands work over: its loops run on the calling thread here, and the
# test that gives each context threads of its own first replaces the pool by plain threads,
# which the sanitizer sees.
OPENCV_FOR_THREADS_NUM=1 TSAN_OPTIONS=halt_on_error=1 \
    build-tsan/tests/kelvo_tests --gtest_filter='ConcurrentContexts.*'

echo "== ARM64 under emulation"
bash scripts/test-arm64.sh
