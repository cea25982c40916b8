#!/usr/bin/env bash
# Faults on every side of a carried flow, in namespaces made and removed here.
# After each, the application has seen an orderly end in time, the flow's
# events are one `open` and exactly one of `close`, `failed`, `blocked`; at
# the end nothing is active and the extension holds no more descriptors than
# before. Needs root; skips (77) without. Usage: faults.sh VELTRANE SOURCE_DIR
# FAULT_CROWD (default 2000) flows are held at once; FAULT_SOAK (default 2000)
# short flows run one after another.
set -u
veltrane=$1
root=$2
crowd=${FAULT_CROWD:-2000}
soak=${FAULT_SOAK:-2000}
# shellcheck source=lab-run.sh
. "$root/Tests/e2e/lab-run.sh"
# Thousands of flows leave a long log: its end tells.
show_failure() {
    echo "--- veltrane run log (last 40 lines)"
    tail -n 40 "$run_log"
}

# The soak is given longer: 2000 flows one by one take about 20 s under
# the sanitizers on a busy machine.
client() { timeout "${client_limit:-20}" ip netns exec "$lab_client" python3 "$root/Tests/e2e/fault-client.py" "$@"; }

# One open and exactly one ending (of phase $2, when given) among the events
# for port $1, within 15 s (an application that only finished sending gets a
# grace period).
events_complete() {
    for _ in $(seq 30); do
        events_of "$@" >/dev/null && return 0
        sleep 0.5
    done
    events_of "$@"
}
events_of() {
    "$veltrane" events --json 2>/dev/null | python3 -c '
import json, sys
port, want = int(sys.argv[1]), sys.argv[2:]
phases = [e["phase"] for e in json.load(sys.stdin) if e["port"] == port]
ends = [p for p in phases if p in ("close", "failed", "blocked")]
ok = phases.count("open") == 1 and len(ends) == 1 and ends[0] in (want or ends)
print("  events:", phases) if not ok else None
sys.exit(0 if ok else 1)' "$@"
}

active() { "$veltrane" stats --json 2>/dev/null | python3 -c '
import json, sys
print(json.load(sys.stdin)["activeConnections"])'; }

# Waits up to five seconds for nothing to be active.
settled() {
    for _ in $(seq 100); do
        [ "$(active)" = 0 ] && return 0
        sleep 0.05
    done
    echo "  active: $(active)"
    return 1
}

# Sockets only: empty pipes are kept for later flows, at most 256 pairs.
extension_fds() { find "/proc/$(pgrep -f -n veltrane-extension)/fd" -lname 'socket:*' | wc -l; }
extension_pipes() { find "/proc/$(pgrep -f -n veltrane-extension)/fd" -lname 'pipe:*' | wc -l; }
extension_rss() { awk '/^VmRSS/ {print $2}' "/proc/$(pgrep -f -n veltrane-extension)/status"; }

lab_up || exit 1
# A second link to the server, for a flow pinned to it.
lab_pin_link
lab_srv python3 "$root/Tests/e2e/fault-peers.py" 192.0.2.2 >"$lab_dir/peers.log" 2>&1 &
lab_pids+=($!)
lab_wait_port "$lab_server" 8008 || exit 1

python3 - "$pin" >"$lab_dir/profile.json" <<'EOF'
import json, sys
proxies = {name: {"id": f"F0000000-0000-4000-8000-0000000010{i:02d}", "name": name,
                  "address": "192.0.2.2", "port": port, "proto": "socks5"}
           for i, (name, port) in enumerate([("refusing", 1099), ("dying", 1091),
                                            ("stalling", 1092), ("resetting", 1093),
                                            ("faithful", 1094), ("microsocks", 1080)])}
routes = {8001: "refusing", 8002: "dying", 8003: "stalling", 8004: "resetting",
          8005: "faithful", 8006: "faithful", 8007: "faithful", 8008: "microsocks"}
rules = [{"id": f"F0000000-0000-4000-8000-00000000{port:04d}", "name": f"port {port}",
          "enabled": True, "apps": ["python*"], "hosts": [], "ports": [str(port)],
          "transport": "tcp", "action": {"kind": "proxy", "id": proxies[name]["id"]},
          "quicPolicy": "fallback", "locked": False, "tags": []}
         for port, name in routes.items()]
rules.append(dict(rules[0], id="F0000000-0000-4000-8000-000000008009", name="pinned",
                  ports=["8009"], action={"kind": "interface", "name": sys.argv[1]}))
print(json.dumps({"schemaVersion": 1, "id": "F0000000-0000-4000-8000-000000000001",
                  "name": "Faults", "proxies": list(proxies.values()), "chains": [],
                  "rules": rules, "dns": {"resolveViaProxy": False, "exclusions": []},
                  "general": {"loopDetection": True, "failsafeOnCrash": True},
                  "environments": []}))
EOF
start_run --profile "$lab_dir/profile.json" || exit 1
fds_before=$(extension_fds)

while read -r port mode name; do
    check "$name: the application sees an orderly end" client "$mode" 192.0.2.2 "$port"
    check "$name: one open, one ending" events_complete "$port"
done <<'EOF'
8001 request the proxy refuses
8002 request the proxy dies mid-handshake
8003 give-up the proxy stalls mid-handshake and the application gives up
8004 request the proxy resets mid-stream
8005 request the origin resets
8006 reset the application resets
8007 half-close the application half-closes and keeps reading
EOF
check "nothing is left active" settled

# The interface a flow is pinned to goes away under it: the flow fails then,
# rather than when TCP gives up a quarter of an hour later.
client held 192.0.2.2 8009 >"$lab_dir/held.out" 2>&1 &
held_pid=$!
for _ in $(seq 100); do
    grep -q held "$lab_dir/held.out" && break
    sleep 0.05
done
ip -n "$lab_client" link del "$pin"
check "interface removed: the application sees an orderly end" wait "$held_pid"
check "interface removed: one open, then failed" events_complete 8009 failed
check "nothing is left active" settled

check "$crowd flows at once through the proxy" client many 192.0.2.2 8008 "$crowd"
check "after the crowd nothing is left active" settled

# The profile swapped while a crowd is being carried: flows already carried
# keep going, and every one ends once.
client many 192.0.2.2 8008 500 >"$lab_dir/swap.out" 2>&1 &
crowd_pid=$!
sleep 0.3
check "a profile swap under load is taken" "$veltrane" reload --profile "$lab_dir/profile.json"
check "the flows under the swap all complete" wait "$crowd_pid"
tail -n 1 "$lab_dir/swap.out" | sed 's/^/     /'
check "after the swap nothing is left active" settled

rss_before=$(extension_rss)
client_limit=120 check "$soak short flows one after another" client soak 192.0.2.2 8007 "$soak"
check "after the soak nothing is left active" settled
rss_after=$(extension_rss)
echo "     resident memory ${rss_before} kB before the soak, ${rss_after} kB after"
# Under a sanitizer, freed memory waits in quarantine: there only the
# sanitizer's own leak check counts.
if [ -z "${ASAN_OPTIONS:-}${TSAN_OPTIONS:-}" ]; then
    check "resident memory stays flat over the soak" test $((rss_after - rss_before)) -lt 4096
fi
fds_after=$(extension_fds)
check "no socket left behind ($fds_before before, $fds_after after)" \
    test "$fds_after" -le $((fds_before + 2))
check "kept pipes stay within their bound ($(extension_pipes))" test "$(extension_pipes)" -le 520

finish
