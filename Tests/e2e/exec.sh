#!/usr/bin/env bash
# `veltrane exec` and `veltrane doctor` end to end, in namespaces made and
# removed here: a command run under a name is routed by that name (a static
# binary too) while the same program run plainly is not; its exit status
# comes back; doctor's lines follow the running system and a table another
# program added.
# Usage: exec.sh VELTRANE SOURCE_DIR
set -u
veltrane=$1
root=$2
# shellcheck source=lab-run.sh
. "$root/Tests/e2e/lab-run.sh"
show_failure() { cat "$run_log" "$lab_dir"/*.out 2>/dev/null; }

status_is() { test "$status" -eq "$1"; }
# Scopes left behind in the cgroup tree by any exec of this run.
no_scope_left() {
    local mount
    mount=$(findmnt -n -t cgroup2 -o TARGET | head -n 1)
    [ -z "$(find "$mount" -maxdepth 4 -type d -name "app-veltrane-*" 2>/dev/null)" ]
}

lab_up || exit 1
lab_in ip route add default via 192.0.2.2

"$veltrane" exec -- true >"$lab_dir/none.out" 2>&1
status=$?
check "without a running system exec exits 2" status_is 2
# shellcheck disable=SC2016 # the backquotes are the message's own
check "saying so in one line" test "$(cat "$lab_dir/none.out")" = \
    'veltrane exec: no running system (start `veltrane run`)'
lab_in "$veltrane" doctor >"$lab_dir/doctor-none.out" 2>&1
status=$?
check "doctor fails without a running system" status_is 1
check "on its running-system line" grep -q "^FAIL running system: no automation service" \
    "$lab_dir/doctor-none.out"

"$veltrane" profile create Lab >/dev/null
"$veltrane" proxy add --name S --address 192.0.2.2 --port 1080 --proto socks5 >/dev/null
# shellcheck disable=SC2119 # no options: the store's profile
start_run || exit 1

lab_in "$veltrane" exec --as tool --via proxy:S -- curl -sS --max-time 5 http://origin.example/ \
    >"$lab_dir/exec.out" 2>&1
status=$?
check "curl under exec --as tool --via proxy:S succeeds" status_is 0
check "and reaches the origin through the proxy" origin_saw 192.0.2.2
lab_in curl -sS --max-time 5 http://origin.example/ >/dev/null 2>&1
check "while curl run plainly goes direct" origin_saw 192.0.2.1
lab_in "$veltrane" exec --as tool -- sh -c 'exit 7'
status=$?
check "the command's exit status comes back" status_is 7
lab_in "$veltrane" exec --as tool -- sh -c 'kill -TERM $$'
status=$?
check "a command ended by a signal gives 128+signal" status_is 143
# A statically linked client; the name's hyphen must survive the scope name.
# (busybox's own -T time-out crashes it in some builds: timeout(1) instead.)
lab_in timeout 10 "$veltrane" exec --as web-tool --via proxy:S -- busybox wget -qO- \
    http://origin.example/ >/dev/null 2>&1
status=$?
check "a static binary under exec succeeds" status_is 0
check "and is carried through the proxy" origin_saw 192.0.2.2
lab_in timeout 10 busybox wget -qO- http://origin.example/ >/dev/null 2>&1
check "while run plainly it goes direct" origin_saw 192.0.2.1
check "every scope is removed when its command ends" no_scope_left

lab_in "$veltrane" doctor >"$lab_dir/doctor-run.out" 2>&1
check "doctor sees the running system" grep -q "^ok   running system: " "$lab_dir/doctor-run.out"
check "and the extension" grep -q "^ok   extension: " "$lab_dir/doctor-run.out"
check "and reaches the profile's proxy" grep -q "^ok   proxy S: 192.0.2.2:1080" \
    "$lab_dir/doctor-run.out"
check "and no other table before ours" grep -q "^ok   other tables: " "$lab_dir/doctor-run.out"
check "and TPROXY, probed when the modules do not tell" grep -q "^ok   TPROXY: " \
    "$lab_dir/doctor-run.out"
lab_in nft add table inet other
lab_in nft add chain inet other early '{ type filter hook output priority -300; }'
lab_in "$veltrane" doctor --json >"$lab_dir/doctor-other.out" 2>&1
check "a table hooking output earlier is named" python3 -c '
import json, sys
lines = {c["check"]: c for c in json.load(open(sys.argv[1]))}
other = lines["other tables"]
assert other["status"] == "warn" and "table inet other: chain early" in other["detail"], other
assert lines["running system"]["status"] == "ok"
' "$lab_dir/doctor-other.out"

finish
