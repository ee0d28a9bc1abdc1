#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Installs the Debian packages the project builds, tests and benchmarks with,
# skipping those already present. Run as root on Debian 12.
set -euo pipefail

packages=(build-essential cmake pkg-config clang-format clang libclang-rt-14-dev
          libopencv-dev libgtest-dev libbenchmark-dev libcli11-dev libsimde-dev
          libtiff-dev zlib1g-dev nlohmann-json3-dev
          # The tool reads videos (16-bit grey included) through FFmpeg's libraries.
          libavformat-dev libavcodec-dev libavutil-dev libswscale-dev
          # The Python module, its tests, the cluster runner and the example script.
          pybind11-dev python3-pybind11 python3-dev python3-numpy python3-pytest
          python3-dask python3-distributed python3-matplotlib)

missing=()
for package in "${packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed"; then
        missing+=("$package")
    fi
done

if [ ${#missing[@]} -gt 0 ]; then
    echo "Installing: ${missing[*]}"
    export DEBIAN_FRONTEND=noninteractive
    apt-get update -qq
    apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
