#!/usr/bin/env bash
# Builds SystemKvCore with coverage instrumentation in build-cov/, runs the tests and
# prints the line and branch coverage of the library's own sources (System/, platform/,
# tools/); the HTML report goes to build-cov/coverage/index.html.
# Extra CMake arguments are passed through (e.g. -DKVCORE_TEST_SUITES=heap_test).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
dir=build-cov
# Atomic counters: the suites run threads, and plain counters can come out negative.
flags="--coverage -fprofile-update=atomic"
cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DKVCORE_BUILD_BENCH=OFF \
  -DCMAKE_CXX_FLAGS="$flags" -DCMAKE_C_FLAGS="$flags" \
  -DCMAKE_EXE_LINKER_FLAGS=--coverage -DCMAKE_SHARED_LINKER_FLAGS=--coverage "$@"
cmake --build "$dir" -j "$(nproc)"
# Counts from an earlier run would add up with this one.
find "$dir" -name '*.gcda' -delete
ctest --test-dir "$dir" --output-on-failure -j "$(nproc)" --timeout 600
mkdir -p "$dir/coverage"
# The compiler checks of the configure step leave notes without data.
find "$dir/CMakeFiles" -name '*.gcno' -delete
gcovr --root . --object-directory "$dir" \
  --filter 'System/' --filter 'platform/' --filter 'tools/' \
  --print-summary --txt "$dir/coverage/summary.txt" \
  --html-details "$dir/coverage/index.html"
