#!/usr/bin/env python3
"""Checks init service files (.rc) as an API-23 handset's init would read them.

Usage: rc_check.py [--install-path PATH] FILE.rc...

Reported, one line each, as FILE:LINE: message (exit status 1 when any):
- a keyword (section, service option or action command) that API-23 init does not know;
- a service whose program path is not absolute, or (with --install-path) not where the build installs it;
- a user or group name that is not a known Android id;
- a service defined twice (across all files given);
- a service line without name and path, an option outside a section.
"""
import sys

SECTIONS = {"service", "on", "import"}
# Service options of API-23 init.
SERVICE_OPTIONS = {
    "capability", "class", "console", "critical", "disabled", "group", "ioprio", "keycodes", "oneshot",
    "onrestart", "seclabel", "setenv", "socket", "user", "writepid",
}
# Action commands of API-23 init.
COMMANDS = {
    "bootchart_init", "chmod", "chown", "class_reset", "class_start", "class_stop", "copy", "domainname",
    "enable", "exec", "export", "hostname", "ifup", "insmod", "installkey", "load_all_props",
    "load_persist_props", "loglevel", "mkdir", "mount", "mount_all", "powerctl", "restart", "restorecon",
    "restorecon_recursive", "rm", "rmdir", "setprop", "setrlimit", "start", "stop", "swapon_all", "symlink",
    "sysclktz", "trigger", "verity_load_state", "verity_update_state", "wait", "write",
}
# Android ids by name (the platform's file-system configuration of that release).
AIDS = {
    "root", "system", "radio", "bluetooth", "graphics", "input", "audio", "camera", "log", "compass", "mount",
    "wifi", "adb", "install", "media", "dhcp", "sdcard_rw", "vpn", "keystore", "usb", "drm", "mdnsr", "gps",
    "media_rw", "mtp", "drmrpc", "nfc", "sdcard_r", "clat", "loop_radio", "mediadrm", "package_info",
    "sdcard_pics", "sdcard_av", "sdcard_all", "logd", "shared_relro", "shell", "cache", "diag",
    "net_bt_admin", "net_bt", "inet", "net_raw", "net_admin", "net_bw_stats", "net_bw_acct", "net_bt_stack",
    "readproc", "wakelock", "everybody", "misc", "nobody",
}


def check(paths, install_path):
    problems = []
    services = {}
    for path in paths:
        section = None
        with open(path, encoding="utf-8") as f:
            for number, raw in enumerate(f, 1):
                where = "%s:%d" % (path, number)
                words = raw.split()
                if not words or words[0].startswith("#"):
                    continue
                word = words[0]
                if word in SECTIONS:
                    section = word
                    if word == "service":
                        if len(words) < 3:
                            problems.append("%s: service needs a name and a program path" % where)
                            continue
                        name, program = words[1], words[2]
                        if name in services:
                            problems.append("%s: service %s already defined at %s" % (where, name, services[name]))
                        services[name] = where
                        if not program.startswith("/"):
                            problems.append("%s: program path %s is not absolute" % (where, program))
                        elif install_path and name == "zv-qel-sa" and program != install_path:
                            problems.append("%s: program path %s is not where the build installs it (%s)"
                                            % (where, program, install_path))
                    continue
                if section is None:
                    problems.append("%s: %s outside a section" % (where, word))
                elif section == "service":
                    if word not in SERVICE_OPTIONS:
                        problems.append("%s: unknown service option %s" % (where, word))
                    elif word == "user":
                        for name in words[1:2]:
                            if name not in AIDS:
                                problems.append("%s: unknown user %s" % (where, name))
                        if len(words) != 2:
                            problems.append("%s: user takes one name" % where)
                    elif word == "group":
                        for name in words[1:]:
                            if name not in AIDS:
                                problems.append("%s: unknown group %s" % (where, name))
                elif section == "on" and word not in COMMANDS:
                    problems.append("%s: unknown command %s" % (where, word))
    return problems


def main(argv):
    install_path = None
    args = argv[1:]
    if len(args) >= 2 and args[0] == "--install-path":
        install_path, args = args[1], args[2:]
    if not args:
        print(__doc__.strip(), file=sys.stderr)
        return 2
    problems = check(args, install_path)
    for p in problems:
        print(p)
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
