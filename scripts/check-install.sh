#!/usr/bin/env bash
# Checks what a user gets from a built tree (default build/relwithdebinfo):
#   1. installs it into a temporary prefix and moves that elsewhere (the tree
#      is relocatable), checks that the host library exports only the platform
#      and tevhost:: and that the installed `tevash demo` runs;
#   2. builds examples/ against the moved prefix with CMake and with pkg-config
#      and runs both, and the CMake one installed into a prefix of its own;
#   3. builds the Debian package with cpack, extracts it into a temporary root
#      and runs its `tevash demo`. With TEVASH_CHECK_DPKG=1 (CI, as root on a
#      throwaway machine) it also installs the package with apt-get, runs
#      /usr/bin/tevash demo and removes the package again.
# Every ELF file of the build tree, the prefix, the examples' builds and the
# package has no empty or relative run path entry (scripts/check-runpath.sh).
# Nothing runs with LD_LIBRARY_PATH. Usage: scripts/check-install.sh [BUILD_DIR]
set -euo pipefail
cd "$(dirname "$0")/.."
build=$(realpath "${1:-build/relwithdebinfo}")
tmp=$(mktemp -d "${TMPDIR:-/tmp}/tevash-install-check.XXXXXX")
trap 'rm -rf "$tmp"' EXIT
unset LD_LIBRARY_PATH
export TEVASH_HOST_TRACE=none

step() { echo "-- $*"; }
fail() { echo "check-install: $*" >&2; exit 1; }
# Runs a program that prints one line and checks the line.
expect_line() {  # expect_line <pattern> <command...>
    local pattern=$1; shift
    local out
    out=$("$@") || fail "'$*' failed"
    grep -q "$pattern" <<<"$out" || fail "'$*' printed '$out', expected '$pattern'"
    echo "   $out"
}
demo_ok() {  # demo_ok <tevash binary>
    local out
    out=$("$1" demo) || fail "'$1 demo' failed"
    grep -q "^Demo finished" <<<"$out" || fail "'$1 demo' did not finish: $out"
    echo "   $1 demo: $(grep -c . <<<"$out") lines, finished"
}

step "the README's library example is examples/"
# The indented text that follows a line ending in "`examples/<file>`:" or
# "(`examples/<file>`):" starts with that file, without its leading comment lines.
python3 - <<'PY' || fail "README.md and examples/ differ"
import re, sys
text = open("README.md").read().split("\n")
ok, seen = True, 0
for i, line in enumerate(text):
    m = re.search(r"`(examples/[^`]+)`\)?:$", line)
    if not m:
        continue
    j = i + 1
    while j < len(text) and not text[j].strip():
        j += 1
    block = []
    while j < len(text) and (text[j].startswith("    ") or not text[j].strip()):
        block.append(text[j][4:])
        j += 1
    while block and not block[-1].strip():
        block.pop()
    lines = open(m.group(1)).read().rstrip("\n").split("\n")
    comment = "//" if m.group(1).endswith(".cpp") else "#"
    while lines and lines[0].startswith(comment):
        lines.pop(0)
    seen += 1
    if block[: len(lines)] != lines or (len(block) > len(lines) and block[len(lines)].strip()):
        print("README block for %s differs from the file" % m.group(1), file=sys.stderr)
        ok = False
print("   %d README blocks match their files" % seen)
sys.exit(0 if ok and seen >= 2 else 1)
PY

step "run paths of the build tree"
scripts/check-runpath.sh "$build"

step "install into a temporary prefix, then move it"
cmake --install "$build" --prefix "$tmp/stage" >/dev/null
mv "$tmp/stage" "$tmp/prefix"
prefix=$tmp/prefix
libdir=$(dirname "$(find "$prefix" -name libtevash_host.so.1 | head -n 1)")
scripts/check-runpath.sh "$prefix"

