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
echo "== zv-sa-client AT 'SA+QUERY_SERVICE=\"zv-qel-sa\"' 'SA+KERNEL_LOG?'"
zv-sa-client AT 'SA+QUERY_SERVICE="zv-qel-sa"' 'SA+KERNEL_LOG?'

if [ -t 0 ]; then
    cat <<'TEXT'

Type request lines without the carriage return, for example:
    SA+QUERY_SERVICE="zv-qel-sa"
    SA+SYSTEM="ls /data/local/log > /data/local/tmp/ls.txt"
    SA+DMESG_LOG=1
Ctrl-D leaves the prompt for a shell in the handset (zv-sa-client -s for a remote shell through
/dev/ttysa1, cat /data/local/log/sa.log for the trace); 'exit' there powers the handset off.
TEXT
    zv-sa-client
    exec /bin/bash -i
fi

echo "== a scripted session"
zv-sa-client 'SA+SYSTEM="ls /data/local/log > /data/local/tmp/ls.txt"' 'SA+DMESG_LOG=1' 'SA+DMESG_LOG?'
echo "== files in /data/local/log:"
ls /data/local/log
echo "== remote shell through /dev/ttysa1: zv-sa-client -s uname -n"
zv-sa-client -s uname -n </dev/null
echo "== last lines of /data/local/log/sa.log:"
tail -n 5 /data/local/log/sa.log
