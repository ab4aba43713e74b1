#!/usr/bin/env bash
# The daemon's SELinux policy (sepolicy/) against the handset platform's own policy (see docs/platform.md):
#   compile   the platform policy plus sepolicy/ as a device tree's BOARD_SEPOLICY_DIRS, for user,
#             userdebug and eng, as the platform build does; every neverallow rule enforced; file_contexts
#             and property_contexts valid against the result; no permissive domain
#   coverage  the real daemon booted by the simulated handset's init from its own .rc and configuration,
#             driven through every request kind (checks/sepolicy-scenario.sh) under strace; every access
#             it and its children made, in SELinux terms, allowed by the compiled user policy or listed in
#             docs/platform.md as forbidden by the platform
#
# Usage: checks/sepolicy-check.sh [--self-test]
#   --self-test  also proves that each check fails for its own reason on a deliberate fault in a scratch
#                copy of sepolicy/
# Environment: ZV_SEPOLICY_PLATFORM (the platform's policy sources; default
# ../shared/platform/sepolicy-android-6.0.1 beside the checkout). Without them the check says so loudly and
# fails when CI is set. Work goes to build-handset-check/sepolicy/; the daemon is built into build/.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
work="$top/build-handset-check/sepolicy"
self_test=0
[ "${1:-}" = "--self-test" ] && self_test=1
py=/usr/bin/python3
export PYTHONDONTWRITEBYTECODE=1

say() { echo "sepolicy-check: $*"; }

if [ -z "${ZV_SEPOLICY_PLATFORM:-}" ]; then
    ZV_SEPOLICY_PLATFORM=$(cd "$top/.." && pwd)/shared/platform/sepolicy-android-6.0.1
fi
if [ ! -f "$ZV_SEPOLICY_PLATFORM/te_macros" ]; then
    say "WARNING: no platform policy sources at $ZV_SEPOLICY_PLATFORM (set ZV_SEPOLICY_PLATFORM):"
    say "WARNING: the SELinux policy was NOT compiled and its access coverage NOT checked"
    [ -n "${CI:-}" ] && exit 1
    exit 0
fi
for tool in m4 checkpolicy setfiles sefcontext_compile strace; do
    command -v "$tool" >/dev/null || { say "FAILED: $tool is missing (./dev.sh handset-check installs it)"; exit 1; }
done
$py -c 'import setools' 2>/dev/null || { say "FAILED: python3-setools is missing"; exit 1; }

mkdir -p "$work"
start=$(date +%s)

# compile SEPOLICY_DIR OUT [VARIANT...]
compile() {
    local dir=$1 out=$2
    shift 2
    rm -rf "$out"
    $py "$top/checks/sepolicy_build.py" "$ZV_SEPOLICY_PLATFORM" "$dir" "$out" "$@"
}

# The scenario, once: the daemon's system calls in the simulated handset.
run_scenario() {
    (cd "$top" && cmake -S . -B build -G Ninja >/dev/null &&
        cmake --build build -j2 --target zv-qel-sa zv-sa-client init setprop getprop sim-tools >"$work/build.log") || {
        cat "$work/build.log"
        say "FAILED: could not build the daemon for the simulated handset"
        return 1
    }
    rm -f "$work/trace.txt" "$work/snapshot.tsv"
    # The calls that carry an SELinux check (and what is needed to follow processes, descriptors and ids);
    # "?" marks the calls that 64-bit Arm and other newer architectures do not have.
    local calls="execve,clone,clone3,?fork,?vfork,?open,openat,?creat,?mkdir,mkdirat,?rmdir,?unlink,unlinkat"
    calls+=",?rename,renameat,renameat2,?symlink,symlinkat,?link,linkat,?chmod,fchmod,fchmodat,?chown,fchown"
    calls+=",fchownat,?lchown,?stat,?lstat,newfstatat,statx,?access,faccessat,faccessat2,statfs,?readlink"
    calls+=",readlinkat,socket,connect,write,sendto,kill,tgkill,tkill,setuid,setgid,setresuid,setresgid,setgroups"
    calls+=",ioctl,getdents64,chdir,fchdir,dup,?dup2,dup3,fcntl,close,truncate,ftruncate,utimensat,mount,syslog"
    calls+=",?pipe,pipe2,umask,flock"
    if ! strace -f -qq --pidns-translation -s 256 -x -e trace="$calls" -o "$work/trace.txt" \
        "$top/sim/zv-handset" run --build "$top/build" --init --rc "$top/sa/zv-qel-sa.rc" \
        --rc "$top/sa/testdata/service-control.rc" --file "$top/sa/zv-qel-sa.cfg" /system/etc/zv-qel-sa.cfg \
        -- /bin/bash "$top/checks/sepolicy-scenario.sh" "$work" >"$work/scenario.log" 2>&1; then
        cat "$work/scenario.log"
        say "FAILED: the coverage scenario did not run through"
        return 1
    fi
}

