#!/usr/bin/env bash
# Installs the Debian packages the build needs, only those missing.
set -euo pipefail
pkgs=(cmake ninja-build g++ clang libclang-rt-14-dev libgtest-dev libgmock-dev libbenchmark-dev
      libsqlite3-dev libcli11-dev nlohmann-json3-dev pkg-config dpkg-dev make python3
      lintian)  # lintian: ./run install-check checks the Debian packages with it
# Extra packages named on the command line (e.g. gcovr, valgrind) are added.
pkgs+=("$@")
missing=()
for p in "${pkgs[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0
echo "installing: ${missing[*]}" >&2
SUDO=""
[ "$(id -u)" -ne 0 ] && SUDO=sudo
$SUDO apt-get update -qq
DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
