#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Runs every fuzz target of tests/fuzz for SECONDS each (default 60), under AddressSanitizer and
# UndefinedBehaviorSanitizer, starting from the seed corpora in tests/fuzz/corpus. Stops at the
# first finding, which libFuzzer leaves as crash-*, leak-* or timeout-* in the work folder.
# Usage: fuzz.sh [SECONDS]
#   KELVO_FUZZ_BUILD=dir   an already configured checked build to use (default: build-fuzz)
#   KELVO_FUZZ_WORK=dir    where the growing corpora, logs and findings go (default: fuzz-work)
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}
build=${KELVO_FUZZ_BUILD:-build-fuzz}
work=${KELVO_FUZZ_WORK:-fuzz-work}
fuzzers=(c_interface bad_pixel frame_reader table_reader resolver)

if [ ! -f "$build/CMakeCache.txt" ]; then
    CC=clang CXX=clang++ cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release \
        -DKELVO_SANITIZERS=address,undefined,float-cast-overflow -DKELVO_BUILD_FUZZERS=ON \
        -DKELVO_BUILD_BENCH=OFF >/dev/null
fi
cmake --build "$build" -j "$(nproc)" --target "${fuzzers[@]/#/kelvo_fuzz_}" >/dev/null
build=$(realpath "$build")
seeds=$(realpath tests/fuzz/corpus)
mkdir -p "$work"
work=$(realpath "$work")

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
# No cap on OpenCV's decoders here (OPENCV_IO_MAX_IMAGE_PIXELS): the frame reader refuses a header
# that claims more than a frame before decoding, and the runs must check that as users run it.
for fuzzer in "${fuzzers[@]}"; do
    mkdir -p "$work/$fuzzer"
    log=$work/$fuzzer.log
    status=0
    # New inputs go to the work corpus; the committed seeds are only read.
    (cd "$work" && "$build/tests/fuzz/kelvo_fuzz_$fuzzer" -max_total_time="$seconds" \
        -rss_limit_mb=4096 -timeout=60 -print_final_stats=1 "$fuzzer" "$seeds/$fuzzer" \
        >"$log" 2>&1) || status=$?
    executions=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
    coverage=$(grep -E '^#[0-9]+' "$log" | tail -1 | sed -n 's/.*cov: \([0-9]*\) ft: \([0-9]*\).*/\1 edges, \2 features/p')
    echo "$fuzzer: ${seconds}s, ${executions:-?} executions, ${coverage:-? coverage}"
    if [ "$status" -ne 0 ]; then
        tail -40 "$log" >&2
        echo "fuzz.sh: $fuzzer failed (status $status); the input is in $work, the log in $log" >&2
        exit 1
    fi
done
