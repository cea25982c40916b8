# Sourced by the shell tests: one line per check, failures counted, and the
# script's status from the count.
# shellcheck shell=bash
failures=0
check() { # name, command...: passes when the command succeeds
    local name=$1
    shift
    if "$@"; then
        echo "ok   $name"
    else
        echo "FAIL $name"
        failures=$((failures + 1))
    fi
}

expect() { # name, expected exit status, expected substring, command...
    local name=$1 status=$2 needle=$3
    shift 3
    local out rc
    out=$("$@" 2>&1)
    rc=$?
    if [ "$rc" != "$status" ] || [[ "$out" != *"$needle"* ]]; then
        echo "FAIL $name: status $rc (want $status), output:"
        echo "$out"
        failures=$((failures + 1))
    else
        echo "ok   $name"
    fi
}

# A script's last command, so that its status is the script's: whether
# every check passed.
finish() {
    [ "$failures" -eq 0 ] && return 0
    echo "$failures failure(s)"
    return 1
}
