#!/bin/sh
# Runs the PC's tcpdump in place of the handset's. Debian's tcpdump drops root for its own user before it
# opens the capture file, which could then not write the daemon's log folder; on the handset tcpdump keeps
# root, so keep it here too.
exec /usr/bin/tcpdump -Z root "$@"
