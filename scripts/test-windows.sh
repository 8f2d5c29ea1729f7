#!/usr/bin/env bash
# Cross-builds SystemKvCore, kvtool and the test programs for 64-bit Windows
# with mingw-w64 (build-win/) and runs every test program once under Wine,
# headless, in a Wine prefix of its own (build-win/wineprefix), then
# `kvtool.exe demo`. Exit status 1 when anything fails, when a program
# crashes or hangs, or when more than a tenth of the tests skip.
# Extra CMake arguments pass through; BUILD_DIR chooses the build directory.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh packages-windows.txt
dir="${BUILD_DIR:-build-win}"
wine="${WINE:-/usr/lib/wine/wine64}"
wineserver="$(dirname "$wine")/wineserver"
for tool in x86_64-w64-mingw32-g++-posix "$wine" "$wineserver"; do
  if ! command -v "$tool" >/dev/null; then
    echo "test-windows: $tool is missing (see scripts/packages-windows.txt)" >&2
    exit 1
  fi
done

# -O1: the programs compile in about half the time of -O2, and the tests
# exercise behaviour, not speed.
cmake -S . -B "$dir" -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/mingw-w64.cmake -DCMAKE_BUILD_TYPE=Release \
  -DCMAKE_CXX_FLAGS_RELEASE="-O1 -DNDEBUG" "$@"
cmake --build "$dir" -j "$(nproc)"

bin="$PWD/$dir/bin"
work="$PWD/$dir/tests"
mkdir -p "$work"
export WINEPREFIX="$PWD/$dir/wineprefix" WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml="
export KV_TEST_SOURCE_DIR="$PWD"
unset DISPLAY WAYLAND_DISPLAY

# One persistent server for all the runs, let go of the caller's streams (it
# would hold a pipe open); the first start creates the prefix.
"$wineserver" -p </dev/null >/dev/null 2>&1 || true  # (already running for this prefix)
trap '"$wineserver" -k >/dev/null 2>&1 || true' EXIT
"$wine" "$bin/kvtool.exe" --help </dev/null >/dev/null 2>&1 || true
# A program that crashes ends there instead of waiting for Wine's debugger.
"$wine" reg delete 'HKLM\Software\Microsoft\Windows NT\CurrentVersion\AeDebug' /f </dev/null >/dev/null 2>&1 || true

failed=0 total=0 skipped=0
for program in "$bin"/*_test.exe; do
  name="$(basename "$program" .exe)"
  log="$work/$name.log"
  status=0
  (cd "$work" && timeout 600 "$wine" "$program" </dev/null >"$log" 2>&1) || status=$?
  ran="$(sed -n 's/^\[==========\] \([0-9]*\) tests\? from .* ran\..*/\1/p' "$log" | tail -1)"
  skips="$(sed -n 's/^\[  SKIPPED \] \([0-9]*\) tests\?, listed below:.*/\1/p' "$log" | tail -1)"
  total=$((total + ${ran:-0}))
  skipped=$((skipped + ${skips:-0}))
  if [ "$status" -ne 0 ] || [ -z "$ran" ]; then
    failed=$((failed + 1))
    echo "FAIL  $name (status $status)"
    grep -E '^\[  FAILED  \]|Failure|^wine:|terminate called' "$log" | head -20 | sed 's/^/      /' || true
  else
    echo "ok    $name: ${ran} tests, ${skips:-0} skipped"
  fi
done

demo="$work/kvtool-demo.log"
status=0
(cd "$work" && timeout 600 "$wine" "$bin/kvtool.exe" demo </dev/null >"$demo" 2>&1) || status=$?
if [ "$status" -ne 0 ] || ! grep -q 'steps, 0 failed' "$demo"; then
  failed=$((failed + 1))
  echo "FAIL  kvtool.exe demo (status $status)"
  tail -20 "$demo" | sed 's/^/      /'
else
  echo "ok    kvtool.exe demo: $(grep 'steps, 0 failed' "$demo")"
fi

echo "test-windows: $total tests, $skipped skipped, $failed programs failed (logs in $work)"
if [ $((skipped * 10)) -gt "$total" ]; then
  echo "test-windows: more than a tenth of the tests skip" >&2
  exit 1
fi
[ "$failed" -eq 0 ]
