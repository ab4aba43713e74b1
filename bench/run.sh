#!/usr/bin/env bash
# Builds the benchmarks in a Release build folder, runs each one in a fresh simulated handset, and
# prints a table of the results (Markdown, ready for docs/performance.md): every figure with its goal
# and verdict. It also draws the round-trip latency distributions (daemon, floor, bare echo) into
# DIR/bench-results/roundtrip-latency.png with gnuplot, which it installs (gnuplot-nox) when missing.
#
# Usage: bench/run.sh [--build DIR] [--no-build] [--only NAME]
#   --build DIR   build folder (default: build-bench beside this script's folder); configured as a
#                 Release build with Ninja when it has no CMakeCache.txt yet
#   --no-build    run what is already built
#   --only NAME   run one benchmark: cmd-roundtrip, proc-lookup, log-client, kmsg-copy, footprint or
#                 startup
# Each benchmark's full output goes to DIR/bench-results/NAME.txt. Exit status: 0 when every benchmark
# ran (whether or not it met its goal), 1 when one failed to run.
set -euo pipefail

self_dir=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
src_dir=$(dirname "$self_dir")
build="$src_dir/build-bench"
do_build=1
only=""
while [ $# -gt 0 ]; do
    case "$1" in
        --build) build=$2; shift 2 ;;
        --no-build) do_build=0; shift ;;
        --only) only=$2; shift 2 ;;
        *) sed -n '2,/^set -euo/p' "${BASH_SOURCE[0]}" | sed -e '$d' -e 's/^# \{0,1\}//' >&2; exit 2 ;;
    esac
done

# strace finds the shell lines of the daemon's start-up for the start-up floor; gnuplot draws the
# picture. Only the benchmarks need them, so the project's own setup does not install them.
sudo=""
[ "$(id -u)" = 0 ] || sudo=sudo
# install_missing COMMAND PACKAGE WHAT-FOR WITHOUT-IT
install_missing() {
    command -v "$1" >/dev/null 2>&1 && return 0
    echo "run.sh: installing $2 for $3" >&2
    { $sudo apt-get update -qq &&
        DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "$2"; } \
        >/dev/null || echo "run.sh: warning: $2 could not be installed; $4" >&2
}
install_missing strace strace "the start-up floor" "the start-up benchmark fails"
install_missing gnuplot gnuplot-nox "the latency picture" "no picture"

if [ "$do_build" = 1 ]; then
    if [ ! -f "$build/CMakeCache.txt" ]; then
        cmake -S "$src_dir" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release >/dev/null
    fi
    cmake --build "$build" -j2 --target zv-bench
fi
build=$(cd "$build" && pwd)
if ! grep -q '^CMAKE_BUILD_TYPE:STRING=Release$' "$build/CMakeCache.txt"; then
    echo "run.sh: warning: $build is not a Release build; figures are not comparable" >&2
fi

results="$build/bench-results"
mkdir -p "$results"
benches=(cmd-roundtrip proc-lookup log-client kmsg-copy footprint startup)
[ -n "$only" ] && benches=("$only")

load() { cut -d' ' -f1-3 /proc/loadavg; }
echo "machine: $(nproc) cores, $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2- | sed 's/^ *//')"
echo "commit:  $(git -C "$src_dir" rev-parse --short HEAD 2>/dev/null || echo unknown)$(
    [ -n "$(git -C "$src_dir" status --porcelain 2>/dev/null | head -1)" ] && echo ' (with uncommitted changes)')"
echo "started: $(date -u '+%Y-%m-%d %H:%M:%S UTC'), load average $(load)"

failed=0
for name in "${benches[@]}"; do
    prog="$build/bench/zv-bench-$name"
    if [ ! -x "$prog" ]; then
        echo "run.sh: $prog is not built" >&2
        failed=1
        continue
    fi
    echo "running $name ..." >&2
    if ! "$src_dir/sim/zv-handset" run --build "$build" -- "$prog" >"$results/$name.txt" 2>&1; then
        echo "run.sh: $name failed; see $results/$name.txt" >&2
        failed=1
    fi
done
echo "ended:   $(date -u '+%Y-%m-%d %H:%M:%S UTC'), load average $(load)"
echo

echo "| Benchmark | Project | Baseline / reference | Ratio | Goal | Verdict |"
echo "|---|---|---|---|---|---|"
for name in "${benches[@]}"; do
    [ -f "$results/$name.txt" ] || continue
    grep '^RESULT' "$results/$name.txt" |
        awk -F'\t' '{ printf "| %s | %s | %s | %s | %s | %s |\n", $2, $3, $4, $5, $6, $7 }'
    grep -q '^RESULT' "$results/$name.txt" || echo "| $name | - | - | - | - | FAILED (no result) |"
done

# The picture: percentiles of every round-trip side, AT and +QUERY_SERVICE side by side.
picture="$results/roundtrip-latency.png"
rm -f "$picture"
if [[ " ${benches[*]} " == *" cmd-roundtrip "* ]] && [ -f "$results/cmd-roundtrip.txt" ] &&
    grep -q '^DIST' "$results/cmd-roundtrip.txt" &&
    command -v gnuplot >/dev/null 2>&1; then
    dat="$results/roundtrip-latency.dat"
    # One block per side, in the order the benchmark prints them: echo, daemon, floor for AT, then the same
    # for +QUERY_SERVICE. Columns: microseconds, percentile.
    awk -F'\t' '$1 == "DIST" {
        if ($2 != last) { if (last != "") printf "\n\n"; printf "# %s\n", $2; last = $2 }
        print $4, $3 }' "$results/cmd-roundtrip.txt" >"$dat"
    commit=$(git -C "$src_dir" rev-parse --short HEAD 2>/dev/null || echo unknown)
    gnuplot <<EOF
set terminal pngcairo size 1200,480 font ",10" noenhanced
set output "$picture"
set multiplot layout 1,2 title "Command round trip, latency distribution (commit $commit, $(date -u '+%Y-%m-%d %H:%M UTC'))"
set logscale x
set xlabel "round trip (us, log scale)"
set ylabel "percentile"
set yrange [0:100]
set ytics 10
set grid
set key bottom right
set title "AT"
plot "$dat" index 1 using 1:2 with lines lw 2 title "daemon", \
     "$dat" index 2 using 1:2 with lines lw 2 title "floor (the daemon's own steps)", \
     "$dat" index 0 using 1:2 with lines lw 2 title "bare pty echo"
set title "+QUERY_SERVICE"
plot "$dat" index 4 using 1:2 with lines lw 2 title "daemon", \
     "$dat" index 5 using 1:2 with lines lw 2 title "floor (the daemon's own steps)", \
     "$dat" index 3 using 1:2 with lines lw 2 title "bare pty echo"
unset multiplot
EOF
fi
if [[ " ${benches[*]} " == *" cmd-roundtrip "* ]]; then
    echo
    if [ -f "$picture" ]; then
        echo "Picture: $picture"
    else
        echo "Picture: not drawn (no round-trip distributions, or no gnuplot)"
    fi
fi
echo
echo "Details:"
for name in "${benches[@]}"; do
    [ -f "$results/$name.txt" ] || continue
    grep -E '^(one record|counting again:|ring:|processes in the handset|lookup at|system calls|CPU time of the copier|AT:|\+QUERY_SERVICE( with|:)|pair +[0-9]+:|start-up,)' \
        "$results/$name.txt" | sed 's/^/    /' || true
done
exit "$failed"
