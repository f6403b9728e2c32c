#!/usr/bin/env bash
# Checks the run paths of every ELF file under each DIR: no RUNPATH or RPATH
# entry may be empty (the loader reads it as the current directory) or relative
# other than through $ORIGIN, so no program loads a library planted wherever it
# happens to run. Usage: scripts/check-runpath.sh DIR...
set -euo pipefail
[ $# -gt 0 ] || { echo "usage: $0 DIR..." >&2; exit 2; }
bad=0 files=0
while IFS= read -r -d '' f; do
    [ "$(head -c 4 "$f" | od -An -c | tr -d ' \n')" = '177ELF' ] || continue
    files=$((files + 1))
    paths=$(readelf -d "$f" 2>/dev/null | sed -n 's/.*(\(RUNPATH\|RPATH\)).*\[\(.*\)\]$/\2/p') || true
    while IFS= read -r path; do
        [ -n "$path" ] || continue
        rest=$path
        while :; do
            entry=${rest%%:*}
            case "$entry" in
                /* | '$ORIGIN' | '$ORIGIN/'* | '${ORIGIN}' | '${ORIGIN}/'*) ;;
                *) echo "check-runpath: $f: run path '$path' has entry '${entry:-<empty>}'" >&2
                   bad=1 ;;
            esac
            [[ "$rest" == *:* ]] || break
            rest=${rest#*:}
        done
    done <<<"$paths"
done < <(find "$@" -type f -size +0 -print0)
[ "$bad" -eq 0 ] || exit 1
echo "   run paths of $files ELF files: no empty or relative entry"
