#!/usr/bin/python3
"""Access coverage of the daemon's SELinux policy: every access that zv-qel-sa and the processes it starts
made in a run of the simulated handset, in SELinux terms, checked against the compiled policy.

    sepolicy_coverage.py --trace STRACE_LOG --policy-dir DIR --platform PLATFORM_DIR
                         --forbidden DOCS_PAGE [--snapshot FILE] [--table OUT]

STRACE_LOG: `strace -f -qq --pidns-translation -s 256 -x -o STRACE_LOG` around the whole handset
(sim/zv-handset), so every process's system calls are there, from the daemon's exec on. The recorder is
strace because it sees every system call of every process of the handset, with paths exactly as the
process named them and pids translated between the handset's pid namespace and the PC's; it needs no
kernel support (no audit subsystem, no SELinux) and no change to the daemon or the simulator.

DIR holds a compiled policy and its combined file_contexts and property_contexts (sepolicy_build.py).
The processes followed: every process that executes /system/bin/zv-qel-sa, and all it starts, with the
domain each one is in (init's transition into the daemon's domain, the daemon's into its shell domain,
and any other transition the policy defines). Each system call becomes the SELinux checks the handset's
kernel makes for it: the source domain, the target's type (objects made during the run get the type of
their creation: a type transition or their folder's type; others the type file_contexts, genfs_contexts
or the handset's file-system layout gives them), the class, the permission; capabilities from the uids,
owners and modes of the run. Programs that are simulator stand-ins (logcat, dmesg, bugreport, tcpdump)
count only for the files named on their command line; what the real program does on a handset is added
from a declared list (TOOL_NEEDS) and marked as declared.

Passes when every access is allowed by the policy or listed in DOCS_PAGE's table of accesses the platform
forbids (rows "| `SOURCE TARGET:CLASS PERM` | ... |"). Prints the table of accesses and their verdicts.
"""
import argparse
import collections
import os
import re
import sys

from sepolicy_policy import Policy
from sepolicy_syscalls import Syscalls
from sepolicy_trace import NS_COMMENT, parse_trace, ret_value, split_args, strarg

DAEMON = "/system/bin/zv-qel-sa"

# Programs of the simulated handset that stand in for the handset's own: their own system calls are not
# the real program's, so only the files named on their command line count, plus what the real program
# needs on a handset (declared, from the platform's policy: read_logd, dmesg's syslog read, tcpdump's packet
# socket, bugreport's dumpstate start).
STAND_INS = {"/system/bin/logcat", "/system/bin/dmesg", "/system/bin/bugreport", "/system/xbin/tcpdump"}
TOOL_NEEDS = {
    "/system/bin/logcat": [("logdr_socket", "sock_file", "write"), ("logd", "unix_stream_socket", "connectto"),
                           ("SELF", "unix_stream_socket", "create"), ("SELF", "unix_stream_socket", "connect")],
    "/system/bin/dmesg": [("kernel", "system", "syslog_read")],
    "/system/bin/bugreport": [("PROP:ctl.dumpstate", "property_service", "set"),
                              ("property_socket", "sock_file", "write"), ("init", "unix_stream_socket", "connectto"),
                              ("dumpstate_socket", "sock_file", "write"),
                              ("dumpstate", "unix_stream_socket", "connectto")],
    "/system/xbin/tcpdump": [("SELF", "capability", "net_raw"), ("SELF", "packet_socket", "create"),
                             ("SELF", "packet_socket", "bind"), ("SELF", "packet_socket", "read"),
                             ("SELF", "packet_socket", "setopt"), ("SELF", "packet_socket", "getopt")],
}
# Stand-ins' options that name a file they write.
STAND_IN_FILE_OPTS = {"-f", "-w", "-r"}

# /system/bin programs that are toybox or toolbox applets on the API-23 handset: executing them executes
# /system/bin/toybox or /system/bin/toolbox (toolbox_exec), whatever the simulator has at that path.
APPLETS = set("""acpi basename blockdev bzcat cal cat chcon chgrp chmod chown chroot cksum clear cmp comm cp cpio
cut date dd df dirname dmesg dos2unix du echo env expand expr fallocate false find free getenforce getevent
getprop groups head hostname hwclock id ifconfig iftop inotifyd insmod ioctl ionice kill ln load_policy log
logname losetup ls lsmod lsof lsusb md5sum mkdir mknod mkswap mktemp modinfo more mount mountpoint mv nandread
netstat newfs_msdos nice nl nohup od paste patch pgrep pidof pkill pmap printenv printf prlimit ps pwd
readlink realpath renice restorecon rm rmdir rmmod route runcon sed sendevent seq setenforce setprop setsid
sha1sum sleep sort split start stat stop strings swapoff swapon sync sysctl tac tail tar taskset tee time
timeout top touch tr true truncate umount uname uniq unix2dos uptime usleep vmstat watchprops wc which whoami
xargs yes""".split())

