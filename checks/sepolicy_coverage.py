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
import ctypes
import os
import re
import stat
import sys

import setools

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

CHR_DEVICES = re.compile(r"^/dev/(ptmx|pts/ptmx|pts/\d+|null|zero|tty|random|urandom|console)$")
SIG_PERMS = {"SIGKILL": "sigkill", "SIGSTOP": "sigstop", "0": "signull", "SIGCHLD": "sigchld"}
# Mounts of the handset: mount point -> the file system's type (for filesystem checks and statfs).
MOUNTS = [("/storage/real_sd", "vfat"), ("/data", "labeledfs"), ("/system", "labeledfs"), ("/proc", "proc"),
          ("/dev/pts", "devpts"), ("/dev", "tmpfs"), ("/storage", "tmpfs"), ("/", "rootfs")]


# ---------------------------------------------------------------------------------------------------
# strace output

def decode_str(s):
    """The bytes of a string strace printed with -x, without its quotes."""
    out = bytearray()
    i = 0
    esc = {"n": 10, "t": 9, "r": 13, "v": 11, "f": 12, "\\": 92, '"': 34, "a": 7, "b": 8, "e": 27}
    while i < len(s):
        c = s[i]
        if c == "\\" and i + 1 < len(s):
            n = s[i + 1]
            if n == "x":
                out.append(int(s[i + 2:i + 4], 16))
                i += 4
                continue
            if n.isdigit():
                m = re.match(r"[0-7]{1,3}", s[i + 1:])
                out.append(int(m.group(0), 8))
                i += 1 + len(m.group(0))
                continue
            out.append(esc.get(n, ord(n)))
            i += 2
            continue
        out += c.encode()
        i += 1
    return bytes(out)


def split_args(s):
    """Top-level comma-separated arguments of a system call's printed argument list."""
    args, depth, cur, i, inq = [], 0, [], 0, False
    while i < len(s):
        c = s[i]
        if inq:
            cur.append(c)
            if c == "\\":
                cur.append(s[i + 1])
                i += 2
                continue
            if c == '"':
                inq = False
        elif c == '"':
            inq = True
            cur.append(c)
        elif c in "[{(":
            depth += 1
            cur.append(c)
        elif c in "]})":
            depth -= 1
            cur.append(c)
        elif c == "," and depth == 0:
            args.append("".join(cur).strip())
            cur = []
        else:
            cur.append(c)
        i += 1
    if cur or args:
        args.append("".join(cur).strip())
    return args


def strarg(a):
    """The text of a quoted argument (a trailing ... of a cut string dropped), or None."""
    m = re.match(r'^"((?:[^"\\]|\\.)*)"', a)
    return decode_str(m.group(1)).decode("utf-8", "replace") if m else None


_LINE = re.compile(r"^(\d+)\s+(.*)$")
_CALL = re.compile(r"^(\w+)\((.*)\)\s+=\s+(.*)$", re.S)
_NSCOMMENT = re.compile(r"(-?\d+) /\* (\d+) in strace's PID NS \*/")


def parse_trace(path):
    """Yields (pid, name, args_text, result_text) for every completed system call, in order."""
    pending = {}
    with open(path, errors="replace") as f:
        for raw in f:
            m = _LINE.match(raw.rstrip("\n"))
            if not m:
                continue
            pid, rest = int(m.group(1)), m.group(2)
            if rest.startswith("+++"):
                yield pid, "+++exit", "", "0"
                continue
            if rest.startswith("---"):
                continue
            if rest.endswith("<unfinished ...>"):
                pending[pid] = rest[:-len("<unfinished ...>")].rstrip()
                continue
            mres = re.match(r"^<\.\.\. (\w+) resumed>(.*)$", rest)
            if mres:
                head = pending.pop(pid, None)
                if head is None:
                    continue
                rest = head + mres.group(2)
            c = _CALL.match(rest)
            if c:
                yield pid, c.group(1), c.group(2), c.group(3)


def ret_value(res):
    """(number, errno name or None) of a result text."""
    m = re.match(r"^(-?\d+|0x[0-9a-f]+|\?)(?:\s+(E[A-Z]+))?", res)
    if not m or m.group(1) == "?":
        return None, None
    v = m.group(1)
    return (int(v, 16) if v.startswith("0x") else int(v)), m.group(2)


