#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Installs the build into a temporary prefix and runs a burst through the installed module with
# the given interpreter, from outside the source and build trees: the module must find the
# installed library by itself.
# Usage: install_and_import.sh BUILD_DIR PYTHON
set -euo pipefail
build_dir=$1
python=$2

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cmake --install "$build_dir" --prefix "$work/prefix" >/dev/null
site=$(dirname "$(find "$work/prefix" -type d -name kelvo_superres)")
cd "$work"
PYTHONPATH=$site "$python" -c '
import numpy as np, kelvo_superres as ksr
rows, columns = np.mgrid[0:48, 0:64]
frames = [300 + 40 * np.sin(0.3 * (columns - 0.5 * i) + 0.2 * (rows + 0.25 * i)) for i in range(5)]
result = ksr.super_resolve(frames)
assert ksr.__file__.startswith("'"$work"'"), ksr.__file__
print("installed module:", ksr.__file__, result.image.shape, result.status.name)
'
