"""What each system call of the handset's run asks SELinux: the handlers of sepolicy_coverage.Analysis, one
per traced call (sc_NAME), with the file, name, attribute, socket, property and signal checks the kernel makes
for it. Each records its accesses through the Analysis's add, add_path, add_cap and dac.
"""
import os
import re

from sepolicy_trace import decode_str, strarg

CHR_DEVICES = re.compile(r"^/dev/(ptmx|pts/ptmx|pts/\d+|null|zero|tty|random|urandom|console)$")
SIG_PERMS = {"SIGKILL": "sigkill", "SIGSTOP": "sigstop", "0": "signull", "SIGCHLD": "sigchld"}


class Syscalls:
    """Mixin of sepolicy_coverage.Analysis."""

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
            self._make(proc, fpath, "file")
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
    def _make(self, proc, path, cls):
        """A new object at PATH: a name added to its folder, the object created with the type it gets."""
        parent = os.path.dirname(path)
        self.add_path(proc, parent, "dir", ["add_name", "write"])
        self.dac(proc, parent, "wx", "dir")
        self.add(proc.domain, self.new_object(proc, path, cls), cls, "create", path)

    def _mkdir(self, proc, path, mode):
        self._make(proc, path, "dir")
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
        self._make(proc, path, "lnk_file")
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
                if f == fd and proc.fds is getattr(self.procs.get(pid), "fds", None):
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