# ---------------------------------------------------------------------------------------------------
# Policy and labels

class _SelinuxOpt(ctypes.Structure):
    _fields_ = [("type", ctypes.c_int), ("value", ctypes.c_char_p)]


SELABEL_CTX_FILE, SELABEL_OPT_PATH = 0, 3
_libselinux = ctypes.CDLL("libselinux.so.1")
_libselinux.selabel_open.restype = ctypes.c_void_p
_libselinux.selabel_open.argtypes = [ctypes.c_int, ctypes.POINTER(_SelinuxOpt), ctypes.c_uint]
_libselinux.selabel_lookup.argtypes = [ctypes.c_void_p, ctypes.POINTER(ctypes.c_char_p), ctypes.c_char_p,
                                       ctypes.c_int]
_libselinux.freecon.argtypes = [ctypes.c_char_p]
FILE_MODES = {"file": stat.S_IFREG, "dir": stat.S_IFDIR, "lnk_file": stat.S_IFLNK, "chr_file": stat.S_IFCHR,
              "blk_file": stat.S_IFBLK, "sock_file": stat.S_IFSOCK, "fifo_file": stat.S_IFIFO}

class Policy:
    def __init__(self, d, platform):
        self.dir = d
        self.pol = setools.SELinuxPolicy(os.path.join(d, "sepolicy"))
        self.fc = os.path.join(d, "file_contexts")
        self.props = self._props(os.path.join(d, "property_contexts"))
        self.genfs_proc = self._genfs(os.path.join(platform, "genfs_contexts"))
        self._fc_cache = {}
        opts = (_SelinuxOpt * 1)(_SelinuxOpt(SELABEL_OPT_PATH, self.fc.encode()))
        self._labels = _libselinux.selabel_open(SELABEL_CTX_FILE, opts, 1)
        if not self._labels:
            raise RuntimeError("libselinux cannot read " + self.fc)
        self._by_source = {}
        self._expanded = {}
        self.domains = sorted(str(t) for t in self.pol.lookup_typeattr("domain").expand())

    @staticmethod
    def _props(path):
        out = []
        for line in open(path):
            s = line.split("#", 1)[0].split()
            if len(s) == 2:
                out.append((s[0], s[1].split(":")[2]))
        return out

    @staticmethod
    def _genfs(path):
        out = []
        for line in open(path):
            s = line.split("#", 1)[0].split()
            if len(s) == 4 and s[0] == "genfscon" and s[1] == "proc":
                out.append((s[2], s[3].split(":")[2]))
        return out

    def prop_type(self, name):
        best = None
        for prefix, t in self.props:
            if prefix == "*" and best is None:
                best = ("", t)
            elif name.startswith(prefix) and (best is None or len(prefix) > len(best[0])):
                best = (prefix, t)
        return best[1] if best else "default_prop"

    def proc_type(self, rel):
        best = ("", "proc")
        for prefix, t in self.genfs_proc:
            if (rel == prefix or rel.startswith(prefix.rstrip("/") + "/")) and len(prefix) > len(best[0]):
                best = (prefix, t)
        return best[1]

    def fc_type(self, path, cls):
        """The file_contexts type of PATH for an object of class CLS: libselinux's own lookup (as matchpathcon
        and the handset's restorecon do it), or None."""
        key = (path, cls)
        if key not in self._fc_cache:
            con = ctypes.c_char_p()
            mode = FILE_MODES.get(cls, stat.S_IFREG)
            t = None
            if _libselinux.selabel_lookup(self._labels, ctypes.byref(con), path.encode(), mode) == 0:
                t = con.value.decode().split(":")[2]
                _libselinux.freecon(con)
            self._fc_cache[key] = t
        return self._fc_cache[key]

    def _index(self, src):
        """Every allow and type_transition rule whose source covers the type SRC, by (target type, class).
        One pass over the policy's rules per source type (a TERuleQuery per access is far slower)."""
        if src not in self._by_source:
            allow, trans = collections.defaultdict(list), collections.defaultdict(list)
            names = lambda x: {str(t) for t in x.expand()}
            for r in self.pol.terules():
                rt = str(r.ruletype)
                if rt not in ("allow", "type_transition"):
                    continue
                key = str(r.source)
                if key not in self._expanded:
                    self._expanded[key] = names(r.source)
                if src not in self._expanded[key]:
                    continue
                tkey = str(r.target)
                if tkey not in self._expanded:
                    self._expanded[tkey] = names(r.target)
                targets = self._expanded[tkey] | ({src} if tkey == "self" else set())
                for t in targets:
                    if rt == "allow":
                        allow[(t, str(r.tclass))].append((set(str(p) for p in r.perms), str(r)))
                    else:
                        try:
                            fn = r.filename
                        except Exception:
                            fn = None
                        trans[(t, str(r.tclass))].append((fn, str(r.default)))
            self._by_source[src] = (allow, trans)
        return self._by_source[src]

    def allowed(self, src, tgt, cls, perm):
        """The rule that allows the access, or None."""
        for perms, rule in self._index(src)[0].get((tgt, cls), []):
            if perm in perms:
                return rule
        return None

    def transition(self, src, tgt, cls, name=None):
        """The type a type_transition rule gives (a rule for NAME first), or None."""
        res = None
        for fn, default in self._index(src)[1].get((tgt, cls), []):
            if fn is not None and fn == name:
                return default
            if fn is None:
                res = default
        return res


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


