#!/usr/bin/env bash
# Builds and runs the host program against SystemKvCore installed under PREFIX,
# once through its CMake package and once through pkg-config.
#   bash examples/host/build.sh PREFIX [WORK_DIR]
set -euo pipefail
prefix="$(cd "$1" && pwd)"
here="$(cd "$(dirname "$0")" && pwd)"
work="${2:-$(mktemp -d)}"
mkdir -p "$work"

cmake -S "$here" -B "$work/cmake" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" > "$work/cmake.log"
cmake --build "$work/cmake" > "$work/cmake-build.log"
"$work/cmake/kvhost"

pc="$(find "$prefix" -name SystemKvCore.pc -print -quit)"
export PKG_CONFIG_PATH="$(dirname "$pc")"
libdir="$(pkg-config --variable=libdir SystemKvCore)"
# shellcheck disable=SC2046
c++ -o "$work/kvhost-pc" "$here/main.cpp" $(pkg-config --cflags --libs SystemKvCore)
LD_LIBRARY_PATH="$libdir" "$work/kvhost-pc"
