#!/usr/bin/env bash
# Installs the Debian packages listed in scripts/packages.txt (and in the
# further lists named as arguments, e.g. packages-windows.txt) that are missing.
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
lists=("$here/packages.txt")
for list in "$@"; do lists+=("$here/$list"); done
mapfile -t packages < <(cat "${lists[@]}" | grep -vE '^\s*(#|$)')
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0
sudo=""
[ "$(id -u)" -ne 0 ] && sudo="sudo"
$sudo apt-get update
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y --no-install-recommends "${missing[@]}"
