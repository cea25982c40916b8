# Sourced by the end-to-end scripts that drive `veltrane run --netns` in the
# lab of scripts/lib/netns-lab.sh, once $veltrane and $root are set: skips
# (77) without root, keeps the runs' sockets to the lab, and on exit ends the
# run still going, shows what failed and takes the lab down.
# shellcheck shell=bash
: "${veltrane:?}" "${root:?}"
if [ "$(id -u)" -ne 0 ]; then
    echo "skipped: needs root for network namespaces"
    exit 77
fi
# shellcheck source=../../scripts/lib/netns-lab.sh
. "$root/scripts/lib/netns-lab.sh"
# shellcheck source=check.sh
. "$root/Tests/e2e/check.sh"
# As root the runtime directory would be the machine's own: the lab's runs
# keep their sockets and fake-address table beside the lab's store instead.
export XDG_RUNTIME_DIR=$lab_dir/run
mkdir -m 0700 "$XDG_RUNTIME_DIR"

# Every run of the script appends to one log; $run_from is where the
# current run's part begins, so that a restart awaits its own lines.
run_log=$lab_dir/run.log
run_from=0
run_pid=
# What ends a run still going at exit: TERM lets it take its tables down,
# a script may choose KILL.
exit_signal=TERM

# Shown on exit when a check failed; a script may show more by redefining it.
show_failure() {
    echo "--- veltrane run log"
    cat "$run_log" 2>/dev/null
}

lab_run_cleanup() {
    [ -n "$run_pid" ] && kill -s "$exit_signal" "$run_pid" 2>/dev/null && wait "$run_pid" 2>/dev/null
    [ "$failures" -eq 0 ] || show_failure
    lab_down
}
trap lab_run_cleanup EXIT

# Whether PATTERN is among the current run's lines.
run_said() { tail -c +$((run_from + 1)) "$run_log" 2>/dev/null | grep -q "$1"; }

# Until PATTERN shows among the current run's lines (5 s at most).
logged() {
    for _ in $(seq 100); do
        run_said "$1" && return 0
        sleep 0.05
    done
    return 1
}

# `veltrane run --netns` in the client namespace with the given options,
# until it captures and its automation service is on (10 s at most).
start_run() {
    run_from=$(stat -c %s "$run_log" 2>/dev/null || echo 0)
    "$veltrane" run --netns "$lab_client" "$@" >>"$run_log" 2>&1 &
    run_pid=$!
    for _ in $(seq 200); do
        run_said "capture running" && run_said "automation service on" && return 0
        kill -0 "$run_pid" 2>/dev/null || break
        sleep 0.05
    done
    echo "veltrane run did not come up:"
    tail -c +$((run_from + 1)) "$run_log"
    return 1
}

# Ends the run as users do, and waits for it.
stop_run() {
    kill "$run_pid" 2>/dev/null
    wait "$run_pid" 2>/dev/null
    run_pid=
}

# The origin's log line for the last request, by the client address it saw.
origin_saw() { tail -n 1 "$lab_dir/origin.log" | grep -q "^$1 "; }
