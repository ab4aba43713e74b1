#!/usr/bin/python3
"""Builds the handset's SELinux policy as the API-23 platform build does, with the project's sepolicy/
folder as the device tree's BOARD_SEPOLICY_DIRS, and checks it.

    sepolicy_build.py PLATFORM_DIR DEVICE_DIR OUT_DIR [VARIANT...]

For each build variant (user, userdebug, eng by default):
  - policy.conf: m4 over the platform's files and the device's, in the platform build's order and with
    its defines; the four ioctl rules written in the platform compiler's own syntax are rewritten as
    allowxperm rules (same meaning);
  - the binary policy: checkpolicy, which enforces every neverallow rule;
  - no permissive statement in the device's files, no permissive type of the device in the binary;
  - file_contexts (platform's then device's, m4 -s): every context valid, every regular expression
    compiles, no duplicate entry (setfiles -c, sefcontext_compile -p);
  - property_contexts likewise: each NAME checked as a file_contexts line "/NAME" (Debian's libselinux
    has no property backend), duplicate names refused as the platform's backend refuses them.
Leaves OUT_DIR/VARIANT/{policy.conf,sepolicy,file_contexts,property_contexts}. Exit 0 when everything
passed; otherwise every finding is printed and the exit status is 1.
"""
import os
import re
import subprocess
import sys

BEFORE_TE = ["security_classes", "initial_sids", "access_vectors", "global_macros", "neverallow_macros",
             "mls_macros", "mls", "policy_capabilities", "te_macros", "attributes", "ioctl_macros"]
AFTER_TE = ["roles", "users", "initial_sid_contexts", "fs_use", "genfs_contexts", "port_contexts"]
VARIANTS = ["user", "userdebug", "eng"]


def say(msg):
    print("sepolicy: " + msg, flush=True)


def build_files(platform, device):
    """The platform build's file list: each name from the platform folder, then from the device's."""
    files = []
    for name in BEFORE_TE:
        files += [os.path.join(d, name) for d in (platform, device) if os.path.isfile(os.path.join(d, name))]
    for d in (platform, device):
        files += sorted(os.path.join(d, f) for f in os.listdir(d) if f.endswith(".te"))
    for name in AFTER_TE:
        files += [os.path.join(d, name) for d in (platform, device) if os.path.isfile(os.path.join(d, name))]
    return files


# allow S T:C { 0x5411 ... };  (the platform compiler's ioctl list) -> allowxperm S T:C ioctl { ... };
_ALLOW_STMT = re.compile(r"^allow\b[^;]*;", re.M)
_HEX = re.compile(r"0x[0-9a-fA-F]+(-0x[0-9a-fA-F]+)?")


def rewrite_ioctl_rules(conf):
    count = 0

    def fix(m):
        nonlocal count
        stmt = m.group(0)
        head, body = stmt[:stmt.rfind("{")], stmt[stmt.rfind("{") + 1:stmt.rfind("}")]
        tokens = [t for l in body.splitlines() if not l.strip().startswith("#") for t in l.split()]
        if tokens and all(_HEX.fullmatch(t) for t in tokens):
            count += 1
            return "allowxperm" + head[len("allow"):] + "ioctl { " + " ".join(tokens) + " };"
        return stmt

    return _ALLOW_STMT.sub(fix, conf), count


def run(cmd, **kw):
    return subprocess.run(cmd, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, **kw)


def m4_concat(paths, defines=()):
    cmd = ["m4"] + [a for d in defines for a in ("-D", d)] + ["-s"] + list(paths)
    r = run(cmd)
    if r.returncode != 0:
        raise RuntimeError("m4 failed: " + r.stdout)
    return r.stdout


def device_types(device):
    """Types and attributes the device's .te files declare."""
    names = set()
    for f in sorted(os.listdir(device)):
        if f.endswith(".te"):
            text = open(os.path.join(device, f)).read()
            names |= set(re.findall(r"^\s*type\s+(\w+)", text, re.M))
    return names


def check_permissive(device, sepolicy, findings, variant):
    for f in sorted(os.listdir(device)):
        if not f.endswith(".te"):
            continue
        for n, line in enumerate(open(os.path.join(device, f)), 1):
            if re.match(r"^\s*permissive\b", line.split("#", 1)[0]):
                findings.append("%s:%d: a permissive domain (%s); the daemon's domains stay enforcing on "
                                "every variant" % (f, n, line.strip()))
    import setools
    pol = setools.SELinuxPolicy(sepolicy)
    own = device_types(device)
    for t in pol.types():
        if t.ispermissive and str(t) in own:
            findings.append("%s: type %s is permissive in the compiled policy" % (variant, t))


