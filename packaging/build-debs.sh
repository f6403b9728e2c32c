#!/usr/bin/env bash
# Builds the Debian packages from a built tree, one per install component
# (cmake/install.cmake):
#   libtevash1     libtevash.so.1 and libtevash_host.so.1 in /usr/lib/<triplet>,
#                  with shlibs, a symbols file made from the libraries and their
#                  version scripts (packaging/symbols.py) and the ldconfig trigger;
#   libtevash-dev  headers, CMake package, pkg-config files, libtevash_service.a,
#                  the .so links;
#   tevash         the tool, its man page, shell completion and user units.
# Each carries the copyright file, the changelog and the lintian overrides
# (packaging/lintian-overrides, each with its reason). The version is the
# changelog's (its upstream part must be the project's).
# Usage: packaging/build-debs.sh BUILD_DIR OUT_DIR
# Prints the packages written, in this order: libtevash1, libtevash-dev, tevash.
set -euo pipefail
[ $# -eq 2 ] || { echo "usage: $0 BUILD_DIR OUT_DIR" >&2; exit 2; }
here=$(cd "$(dirname "$0")" && pwd)
src=$(dirname "$here")
build=$(realpath "$1")
out=$(realpath -m "$2")
fail() { echo "build-debs: $*" >&2; exit 1; }
umask 022

version=$(dpkg-parsechangelog -l "$here/changelog" -S Version)
upstream=${version%-*}
project=$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' "$build/CMakeCache.txt")
[ "$upstream" = "$project" ] ||
    fail "packaging/changelog is at $version, the project at $project: add a changelog entry"
arch=$(dpkg-architecture -qDEB_HOST_ARCH)
triplet=$(dpkg-architecture -qDEB_HOST_MULTIARCH)
maintainer=$(sed -n 's/^ -- \(.*>\)  .*/\1/p' "$here/changelog" | head -n 1)

work=$(mktemp -d "${TMPDIR:-/tmp}/tevash-debs.XXXXXX")
trap 'rm -rf "$work"' EXIT
mkdir -p "$work/debian" "$out"
: >"$work/debian/control"  # dpkg-shlibdeps reads it; the fields below are ours

stage() {  # stage <component> <package>: its files, documentation and overrides
    local root=$work/debian/$2
    DESTDIR=$root cmake --install "$build" --prefix /usr --component "$1" --strip >/dev/null
    install -Dm644 "$here/copyright" "$root/usr/share/doc/$2/copyright"
    gzip -9nc "$here/changelog" >"$root/usr/share/doc/$2/changelog.Debian.gz"
    install -Dm644 "$here/lintian-overrides" "$root/usr/share/lintian/overrides/$2"
    # Libraries and data are not executable; programs are.
    find "$root" -type d -exec chmod 0755 {} +
    find "$root" -type f -exec chmod 0644 {} +
    [ ! -d "$root/usr/bin" ] || chmod 0755 "$root"/usr/bin/*
    mkdir -m 0755 "$root/DEBIAN"
}

control() {  # control <package> <section> <depends> <multi-arch> <description...>
    local pkg=$1 section=$2 depends=$3 multiarch=$4 root=$work/debian/$1
    shift 4
    {
        echo "Package: $pkg"
        echo "Source: tevash"
        echo "Version: $version"
        echo "Architecture: $arch"
        [ -z "$multiarch" ] || echo "Multi-Arch: $multiarch"
        echo "Maintainer: $maintainer"
        echo "Installed-Size: $(du -sk --exclude=DEBIAN "$root" | cut -f1)"
        [ -z "$depends" ] || echo "Depends: $depends"
        echo "Section: $section"
        echo "Priority: optional"
        printf 'Description: %s\n' "$1"
        shift
        printf ' %s\n' "$@"
    } >"$root/DEBIAN/control"
    (cd "$root" && find . -path ./DEBIAN -prune -o -type f -printf '%P\0' | sort -z |
        xargs -0 -r md5sum >DEBIAN/md5sums)
}

shlibdeps() {  # shlibdeps <package> <ELF file>...: the package's shared library dependencies
    local pkg=$1 deps
    shift
    deps=$(cd "$work" && dpkg-shlibdeps -O -x"$pkg" -l"debian/libtevash1/usr/lib/$triplet" "$@") ||
        fail "dpkg-shlibdeps failed for $pkg"
    deps=$(sed -n 's/^shlibs:Depends=//p' <<<"$deps")
    [ -n "$deps" ] || fail "dpkg-shlibdeps found no dependencies of $pkg"
    echo "$deps"
}

# ---- libtevash1
lib=libtevash1
stage runtime $lib
libdir=$work/debian/$lib/usr/lib/$triplet
[ -f "$libdir/libtevash.so.1" ] && [ -f "$libdir/libtevash_host.so.1" ] ||
    fail "the libraries are not in lib/$triplet: configure $build afresh (or with -U CMAKE_INSTALL_LIBDIR)"
printf 'libtevash 1 %s (>= %s)\nlibtevash_host 1 %s (>= %s)\n' $lib "$upstream" $lib "$upstream" \
    >"$work/debian/$lib/DEBIAN/shlibs"
python3 "$here/symbols.py" $lib "$upstream" libtevash-dev \
    "$libdir/libtevash.so.1:$src/cmake/tevash.map" \
    "$libdir/libtevash_host.so.1:$src/cmake/tevash_host.map" >"$work/debian/$lib/DEBIAN/symbols"
echo "activate-noawait ldconfig" >"$work/debian/$lib/DEBIAN/triggers"
deps=$(shlibdeps $lib "$libdir/libtevash.so.1" "$libdir/libtevash_host.so.1")
control $lib libs "$deps" same \
    "handler settings library of an embedded device platform" \
    "libtevash.so.1 keeps the settings of a device's jobs as handlers, linked" \
    "into trees, with members named by 32-bit ids, in a record store." \
    "." \
    "This package holds the library and the host platform it runs on" \
    "(libtevash_host.so.1: in-memory or SQLite record store, message service," \
    "trace)."

# ---- libtevash-dev
dev=libtevash-dev
stage dev $dev
control $dev libdevel "$lib (= $version)" same \
    "handler settings library of an embedded device platform - development files" \
    "libtevash.so.1 keeps the settings of a device's jobs as handlers, linked" \
    "into trees, with members named by 32-bit ids, in a record store." \
    "." \
    "This package holds the headers, the CMake package and pkg-config files," \
    "and libtevash_service.a, the handler service and sample director that" \
    "run inside an application's own process."

# ---- tevash
tools=tevash
stage tools $tools
[ -x "$work/debian/$tools/usr/bin/tevash" ] || fail "$build has no tevash tool (TEVASH_BUILD_TOOLS=OFF?)"
deps=$(shlibdeps $tools "$work/debian/$tools/usr/bin/tevash")
control $tools utils "$deps" "" \
    "command-line tool for handler trees and members over a record store" \
    "tevash runs the handler library of an embedded device platform, the" \
    "handler service and a sample director on a host: it creates, links and" \
    "copies handlers, reads and writes their members, exports and imports" \
    "trees, and serves the handler service to other processes." \
    "." \
    "The package also holds the manual page, shell completion and user units" \
    "that start the handler service on its socket."

for pkg in $lib $dev $tools; do
    deb=$out/${pkg}_${version}_$arch.deb
    dpkg-deb --root-owner-group -Zxz --build "$work/debian/$pkg" "$deb" >/dev/null
    echo "$deb"
done
