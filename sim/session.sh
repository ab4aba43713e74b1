#!/bin/bash
# The session that ./dev.sh sim runs inside a booted handset: it waits for the daemon that init started,
# shows that it answers, then leaves a person at a request prompt (or, without a terminal, runs a short
# scripted session and ends).
deadline=$((SECONDS + 20))
until [ -e /dev/ttySA0 ] && [ -e /dev/ttysa1 ]; do
    if [ $SECONDS -ge $deadline ]; then
        echo "zv-qel-sa did not come up; its trace file says:" >&2
        cat /data/local/log/sa.log >&2 2>/dev/null
        exit 1
    fi
    sleep 0.1
done

echo "== zv-qel-sa runs as an init service: init.svc.zv-qel-sa=$(getprop init.svc.zv-qel-sa)"
echo "== command link /dev/ttySA0 -> $(readlink /dev/ttySA0), listener /dev/ttysa1 -> $(readlink /dev/ttysa1)"
echo "== zv-sa-client query zv-qel-sa"
zv-sa-client query zv-qel-sa
echo "== zv-sa-client kernel-log status"
zv-sa-client kernel-log status

if [ -t 0 ]; then
    cat <<'TEXT'

Type a verb of zv-sa-client (docs/client.md), for example:
    query zv-qel-sa
    dmesg-log on
or a request line without its carriage return, as the host tool sends it:
    SA+SYSTEM="ls /data/local/log > /data/local/tmp/ls.txt"
Ctrl-D leaves the prompt for a shell in the handset (zv-sa-client shell for a remote shell through
/dev/ttysa1, cat /data/local/log/sa.log for the trace); 'exit' there powers the handset off.
TEXT
    zv-sa-client
    exec /system/bin/sh -i
fi

echo "== a scripted session"
zv-sa-client 'SA+SYSTEM="ls /data/local/log > /data/local/tmp/ls.txt"' 'SA+DMESG_LOG=1' 'SA+DMESG_LOG?'
echo "== zv-sa-client dmesg-log status"
zv-sa-client dmesg-log status
echo "== files in /data/local/log:"
ls /data/local/log
echo "== remote shell through /dev/ttysa1: zv-sa-client shell 'uname -n; exit 3'"
zv-sa-client shell 'uname -n; exit 3' </dev/null
echo "== its exit status: $?"
echo "== last lines of /data/local/log/sa.log:"
tail -n 5 /data/local/log/sa.log
