#!/usr/bin/env python3
"""Writes the symbols control file of the runtime package from the built libraries.

Usage: symbols.py PACKAGE VERSION DEV_PACKAGE LIBRARY:VERSION_SCRIPT...

Each library's dynamic symbols (`nm -D --defined-only`) are checked against its
version script: every export carries the script's version node and matches one
of its global patterns, and every pattern matches an export (a stale line in a
script fails here, not silently). The symbols are written in the form
dpkg-shlibdeps reads, each with VERSION as the version that brought it.
"""
import fnmatch
import os
import re
import subprocess
import sys


def read_script(path):
    """Returns (version node, [(pattern, is_cplusplus, exact)]) of a version script."""
    text = re.sub(r"/\*.*?\*/", "", open(path).read(), flags=re.S)
    m = re.match(r"\s*([A-Za-z0-9_]+)\s*\{\s*global:(.*?)\blocal:", text, flags=re.S)
    if not m:
        sys.exit("symbols: %s: no 'NODE { global: ... local:' block" % path)
    node, body = m.group(1), m.group(2)
    cxx_re = r'extern\s+"C\+\+"\s*\{(.*?)\}\s*;'
    patterns = []
    for block, cxx in [(b, True) for b in re.findall(cxx_re, body, flags=re.S)] + \
            [(re.sub(cxx_re, "", body, flags=re.S), False)]:
        for entry in block.split(";"):
            entry = entry.strip()
            if entry:
                patterns.append((entry.strip('"'), cxx, entry.startswith('"')))
    return node, patterns


def exports(library):
    """Returns [(mangled, demangled, version)] of a library's defined dynamic symbols."""
    out = subprocess.run(["nm", "-D", "--defined-only", library], check=True,
                         capture_output=True, text=True).stdout
    names = [line.split()[-1] for line in out.splitlines() if line.strip()]
    plain = [n.split("@")[0] for n in names]
    demangled = subprocess.run(["c++filt"], input="\n".join(plain) + "\n", check=True,
                               capture_output=True, text=True).stdout.splitlines()
    result = []
    for name, d in zip(names, demangled):
        base, _, version = name.partition("@@")
        result.append((base, d, version))
    return result


def main(argv):
    if len(argv) < 4:
        sys.exit(__doc__.strip().splitlines()[2])
    package, version, dev_package = argv[:3]
    lines, bad = [], []
    for item in argv[3:]:
        library, _, script = item.partition(":")
        node, patterns = read_script(script)
        used = set()
        soname = subprocess.run(["objdump", "-p", library], check=True, capture_output=True,
                                text=True).stdout
        soname = re.search(r"^\s*SONAME\s+(\S+)", soname, flags=re.M).group(1)
        lines.append("%s %s #MINVER#" % (soname, package))
        lines.append("* Build-Depends-Package: %s" % dev_package)
        for mangled, demangled, ver in sorted(exports(library)):
            if ver != node and not (mangled == node and ver == ""):
                bad.append("%s: %s has version '%s', not %s" % (soname, mangled, ver, node))
                continue
            if mangled != node:  # the version node's own symbol
                hits = [i for i, (p, cxx, exact) in enumerate(patterns)
                        if (demangled if cxx else mangled) == p
                        or (not exact and fnmatch.fnmatchcase(demangled if cxx else mangled, p))]
                if not hits:
                    bad.append("%s: %s (%s) matches no line of %s"
                               % (soname, demangled, mangled, os.path.basename(script)))
                used.update(hits)
            lines.append(" %s@%s %s" % (mangled, node, version))
        for i, (p, _, _) in enumerate(patterns):
            # Type information of a namespace exists only where it has
            # polymorphic classes; those lines may match nothing.
            if i not in used and not re.match(r"(typeinfo|vtable)", p):
                bad.append("%s: '%s' of %s matches no export"
                           % (soname, p, os.path.basename(script)))
    if bad:
        sys.exit("symbols: the libraries and their version scripts differ:\n  "
                 + "\n  ".join(bad))
    print("\n".join(lines))


if __name__ == "__main__":
    main(sys.argv[1:])
