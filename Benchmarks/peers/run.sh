#!/usr/bin/env bash
# Our row beside the transparent redirectors and SOCKS5 servers, in one run of
# the shared peer harness (it builds its own namespaces and removes them).
# Usage: Benchmarks/peers/run.sh [carried|declined] [harness env, e.g. RUNS=3]
#   carried:  the harness's clients (iperf3, connbench) go through its SOCKS5
#             upstream; the upstream's own connections go direct.
#   declined: every connection is decided at its first packet and goes direct.
# Needs root and the harness's peers (apt-get install iperf3 redsocks socat
# proxychains4 libproxychains4 haproxy nginx-light iptables).
set -euo pipefail
here=$(cd "$(dirname "$0")/../.." && pwd)
mode=${1:-carried}
shift || true
harness=$here/../shared/bench/peer-baseline.sh
[ -f "$harness" ] || { echo "no harness at $harness" >&2; exit 2; }
VELTRANE_TARGETS="veltrane veltrane-extension" "$here/scripts/build" "$here/build" \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_COMPILER=g++-12 >/dev/null
profile=$(mktemp /tmp/veltrane-peer-profile.XXXXXX.json)
trap 'rm -f "$profile"' EXIT
case $mode in
carried) apps='["iperf3", "connbench"]' ;;
declined) apps='["nothing-here"]' ;;
*) echo "mode is carried or declined, not $mode" >&2; exit 2 ;;
esac
cat >"$profile" <<JSON
{ "schemaVersion": 1, "id": "B3E0C0DE-0000-4000-8000-000000000001", "name": "Peer bench",
  "proxies": [{ "id": "B3E0C0DE-0000-4000-8000-000000000010", "name": "Harness upstream",
                "address": "127.0.0.1", "port": 1080, "proto": "socks5" }],
  "chains": [],
  "rules": [{ "id": "B3E0C0DE-0000-4000-8000-000000000100", "name": "Bench clients",
              "enabled": true, "apps": $apps, "hosts": [], "ports": [], "transport": "tcp",
              "action": { "kind": "proxy", "id": "B3E0C0DE-0000-4000-8000-000000000010" },
              "quicPolicy": "fallback", "locked": false, "tags": [] }],
  "dns": { "resolveViaProxy": false, "exclusions": [] },
  "general": { "loopDetection": true, "failsafeOnCrash": true },
  "environments": [] }
JSON
chmod 644 "$profile"
# The harness's servers sit on addresses of the namespace's own lo: the run
# decides ours (10.77.1.N for listener port 12335+N) and no other row's.
# The upstream runs as uid 65533; as the harness asks, its own connections
# are exempt (--exempt-user) rather than decided one by one.
export EXTRA_TPEER="veltrane-$mode|$here/build/Apps/veltrane/veltrane run --profile $profile --listen-port {LPORT} --include-local 10.77.1.\$(({LPORT}-12335)) --exempt-user 65533|norule"
export ONLY=${ONLY:-"^(direct-nat|redsocks|redsocks-splice|splicesocks|veltrane-$mode)\$"}
cd "$here/../shared/bench"
for setting in "$@"; do export "${setting?}"; done
bash "$harness"
