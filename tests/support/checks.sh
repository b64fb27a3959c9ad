# shellcheck shell=bash
# What the tests in the shell share; their arguments are SOURCE_DIR BUILD_DIR. What the commands write goes into $work.

source=$1 build=$2
work=$(mktemp -d)
# shellcheck source=scripts/service-functions
. "$source/scripts/service-functions"
trap 'stop_all; rm -rf "$work"' EXIT
trap 'echo "failed: $BASH_COMMAND" >&2' ERR

check() { # check WHAT EXPECTED ACTUAL
    [ "$2" = "$3" ] || { printf 'FAILED: %s\nexpected: %s\nactual:   %s\n' "$1" "$2" "$3" >&2; exit 1; }
}
check_rows() { # lines of WHAT|EXPECTED|COMMAND, whose output's lines are joined
    local what expected command
    while IFS='|' read -r what expected command; do
        check "$what" "$expected" "$(eval "$command" 2>&1 | tr -d '\n')"
    done
}
status_of() { # runs a command, prints its exit status; what it writes is in $work/out and $work/err
    local status=0
    "$@" >"$work/out" 2>"$work/err" </dev/null || status=$?
    echo "$status"
}
