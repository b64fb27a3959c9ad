# shellcheck shell=bash
# What the tests in the shell share. The caller sets $work, a folder for what the commands write.

unset https_proxy HTTPS_PROXY all_proxy ALL_PROXY no_proxy NO_PROXY
trap 'echo "failed: $BASH_COMMAND" >&2' ERR

passed=0
check() { # check WHAT EXPECTED ACTUAL
    [ "$2" = "$3" ] || { printf 'FAILED: %s\nexpected: %s\nactual:   %s\n' "$1" "$2" "$3" >&2; exit 1; }
    passed=$((passed + 1))
}
status_of() { # runs a command, prints its exit status; what it writes is in $work/out and $work/err
    local status=0
    "$@" >"$work/out" 2>"$work/err" </dev/null || status=$?
    echo "$status"
}
