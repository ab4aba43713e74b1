"""strace output of a simulated handset's run: its system calls, with their arguments and results, in order.

Written for `strace -f -qq --pidns-translation -s 256 -x`: pids prefix every line, calls interrupted by
another process's line are joined, and the handset's pids carry the PC's pid in a comment.
"""
import re

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
NS_COMMENT = re.compile(r"(-?\d+) /\* (\d+) in strace's PID NS \*/")


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
