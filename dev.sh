#!/usr/bin/env bash
# dev.sh: one entry point for building, testing and running zv-qel-sa on a Debian PC.
#
#   ./dev.sh test [--asan|--tsan|--arm64] [CTEST ARGS...]
#                                                  install what is missing, build, run every test
#                                                  (--arm64: cross-built, run under qemu; docs in sim/README.md)
#   ./dev.sh sim                                   install, build, boot the simulated handset
#   ./dev.sh fuzz [SECONDS]                        build the fuzz targets (clang) and run each in a handset
#   ./dev.sh handset-check [--self-test]           link for the handset, check the programs, Android.bp/.mk,
#                                                  the .rc, the SELinux policy and the daemon's access coverage
#   ./dev.sh deps                                  install the packages only
#
# Tests and the simulated handset need root (or unprivileged user namespaces) for bubblewrap.
set -euo pipefail
cd "$(dirname "$0")"

packages=(cmake ninja-build g++ clang libclang-rt-14-dev googletest libgtest-dev libgmock-dev libbenchmark-dev
          bubblewrap mksh toybox busybox tcpdump python3)

# What the handset checks need on top (checks/handset-check.sh, checks/sepolicy-check.sh; the link kit,
# checks/handset-kit.sh, also fetches Debian's llvm-toolchain-14 source package once).
handset_packages=(clang-14 lld-14 llvm-14 libc++-14-dev xz-utils python3-pyelftools golang-go
                  golang-android-soong-dev golang-github-google-blueprint-dev golang-github-golang-protobuf-1-3-dev
                  blueprint-tools soong m4 checkpolicy policycoreutils selinux-utils python3-setools strace)

# What the arm64 run needs on top: the cross compiler, qemu, and arm64 runtime and GoogleTest (multiarch).
arm64_packages=(g++-aarch64-linux-gnu qemu-user libc6:arm64 libstdc++6:arm64 libgtest-dev:arm64 libgmock-dev:arm64)

install_deps() {
    local missing=()
    for p in "${packages[@]}" "$@"; do
        dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
    done
    [ ${#missing[@]} -eq 0 ] && return 0
    echo "dev.sh: installing ${missing[*]}"
    local sudo=""
    [ "$(id -u)" = 0 ] || sudo=sudo
    if printf '%s\n' "${missing[@]}" | grep -q ':arm64$' && ! dpkg --print-foreign-architectures | grep -qx arm64; then
        $sudo dpkg --add-architecture arm64
    fi
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

# The whole suite cross-built for 64-bit Arm and run under qemu's user-mode emulation. On kernel 6.7 and
# later, a private user namespace's own binfmt_misc hands every arm64 program to qemu (sim/with-arm64-binfmt),
# so the handset's init, tools and daemon run as arm64 too; tests labelled with a reason
# (cmake/emulation-labels.cmake) are left out. An
# older kernel cannot give the namespace its own binfmt_misc: then each test program runs under qemu-aarch64
# itself, and only the unit tests that exec no arm64 program run (labelled arm64-child are left out too).
test_arm64() {
    install_deps "${arm64_packages[@]}"
    local kernel
    kernel=$(uname -r | cut -d- -f1)
    if [ -z "${ZV_ARM64_NO_BINFMT:-}" ] && [ "$(printf '6.7\n%s\n' "$kernel" | sort -V | head -n1)" = 6.7 ]; then
        cmake -S . -B build-arm64 -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/aarch64-linux-gnu.cmake >/dev/null
        # Test discovery runs the test programs, so the build runs in the namespace too.
        sim/with-arm64-binfmt cmake --build build-arm64 -j2
        sim/with-arm64-binfmt ctest --test-dir build-arm64 -j2 --output-on-failure -LE "qemu-cmdline|qemu-memory" "$@"
    else
        if [ -n "${ZV_ARM64_NO_BINFMT:-}" ]; then
            echo "dev.sh: ZV_ARM64_NO_BINFMT is set: running as on a kernel older than 6.7"
        else
            echo "dev.sh: kernel $kernel cannot give a user namespace its own binfmt_misc (6.7 or later can)"
        fi
        echo "dev.sh: so only the unit tests that exec no arm64 program run, each under qemu-aarch64"
        cmake -S . -B build-arm64-qemu -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/aarch64-linux-gnu.cmake \
            -DZV_TEST_EMULATOR=qemu-aarch64 >/dev/null
        # The unit test programs, but for those whose handset boots init (an arm64 program itself).
        local units booting
        units=$(cd build-arm64-qemu && ninja -t targets all | sed -n 's/^\(\(compat\|pub\|sa_sa\)_[a-z0-9_]*_test\): .*/\1/p' | sort -u)
        booting=$(grep -l -- '--init' sa/*.simargs | xargs -r -n1 basename | sed 's/\.simargs$//; s/-/_/g; s/^/sa_/')
        units=$(comm -23 <(echo "$units") <(echo "$booting" | sort))
        # shellcheck disable=SC2086
        cmake --build build-arm64-qemu -j2 --target $units
        ctest --test-dir build-arm64-qemu -j2 --output-on-failure -R "^($(echo $units | tr ' ' '|'))\." \
            -LE 'qemu-cmdline|qemu-memory|arm64-child' "$@"
    fi
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
            --arm64) shift; test_arm64 "$@"; exit ;;
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
        checks/handset-check.sh "$@"
        exec checks/sepolicy-check.sh "$@"
        ;;
    sim)
        install_deps
        build build
        # A handset whose init boots the daemon from its own rc file and configuration.
        exec sim/zv-handset run --build build --init --rc sa/zv-qel-sa.rc \
            --file sa/zv-qel-sa.cfg /system/etc/zv-qel-sa.cfg -- /bin/bash "$PWD/sim/session.sh"
        ;;
    *)
        sed -n '2,13p' "$0" >&2
        exit 2
        ;;
esac
