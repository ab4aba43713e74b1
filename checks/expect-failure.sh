# shellcheck shell=bash disable=SC2154
# Sourced by the checks' self-tests (checks/handset-check.sh, checks/sepolicy-check.sh); uses the caller's
# say() and $work.
# expect_failure WHAT PATTERN COMMAND...: COMMAND must fail, and its output (colour codes removed) must name
# the fault (PATTERN, an extended regular expression); otherwise the self-test ends with status 1.
expect_failure() {
    local what=$1 pattern=$2
    shift 2
    if "$@" >"$work/self-test.log" 2>&1; then
        say "self-test: $what was NOT caught"
        cat "$work/self-test.log"
        exit 1
    fi
    local line
    line=$(sed 's/\x1b\[[0-9;]*m//g' "$work/self-test.log" | grep -m1 -E "$pattern" || true)
    if [ -z "$line" ]; then
        say "self-test: $what failed, but not for that reason:"
        cat "$work/self-test.log"
        exit 1
    fi
    say "self-test: $what caught: $(echo "$line" | sed 's/^ *//' | cut -c1-160)"
}