def parse_contexts(path, kind):
    """(line number, key, context) of each entry of a file_contexts or property_contexts text."""
    out = []
    for n, line in enumerate(open(path), 1):
        s = line.split("#", 1)[0].strip() if kind == "property" else line.strip()
        if not s or s.startswith("#"):
            continue
        parts = s.split()
        out.append((n, parts[0], parts[-1], parts))
    return out


def check_file_contexts(fc, sepolicy, findings, variant, scratch):
    r = run(["setfiles", "-c", sepolicy, fc])
    if r.returncode != 0:
        findings.append("%s: file_contexts: setfiles -c: %s" % (variant, r.stdout.strip()))
    out = os.path.join(scratch, "file_contexts.bin")
    r = run(["sefcontext_compile", "-p", sepolicy, "-o", out, fc])
    if r.returncode != 0:
        findings.append("%s: file_contexts: sefcontext_compile: %s" % (variant, r.stdout.strip()))
    # Duplicate entries: the same regular expression and file type twice.
    seen = {}
    for n, key, ctx, parts in parse_contexts(fc, "file"):
        ftype = parts[1] if len(parts) == 3 else ""
        k = (key, ftype)
        if k in seen:
            findings.append("%s: file_contexts: duplicate entry %s (lines %d and %d of the combined file)"
                            % (variant, key, seen[k], n))
        seen[k] = n
        try:
            re.compile("^" + key + "$")
        except re.error as e:
            findings.append("%s: file_contexts: bad regular expression %s: %s" % (variant, key, e))


def check_property_contexts(pc, sepolicy, findings, variant, scratch):
    seen = {}
    lines = []
    for n, name, ctx, parts in parse_contexts(pc, "property"):
        if len(parts) != 2:
            findings.append("%s: property_contexts line %d: expected NAME CONTEXT: %s" % (variant, n, " ".join(parts)))
            continue
        if name in seen:
            findings.append("%s: property_contexts: duplicate entry %s (lines %d and %d of the combined file)"
                            % (variant, name, seen[name], n))
        seen[name] = n
        lines.append("/%s %s\n" % (re.sub(r"([.^$*+?()\[\]{}|\\])", r"\\\1", name), ctx))
    as_fc = os.path.join(scratch, "property_contexts.as_file_contexts")
    with open(as_fc, "w") as f:
        f.writelines(lines)
    r = run(["setfiles", "-c", sepolicy, as_fc])
    if r.returncode != 0:
        findings.append("%s: property_contexts: %s" % (variant, r.stdout.strip()))
    r = run(["sefcontext_compile", "-p", sepolicy, "-o", os.path.join(scratch, "property_contexts.bin"), as_fc])
    if r.returncode != 0:
        findings.append("%s: property_contexts: %s" % (variant, r.stdout.strip()))


def build_variant(platform, device, out, variant):
    findings = []
    d = os.path.join(out, variant)
    os.makedirs(d, exist_ok=True)
    defines = ["mls_num_sens=1", "mls_num_cats=1024", "target_build_variant=" + variant]
    conf, fixed = rewrite_ioctl_rules(m4_concat(build_files(platform, device), defines))
    conf_path = os.path.join(d, "policy.conf")
    with open(conf_path, "w") as f:
        f.write(conf)
    sepolicy = os.path.join(d, "sepolicy")
    if os.path.exists(sepolicy):
        os.unlink(sepolicy)
    r = run(["checkpolicy", "-M", "-c", "30", "-o", sepolicy, conf_path])
    if r.returncode != 0:
        lines = [l for l in r.stdout.splitlines() if "neverallow" in l or "ERROR" in l or "error" in l]
        findings.append("%s: checkpolicy refused the policy:\n    %s" % (variant, "\n    ".join(lines[:20] or r.stdout.splitlines()[-10:])))
        return findings
    check_permissive(device, sepolicy, findings, variant)
    for name, check in (("file_contexts", check_file_contexts), ("property_contexts", check_property_contexts)):
        srcs = [os.path.join(x, name) for x in (platform, device) if os.path.isfile(os.path.join(x, name))]
        combined = os.path.join(d, name)
        with open(combined, "w") as f:
            f.write(m4_concat(srcs))
        check(combined, sepolicy, findings, variant, d)
    if not findings:
        say("%s: policy compiled with every neverallow rule (%d ioctl rules rewritten as allowxperm), "
            "file_contexts and property_contexts valid, nothing permissive" % (variant, fixed))
    return findings


def main():
    if len(sys.argv) < 4:
        print(__doc__, file=sys.stderr)
        return 2
    platform, device, out = sys.argv[1:4]
    variants = sys.argv[4:] or VARIANTS
    findings = []
    for v in variants:
        findings += build_variant(platform, device, out, v)
    for f in findings:
        say("FAILED: " + f)
    return 1 if findings else 0


if __name__ == "__main__":
    sys.exit(main())