class Analysis:
    def __init__(self, policy, snapshot):
        self.p = policy
        self.procs = {}           # host pid -> Proc, for the followed processes
        self.ns_to_host = {}      # handset pid -> host pid
        self.host_uid = {}        # host pid -> uid, for processes not followed
        self.created = {}         # path -> type of an object made during the run
        self.kinds = {}           # path -> class of an object made or seen during the run
        self.links = {}           # symlink made during the run -> its target
        self.meta = dict(snapshot)  # path -> (uid, gid, mode)
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
        for m in _NSCOMMENT.finditer(res):
            self.ns_to_host[int(m.group(1))] = int(m.group(2))
        clean = _NSCOMMENT.sub(lambda m: m.group(1), args_text)
        clean = re.sub(r"/\* [^*]*? \*/", "", clean)
        ret, err = ret_value(_NSCOMMENT.sub(lambda m: m.group(1), res))
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
            self.add("init", ptype, "file", "execute", DAEMON)
            if new:
                self.add("init", new, "process", "transition", DAEMON)
                self.add(new, ptype, "file", "entrypoint", DAEMON)
                self.add(new, ptype, "file", "read", DAEMON)
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
            self.add(proc.domain, new, "process", "transition", exec_path)
            self.add(new, etype, "file", "entrypoint", exec_path)
            self.add(new, proc.domain, "process", "sigchld", exec_path)
            for fd, (fpath, cls, tgt, cloexec) in list(proc.fds.items()):
                if not cloexec:
                    self.add(new, proc.domain, "fd", "use", "inherited %s" % fpath)
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
            dev = argv[-1] if argv else "?"
            self.add(proc.domain, proc.domain, "capability", "sys_admin", "mount -o remount " + dev, "declared")
            self.add(proc.domain, "labeledfs", "filesystem", "remount", "mount -o remount " + dev, "declared")

    # file opens
    def _open(self, proc, path, flags, ret):
        kind = "dir" if "O_DIRECTORY" in flags else None
        fpath = self.follow(path)
        if kind is None:
            if CHR_DEVICES.match(fpath):
                kind = "chr_file"
            else:
                kind = self.kinds.get(fpath, "file")
        perms = ["open"]
        acc = "O_RDWR" if "O_RDWR" in flags else "O_WRONLY" if "O_WRONLY" in flags else "O_RDONLY"
        if acc in ("O_RDONLY", "O_RDWR"):
            perms.append("read")
        if acc in ("O_WRONLY", "O_RDWR"):
            perms.append("append" if "O_APPEND" in flags and "O_TRUNC" not in flags else "write")
        if proc.stand_in and fpath not in proc.stand_in_files and not any(
                fpath.startswith(f + ".") for f in proc.stand_in_files):
            if ret is not None and ret >= 0:
                proc.fds[ret] = (fpath, kind, None, "O_CLOEXEC" in flags)
            return
        pseudo = re.match(r"^/(proc|sys|dev)/", fpath)
        if "O_CREAT" in flags and fpath not in self.created and kind == "file" and not pseudo:
            parent = os.path.dirname(fpath)
            self.add_path(proc, parent, "dir", ["add_name", "write"])
            self.dac(proc, parent, "wx", "dir")
            t = self.new_object(proc, fpath, "file")
            self.add(proc.domain, t, "file", "create", fpath)
        if path != fpath:
            self.add_path(proc, path, "lnk_file", ["read"])
        t = self.label(proc, fpath, kind)
        self.add_path(proc, fpath, kind, perms, t)
        self.dac(proc, fpath, "".join(x for x, p in (("r", "read"), ("w", "write"), ("w", "append")) if p in perms),
                 kind)
        if fpath == "/proc/kmsg":
            self.add_cap(proc, "syslog", fpath)
            self.add(proc.domain, "kernel", "system", "syslog_mod", fpath)
        if ret is not None and ret >= 0:
            proc.fds[ret] = (fpath, kind, t, "O_CLOEXEC" in flags)

    def sc_openat(self, proc, a, ret):
        self._open(proc, self.resolve(proc, strarg(a[1]), a[0]), a[2], ret)

    def sc_open(self, proc, a, ret):
        self._open(proc, self.resolve(proc, strarg(a[0])), a[1], ret)

    def sc_creat(self, proc, a, ret):
        self._open(proc, self.resolve(proc, strarg(a[0])), "O_WRONLY|O_CREAT|O_TRUNC", ret)

    def _fd(self, proc, a0):
        """The open object a descriptor argument names (the property area's descriptors left out: that area is
        one mapped file on the handset)."""
        m = re.match(r"-?\d+", a0)
        f = proc.fds.get(int(m.group(0))) if m else None
        return None if f and f[0].startswith("/dev/__properties__") else f

    def sc_getdents64(self, proc, a, ret):
        f = self._fd(proc, a[0])
        if f and f[2]:
            self.add(proc.domain, f[2], "dir", "read", f[0])

    def sc_ioctl(self, proc, a, ret):
        f = self._fd(proc, a[0])
        if f and f[2] and not (proc.stand_in and f[0] not in proc.stand_in_files):
            self.add(proc.domain, f[2], f[1], "ioctl", "%s %s" % (f[0], a[1]))

    def sc_flock(self, proc, a, ret):
        f = self._fd(proc, a[0])
        if f and f[2]:
            self.add(proc.domain, f[2], f[1], "lock", f[0])

    def sc_ftruncate(self, proc, a, ret):
        f = self._fd(proc, a[0])
        if f and f[2]:
            self.add(proc.domain, f[2], f[1], "write", f[0])

    def sc_close(self, proc, a, ret):
        m = re.match(r"\d+", a[0])
        if m:
            proc.fds.pop(int(m.group(0)), None)

    def _dup(self, proc, old, new):
        m = re.match(r"\d+", old)
        if m and int(m.group(0)) in proc.fds and new is not None and new >= 0:
            v = proc.fds[int(m.group(0))]
            proc.fds[new] = (v[0], v[1], v[2], False)

    def sc_dup(self, proc, a, ret):
        self._dup(proc, a[0], ret)

    def sc_dup2(self, proc, a, ret):
        self._dup(proc, a[0], ret)

    def sc_dup3(self, proc, a, ret):
        self._dup(proc, a[0], ret)

    def sc_fcntl(self, proc, a, ret):
        if a[1].startswith("F_DUPFD"):
            self._dup(proc, a[0], ret)
        elif a[1] == "F_SETFD":
            m = re.match(r"\d+", a[0])
            if m and int(m.group(0)) in proc.fds:
                v = proc.fds[int(m.group(0))]
                proc.fds[int(m.group(0))] = (v[0], v[1], v[2], "FD_CLOEXEC" in a[2])

    def sc_pipe2(self, proc, a, ret):
        for n in re.findall(r"\d+", a[0]):
            proc.fds[int(n)] = ("pipe", "fifo_file", proc.domain, "O_CLOEXEC" in (a[1] if len(a) > 1 else ""))

    sc_pipe = sc_pipe2

    def sc_umask(self, proc, a, ret):
        proc.umask = int(a[0], 8) if a[0].startswith("0") else int(a[0])

    def sc_chdir(self, proc, a, ret):
        path = self.resolve(proc, strarg(a[0]))
        self.add_path(proc, path, "dir", ["search"])
        proc.cwd = path

    def sc_fchdir(self, proc, a, ret):
        f = self._fd(proc, a[0])
        if f:
            proc.cwd = f[0]

    # names
    def _mkdir(self, proc, path, mode):
        parent = os.path.dirname(path)
        self.add_path(proc, parent, "dir", ["add_name", "write"])
        self.dac(proc, parent, "wx", "dir")
        t = self.new_object(proc, path, "dir")
        self.add(proc.domain, t, "dir", "create", path)
        self.meta[path] = (proc.uid, proc.gid, mode & ~proc.umask)

    def sc_mkdir(self, proc, a, ret):
        self._mkdir(proc, self.resolve(proc, strarg(a[0])), int(a[1], 8) if len(a) > 1 else 0o777)

    def sc_mkdirat(self, proc, a, ret):
        self._mkdir(proc, self.resolve(proc, strarg(a[1]), a[0]), int(a[2], 8) if len(a) > 2 else 0o777)

    def _remove(self, proc, path, is_dir):
        parent = os.path.dirname(path)
        self.add_path(proc, parent, "dir", ["remove_name", "write"])
        self.dac(proc, parent, "wx", "dir")
        cls = "dir" if is_dir else self.kinds.get(path, "lnk_file" if path in self.links else "file")
        self.add_path(proc, path, cls, ["rmdir" if is_dir else "unlink"])
        self.created.pop(self.handset_path(path), None)
        self.links.pop(path, None)
        self.kinds.pop(path, None)

    def sc_unlink(self, proc, a, ret):
        self._remove(proc, self.resolve(proc, strarg(a[0])), False)

    def sc_unlinkat(self, proc, a, ret):
        self._remove(proc, self.resolve(proc, strarg(a[1]), a[0]), "AT_REMOVEDIR" in a[2])

    def sc_rmdir(self, proc, a, ret):
        self._remove(proc, self.resolve(proc, strarg(a[0])), True)

    def _rename(self, proc, old, new):
        cls = self.kinds.get(old, "file")
        t = self.label(proc, old, cls)
        for parent, perm in ((os.path.dirname(old), "remove_name"), (os.path.dirname(new), "add_name")):
            self.add_path(proc, parent, "dir", [perm, "write"])
            self.dac(proc, parent, "wx", "dir")
        self.add_path(proc, old, cls, ["rename"], t)
        if new in self.created or new in self.kinds:
            self.add_path(proc, new, cls, ["unlink"])
            self.add_path(proc, os.path.dirname(new), "dir", ["remove_name"])
        if cls == "dir" and os.path.dirname(old) != os.path.dirname(new):
            self.add(proc.domain, t, "dir", "reparent", old)
        self.created[self.handset_path(new)] = t
        self.created.pop(self.handset_path(old), None)
        self.kinds[new] = cls
        self.kinds.pop(old, None)
        if old in self.meta:
            self.meta[new] = self.meta.pop(old)

    def sc_rename(self, proc, a, ret):
        self._rename(proc, self.resolve(proc, strarg(a[0])), self.resolve(proc, strarg(a[1])))

    def sc_renameat(self, proc, a, ret):
        self._rename(proc, self.resolve(proc, strarg(a[1]), a[0]), self.resolve(proc, strarg(a[3]), a[2]))

    sc_renameat2 = sc_renameat

    def _symlink(self, proc, target, path):
        parent = os.path.dirname(path)
        self.add_path(proc, parent, "dir", ["add_name", "write"])
        self.dac(proc, parent, "wx", "dir")
        t = self.new_object(proc, path, "lnk_file")
        self.add(proc.domain, t, "lnk_file", "create", path)
        self.links[path] = target

    def sc_symlink(self, proc, a, ret):
        self._symlink(proc, strarg(a[0]), self.resolve(proc, strarg(a[1])))

    def sc_symlinkat(self, proc, a, ret):
        self._symlink(proc, strarg(a[0]), self.resolve(proc, strarg(a[2]), a[1]))

    def sc_link(self, proc, a, ret):
        self.add_path(proc, self.resolve(proc, strarg(a[0])), "file", ["link"])

    # attributes
    def _setattr(self, proc, path, follow=True):
        fpath = self.follow(path) if follow else path
        if fpath != path:
            self.add_path(proc, path, "lnk_file", ["read"])
        cls = "chr_file" if CHR_DEVICES.match(fpath) else self.kinds.get(fpath, "file")
        self.add_path(proc, fpath, cls, ["setattr"])
        return fpath

    def _chmod(self, proc, path, mode, follow=True):
        fpath = self._setattr(proc, path, follow)
        meta = self.meta.get(fpath)
        if meta and meta[0] != proc.uid:
            self.add_cap(proc, "fowner", "chmod %s (owner %d)" % (fpath, meta[0]))
        if meta:
            self.meta[fpath] = (meta[0], meta[1], mode)

    def sc_chmod(self, proc, a, ret):
        self._chmod(proc, self.resolve(proc, strarg(a[0])), int(a[1], 8))

    def sc_fchmodat(self, proc, a, ret):
        self._chmod(proc, self.resolve(proc, strarg(a[1]), a[0]), int(a[2], 8))

    def sc_fchmod(self, proc, a, ret):
        f = self._fd(proc, a[0])
        if f:
            self._chmod(proc, f[0], int(a[1], 8))

    def _chown(self, proc, path, uid, gid, follow=True):
        fpath = self._setattr(proc, path, follow)
        meta = self.meta.get(fpath, (0, 0, None))
        if (uid != -1 and uid != meta[0]) or (gid != -1 and gid != meta[1] and gid != proc.gid):
            self.add_cap(proc, "chown", "chown %s %d:%d" % (fpath, uid, gid))
        self.meta[fpath] = (meta[0] if uid == -1 else uid, meta[1] if gid == -1 else gid, meta[2])

    def sc_chown(self, proc, a, ret):
        self._chown(proc, self.resolve(proc, strarg(a[0])), int(a[1]), int(a[2]))

    def sc_lchown(self, proc, a, ret):
        self._chown(proc, self.resolve(proc, strarg(a[0])), int(a[1]), int(a[2]), follow=False)

    def sc_fchownat(self, proc, a, ret):
        self._chown(proc, self.resolve(proc, strarg(a[1]), a[0]), int(a[2]), int(a[3]),
                    follow="AT_SYMLINK_NOFOLLOW" not in a[4])

    def sc_fchown(self, proc, a, ret):
        f = self._fd(proc, a[0])
        if f:
            self._chown(proc, f[0], int(a[1]), int(a[2]))

    def sc_utimensat(self, proc, a, ret):
        path = strarg(a[1])
        if path is None:
            f = self._fd(proc, a[0])
            path = f[0] if f else None
        else:
            path = self.resolve(proc, path, a[0])
        if path:
            self._setattr(proc, path)

    def _stat(self, proc, path, follow=True, perm="getattr"):
        fpath = self.follow(path) if follow else path
        if fpath != path:
            self.add_path(proc, path, "lnk_file", ["read"])
        cls = "lnk_file" if (not follow and path in self.links) else \
            "chr_file" if CHR_DEVICES.match(fpath) else self.kinds.get(fpath, "file")
        self.add_path(proc, fpath, cls, [perm] if perm else [])

    def sc_stat(self, proc, a, ret):
        self._stat(proc, self.resolve(proc, strarg(a[0])))

    def sc_lstat(self, proc, a, ret):
        self._stat(proc, self.resolve(proc, strarg(a[0])), follow=False)

    def sc_newfstatat(self, proc, a, ret):
        p = strarg(a[1])
        if p:
            self._stat(proc, self.resolve(proc, p, a[0]), follow="AT_SYMLINK_NOFOLLOW" not in a[3])

    def sc_statx(self, proc, a, ret):
        p = strarg(a[1])
        if p:
            self._stat(proc, self.resolve(proc, p, a[0]), follow="AT_SYMLINK_NOFOLLOW" not in a[2])

    def _access(self, proc, path, mode):
        perm = {"R_OK": "read", "W_OK": "write", "X_OK": "execute"}
        perms = [perm[m] for m in re.findall(r"[RWX]_OK", mode)]
        self._stat(proc, path, perm=None)
        for p in perms:
            self._stat(proc, path, perm=p)

    def sc_access(self, proc, a, ret):
        self._access(proc, self.resolve(proc, strarg(a[0])), a[1])

    def sc_faccessat(self, proc, a, ret):
        self._access(proc, self.resolve(proc, strarg(a[1]), a[0]), a[2])

    sc_faccessat2 = sc_faccessat

    def sc_readlink(self, proc, a, ret):
        self.add_path(proc, self.resolve(proc, strarg(a[0])), "lnk_file", ["read"])

    def sc_readlinkat(self, proc, a, ret):
        self.add_path(proc, self.resolve(proc, strarg(a[1]), a[0]), "lnk_file", ["read"])

    def sc_statfs(self, proc, a, ret):
        path = self.resolve(proc, strarg(a[0]))
        self.add_search(proc, path)
        self.add(proc.domain, self.fs_of(path), "filesystem", "getattr", path)

    def sc_truncate(self, proc, a, ret):
        self.add_path(proc, self.resolve(proc, strarg(a[0])), "file", ["write"])

    def sc_mount(self, proc, a, ret):
        target = self.resolve(proc, strarg(a[1]))
        self.add_cap(proc, "sys_admin", "mount %s" % target)
        perm = "remount" if "MS_REMOUNT" in a[3] else "mount"
        self.add(proc.domain, self.fs_of(target), "filesystem", perm, target)

    # sockets and properties
    def sc_socket(self, proc, a, ret):
        fam, typ = a[0], a[1]
        if fam == "AF_UNIX":
            cls = "unix_stream_socket" if "SOCK_STREAM" in typ else "unix_dgram_socket"
        elif fam in ("AF_INET", "AF_INET6"):
            cls = "tcp_socket" if "SOCK_STREAM" in typ else "udp_socket"
        elif fam == "AF_PACKET":
            cls = "packet_socket"
            self.add_cap(proc, "net_raw", "socket(AF_PACKET)")
        elif fam == "AF_NETLINK":
            cls = "netlink_route_socket" if "NETLINK_ROUTE" in a[2] else "netlink_socket"
        else:
            cls = "socket"
        self.add(proc.domain, proc.domain, cls, "create", "socket(%s)" % fam)
        if ret is not None and ret >= 0:
            proc.fds[ret] = ("socket:" + fam, cls, proc.domain, "SOCK_CLOEXEC" in typ)

    def sc_connect(self, proc, a, ret):
        f = self._fd(proc, a[0])
        m = re.search(r'sun_path="([^"]*)"', a[1])
        if not f or not m:
            return
        path = decode_str(m.group(1)).decode()
        self.add(proc.domain, proc.domain, f[1], "connect", path)
        self.add_path(proc, path, "sock_file", ["write"])
        server = {"/dev/socket/property_service": "init", "/dev/socket/logdr": "logd",
                  "/dev/socket/logdw": "logd", "/dev/socket/logd": "logd"}.get(path, "ANY_DOMAIN")
        self.add(proc.domain, server, f[1], "connectto", path)
        fd = int(re.match(r"\d+", a[0]).group(0))
        proc.fds[fd] = (path, f[1], proc.domain, f[3])
        if path == "/dev/socket/property_service":
            self.prop_buf[(proc.pid, fd)] = b""

    def _send(self, proc, a):
        fd = int(re.match(r"\d+", a[0]).group(0))
        key = (proc.pid, fd)
        if key not in self.prop_buf:
            # threads share descriptors
            for (pid, f), _ in list(self.prop_buf.items()):
                if f == fd and proc.fds is self.procs.get(pid, Proc(0, "")).fds:
                    key = (pid, f)
                    break
            else:
                return
        s = strarg(a[1])
        if s is None:
            return
        m = re.match(r'^"((?:[^"\\]|\\.)*)"', a[1])
        buf = self.prop_buf[key] + decode_str(m.group(1))
        while len(buf) >= 8:
            klen = int.from_bytes(buf[4:8], "little")
            if len(buf) < 8 + klen + 4:
                break
            vlen = int.from_bytes(buf[8 + klen:12 + klen], "little")
            if len(buf) < 12 + klen + vlen:
                break
            name = buf[8:8 + klen].decode(errors="replace")
            value = buf[12 + klen:12 + klen + vlen].decode(errors="replace")
            checked = "ctl." + value if name.startswith("ctl.") else name
            self.add(proc.domain, self.p.prop_type(checked), "property_service", "set",
                     "%s=%s (checked as %s)" % (name, value, checked))
            buf = buf[12 + klen + vlen:]
        self.prop_buf[key] = buf

    def sc_write(self, proc, a, ret):
        f = self._fd(proc, a[0])
        if f and re.match(r"^/proc/\d+/oom_(score_)?adj$", f[0]):
            # Lowering a process's oom_adj below what it inherited needs sys_resource; raising it does not
            # (services inherit init's lowest value on a handset, so writing 0 or more is a raise).
            value = (strarg(a[1]) or "0").strip()
            if re.match(r"^-\d+$", value):
                self.add_cap(proc, "sys_resource", "%s <- %s" % (f[0], value))
            return
        self._send(proc, a)

    sc_sendto = sc_write

    # processes
    def _targets(self, proc, target):
        """(domain, uid) of the processes a kill() names."""
        t = int(target)
        if t > 0:
            host = self.ns_to_host.get(t)
            p = self.procs.get(host)
            if p:
                return [(p.domain, p.uid, "pid %d (%s)" % (t, p.exe))]
            return [("init" if t == 1 else "ANY_SERVICE", self.host_uid.get(host, 0), "pid %d" % t)]
        # a process group: every followed process that is still in the run
        out = {}
        for p in self.procs.values():
            if not p.alive:
                continue
            out.setdefault((p.domain, p.uid), "group %d: %s" % (t, p.exe))
        return [(d, u, ex) for (d, u), ex in out.items()]

    def _kill(self, proc, target, sig):
        sig = sig.strip()
        perm = SIG_PERMS.get(sig, "signal")
        for dom, uid, ex in self._targets(proc, target):
            self.add(proc.domain, dom, "process", perm, "%s %s" % (sig, ex))
            if uid != proc.uid:
                self.add_cap(proc, "kill", "%s %s (uid %d)" % (sig, ex, uid))

    def sc_kill(self, proc, a, ret):
        self._kill(proc, a[0], a[1])

    def sc_tgkill(self, proc, a, ret):
        host = self.ns_to_host.get(int(a[1]))
        if host in self.procs and self.procs[host].fds is proc.fds:
            self.add(proc.domain, proc.domain, "process", SIG_PERMS.get(a[2], "signal"), "thread %s" % a[2])
        else:
            self._kill(proc, a[1], a[2])

    def _setid(self, proc, cap, new, attr):
        if new != getattr(proc, attr) or cap == "setgid_groups":
            self.add_cap(proc, "setgid" if cap == "setgid_groups" else cap, "%s(%d)" % (cap, new))
        setattr(proc, attr, new)

    def sc_setuid(self, proc, a, ret):
        self._setid(proc, "setuid", int(a[0]), "uid")

    def sc_setresuid(self, proc, a, ret):
        self._setid(proc, "setuid", int(a[0]), "uid")

    def sc_setgid(self, proc, a, ret):
        self._setid(proc, "setgid", int(a[0]), "gid")

    def sc_setresgid(self, proc, a, ret):
        self._setid(proc, "setgid", int(a[0]), "gid")

    def sc_setgroups(self, proc, a, ret):
        self.add_cap(proc, "setgid", "setgroups")

    def sc_syslog(self, proc, a, ret):
        kind = a[0]
        perm = "syslog_read" if kind in ("3", "10", "SYSLOG_ACTION_READ_ALL", "SYSLOG_ACTION_SIZE_BUFFER") \
            else "syslog_console" if kind in ("6", "7", "8") or "CONSOLE" in kind else "syslog_mod"
        self.add(proc.domain, "kernel", "system", perm, "syslog(%s)" % kind)


def load_snapshot(path):
    snap = {}
    if path and os.path.exists(path):
        for line in open(path):
            parts = line.rstrip("\n").split("\t")
            if len(parts) == 4:
                snap[parts[0]] = (int(parts[1]), int(parts[2]), int(parts[3], 8))
    return snap


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
            for ns in _NSCOMMENT.finditer(res):
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
