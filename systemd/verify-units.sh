#!/bin/sh
# Checks the user units with `systemd-analyze verify`, their `tevash` being the
# one given (a build's). Exit 77 (skipped) where systemd-analyze is missing.
# Usage: systemd/verify-units.sh PATH_TO_TEVASH
set -eu
units=$(dirname "$0")
tevash=$(realpath "$1")
command -v systemd-analyze >/dev/null || { echo "systemd-analyze not installed: skipped"; exit 77; }
tmp=$(mktemp -d "${TMPDIR:-/tmp}/tevash-units.XXXXXX")
trap 'rm -rf "$tmp"' EXIT
for unit in tevash.socket tevash.service tevash-director@.service; do
    sed "s|^ExecStart=tevash |ExecStart=$tevash |" "$units/$unit" >"$tmp/$unit"
done
cp "$tmp/tevash-director@.service" "$tmp/tevash-director@1.service"
cd "$tmp"
out=$(XDG_RUNTIME_DIR=$tmp systemd-analyze --user --man=no verify \
    tevash.socket tevash.service tevash-director@1.service 2>&1) || { echo "$out"; exit 1; }
# Warnings do not fail verify; any line about our units does here.
if printf '%s\n' "$out" | grep -q 'tevash'; then echo "$out"; exit 1; fi
echo "units verified"
