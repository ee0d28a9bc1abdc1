#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# From a fresh Debian machine: installs dependencies, builds, runs the demo.
# The pictures land in ./kelvo-sr-demo/ (comparison.png shows them side by side).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
bash scripts/build.sh kelvo-sr
./build/tools/kelvo-sr demo --output kelvo-sr-demo "$@"
