"""The compiled policy a coverage check runs against: its allow and type_transition rules by source type,
and the types that file_contexts (through libselinux's own lookup), property_contexts and the platform's
genfs_contexts give to objects.
"""
import collections
import ctypes
import os
import stat

import setools

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
