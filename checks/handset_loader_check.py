#!/usr/bin/python3
"""Reads linked handset programs as the API-23 arm64 loader (/system/bin/linker64) would, and fails on
anything it would refuse, ignore or complain about:

  type          a position-independent executable (ET_DYN) for AArch64, interpreter /system/bin/linker64
  segments      no PT_TLS: that loader has no ELF TLS (thread_local must be emulated, as clang does for
                Android below API 29)
  dynamic       no text relocations (DT_TEXTREL, DF_TEXTREL), no DT_RPATH/DT_RUNPATH (not searched),
                DT_FLAGS_1 only with the bits that loader knows (NOW, GLOBAL)
  relocations   only the types it applies on arm64: RELATIVE, GLOB_DAT, JUMP_SLOT, ABS64/32/16,
                PREL64/32/16, IRELATIVE. It rejects COPY, and silently skips the TLS ones, so they are errors
  needed        only libc.so, libm.so, libdl.so
  imports       every undefined dynamic symbol exists at API 23 (arm64-libc-api.tsv) and the API-23
                release's library named by its version requirement exports it under that version (the
                release's maps: android-6.0.0_r1/), and that version is public (LIBC, not LIBC_PRIVATE or
                LIBC_DEPRECATED, which that release does not define)

It prints one table per program. With --clear-pie-flag it first clears DF_1_PIE in DT_FLAGS_1, in place:
lld always sets that bit, and the API-23 loader, which predates it, warns
"unsupported flags DT_FLAGS_1=0x8000001" at every start; it only marks the file as an executable, which
the loader of that release decides by itself, so clearing it changes nothing else.

Usage: handset_loader_check.py --platform DIR [--api 23] [--clear-pie-flag] PROGRAM...
  DIR is the platform reference folder (arm64-libc-api.tsv, android-arm64-link/android-6.0.0_r1/).
"""
import argparse
import os
import sys
from collections import Counter

from elftools.elf.dynamic import DynamicSection
from elftools.elf.elffile import ELFFile
from elftools.elf.gnuversions import GNUVerNeedSection, GNUVerSymSection
from elftools.elf.relocation import RelocationSection

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import handset_maps  # noqa: E402

INTERPRETER = "/system/bin/linker64"
ALLOWED_NEEDED = ("libc.so", "libm.so", "libdl.so")
# The release whose maps say what an API-23 handset's libraries export.
RELEASE = "android-6.0.0_r1"
DF_1_NOW, DF_1_GLOBAL, DF_1_PIE = 0x1, 0x2, 0x08000000
DF_TEXTREL = 0x4
RELOCATIONS = {  # arm64 relocation types: name, and whether the API-23 loader applies it
    0: ("NONE", False), 257: ("ABS64", True), 258: ("ABS32", True), 259: ("ABS16", True),
    260: ("PREL64", True), 261: ("PREL32", True), 262: ("PREL16", True),
    1024: ("COPY", False), 1025: ("GLOB_DAT", True), 1026: ("JUMP_SLOT", True), 1027: ("RELATIVE", True),
    1028: ("TLS_DTPMOD64", False), 1029: ("TLS_DTPREL64", False), 1030: ("TLS_TPREL64", False),
    1031: ("TLSDESC", False), 1032: ("IRELATIVE", True),
}


def load_api_levels(path):
    levels = {}
    with open(path, encoding="utf-8") as f:
        for line in f:
            if line.startswith("#"):
                continue
            name, lib, level = line.rstrip("\n").split("\t")
            levels[(name, lib)] = int(level)
    return levels


def load_release(platform):
    base = os.path.join(platform, "android-arm64-link", RELEASE)
    return {lib + ".so": handset_maps.exported(os.path.join(base, lib, lib + ".map"))
            for lib in ("libc", "libm", "libdl")}