step "exported symbols of libtevash_host.so.1 and libtevash.so.1"
# The symbols a library exports beyond the names its version script allows.
stray_symbols() {  # stray_symbols <library> <version node> <allowed name regex>
    nm -D --defined-only "$1" | c++filt | cut -d' ' -f3- | sed "s/@@$2\$//" |
        grep -v "^$2\$" | grep -Ev "^((typeinfo (name )?|vtable )for )?($3)" || true
}
check_exports() {  # check_exports <library> <version node> <allowed name regex>
    local stray
    stray=$(stray_symbols "$libdir/$1" "$2" "$3")
    [ -z "$stray" ] || fail "$1 exports more than its interface: $(head -n 5 <<<"$stray")"
    echo "   $1: $(nm -D --defined-only "$libdir/$1" | grep -vc ' A ') symbols, all of its interface"
}
check_exports libtevash.so.1 TEVASH_1 'velmora::tev_ash_'
# The host library's tevhost:: exports are exactly names the installed host
# headers declare at namespace scope (functions, or classes with their members):
# no tevhost::detail::, tevhost::ipc:: or other internal name.
host_api=$(sed -n '/^namespace tevhost {/,/^}  \/\/ namespace tevhost/p' \
        "$(find "$prefix" -path '*/host/tev_host.h')" "$(find "$prefix" -path '*/host/tev_host_testing.h')" |
    grep -E '^[A-Za-z]' | grep -oE '(^class [a-z_]+|[a-z_0-9]+\()' | sed 's/^class //; s/($//' |
    sort -u | paste -sd'|')
[ -n "$host_api" ] || fail "no tevhost API found in the installed host headers"
check_exports libtevash_host.so.1 TEVASH_HOST_1 \
    "velmora::|tevhost::($host_api)(\\(|::)|Zof_|(tivZofSleep|tivGENTrcPrintf|put_lib_svccall_notify|gen_ipc_reply)\\("


step "installed tevash"
expect_line "^tevash [0-9]" "$prefix/bin/tevash" --version
demo_ok "$prefix/bin/tevash"
[ -f "$prefix/share/man/man1/tevash.1" ] || fail "man page not installed"

step "CMake consumer (examples/cmake)"
cp -r examples "$tmp/examples"
cmake -S "$tmp/examples/cmake" -B "$tmp/examples/cmake/build" -DCMAKE_PREFIX_PATH="$prefix" \
    -DCMAKE_INSTALL_PREFIX="$tmp/app" >/dev/null
cmake --build "$tmp/examples/cmake/build" >/dev/null
expect_line "member 0x00360000 = 42" "$tmp/examples/cmake/build/app"
cmake --install "$tmp/examples/cmake/build" >/dev/null
expect_line "member 0x00360000 = 42" "$tmp/app/bin/app"
expect_line "member 0x00360000 = 42" "$tmp/app/bin/app" "$tmp/app.db"  # persistent store

step "pkg-config consumer (examples/pkg-config)"
export PKG_CONFIG_PATH=$libdir/pkgconfig
cflags=$(pkg-config --cflags tevash)
[[ "$cflags" == *"$prefix/"* ]] || fail "pkg-config --cflags tevash gives '$cflags', not the prefix"
make -s -C "$tmp/examples/pkg-config" >/dev/null
expect_line "member 0x00360000 = 42" "$tmp/examples/pkg-config/app"
scripts/check-runpath.sh "$tmp/examples" "$tmp/app"
unset PKG_CONFIG_PATH

step "Debian package"
cpack --config "$build/CPackConfig.cmake" -G DEB -B "$tmp/deb" >"$tmp/cpack.log" 2>&1 ||
    { cat "$tmp/cpack.log" >&2; fail "cpack -G DEB failed"; }
deb=$(ls "$tmp"/deb/*.deb)
echo "   $(basename "$deb"): $(dpkg-deb -f "$deb" Depends)"
dpkg-deb -x "$deb" "$tmp/root"
scripts/check-runpath.sh "$tmp/root"
demo_ok "$tmp/root/usr/bin/tevash"
for f in usr/share/man/man1/tevash.1 usr/share/doc/tevash/LICENSE usr/lib/libtevash_service.a \
    usr/include/tevash/tevhost/embedded_service.h; do
    [ -f "$tmp/root/$f" ] || fail "the package lacks /$f"
done
if [ "${TEVASH_CHECK_DPKG:-0}" = 1 ]; then
    [ "$(id -u)" -eq 0 ] || fail "TEVASH_CHECK_DPKG=1 needs root"
    DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "$deb" >"$tmp/apt.log" 2>&1 ||
        { cat "$tmp/apt.log" >&2; fail "the package does not install"; }
    trap 'dpkg -P tevash >/dev/null; rm -rf "$tmp"' EXIT
    demo_ok /usr/bin/tevash
fi
echo "-- install check passed"
