#!/usr/bin/env bash
# Checks what a user gets from a built tree (default build/relwithdebinfo):
#   1. installs it into a temporary prefix and moves that elsewhere (the tree
#      is relocatable), checks that the host library exports only the platform
#      and tevhost:: and that the installed `tevash demo` runs;
#   2. builds examples/ (their sources only, whatever was built in the tree)
#      against the moved prefix with CMake and with pkg-config and runs both,
#      and the CMake one installed into a prefix of its own;
#   3. builds the Debian packages (packaging/build-debs.sh), checks each with
#      lintian (any error or warning fails; overrides only with a reason beside
#      them), extracts them into a temporary root and runs its `tevash demo`.
#      With TEVASH_CHECK_DPKG=1 (CI, as root on a throwaway machine) it also
#      installs libtevash1 and libtevash-dev with dpkg and builds and runs the
#      CMake example against them, then installs tevash, runs /usr/bin/tevash
#      demo, checks the loader's cache has the libraries and purges all three.
# Every ELF file of the build tree, the prefix, the examples' builds and the
# packages has no empty or relative run path entry (scripts/check-runpath.sh).
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
    "velmora::|tevhost::($host_api)(\\[abi:[a-z0-9]+\\])?(\\(|::)|Zof_|(tivZofSleep|tivGENTrcPrintf|put_lib_svccall_notify|gen_ipc_reply)\\("


step "installed tevash"
expect_line "^tevash [0-9]" "$prefix/bin/tevash" --version
demo_ok "$prefix/bin/tevash"
[ -f "$prefix/share/man/man1/tevash.1.gz" ] || fail "man page not installed"

step "CMake consumer (examples/cmake)"
# The sources only: a build of the README's examples inside the tree stays there.
(find examples -name build -prune -o -type f \( -name '*.cpp' -o -name CMakeLists.txt \
    -o -name Makefile \) -print0 | xargs -0 cp --parents -t "$tmp")
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

step "Debian packages"
packaging/build-debs.sh "$build" "$tmp/deb" >"$tmp/debs" || fail "packaging/build-debs.sh failed"
mapfile -t debs <"$tmp/debs"
[ ${#debs[@]} -eq 3 ] || fail "expected 3 packages, got: ${debs[*]}"
for deb in "${debs[@]}"; do
    echo "   $(basename "$deb"): $(dpkg-deb -f "$deb" Depends)"
    dpkg-deb -x "$deb" "$tmp/root"
done
lintian --fail-on error,warning "${debs[@]}" >"$tmp/lintian.log" 2>&1 ||
    { cat "$tmp/lintian.log" >&2; fail "lintian found errors or warnings"; }
echo "   lintian: no error or warning"
scripts/check-runpath.sh "$tmp/root"
demo_ok "$tmp/root/usr/bin/tevash"
triplet=$(dpkg-architecture -qDEB_HOST_MULTIARCH)
for f in usr/lib/$triplet/libtevash.so.1 usr/lib/$triplet/libtevash_host.so.1 \
    usr/lib/$triplet/libtevash_service.a usr/include/tevash/tevhost/embedded_service.h \
    usr/lib/$triplet/pkgconfig/tevash.pc usr/share/man/man1/tevash.1.gz \
    usr/lib/systemd/user/tevash.socket; do
    [ -e "$tmp/root/$f" ] || fail "the packages lack /$f"
done
# A tool that writes its shell completion has it installed where bash and zsh look.
if "$tmp/root/usr/bin/tevash" completion bash >/dev/null 2>&1; then
    for f in usr/share/bash-completion/completions/tevash usr/share/zsh/vendor-completions/_tevash; do
        [ -s "$tmp/root/$f" ] || fail "the packages lack /$f"
    done
fi
if [ "${TEVASH_CHECK_DPKG:-0}" = 1 ]; then
    [ "$(id -u)" -eq 0 ] || fail "TEVASH_CHECK_DPKG=1 needs root"
    trap 'dpkg -P tevash libtevash-dev libtevash1 >/dev/null 2>&1; rm -rf "$tmp"' EXIT
    install_debs() { dpkg -i "$@" >"$tmp/dpkg.log" 2>&1 || { cat "$tmp/dpkg.log" >&2; fail "$* do not install"; }; }
    # The library and its development files serve an application without the tool.
    install_debs "${debs[@]:0:2}"
    cmake -S "$tmp/examples/cmake" -B "$tmp/sys-app" >/dev/null
    cmake --build "$tmp/sys-app" >/dev/null
    expect_line "member 0x00360000 = 42" "$tmp/sys-app/app"
    install_debs "${debs[2]}"
    demo_ok /usr/bin/tevash
    cache=$(ldconfig -p)
    for so in libtevash.so.1 libtevash_host.so.1; do
        grep -q "^[[:space:]]*$so " <<<"$cache" || fail "$so is not in the loader's cache after install"
    done
    loaded=$(ldd /usr/bin/tevash | sed -n 's/.*libtevash\.so\.1 => \([^ ]*\).*/\1/p')
    [ -n "$loaded" ] && [ "$(realpath "$loaded")" = "$(realpath "/usr/lib/$triplet/libtevash.so.1")" ] ||
        fail "/usr/bin/tevash loads libtevash.so.1 from '$loaded', not the installed one"
    dpkg -P tevash libtevash-dev libtevash1 >"$tmp/dpkg.log" 2>&1 ||
        { cat "$tmp/dpkg.log" >&2; fail "the packages do not purge"; }
    ! ldconfig -p | grep libtevash || fail "libtevash stays in the loader's cache after purge"
    echo "   installed (an application built on libtevash-dev alone), ran and purged"
fi
echo "-- install check passed"
