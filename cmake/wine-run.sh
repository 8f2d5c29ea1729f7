#!/bin/sh
# Runs a Windows program of a cross build under Wine, in the build's own Wine
# prefix, headless and without Wine's diagnostics:
#   wine-run.sh WINE PREFIX PROGRAM [ARGUMENTS...]
# Wine starts helper processes that outlive the program; they get a file of
# their own as output, so that a caller reading the program's output through a
# pipe (a build tool) is not kept waiting by them.
wine="$1"
prefix="$2"
shift 2
export WINEPREFIX="$prefix" WINEDEBUG="${WINEDEBUG:--all}" WINEDLLOVERRIDES="${WINEDLLOVERRIDES:-mscoree,mshtml=}"
unset DISPLAY WAYLAND_DISPLAY
output="$(mktemp)"
trap 'rm -f "$output"' EXIT
status=0
"$wine" "$@" >"$output" 2>&1 || status=$?
cat "$output"
exit "$status"
