#!/usr/bin/env bash
# Installs what is missing, builds SystemKvCore with its tests and runs them.
# Extra CMake arguments are passed through (e.g. -DKVCORE_SANITIZE='address;undefined');
# BUILD_DIR chooses the build directory (default: build).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
dir="${BUILD_DIR:-build}"
cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@"
cmake --build "$dir" -j "$(nproc)"
ctest --test-dir "$dir" --output-on-failure -j "$(nproc)" --timeout 300
