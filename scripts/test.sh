#!/usr/bin/env bash
# From a fresh Debian machine: installs dependencies, builds, runs every test.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
bash scripts/build.sh
ctest --test-dir build --output-on-failure -j "$(nproc)"
