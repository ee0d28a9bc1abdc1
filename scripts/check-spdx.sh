#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Lists the tracked source files without a licence line and fails if there are any.
set -euo pipefail
cd "$(dirname "$0")/.."
missing=$(git ls-files -- '*.cpp' '*.h' '*.c' '*.py' '*.sh' '*CMakeLists.txt' '*.cmake' '*.cmake.in' |
    while read -r file; do grep -q 'SPDX-License-Identifier: Apache-2.0' "$file" || echo "$file"; done)
if [ -n "$missing" ]; then
    echo "without an SPDX-License-Identifier line:"; echo "$missing"; exit 1
fi
echo "every source file carries its licence line"
