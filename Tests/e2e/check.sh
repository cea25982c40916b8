# Sourced by the end-to-end scripts: one line per check, failures counted.
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