# Mounts of the handset: mount point -> the file system's type (for filesystem checks and statfs).
MOUNTS = [("/storage/real_sd", "vfat"), ("/data", "labeledfs"), ("/system", "labeledfs"), ("/proc", "proc"),
          ("/dev/pts", "devpts"), ("/dev", "tmpfs"), ("/storage", "tmpfs"), ("/", "rootfs")]


# ---------------------------------------------------------------------------------------------------
# The run, process by process

class Proc:
    def __init__(self, pid, domain, uid=0, gid=0, fds=None, cwd="/"):
        self.pid, self.domain, self.uid, self.gid = pid, domain, uid, gid
        self.fds = fds if fds is not None else {}
        self.cwd = cwd
        self.exe = None
        self.stand_in = None
        self.stand_in_files = set()
        self.umask = 0o022
        self.alive = True


class Analysis(Syscalls):
    def __init__(self, policy, snapshot):
        meta, kinds = snapshot
        self.p = policy
        self.procs = {}           # host pid -> Proc, for the followed processes
        self.ns_to_host = {}      # handset pid -> host pid
        self.host_uid = {}        # host pid -> uid, for processes not followed
        self.created = {}         # path -> type of an object made during the run
        self.kinds = dict(kinds)  # path -> class of an object listed by the scenario or made during the run
        self.links = {}           # symlink made during the run -> its target
        self.meta = dict(meta)    # path -> (uid, gid, mode)
        self.init_host = None
        self.accesses = collections.OrderedDict()  # (src, tgt, cls, perm) -> [count, example, how]
        self.prop_buf = {}
        self.daemon_starts = 0
        self.parent = {}          # host pid -> host pid of its parent

    # -- recording
    def add(self, src, tgt, cls, perm, example, how="observed"):
        k = (src, tgt, cls, perm)
        if k not in self.accesses:
            self.accesses[k] = [0, example, how]
        self.accesses[k][0] += 1

    def add_path(self, proc, path, cls, perms, tgt=None):
        """Checks on PATH: search on every folder above it, then PERMS on the object itself."""
        if path.startswith("/dev/__properties__"):
            # The simulator's property area is a folder of files; the handset's is one mapped file that
            # every domain reads.
            self.add(proc.domain, "properties_device", "file", "read", "property area (%s)" % path)
            return
        if proc.stand_in and path not in proc.stand_in_files and not any(
                path.startswith(f + ".") for f in proc.stand_in_files):
            return
        self.add_search(proc, path)
        if not perms:
            return
        t = tgt or self.label(proc, path, cls)
        for perm in perms:
            self.add(proc.domain, t, cls, perm, path)

    def add_search(self, proc, path):
        parts = path.rstrip("/").split("/")
        for i in range(1, len(parts)):
            d = "/".join(parts[:i]) or "/"
            self.add(proc.domain, self.label(proc, d, "dir"), "dir", "search", d)
            self.dac(proc, d, "x", "dir")

    def add_cap(self, proc, cap, example):
        cls = "capability2" if cap in ("syslog", "mac_admin", "mac_override", "wake_alarm", "block_suspend") \
            else "capability"
        self.add(proc.domain, proc.domain, cls, cap, example)

    # -- paths and labels
    def handset_path(self, path):
        """The handset's path for a path of the simulator (the PC's C library, loader and tools)."""
        if path == "/dev/pts/ptmx":
            return "/dev/ptmx"
        if path in ("/bin/sh", "/usr/bin/sh", "/bin/bash", "/usr/bin/bash", "/bin/mksh", "/usr/bin/mksh"):
            return "/system/bin/sh"
        for pre in ("/usr/bin/", "/bin/", "/usr/sbin/", "/sbin/"):
            if path.startswith(pre):
                return "/system/bin/" + path[len(pre):]
        for pre in ("/usr/lib/", "/lib/", "/lib64/", "/usr/lib64/", "/lib32/"):
            if path.startswith(pre):
                return "/system/lib64/" + path.rsplit("/", 1)[-1]
        if path.startswith("/usr/"):
            return "/system/" + path[len("/usr/"):]
        if path.startswith("/etc/"):
            return "/system/etc/" + path[len("/etc/"):]
        return path

    def resolve(self, proc, path, dirfd="AT_FDCWD"):
        if path is None:
            return None
        if not path.startswith("/"):
            base = proc.cwd
            if dirfd not in ("AT_FDCWD", None):
                fd = int(re.match(r"-?\d+", dirfd).group(0))
                base = proc.fds.get(fd, (base,))[0]
            path = base.rstrip("/") + "/" + path
        parts = []
        for part in path.split("/"):
            if part in ("", "."):
                continue
            if part == "..":
                if parts:
                    parts.pop()
                continue
            parts.append(part)
        return "/" + "/".join(parts)

    def follow(self, path):
        if path == "/dev/ptmx":
            return path
        for _ in range(8):
            if path in self.links:
                t = self.links[path]
                path = t if t.startswith("/") else os.path.dirname(path) + "/" + t
            else:
                break
        return path

    def domain_of_ns_pid(self, proc, n):
        if n == "self":
            return proc.domain
        host = self.ns_to_host.get(int(n))
        if host is not None and host in self.procs:
            return self.procs[host].domain
        if int(n) == 1:
            return "init"
        return "ANY_DOMAIN"

    def label(self, proc, path, cls):
        path = self.handset_path(path)
        if path in self.created:
            return self.created[path]
        m = re.match(r"^/proc/(\d+|self)(/.*)?$", path)
        if m:
            return self.domain_of_ns_pid(proc, m.group(1))
        if path == "/proc" or path.startswith("/proc/"):
            return self.p.proc_type(path[len("/proc"):] or "/")
        if path == "/dev/pts" or path.startswith("/dev/pts/"):
            return "devpts"
        if path.startswith("/dev/__properties__"):
            return "properties_device"
        if path == "/storage/real_sd" or path.startswith("/storage/real_sd/"):
            return "vfat"
        m = re.match(r"^/data/data/([^/]+)", path)
        if m:
            return "radio_data_file" if m.group(1) == "com.android.providers.telephony" else "app_data_file"
        return self.p.fc_type(path, cls) or "rootfs"

    def fs_of(self, path):
        for mp, fs in MOUNTS:
            if path == mp or path.startswith(mp.rstrip("/") + "/"):
                return fs
        return "rootfs"

    def new_object(self, proc, path, cls):
        """The type an object made now at PATH gets: a type transition, or its folder's type."""
        parent = os.path.dirname(path) or "/"
        ptype = self.label(proc, parent, "dir")
        t = self.p.transition(proc.domain, ptype, cls, os.path.basename(path))
        if path.startswith("/dev/pts/"):
            t = t or "devpts"
        t = t or (ptype if not self.fs_of(path) in ("tmpfs",) or path.startswith("/dev") else ptype)
        self.created[self.handset_path(path)] = t
        self.kinds[path] = cls
        self.meta[path] = (proc.uid, proc.gid, None)
        return t

    # -- discretionary access (which capabilities a root process uses)
    def dac(self, proc, path, want, cls):
        meta = self.meta.get(path)
        if not meta or meta[2] is None:
            return
        uid, gid, mode = meta
        bits = {"r": 4, "w": 2, "x": 1}
        ok = True
        for w in want:
            b = bits[w]
            if proc.uid == uid:
                ok = ok and bool(mode & (b << 6))
            elif proc.gid == gid:
                ok = ok and bool(mode & (b << 3))
            else:
                ok = ok and bool(mode & b)
        if not ok:
            self.add_cap(proc, "dac_override", "%s (%s %o %d:%d)" % (path, want, mode, uid, gid))

    # -- system calls
    def on_call(self, pid, name, args_text, res):
        # pid translation first: clone results and kill targets carry it
        for m in NS_COMMENT.finditer(res):
            self.ns_to_host[int(m.group(1))] = int(m.group(2))
        clean = NS_COMMENT.sub(lambda m: m.group(1), args_text)
        clean = re.sub(r"/\* [^*]*? \*/", "", clean)
        ret, err = ret_value(NS_COMMENT.sub(lambda m: m.group(1), res))
        args = split_args(clean)
        proc = self.procs.get(pid)
        if name == "+++exit":
            if proc is not None:
                proc.alive = False
            return
        if proc is None and self.parent.get(pid) in self.procs:
            # a child whose first calls come before its parent's clone() returns (vfork, posix_spawn)
            self.spawn(self.procs[self.parent[pid]], pid, "")
            proc = self.procs[pid]
        if name == "execve":
            self.on_exec(pid, proc, args, ret)
            return
        if name in ("clone", "clone3", "fork", "vfork"):
            if ret is None or ret < 0:
                return
            m = re.search(r"(\d+) in strace's PID NS", res)
            child = int(m.group(1)) if m else ret
            if proc is None:
                if pid == self.init_host or pid in self.host_uid:
                    self.host_uid[child] = self.host_uid.get(pid, 0)
                return
            if child not in self.procs:
                self.spawn(proc, child, clean)
            return
        if proc is None:
            if name in ("setuid", "setresuid") and ret == 0:
                self.host_uid[pid] = int(args[0])
            return
        ok = ret is not None and ret >= 0 or (name == "kill" and res.startswith("?"))
        handler = getattr(self, "sc_" + name, None)
        if proc.stand_in and name not in ("close", "dup", "dup2", "dup3", "fcntl", "pipe", "pipe2", "umask") \
                and not self.stand_in_relevant(proc, args):
            if name in ("open", "openat", "socket") and ok:
                proc.fds[ret] = ("stand-in", "file", None, True)
            return
        if handler is not None and (ok or err in ("EACCES", "EPERM")):
            handler(proc, args, ret)

    def stand_in_relevant(self, proc, args):
        """Whether a call of a stand-in program names one of the files on its command line."""
        names = set()
        for a in args:
            t = strarg(a)
            if t:
                names.add(self.resolve(proc, t))
        f = self._fd(proc, args[0]) if args else None
        if f:
            names.add(f[0])
        return any(n in proc.stand_in_files or any(n.startswith(x + ".") for x in proc.stand_in_files)
                   for n in names if n)

    def spawn(self, proc, child, flags):
        c = Proc(child, proc.domain, proc.uid, proc.gid, proc.fds if "CLONE_FILES" in flags else dict(proc.fds),
                 proc.cwd)
        c.exe, c.stand_in, c.stand_in_files, c.umask = proc.exe, proc.stand_in, proc.stand_in_files, proc.umask
        self.procs[child] = c
        if "CLONE_THREAD" not in flags:
            self.add(proc.domain, proc.domain, "process", "fork", proc.exe or "")

    def enter(self, pid, old, new, etype, exec_path, fds):
        """The checks of a domain transition at exec: the transition, the entry point, signal and resource
        inheritance, the child's SIGCHLD to its parent, and every descriptor the new domain inherits (the
        kernel closes those it may not use)."""
        self.add(old, new, "process", "transition", exec_path)
        for perm in ("entrypoint", "open", "read", "getattr", "execute"):
            self.add(new, etype, "file", perm, exec_path)
        for perm in ("siginh", "rlimitinh"):
            self.add(old, new, "process", perm, exec_path)
        self.add(new, old, "process", "sigchld", exec_path)
        for fd, (fpath, cls, tgt, cloexec) in sorted(fds.items()):
            if cloexec:
                continue
            owner = old if cls in ("fifo_file",) or cls.endswith("socket") else None
            self.add(new, owner or old, "fd", "use", "inherited %s (descriptor %d)" % (fpath, fd))
            if tgt and cls in ("chr_file", "fifo_file"):
                for perm in ("read", "write"):
                    self.add(new, tgt, cls, perm, "inherited %s (descriptor %d)" % (fpath, fd))

    def on_exec(self, pid, proc, args, ret):
        path = strarg(args[0])
        if ret != 0:
            return
        argv = [strarg(a) for a in split_args(args[1][1:-1])] if args[1].startswith("[") else []
        if path == DAEMON:
            # init starts the daemon: init's transition into the daemon's domain.
            parent_domain = "init"
            self.daemon_starts += 1
            ptype = self.label(Proc(pid, "init"), DAEMON, "file")
            new = self.p.transition(parent_domain, ptype, "process")
            for perm in ("getattr", "open", "read", "execute"):
                self.add("init", ptype, "file", perm, DAEMON)
            if new:
                self.enter(pid, "init", new, ptype, DAEMON, {})
            else:
                self.add("init", ptype, "file", "execute_no_trans", DAEMON)
            p = Proc(pid, new or "init", self.host_uid.get(pid, 0), 0, {}, "/")
            p.exe = DAEMON
            self.procs[pid] = p
            return
        if proc is None:
            return
        hpath = self.handset_path(path)
        # The file executed on the handset: an applet's path is toybox's or toolbox's program.
        base = hpath.rsplit("/", 1)[-1]
        exec_path = hpath
        if hpath.startswith("/system/bin/") and base in APPLETS:
            self.add_path(proc, hpath, "lnk_file", ["read"])
            exec_path = "/system/bin/toybox"
        self.add_search(proc, exec_path)
        etype = self.label(proc, exec_path, "file")
        new = self.p.transition(proc.domain, etype, "process")
        for perm in ("getattr", "open", "read", "execute"):
            self.add(proc.domain, etype, "file", perm, exec_path)
        if new and new != proc.domain:
            self.enter(pid, proc.domain, new, etype, exec_path, proc.fds)
            proc.domain = new
        else:
            self.add(proc.domain, etype, "file", "execute_no_trans", exec_path)
        proc.fds = {fd: v for fd, v in proc.fds.items() if not v[3]}
        proc.exe = hpath
        proc.stand_in = hpath if hpath in STAND_INS else None
        proc.stand_in_files = set()
        if proc.stand_in:
            for i, a in enumerate(argv):
                if a in STAND_IN_FILE_OPTS and i + 1 < len(argv) and argv[i + 1] and argv[i + 1].startswith("/"):
                    proc.stand_in_files.add(argv[i + 1])
                    proc.stand_in_files.add(os.path.dirname(argv[i + 1]))
            for tgt, cls, perm in TOOL_NEEDS.get(hpath, []):
                if tgt == "SELF":
                    tgt = proc.domain
                elif tgt.startswith("PROP:"):
                    tgt = self.p.prop_type(tgt[5:])
                if cls == "capability":
                    self.add(proc.domain, proc.domain, cls, perm, hpath + " (declared)", "declared")
                else:
                    self.add(proc.domain, tgt, cls, perm, hpath + " (declared)", "declared")
        # The remount of the block device at start-up: what it needs on a handset, whatever the
        # simulator's mount tool then does.
        if base == "mount" and any(a and "remount" in a for a in argv):
            # The simulator's mount tool then walks the simulator's own mount table (the PC's folders and
            # files bound into the handset), which is nothing like the handset's: only the declared needs count.
            proc.stand_in = hpath
            dev = argv[-1] if argv else "?"
            self.add(proc.domain, proc.domain, "capability", "sys_admin", "mount -o remount " + dev, "declared")
            self.add(proc.domain, "labeledfs", "filesystem", "remount", "mount -o remount " + dev, "declared")

