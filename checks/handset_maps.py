#!/usr/bin/python3
"""The handset C library's symbol maps (libc.map.txt and its kind): which symbols an arm64 handset at a
given API level offers, and under which version.

A map is a list of version nodes ("LIBC { ... };", "LIBC_N { ... } LIBC;"), each holding "global:"
symbols; a "# ..." comment after a node's brace or a symbol carries tags:
  arm arm64 x86 ...        the symbol or node exists only on the architectures named
  introduced=N             it came at API level N (on every architecture)
  introduced-arm64=N       it came at API level N on arm64
  var                      a data object, not a function
  apex llndk platform-only not offered to programs outside the platform
Nodes named *_PRIVATE or *_PLATFORM are the platform's own. arm64 starts at API 21.

Used as a program, it writes what the development kit makes its stub libraries from:
  handset_maps.py stub MAP API OUT.c OUT.map   a C file defining every symbol and a version script
"""
import re
import sys

ARCH = "arm64"
ARCHES = {"arm", "arm64", "x86", "x86_64", "mips", "mips64", "riscv64"}
FIRST_API = 21
# Tags of symbols that programs outside the platform tree cannot use.
PLATFORM_ONLY = {"apex", "llndk", "platform-only"}


def _introduced(tags):
    """The API level the tags give on arm64 (FIRST_API when they give none)."""
    level = FIRST_API
    for tag in tags:
        if tag.startswith("introduced=") or tag.startswith("introduced-%s=" % ARCH):
            level = max(level, int(tag.split("=", 1)[1]))
    return level


def _on_arch(tags):
    named = ARCHES & set(tags)
    return not named or ARCH in named


def parse(path):
    """Yields (version, symbol, tags of the node, tags of the symbol) for every global symbol of a map."""
    version = None
    node_tags = []
    scope = "global"
    with open(path, encoding="utf-8") as f:
        for raw in f:
            line, _, comment = raw.partition("#")
            tags = comment.split()
            line = line.strip()
            if not line:
                continue
            m = re.match(r"^([A-Za-z0-9_]+)\s*\{$", line)
            if m:
                version, node_tags, scope = m.group(1), tags, "global"
                continue
            if line.startswith("}"):
                version = None
                continue
            if line in ("global:", "local:"):
                scope = line[:-1]
                continue
            if version is None or scope != "global":
                continue
            name = line.rstrip(";").strip()
            if name and name != "*":
                yield version, name, node_tags, tags


def public_version(version):
    """Whether programs may ask for a version: the platform's own nodes and the deprecated ones are not
    (the API-23 C library defines only LIBC and LIBC_PRIVATE, so a LIBC_DEPRECATED reference would not
    load there)."""
    return not version.endswith(("_PRIVATE", "_PLATFORM", "_DEPRECATED"))


def symbols_at(path, api):
    """{symbol: (version, is_data)} of what a program may use at API level `api` on arm64."""
    out = {}
    for version, name, node_tags, tags in parse(path):
        if not public_version(version):
            continue
        if not _on_arch(node_tags) or not _on_arch(tags):
            continue
        if PLATFORM_ONLY & (set(node_tags) | set(tags)):
            continue
        if max(_introduced(node_tags), _introduced(tags)) > api:
            continue
        out[name] = (version, "var" in tags)
    return out


def exported(path):
    """{(symbol, version)} that a release's map says its library exports on arm64, private nodes included
    (a release's map lists what its library defines, not what programs may use)."""
    return {(name, version) for version, name, node_tags, tags in parse(path)
            if _on_arch(node_tags) and _on_arch(tags)}


def write_stub(map_path, api, c_path, script_path):
    syms = symbols_at(map_path, api)
    versions = {}
    for name, (version, _) in syms.items():
        versions.setdefault(version, []).append(name)
    with open(c_path, "w", encoding="utf-8") as c:
        c.write("/* Generated from %s at API %d: every symbol, none of them working. */\n" % (map_path, api))
        for name in sorted(syms):
            if syms[name][1]:
                c.write("int %s = 0;\n" % name)
            else:
                c.write("void %s(void) {}\n" % name)
    with open(script_path, "w", encoding="utf-8") as s:
        for version in sorted(versions):
            s.write("%s {\n  global:\n" % version)
            for name in sorted(versions[version]):
                s.write("    %s;\n" % name)
            s.write("  local:\n    *;\n};\n")
    return len(syms)


def main(argv):
    if len(argv) == 6 and argv[1] == "stub":
        n = write_stub(argv[2], int(argv[3]), argv[4], argv[5])
        print(n)
        return 0
    sys.stderr.write(__doc__)
    return 2


if __name__ == "__main__":
    sys.exit(main(sys.argv))
