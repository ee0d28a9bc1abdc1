#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Configures and builds the project (release, -O3) into build/: every target, or only the
# targets named (scripts/demo.sh builds just the library and the tool).
set -euo pipefail
cd "$(dirname "$0")/.."
cmake -S . -B build -DCMAKE_BUILD_TYPE=Release
cmake --build build -j "$(nproc)" ${1:+--target "$@"}
