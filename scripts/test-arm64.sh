#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Cross-builds the library and its tests for 64-bit ARM (aarch64) and runs the tests
# under user-mode emulation, where the four-lane operations are the processor's own
# NEON instructions rather than their portable translation.
#
# Run as root on Debian 12. Installs Debian's cross compiler and qemu-user on the
# host. The arm64 libraries (OpenCV, GoogleTest, the C and C++ runtimes) come from
# Debian's arm64 archive through multiarch, but are unpacked into a private sysroot
# under build-arm64/ instead of being installed: the arm64 OpenCV development
# packages conflict with the host's own, and installing them would remove those.
set -euo pipefail
cd "$(dirname "$0")/.."
work="$PWD/build-arm64"
sysroot="$work/sysroot"

host_packages=(crossbuild-essential-arm64 qemu-user cmake)
missing=()
for package in "${host_packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed"; then
        missing+=("$package")
    fi
done
export DEBIAN_FRONTEND=noninteractive
if ! dpkg --print-foreign-architectures | grep -qx arm64; then
    dpkg --add-architecture arm64
    apt-get update -qq
fi
if [ ${#missing[@]} -gt 0 ]; then
    echo "Installing: ${missing[*]}"
    apt-get update -qq
    # Never let the host lose a package for the cross build.
    if apt-get install -s --no-install-recommends "${missing[@]}" | grep -q '^Remv'; then
        echo "Installing ${missing[*]} would remove host packages; stopping." >&2
        exit 1
    fi
    apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

# The arm64 packages and everything they depend on, resolved against an empty package
# database so that the sysroot holds the whole closure, then unpacked without dpkg.
arm64_packages=(libopencv-dev:arm64 libgtest-dev:arm64 libbenchmark-dev:arm64
                libavformat-dev:arm64 libavcodec-dev:arm64 libavutil-dev:arm64
                libswscale-dev:arm64 libstdc++-12-dev:arm64 libc6-dev:arm64 libcli11-dev
                nlohmann-json3-dev)
if [ "$(cat "$sysroot/.packages" 2>/dev/null)" != "${arm64_packages[*]}" ]; then
    mkdir -p "$work/apt/archives/partial" "$sysroot"
    : > "$work/apt/status"
    apt-get -qq -y -d --no-install-recommends \
        -o Dir::State::status="$work/apt/status" -o Dir::Cache::archives="$work/apt/archives" \
        -o Debug::NoLocking=1 install "${arm64_packages[@]}"
    for deb in "$work"/apt/archives/*_arm64.deb "$work"/apt/archives/*_all.deb; do
        [ -e "$deb" ] && dpkg-deb -x "$deb" "$sysroot"
    done
    # Links that dpkg's alternatives would make when the packages were installed.
    for library in blas/libblas.so.3 lapack/liblapack.so.3; do
        ln -sfn "$library" "$sysroot/usr/lib/aarch64-linux-gnu/$(basename "$library")"
    done
    echo "${arm64_packages[*]}" > "$sysroot/.packages"
fi

echo "test-arm64: host packages and sysroot ready after ${SECONDS} s"

cmake -S . -B "$work/build" -DCMAKE_BUILD_TYPE=Release \
    -DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/aarch64-linux-gnu.cmake" -DKELVO_ARM64_SYSROOT="$sysroot" \
    -DKELVO_BUILD_BENCH=OFF -DKELVO_BUILD_TOOLS=ON ${KELVO_ARM64_CMAKE_ARGS:-}
cmake --build "$work/build" -j "$(nproc)" --target kelvo_tests kelvo_c_api_test

echo "test-arm64: built after ${SECONDS} s"

# Left out under emulation: the packaging test (it builds a consumer with the host's
# compiler) and the tests that start the arm64 tool as a host process.
export QEMU_LD_PREFIX="$sysroot"
ctest --test-dir "$work/build" --output-on-failure -j "$(nproc)" \
    -E '^(packaging$|KelvoSrTool\.|BadInputs\.|RawCounts\.DeadAndHotPixels)'
echo "test-arm64: tests passed after ${SECONDS} s"
