#!/usr/bin/env bash
# Installs the Debian packages listed in scripts/packages.txt that are missing.
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
mapfile -t packages < <(grep -vE '^\s*(#|$)' "$here/packages.txt")
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0
sudo=""
[ "$(id -u)" -ne 0 ] && sudo="sudo"
$sudo apt-get update
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y --no-install-recommends "${missing[@]}"
