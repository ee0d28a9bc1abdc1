#!/usr/bin/env bash
# Installs the built library into a temporary prefix, then builds and runs a program outside the
# project against it twice: found by CMake's find_package, and by pkg-config.
# Usage: install_and_consume.sh BUILD_DIR CONSUMER_SOURCE_DIR
set -euo pipefail
build_dir=$1
consumer_dir=$2

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix

cmake --install "$build_dir" --prefix "$prefix" >/dev/null

echo "== find_package(KelvoSuperRes)"
cmake -S "$consumer_dir" -B "$work/cmake-consumer" -DCMAKE_PREFIX_PATH="$prefix" \
      -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$work/cmake-consumer" >/dev/null
"$work/cmake-consumer/consumer"

echo "== pkg-config kelvo-superres"
pc_file=$(find "$prefix" -name kelvo-superres.pc)
libdir=$(PKG_CONFIG_PATH=$(dirname "$pc_file") pkg-config --variable=libdir kelvo-superres)
# CC, CFLAGS and LDFLAGS, when set, are those the library was built with (CMake reads them too).
# shellcheck disable=SC2046,SC2086
"${CC:-cc}" ${CFLAGS:-} -o "$work/pkgconfig-consumer" "$consumer_dir/main.c" \
   $(PKG_CONFIG_PATH=$(dirname "$pc_file") pkg-config --cflags --libs kelvo-superres) ${LDFLAGS:-}
LD_LIBRARY_PATH=$libdir "$work/pkgconfig-consumer"
