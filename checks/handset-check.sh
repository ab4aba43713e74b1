#!/usr/bin/env bash
# Checks of the handset build that need no handset (see docs/platform.md):
#   link      the handset link kit (checks/handset-kit.sh, cached), then the daemon and the client tool
#             compiled with the project's warnings and -Werror and linked for real as Release programs for
#             aarch64-linux-android23, stripped into build-handset-check/build/prebuilt/ (what Android.mk
#             installs), DF_1_PIE cleared and each read as the API-23 loader would
#             (checks/handset_loader_check.py)
#   compile   without the kit (ZV_HANDSET_KIT=none): every source compiled for aarch64-linux-android23
#             against the handset C library's headers, nothing linked (in build-handset-check/build-compile)
#   bp        Android.bp: formatted (bpfmt -l), then analysed by the platform build system's own module
#             analyser, once with missing dependencies allowed and once strict with only platform modules
#             left undefined
#   mk        Android.mk converted by androidmk, then the same analysis against the linked programs as its
#             prebuilts (placeholders in the compile-only route)
#   rc        the init service file, read as API-23 init would read it
#
# Usage: checks/handset-check.sh [--self-test]
#   --self-test  also proves each check fails: a deliberate fault in a scratch copy of the tree for each,
#                and probe programs (checks/handset-faults/) that each break one rule of the loader
# Environment: ZV_HANDSET_SYSROOT (handset C library headers; default ../shared/platform/... beside the
# checkout); ZV_HANDSET_KIT: unset builds the kit into build-handset-check/kit (cached, see
# checks/handset-kit.sh), a folder uses the kit there, "none" takes the compile-only route. Work and the
# cached analyser go to build-handset-check/.
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
# The rest of the platform material beside the headers (symbol maps, crt sources, API levels), for the
# kit and the loader check.
ZV_HANDSET_PLATFORM=$(dirname "$ZV_HANDSET_SYSROOT")
export ZV_HANDSET_PLATFORM
platform=$ZV_HANDSET_PLATFORM
loader_check=(/usr/bin/python3 "$top/checks/handset_loader_check.py" --platform "$platform")

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

# The link kit: built (or taken from its cache) by checks/handset-kit.sh, unless ZV_HANDSET_KIT names one
# or is "none". Sets kit to its folder, or leaves it empty for the compile-only route.
kit=""
get_kit() {
    case "${ZV_HANDSET_KIT:-}" in
        none) return 0 ;;
        "") "$top/checks/handset-kit.sh" "$work/kit" || {
                say "the link kit could not be made (above); ZV_HANDSET_KIT=none takes the compile-only route"
                return 1
            }
            kit="$work/kit" ;;
        *) kit=$ZV_HANDSET_KIT ;;
    esac
    [ -f "$kit/handset.toolchain.cmake" ] || { say "no link kit at $kit"; return 1; }
}

