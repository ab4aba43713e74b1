#!/usr/bin/env bash
# Checks of the handset build that need no handset (see docs/platform.md):
#   compile   every daemon, common-library and client source compiled for aarch64-linux-android23 against
#             the handset C library's headers, with the project's warnings and -Werror (nothing links)
#   bp        Android.bp: formatted (bpfmt -l), then analysed by the platform build system's own module
#             analyser, once with missing dependencies allowed and once strict with only platform modules
#             left undefined
#   mk        Android.mk converted by androidmk, then the same analysis against placeholder prebuilts
#   rc        the init service file, read as API-23 init would read it
#
# Usage: checks/handset-check.sh [--self-test]
#   --self-test  also proves each check fails: a deliberate fault in a scratch copy of the tree for each
# Environment: ZV_HANDSET_SYSROOT (handset C library headers; default ../shared/platform/... beside the
# checkout). Work and the cached analyser go to build-handset-check/.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
work="$top/build-handset-check"
self_test=0
[ "${1:-}" = "--self-test" ] && self_test=1

# Platform modules a binary depends on implicitly; only these may stay undefined in the strict run.
platform_modules='libc|libm|libdl|libc\+\+|libc\+\+demangle|libc\+\+_static|libgcc_stripped|libatomic|libcutils|libclang_rt\.builtins-[a-z0-9_.-]+|crtbegin_[a-z_]+|crtend_[a-z_]+|crtbrand'

say() { echo "handset-check: $*"; }

# The handset C library's headers: named once here, so scratch copies of the tree use the same.
if [ -z "${ZV_HANDSET_SYSROOT:-}" ]; then
    ZV_HANDSET_SYSROOT=$(cd "$top/.." && pwd)/shared/platform/android-arm64-sysroot
fi
export ZV_HANDSET_SYSROOT
have_sysroot=0
[ -f "$ZV_HANDSET_SYSROOT/usr/include/sys/system_properties.h" ] && have_sysroot=1

# The analyser: Debian's primary builder of the platform build system with the module types we use.
build_analyser() {
    local dir="$work/analyser"
    if [ -x "$dir/soong_build" ] && [ "$dir/soong_build" -nt "$top/checks/soong-analyser/modules.go" ]; then
        return 0
    fi
    rm -rf "$dir" && mkdir -p "$dir/src/zvbp"
    local soong=/usr/share/gocode/src/android/soong/cmd/soong_build
    cp "$soong/main.go" "$soong/writedocs.go" "$soong/bazel_overlay.go" "$top/checks/soong-analyser/modules.go" \
        "$dir/src/zvbp/"
    (cd "$dir/src/zvbp" && GO111MODULE=off GOPATH="$dir:/usr/share/gocode" GOCACHE="$dir/gocache" \
        go build -o "$dir/soong_build" .)
    # Its default product configuration (a generic arm64 device), written on a first run.
    mkdir -p "$dir/defaults/out" "$dir/defaults/src"
    : >"$dir/defaults/src/Android.bp"
    echo Android.bp >"$dir/defaults/src/list"
    cp "$dir/soong_build" "$dir/defaults/out/"
    (cd "$dir/defaults/src" && ../out/soong_build -b ../out -n ../out -o ../out/build.ninja \
        -globFile ../out/globs.ninja -l list Android.bp >/dev/null 2>&1) || true
    [ -s "$dir/defaults/out/soong.variables" ] || { say "the analyser wrote no product configuration"; exit 1; }
}

# analyse DIR NAME: runs the analyser over DIR/Android.bp twice; prints its findings; fails on any.
analyse() {
    local src=$1 name=$2 out status=0 mode
    for mode in missing-allowed strict; do
        out="$work/analysis/$name-$mode"
        rm -rf "$out" && mkdir -p "$out"
        cp "$work/analyser/soong_build" "$out/"
        if [ "$mode" = missing-allowed ]; then
            sed '1a\    "Allow_missing_dependencies": true,' "$work/analyser/defaults/out/soong.variables" \
                >"$out/soong.variables"
        else
            cp "$work/analyser/defaults/out/soong.variables" "$out/soong.variables"
        fi
        echo Android.bp >"$out/list"
        local log="$out/findings.txt"
        (cd "$src" && "$out/soong_build" -b "$out" -n "$out" -o "$out/build.ninja" -globFile "$out/globs.ninja" \
            -l "$out/list" Android.bp) >"$log" 2>&1 || true
        # Colour codes off; in the strict run, undefined platform modules are expected.
        local findings
        findings=$(sed 's/\x1b\[[0-9;]*m//g' "$log" | grep -E 'error' || true)
        if [ "$mode" = strict ]; then
            findings=$(echo "$findings" | grep -vE "depends on undefined module \"($platform_modules)\"" || true)
        fi
        if [ -n "$findings" ]; then
            say "$name ($mode):"
            echo "$findings" | sed 's/^/    /'
            status=1
        fi
    done
    return $status
}

