#!/bin/bash
# The coverage scenario of the SELinux check, run inside a simulated handset whose init booted zv-qel-sa
# from its own .rc and configuration (checks/sepolicy-check.sh runs it under strace). It drives the daemon
# through every request kind, both log switches on and off, a save to the card, a delete, a remote shell,
# a second start-up (with panic dumps to preserve and an auto-start list), and a clean stop by init.
#
# Usage (inside the handset): sepolicy-scenario.sh OUT_DIR
#   OUT_DIR: a folder shared with the PC, where the owners and modes of the handset's files are written
#   (snapshot.tsv) before the requests start.
set -u
out=$1
fail() { echo "scenario: FAILED: $*" >&2; tail -n 20 /data/local/log/sa.log >&2 2>/dev/null; exit 1; }
step() { echo "scenario: $*"; }

# wait_for SECONDS COMMAND...: polls COMMAND until it succeeds.
wait_for() {
    local deadline=$((SECONDS + $1))
    shift
    until "$@"; do
        [ $SECONDS -lt $deadline ] || return 1
        sleep 0.1
    done
}
daemon_pid() { cat /tmp/zv-qel-sa.pid 2>/dev/null || true; }
links_up() { [ -e /dev/ttySA0 ] && [ -e /dev/ttysa1 ]; }
prop_is() { [ "$(getprop "$1")" = "$2" ]; }
restarted() { local p; p=$(daemon_pid); [ -n "$p" ] && [ "$p" != "$first_pid" ] && links_up; }
# ok VERB...: one client call that must succeed.
ok() { zv-sa-client "$@" || fail "zv-sa-client $*"; }

wait_for 20 links_up || fail "the daemon's links did not appear"
first_pid=$(daemon_pid)

# What other parts of a handset keep under /data, for the save to copy, and panic dumps for the next
# start-up to preserve.
mkdir -p /data/anr /data/tombstones /data/data/com.android.mms/databases \
    /data/data/com.android.providers.telephony/databases /data/local/log-modem /data/log /data/dontpanic
echo "traces" >/data/anr/traces.txt
echo "tombstone" >/data/tombstones/tombstone_00
echo "db" >/data/data/com.android.mms/databases/mmssms.db
echo "db" >/data/data/com.android.providers.telephony/databases/telephony.db
echo "modem" >/data/local/log-modem/modem.log
echo "data log" >/data/log/boot.log

# Owners and modes of what exists now (the daemon's own changes are followed in the trace).
find /data /dev /storage /proc/sys/kernel/printk -xdev -printf '%p\t%U\t%G\t%m\t%y\n' >"$out/snapshot.tsv" 2>/dev/null

step "AT probe, query"
ok raw AT
ok query zv-qel-sa
step "start and stop a service through init"
ok start zv-svc-plain
ok stop zv-svc-plain
step "start zv-elog through its property"
zv-sa-client start zv-elog >/dev/null &
client=$!
wait_for 10 prop_is ril.zv.elog.state 1 || fail "ril.zv.elog.state was not set"
bash -c 'exec -a zv-elog /usr/bin/sleep 600' &
elog=$!
wait "$client" || fail "start zv-elog"
ok stop zv-elog
wait "$elog" 2>/dev/null
step "auto-start list"
ok autostart add zv-svc-plain
zv-sa-client autostart status zv-svc-plain || fail "autostart status"
ok autostart add zv-qel-mla1
ok autostart remove zv-qel-mla1
step "log switches"
ok kernel-log on
ok kernel-log status
ok kernel-log off
ok dmesg-log on
ok dmesg-log status
ok dmesg-log off
step "a command line"
ok system "ls /data/local/log > /data/local/tmp/ls.txt"
step "save to the card"
ok save-log
step "delete"
ok delete-log
step "a remote shell"
zv-sa-client shell 'ls /data/local/log >/dev/null; tail -n 1 /data/local/log/sa.log >/dev/null; id' </dev/null \
    || fail "remote shell"
step "packet capture on, then off (the daemon ends itself; init starts it again)"
ok packets on
ok --yes packets off
wait_for 30 restarted || fail "the daemon did not start again"
ok query zv-qel-sa
step "clean stop through init"
setprop ctl.stop zv-qel-sa || fail "ctl.stop"
wait_for 15 prop_is init.svc.zv-qel-sa stopped || fail "the daemon did not stop"
step "done"
