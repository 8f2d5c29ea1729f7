#!/usr/bin/env bash
# Installs what is missing, builds SystemKvCore and runs `kvtool demo`.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
cmake -S . -B build-demo -G Ninja -DCMAKE_BUILD_TYPE=Release -DKVCORE_BUILD_TESTS=OFF -DKVCORE_BUILD_BENCH=OFF
cmake --build build-demo --target kvtool
build-demo/tools/kvtool/kvtool demo