check_compile() {  # SRC BUILD
    local src=$1 build=$2
    if ! cmake -S "$src" -B "$build" -G Ninja -DCMAKE_TOOLCHAIN_FILE="$src/cmake/handset-aarch64-android23.cmake" \
        >"$build.configure.log" 2>&1; then
        cat "$build.configure.log"
        return 1
    fi
    cmake --build "$build" -j2
}

check_bp() {  # SRC
    local src=$1 unformatted
    unformatted=$(cd "$src" && bpfmt -l Android.bp)
    if [ -n "$unformatted" ]; then
        say "not formatted (bpfmt -w fixes it): $unformatted"
        return 1
    fi
    analyse "$src" bp
}

check_mk() {  # SRC BUILD (the compile check's build, whose placeholder programs stand in for the prebuilts)
    local src=$1 build=$2 tree="$work/mk-tree"
    rm -rf "$tree" && mkdir -p "$tree/prebuilt" "$tree/sa"
    cp "$src/sa/zv-qel-sa.rc" "$tree/sa/"
    cp "$build/sa/zv-qel-sa" "$build/tools/zv-sa-client" "$tree/prebuilt/"
    androidmk "$src/Android.mk" >"$tree/Android.bp"
    analyse "$tree" mk
}

check_rc() {  # SRC
    python3 "$1/checks/rc_check.py" --install-path /system/bin/zv-qel-sa "$1/sa/zv-qel-sa.rc"
}

run_all() {  # SRC BUILD
    local src=$1 build=$2 failed=0
    if [ "$have_sysroot" = 1 ]; then
        check_compile "$src" "$build" || { say "compile: FAILED"; failed=1; }
    else
        say "WARNING: no handset C library headers at $ZV_HANDSET_SYSROOT (set ZV_HANDSET_SYSROOT):"
        say "WARNING: the compile check did NOT run; the other checks use placeholder programs"
        mkdir -p "$build/sa" "$build/tools"
        : >"$build/sa/zv-qel-sa"
        : >"$build/tools/zv-sa-client"
    fi
    build_analyser
    check_bp "$src" || { say "bp: FAILED"; failed=1; }
    if [ -f "$build/sa/zv-qel-sa" ]; then
        check_mk "$src" "$build" || { say "mk: FAILED"; failed=1; }
    else
        say "mk: FAILED (no compile output)"
        failed=1
    fi
    check_rc "$src" || { say "rc: FAILED"; failed=1; }
    return $failed
}

mkdir -p "$work"
start=$(date +%s)
run_all "$top" "$work/build"
if [ "$have_sysroot" = 1 ]; then
    say "compile, bp, mk and rc checks passed ($(( $(date +%s) - start )) s)"
else
    say "bp, mk and rc checks passed ($(( $(date +%s) - start )) s); the compile check did NOT run"
fi

[ "$self_test" = 1 ] || exit 0

# Each check against a deliberate fault, in a scratch copy of the tree: every one must fail.
scratch="$work/scratch"
fresh_copy() {
    rm -rf "$scratch" && mkdir -p "$scratch"
    (cd "$top" && git ls-files -z --cached --others --exclude-standard | xargs -0 cp --parents -t "$scratch")
}
. "$top/checks/expect-failure.sh"

fresh_copy
[ "$have_sysroot" = 1 ] && echo 'int zv_handset_check_probe(void *buf) { return getentropy(buf, 1); }' >>"$scratch/sa/sa-util.cpp"
rm -rf "$work/scratch-build"
[ "$have_sysroot" = 1 ] &&
    expect_failure "a call the C library gains only at API 28" "getentropy" check_compile "$scratch" "$work/scratch-build"

fresh_copy
sed -i 's/export_include_dirs:/export_include_dir:/' "$scratch/Android.bp"
expect_failure "a misspelt Android.bp property" 'unrecognized property "export_include_dir"' analyse "$scratch" bp-fault

fresh_copy
sed -i 's/shared_libs: \["libcutils"\]/shared_libs: ["libcutils", "libzv-missing"]/' "$scratch/Android.bp"
expect_failure "an Android.bp dependency that no tree defines" 'undefined module "libzv-missing"' analyse "$scratch" bp-fault

fresh_copy
sed -i 's/^    srcs:/  srcs:/' "$scratch/Android.bp"
expect_failure "an unformatted Android.bp" "not formatted" check_bp "$scratch"

fresh_copy
sed -i 's|LOCAL_SRC_FILES := sa/zv-qel-sa.rc|LOCAL_SRC_FILES := sa/zv-qel-sa.init|' "$scratch/Android.mk"
expect_failure "an Android.mk prebuilt whose file is missing" "zv-qel-sa.init.*does not exist" check_mk "$scratch" "$work/build"

for bad in "$top"/checks/rc-testdata/*.rc; do
    [ "$(basename "$bad")" = good.rc ] && continue
    expect_failure "rc file $(basename "$bad")" "rc-testdata/" python3 "$top/checks/rc_check.py" --install-path /system/bin/zv-qel-sa "$bad"
done
python3 "$top/checks/rc_check.py" --install-path /system/bin/zv-qel-sa "$top/checks/rc-testdata/good.rc"
say "self-test: every deliberate fault was caught, the good rc file passes"
