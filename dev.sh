#!/usr/bin/env bash
# dev.sh: one entry point for building, testing and running zv-qel-sa on a Debian PC.
#
#   ./dev.sh test [--asan|--tsan] [CTEST ARGS...]  install what is missing, build, run every test
#   ./dev.sh sim                                   install, build, boot the simulated handset
#   ./dev.sh fuzz [SECONDS]                        build the fuzz targets (clang) and run each in a handset
#   ./dev.sh handset-check [--self-test]           compile for the handset, check Android.bp/.mk and the .rc
#   ./dev.sh deps                                  install the packages only
#
# Tests and the simulated handset need root (or unprivileged user namespaces) for bubblewrap.
set -euo pipefail
cd "$(dirname "$0")"

packages=(cmake ninja-build g++ clang libclang-rt-14-dev googletest libgtest-dev libgmock-dev libbenchmark-dev
          bubblewrap busybox tcpdump)

# What the handset checks need on top (checks/handset-check.sh).
handset_packages=(clang-14 libc++-14-dev golang-go golang-android-soong-dev golang-github-google-blueprint-dev
                  golang-github-golang-protobuf-1-3-dev blueprint-tools soong python3)

install_deps() {
    local missing=()
    for p in "${packages[@]}" "$@"; do
        dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
    done
    [ ${#missing[@]} -eq 0 ] && return 0
    echo "dev.sh: installing ${missing[*]}"
    local sudo=""
    [ "$(id -u)" = 0 ] || sudo=sudo
    $sudo apt-get update -qq
    DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
}

# build DIR [cmake args...]; builds the targets named in $targets (ZV_TARGETS from the environment for
# ./dev.sh test), or everything.
targets="${ZV_TARGETS:-}"
build() {
    local dir=$1; shift
    cmake -S . -B "$dir" -G Ninja "$@" >/dev/null
    # shellcheck disable=SC2086
    cmake --build "$dir" -j2 ${targets:+--target $targets}
}

cmd=${1:-test}
[ $# -gt 0 ] && shift
case "$cmd" in
    deps)
        install_deps
        ;;
    test)
        install_deps
        dir=build san=""
        case "${1:-}" in
            --asan) dir=build-asan san=address; shift ;;
            --tsan) dir=build-tsan san=thread; shift ;;
        esac
        build "$dir" -DZV_SANITIZE="$san"
        ctest --test-dir "$dir" -j2 --output-on-failure "$@"
        ;;
    fuzz)
        install_deps
        seconds=${1:-60}
        targets="zv-fuzz"
        build build-fuzz -DZV_SANITIZE=fuzz -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++
        for target in build-fuzz/fuzz/*_fuzz; do
            name=$(basename "$target")
            mkdir -p "build-fuzz/corpus/$name"
            echo "dev.sh: fuzzing $name for $seconds s"
            sim/zv-handset run --build build-fuzz -- "$PWD/$target" -max_total_time="$seconds" -max_len=1100 \
                "$PWD/build-fuzz/corpus/$name" "$PWD/fuzz/corpus/$name" 2>&1 | tail -n 3
            [ "${PIPESTATUS[0]}" = 0 ] || { echo "dev.sh: $name failed"; exit 1; }
        done
        ;;
    handset-check)
        install_deps "${handset_packages[@]}"
        exec checks/handset-check.sh "$@"
        ;;
    sim)
        install_deps
        build build
        # A handset whose init boots the daemon from its own rc file and configuration.
        exec sim/zv-handset run --build build --init --rc sa/zv-qel-sa.rc \
            --file sa/zv-qel-sa.cfg /system/etc/zv-qel-sa.cfg -- /bin/bash "$PWD/sim/session.sh"
        ;;
    *)
        sed -n '2,10p' "$0" >&2
        exit 2
        ;;
esac