def load_snapshot(path):
    """Owner, group and mode, and the class, of each object the scenario listed before its requests."""
    meta, kinds = {}, {}
    classes = {"d": "dir", "f": "file", "l": "lnk_file", "c": "chr_file", "b": "blk_file", "p": "fifo_file",
               "s": "sock_file"}
    if path and os.path.exists(path):
        for line in open(path):
            parts = line.rstrip("\n").split("\t")
            if len(parts) == 5:
                meta[parts[0]] = (int(parts[1]), int(parts[2]), int(parts[3], 8))
                kinds[parts[0]] = classes.get(parts[4], "file")
    return meta, kinds


def load_documented(page):
    """(source, target, class, perm) of every row of the table under the docs' heading "Accesses the platform
    forbids" (and of no other table of the page)."""
    out = {}
    text = open(page).read()
    heading = "### Accesses the platform forbids"
    if heading not in text:
        return out
    text = text[text.index(heading) + len(heading):]
    text = re.split(r"\n#{2,3} ", text, maxsplit=1)[0]
    for m in re.finditer(r"^\|\s*`(\S+) (\S+):(\S+) (\S+)`\s*\|(.*)\|\s*$", text, re.M):
        out[(m.group(1), m.group(2), m.group(3), m.group(4))] = m.group(5).split("|")[0].strip()
    return out