# check_link SRC BUILD: the handset programs linked with the kit, stripped into BUILD/prebuilt, checked.
check_link() {
    local src=$1 build=$2
    if ! cmake -S "$src" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release \
        -DCMAKE_TOOLCHAIN_FILE="$kit/handset.toolchain.cmake" >"$build.configure.log" 2>&1; then
        cat "$build.configure.log"
        return 1
    fi
    cmake --build "$build" -j2 --target zv-qel-sa zv-sa-client || return 1
    mkdir -p "$build/prebuilt"
    llvm-strip-14 -o "$build/prebuilt/zv-qel-sa" "$build/sa/zv-qel-sa"
    llvm-strip-14 -o "$build/prebuilt/zv-sa-client" "$build/tools/zv-sa-client"
    "${loader_check[@]}" --clear-pie-flag "$build/prebuilt/zv-qel-sa" "$build/prebuilt/zv-sa-client"
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

check_mk() {  # SRC BUILD (the link's build, or the compile check's with its placeholder programs)
    local src=$1 build=$2 tree="$work/mk-tree"
    rm -rf "$tree" && mkdir -p "$tree/prebuilt" "$tree/sa"
    cp "$src/sa/zv-qel-sa.rc" "$tree/sa/"
    cp "$build/prebuilt/zv-qel-sa" "$build/prebuilt/zv-sa-client" "$tree/prebuilt/"
    androidmk "$src/Android.mk" >"$tree/Android.bp"
    analyse "$tree" mk
}

check_rc() {  # SRC
    python3 "$1/checks/rc_check.py" --install-path /system/bin/zv-qel-sa "$1/sa/zv-qel-sa.rc"
}

run_all() {  # SRC BUILD
    local src=$1 build=$2 failed=0
    mkdir -p "$build/prebuilt"
    if [ -n "$kit" ]; then
        check_link "$src" "$build" || { say "link: FAILED"; failed=1; }
    elif [ "$have_sysroot" = 1 ]; then
        say "WARNING: no link kit (ZV_HANDSET_KIT=none): compiled only, nothing linked or read as the loader would"
        check_compile "$src" "$build" || { say "compile: FAILED"; failed=1; }
        cp "$build/sa/zv-qel-sa" "$build/tools/zv-sa-client" "$build/prebuilt/" 2>/dev/null || true
    else
        say "WARNING: no handset C library headers at $ZV_HANDSET_SYSROOT (set ZV_HANDSET_SYSROOT):"
        say "WARNING: the compile check did NOT run; the other checks use placeholder programs"
        : >"$build/prebuilt/zv-qel-sa"
        : >"$build/prebuilt/zv-sa-client"
    fi
    build_analyser
    check_bp "$src" || { say "bp: FAILED"; failed=1; }
    if [ -f "$build/prebuilt/zv-qel-sa" ]; then
        check_mk "$src" "$build" || { say "mk: FAILED"; failed=1; }
    else
        say "mk: FAILED (no programs)"
        failed=1
    fi
    check_rc "$src" || { say "rc: FAILED"; failed=1; }
    return $failed
}

mkdir -p "$work"
start=$(date +%s)
if [ "$have_sysroot" = 1 ]; then
    get_kit
fi
# The two routes build apart: their toolchain files differ.
build="$work/build"
[ -n "$kit" ] || build="$work/build-compile"
run_all "$top" "$build"
if [ -n "$kit" ]; then
    say "link, loader, bp, mk and rc checks passed ($(( $(date +%s) - start )) s)"
    say "programs for Android.mk's prebuilt/: $build/prebuilt/zv-qel-sa, $build/prebuilt/zv-sa-client"
elif [ "$have_sysroot" = 1 ]; then
    say "compile, bp, mk and rc checks passed ($(( $(date +%s) - start )) s); NOT linked (no kit)"
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

# Probe programs that each break one rule of the API-23 loader (checks/handset-faults/); one breaks none.
if [ -n "$kit" ]; then
    faults="$work/faults"
    rm -rf "$faults"
    cmake -S "$top/checks/handset-faults" -B "$faults" -G Ninja -DCMAKE_BUILD_TYPE=Release \
        -DCMAKE_TOOLCHAIN_FILE="$kit/handset.toolchain.cmake" >"$faults.configure.log" 2>&1 ||
        { cat "$faults.configure.log"; say "self-test: the probe programs do not configure"; exit 1; }
    # probe NAME: builds the probe and reads it as the loader would.
    probe() { cmake --build "$faults" --target "$1" && "${loader_check[@]}" --clear-pie-flag "$faults/$1"; }
    probe good >"$work/self-test.log" 2>&1 || { cat "$work/self-test.log"; say "self-test: the good probe FAILED"; exit 1; }
    expect_failure "a call the C library gains at API 28, declared by hand" "undefined symbol: getentropy" probe late-call
    expect_failure "a C library variable copied into the program" "COPY relocation" probe copy-reloc
    expect_failure "a thread_local variable in ELF TLS" "PT_TLS" probe elf-tls
    expect_failure "a symbol of API 28 through a C library that has it" "getentropy@LIBC_P: arrives at API 28" probe later-api
    expect_failure "a symbol versioned LIBC_DEPRECATED" "version LIBC_DEPRECATED is not one" probe deprecated
    expect_failure "a library the handset does not have" "DT_NEEDED libzvextra.so" probe extra-library
    expect_failure "a run-time search path" "DT_RUNPATH /data/local/tmp/lib" probe rpath
    expect_failure "a program at a fixed address" "type ET_EXEC" probe fixed-address
    # The daemon as lld leaves it, before its DF_1_PIE is cleared.
    expect_failure "the flag DF_1_PIE left set" "DT_FLAGS_1=0x8000001" "${loader_check[@]}" "$build/sa/zv-qel-sa"
fi

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
expect_failure "an Android.mk prebuilt whose file is missing" "zv-qel-sa.init.*does not exist" check_mk "$scratch" "$build"

for bad in "$top"/checks/rc-testdata/*.rc; do
    [ "$(basename "$bad")" = good.rc ] && continue
    expect_failure "rc file $(basename "$bad")" "rc-testdata/" python3 "$top/checks/rc_check.py" --install-path /system/bin/zv-qel-sa "$bad"
done
python3 "$top/checks/rc_check.py" --install-path /system/bin/zv-qel-sa "$top/checks/rc-testdata/good.rc"
say "self-test: every deliberate fault was caught, the good rc file passes"
