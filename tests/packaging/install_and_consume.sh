#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Installs the built library and tool into a temporary prefix, then, as a user outside the
# project would: builds the examples against the installed CMake package and runs them, builds
# the C host with pkg-config alone (which must not pull in OpenCV), runs the installed tool from
# its own folder (it finds the library by its run path), and runs the shell example with it.
# Usage: install_and_consume.sh BUILD_DIR EXAMPLES_DIR [FRAMES_FOLDER]
set -euo pipefail
build_dir=$1
examples_dir=$2
frames=${3:-}

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix

cmake --install "$build_dir" --prefix "$prefix" >/dev/null

echo "== find_package(KelvoSuperRes): the examples"
cmake -S "$examples_dir" -B "$work/examples" -DCMAKE_PREFIX_PATH="$prefix" \
      -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$work/examples" >/dev/null
"$work/examples/c-host"
(cd "$work" && "$work/examples/cpp-host" && test -s result.tiff)

echo "== pkg-config kelvo-superres"
pc_file=$(find "$prefix" -name kelvo-superres.pc)
export PKG_CONFIG_PATH=$(dirname "$pc_file")
libs=$(pkg-config --libs kelvo-superres)
if [[ $libs == *opencv* ]]; then
    echo "pkg-config --libs pulls OpenCV into a C host: $libs" >&2
    exit 1
fi
# CC, CXX, their flags and LDFLAGS, when set, are those the library was built with (CMake reads
# them too).
# shellcheck disable=SC2046,SC2086
"${CC:-cc}" ${CFLAGS:-} -o "$work/pkgconfig-c-host" "$examples_dir/c-host/main.c" \
   $(pkg-config --cflags kelvo-superres) $libs -lm ${LDFLAGS:-}
LD_LIBRARY_PATH=$(pkg-config --variable=libdir kelvo-superres) "$work/pkgconfig-c-host"

echo "== the installed tool"
env -u LD_LIBRARY_PATH "$prefix/bin/kelvo-sr" --version
if [ -n "$frames" ] && [ -d "$frames" ]; then
    bash "$examples_dir/shell/sequence-report.sh" "$frames" "$work/sequence" "$prefix/bin/kelvo-sr"
else
    echo "no frames at '$frames': the shell example is skipped"
fi