# coverage POLICY_OUT: the recorded run against each variant compiled there (the table: user's).
coverage() {
    local status=0 variant
    for variant in user userdebug eng; do
        [ -f "$1/$variant/sepolicy" ] || continue
        echo "== $variant"
        $py "$top/checks/sepolicy_coverage.py" --trace "$work/trace.txt" --policy-dir "$1/$variant" \
            --platform "$ZV_SEPOLICY_PLATFORM" --forbidden "$top/docs/platform.md" \
            --snapshot "$work/snapshot.tsv" --table "$work/coverage-table-$variant.md" || status=1
    done
    return $status
}

failed=0
compile "$top/sepolicy" "$work/policy" || { say "compile: FAILED"; failed=1; }
if [ $failed = 0 ]; then
    run_scenario || failed=1
fi
if [ $failed = 0 ]; then
    coverage "$work/policy" >"$work/coverage.log" || failed=1
    # The user build's table, then every variant's verdict.
    sed -n '/^== user$/,/^coverage:/p' "$work/coverage.log" | grep '^|' || true
    grep -v '^|' "$work/coverage.log" | sed 's/^/    /'
    say "the table of accesses: $work/coverage-table-user.md"
    [ $failed = 0 ] || say "coverage: FAILED"
fi
[ $failed = 0 ] || exit 1
say "compile and coverage checks passed ($(( $(date +%s) - start )) s)"

[ "$self_test" = 1 ] || exit 0

# Each check against a deliberate fault in a scratch copy of sepolicy/: every one must fail, for its reason.
scratch="$work/scratch"
fresh_copy() { rm -rf "$scratch" && cp -r "$top/sepolicy" "$scratch"; }
. "$top/checks/expect-failure.sh"

fresh_copy
echo 'allow zv_qel_sa system_data_file:file write;' >>"$scratch/zv_qel_sa.te"
expect_failure "a rule that breaks a platform neverallow" \
    'neverallow .* violated by allow zv_qel_sa system_data_file:file \{ write \}' \
    compile "$scratch" "$work/scratch-policy" user

fresh_copy
echo '/data/zv-qel-sa-extra       u:object_r:zv_qel_sa_no_such_file:s0' >>"$scratch/file_contexts"
expect_failure "a file_contexts line with an unknown type" 'file_contexts.*zv_qel_sa_no_such_file' \
    compile "$scratch" "$work/scratch-policy" user

fresh_copy
echo '/data/zv-qel-sa-(extra       u:object_r:zv_qel_sa_data_file:s0' >>"$scratch/file_contexts"
expect_failure "a file_contexts line with a bad regular expression" 'bad regular expression /data/zv-qel-sa-\(extra' \
    compile "$scratch" "$work/scratch-policy" user

fresh_copy
echo 'ril.zv.elog.state           u:object_r:radio_prop:s0' >>"$scratch/property_contexts"
expect_failure "a duplicate property_contexts entry" 'property_contexts: duplicate entry ril\.zv\.elog\.state' \
    compile "$scratch" "$work/scratch-policy" user

fresh_copy
echo 'permissive zv_qel_sa_shell;' >>"$scratch/zv_qel_sa_shell.te"
expect_failure "a permissive domain" 'permissive domain .*zv_qel_sa_shell|zv_qel_sa_shell is permissive' \
    compile "$scratch" "$work/scratch-policy" eng

fresh_copy
rule='allow zv_qel_sa zv_qel_sa_pty_link:lnk_file { create unlink read getattr };'
grep -qxF "$rule" "$scratch/zv_qel_sa.te" || { say "self-test: the rule to remove is not in zv_qel_sa.te"; exit 1; }
grep -vxF "$rule" "$scratch/zv_qel_sa.te" >"$scratch/te.new" && mv "$scratch/te.new" "$scratch/zv_qel_sa.te"
compile "$scratch" "$work/scratch-policy" user >/dev/null
expect_failure "the allow rule for the pty links removed" \
    'DENIED: zv_qel_sa zv_qel_sa_pty_link:lnk_file create \(/dev/ttySA0' coverage "$work/scratch-policy"
say "self-test: every deliberate fault was caught ($(( $(date +%s) - start )) s in all)"