def verdicts(an, pol, documented):
    rows = []
    for (src, tgt, cls, perm), (count, example, how) in an.accesses.items():
        if tgt == "ANY_DOMAIN" or tgt == "ANY_SERVICE":
            targets = [d for d in pol.domains if tgt == "ANY_DOMAIN" or d not in ("init", "kernel")]
            missing = [d for d in targets if not pol.allowed(src, d, cls, perm)]
            shown = "domain" if tgt == "ANY_DOMAIN" else "domain -init -kernel"
            if missing:
                rule = None
                verdict = "DENIED for %s" % " ".join(missing[:6])
            else:
                rule = pol.allowed(src, targets[0], cls, perm)
                verdict = "allowed"
            key = (src, shown, cls, perm)
        else:
            rule = pol.allowed(src, tgt, cls, perm)
            verdict = "allowed" if rule else "DENIED"
            key = (src, tgt, cls, perm)
        doc = documented.get(key)
        if not rule and doc is not None:
            verdict = "denied, documented: forbidden by the platform"
        rows.append((key, count, example, how, rule, verdict))
    return rows


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    ap.add_argument("--trace", required=True)
    ap.add_argument("--policy-dir", required=True)
    ap.add_argument("--platform", required=True)
    ap.add_argument("--forbidden", required=True)
    ap.add_argument("--snapshot")
    ap.add_argument("--table")
    o = ap.parse_args()

    pol = Policy(o.policy_dir, o.platform)
    an = Analysis(pol, load_snapshot(o.snapshot))
    calls = list(parse_trace(o.trace))
    for pid, name, args, res in calls:
        if name in ("clone", "clone3", "fork", "vfork"):
            m = re.search(r"(\d+) in strace's PID NS", res) or re.match(r"(\d+)", res)
            if m:
                an.parent[int(m.group(1))] = pid
            # a child may use its own pid (its /proc entry) before its parent's clone() returns
            for ns in NS_COMMENT.finditer(res):
                an.ns_to_host.setdefault(int(ns.group(1)), int(ns.group(2)))
    for pid, name, args, res in calls:
        if an.init_host is None and name == "execve" and args.startswith('"/init"') and res.startswith("0"):
            an.init_host = pid
        an.on_call(pid, name, args, res)
    if an.daemon_starts == 0:
        print("coverage: FAILED: the trace holds no start of %s" % DAEMON)
        return 1
    documented = load_documented(o.forbidden)
    rows = verdicts(an, pol, documented)
    rows.sort(key=lambda r: (r[0][0], r[0][2], r[0][1], r[0][3]))
    lines = ["| access | target type | object (example) | count | verdict |", "|---|---|---|---|---|"]
    for (src, tgt, cls, perm), count, example, how, rule, verdict in rows:
        ex = example if how == "observed" else example
        v = ("allowed by `%s`" % rule) if rule else verdict
        lines.append("| `%s %s:%s %s` | %s | %s | %d | %s |" % (src, tgt, cls, perm, tgt, ex[:70], count, v))
    table = "\n".join(lines)
    if o.table:
        with open(o.table, "w") as f:
            f.write(table + "\n")
    print(table)
    denied = [r for r in rows if not r[4] and not r[5].startswith("denied, documented")]
    forbidden = [r for r in rows if r[5].startswith("denied, documented")]
    unused_docs = [k for k in documented if k not in {r[0] for r in rows}]
    print("coverage: %d distinct accesses (%d observed, %d declared for stand-in programs) of %d start(s) "
          "of the daemon: %d allowed, %d denied and documented as forbidden by the platform, %d denied and "
          "not documented" % (len(rows), sum(1 for r in rows if r[3] == "observed"),
                              sum(1 for r in rows if r[3] != "observed"), an.daemon_starts,
                              sum(1 for r in rows if r[4]), len(forbidden), len(denied)))
    for k in unused_docs:
        print("coverage: note: the documented forbidden access `%s %s:%s %s` was not seen in this run" % k)
    for (src, tgt, cls, perm), count, example, how, rule, verdict in denied:
        print("coverage: DENIED: %s %s:%s %s (%s; %s)" % (src, tgt, cls, perm, example, verdict))
    return 1 if denied else 0


if __name__ == "__main__":
    sys.exit(main())