def clear_pie_flag(path):
    """Clears DF_1_PIE in DT_FLAGS_1, in place; returns the old and new values (None if no such entry)."""
    with open(path, "rb") as f:
        elf = ELFFile(f)
        dyn = elf.get_section_by_name(".dynamic")
        if dyn is None:
            return None
        entsize = dyn["sh_entsize"]
        for i, tag in enumerate(dyn.iter_tags()):
            if tag.entry.d_tag == "DT_FLAGS_1":
                old = tag.entry.d_val
                value_at = dyn["sh_offset"] + i * entsize + entsize // 2
                break
        else:
            return None
    new = old & ~DF_1_PIE
    if new != old:
        with open(path, "r+b") as f:
            f.seek(value_at)
            f.write(new.to_bytes(entsize // 2, "little"))
    return old, new


def check(path, api, levels, release):
    errors = []
    rows = []
    with open(path, "rb") as f:
        elf = ELFFile(f)
        kind = elf["e_type"]
        rows.append(("type", "%s, %s, ELF%d" % (kind, elf["e_machine"], elf.elfclass)))
        if kind != "ET_DYN":
            errors.append("type %s: the loader needs a position-independent executable (ET_DYN)" % kind)
        if elf["e_machine"] != "EM_AARCH64" or elf.elfclass != 64:
            errors.append("not a 64-bit Arm program")
        interp = None
        for seg in elf.iter_segments():
            if seg["p_type"] == "PT_INTERP":
                interp = seg.get_interp_name()
            if seg["p_type"] == "PT_TLS":
                errors.append("PT_TLS segment: ELF TLS, which the API-23 loader does not support "
                              "(thread_local must use emulated TLS)")
        rows.append(("interpreter", interp or "-"))
        if interp != INTERPRETER:
            errors.append("interpreter %s, not %s" % (interp, INTERPRETER))

        needed, flags_1, flags = [], 0, 0
        dyn = next((s for s in elf.iter_sections() if isinstance(s, DynamicSection)), None)
        if dyn is None:
            errors.append("no dynamic section")
        else:
            for tag in dyn.iter_tags():
                t = tag.entry.d_tag
                if t == "DT_NEEDED":
                    needed.append(tag.needed)
                elif t in ("DT_RPATH", "DT_RUNPATH"):
                    value = tag.rpath if t == "DT_RPATH" else tag.runpath
                    errors.append("%s %s: the API-23 loader does not search it" % (t, value))
                elif t == "DT_TEXTREL":
                    errors.append("DT_TEXTREL: text relocations, refused by the 64-bit loader")
                elif t == "DT_FLAGS":
                    flags = tag.entry.d_val
                elif t == "DT_FLAGS_1":
                    flags_1 = tag.entry.d_val
        if flags & DF_TEXTREL:
            errors.append("DF_TEXTREL: text relocations, refused by the 64-bit loader")
        if flags_1 & ~(DF_1_NOW | DF_1_GLOBAL):
            errors.append("DT_FLAGS_1=%#x: bits the API-23 loader does not know (it warns at every start)%s"
                          % (flags_1, "; DF_1_PIE is cleared by --clear-pie-flag" if flags_1 & DF_1_PIE else ""))
        rows.append(("DT_FLAGS / DT_FLAGS_1", "%#x / %#x" % (flags, flags_1)))
        rows.append(("needed", " ".join(needed) or "-"))
        for lib in needed:
            if lib not in ALLOWED_NEEDED:
                errors.append("DT_NEEDED %s: not a library the handset's programs may need (only %s)"
                              % (lib, ", ".join(ALLOWED_NEEDED)))

        counts = Counter()
        for sec in elf.iter_sections():
            if isinstance(sec, RelocationSection) and sec["sh_flags"] & 0x2:  # allocated: dynamic
                for rel in sec.iter_relocations():
                    counts[rel["r_info_type"]] += 1
        rows.append(("relocations", ", ".join("%s %d" % (RELOCATIONS.get(t, (str(t),))[0], n)
                                              for t, n in sorted(counts.items())) or "-"))
        for t, n in sorted(counts.items()):
            name, applied = RELOCATIONS.get(t, ("type %d" % t, False))
            if not applied:
                what = "refused" if name == "COPY" else "not applied"
                errors.append("%d %s relocation(s): %s by the API-23 loader" % (n, name, what))

        imports = imported_symbols(elf)
        asked = sorted({"%s %s" % (lib, version) for _, lib, version, _ in imports if version})
        rows.append(("versions asked", ", ".join(asked) or "-"))
        rows.append(("imports", "%d (by first API level below)" % len(imports)))
        by_level = Counter()
        for name, lib, version, weak in imports:
            level = import_level(levels, name, lib)
            shown = "%s@%s" % (name, version) if version else name
            by_level[level] += 1
            if level is None:
                errors.append("import %s: not a public symbol of the handset's C libraries" % shown)
            elif level > api:
                errors.append("import %s: arrives at API %d, after API %d" % (shown, level, api))
            if version and not handset_maps.public_version(version):
                errors.append("import %s: version %s is not one a program may ask for (the API-%d "
                              "library defines only LIBC and LIBC_PRIVATE)" % (shown, version, api))
            if lib is not None and lib not in release:
                continue  # the library itself is already reported
            libs = [lib] if lib else [n for n in needed if n in release]
            if not any((name, version) in release[l] if version else
                       any(s == name for s, _ in release[l]) for l in libs):
                if not weak:
                    errors.append("import %s: the API-%d release's %s does not export it%s"
                                  % (shown, api, "/".join(libs) or "libraries", " under that version"
                                     if version else ""))
        rows.append(("imports by API level", ", ".join("%s: %d" % (lv if lv is not None else "?", n)
                                                       for lv, n in sorted(by_level.items(),
                                                                           key=lambda x: (x[0] is None, x[0] or 0)))))
        for level in sorted(by_level, key=lambda lv: (lv is None, lv or 0)):
            rows.append(("API %s" % (level if level is not None else "?"),
                         " ".join(sorted(n for n, lib, _, _ in imports
                                         if import_level(levels, n, lib) == level))))
    return rows, errors


def import_level(levels, name, lib):
    """The first API level of an import: of its library when the version requirement names one."""
    if lib is not None:
        return levels.get((name, lib[:-3]))
    return min((lv for (n, _), lv in levels.items() if n == name), default=None)


def imported_symbols(elf):
    """[(name, library, version, weak)] of every undefined dynamic symbol; library and version come from
    the version requirements (None when unversioned)."""
    dynsym = elf.get_section_by_name(".dynsym")
    if dynsym is None:
        return []
    versym = next((s for s in elf.iter_sections() if isinstance(s, GNUVerSymSection)), None)
    verneed = next((s for s in elf.iter_sections() if isinstance(s, GNUVerNeedSection)), None)
    index = {}
    if verneed is not None:
        for need, auxes in verneed.iter_versions():
            for aux in auxes:
                index[aux.entry["vna_other"]] = (need.name, aux.name)
    out = []
    for i, sym in enumerate(dynsym.iter_symbols()):
        if not sym.name or sym["st_shndx"] != "SHN_UNDEF":
            continue
        lib = version = None
        if versym is not None:
            ndx = versym.get_symbol(i).entry["ndx"]
            ndx = ndx if isinstance(ndx, str) else ndx & 0x7FFF
            if ndx in index:
                lib, version = index[ndx]
        out.append((sym.name, lib, version, sym["st_info"]["bind"] == "STB_WEAK"))
    return out


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    ap.add_argument("--platform", required=True)
    ap.add_argument("--api", type=int, default=23)
    ap.add_argument("--clear-pie-flag", action="store_true")
    ap.add_argument("programs", nargs="+")
    args = ap.parse_args()
    levels = load_api_levels(os.path.join(args.platform, "arm64-libc-api.tsv"))
    release = load_release(args.platform)
    failed = False
    for path in args.programs:
        if args.clear_pie_flag:
            changed = clear_pie_flag(path)
            if changed and changed[0] != changed[1]:
                print("%s: DT_FLAGS_1 %#x -> %#x (DF_1_PIE cleared)" % (path, changed[0], changed[1]))
        rows, errors = check(path, args.api, levels, release)
        print("%s (as the API-%d arm64 loader reads it):" % (path, args.api))
        width = max(len(k) for k, _ in rows)
        for k, v in rows:
            print("  %-*s  %s" % (width, k, v))
        for e in errors:
            print("  ERROR: %s" % e)
        print("  %s" % ("FAILED" if errors else "passed"))
        failed = failed or bool(errors)
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
