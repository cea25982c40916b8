#!/usr/bin/env bash
# `veltrane mcp serve` driven by a client nobody here wrote: the official MCP
# TypeScript SDK's stdio client (an npm test peer installed by the
# bootstrap), against a running `veltrane run --netns` in namespaces made
# and removed here. Usage: mcp.sh VELTRANE SOURCE_DIR
set -u
veltrane=$1
root=$2
# shellcheck source=lab-run.sh
. "$root/Tests/e2e/lab-run.sh"
peer=$root/Tests/e2e/mcp-client
if [ ! -d "$peer/node_modules/@modelcontextprotocol/sdk" ]; then
    echo "FAIL the MCP SDK is not installed in $peer (run scripts/bootstrap)"
    exit 1
fi
show_failure() { cat "$run_log" "$lab_dir"/mcp-*.out; }

drive() { # name, steps (JSON): the client's lines in $lab_dir/mcp-NAME.out
    node "$peer/drive.mjs" "$veltrane" "$2" >"$lab_dir/mcp-$1.out" 2>>"$lab_dir/mcp-$1.err"
}
step() { # name, step, error (true|false), text: a line of that step says so
    python3 - "$lab_dir/mcp-$1.out" "$2" "$3" "$4" <<'PY'
import json, sys
path, step, error, needle = sys.argv[1:]
lines = [json.loads(line) for line in open(path) if line.strip()]
sys.exit(0 if any(l["step"] == step and str(l["error"]).lower() == error and needle in l["text"]
                  for l in lines) else 1)
PY
}

lab_up || exit 1
"$veltrane" profile create Lab >/dev/null
"$veltrane" proxy add --name S --address 192.0.2.2 --port 1080 --proto socks5 >/dev/null
start_run || exit 1

drive served '[["tools"], ["call", "get_status"], ["call", "set_route", {"app": "curl", "target": "proxy:S"}],
               ["call", "test_route", {"app": "curl", "host": "origin.example", "port": 80}]]'
check "the SDK client initialises" step served initialize false veltrane
check "and lists the changing tools" step served tools false set_route
check "the status names the active profile" step served get_status false Lab
check "a route is set" step served set_route false 'routed "curl" to proxy:S'
check "and tested, with its trace" step served test_route false "命中「App: curl」"
lab_in curl -sS --max-time 5 http://origin.example/ >/dev/null 2>&1
check "the next connection follows it" origin_saw 192.0.2.2
drive connections '[["call", "query_connections", {"app": "curl"}]]'
check "connections are read back" step connections query_connections false '"ruleName": "App: curl"'
stop_run

start_run --automation-read-only || exit 1
drive readonly '[["tools"], ["call", "set_route", {"app": "wget", "target": "block"}]]'
check "read-only: the changing tools are not listed" \
    bash -c "! grep -q 'set_route' <(grep '\"step\":\"tools\"' '$lab_dir/mcp-readonly.out')"
check "and a changing call is a tool error" step readonly set_route true ""
check "that changed nothing" bash -c "! '$veltrane' rule list --json | grep -q 'App: wget'"
stop_run

# Not JSON, then a ping: an error answer, and the server is still there.
printf '%s\n' 'garbage{' '{"jsonrpc":"2.0","id":7,"method":"ping"}' '{"jsonrpc":"2.0","id":8,"method":"nope"}' |
    timeout 10 "$veltrane" mcp serve >"$lab_dir/raw.out" 2>/dev/null
check "malformed JSON gets a parse error" grep -q '"code":-32700' "$lab_dir/raw.out"
check "and the server answers the next request" grep -q '"id":7,"jsonrpc":"2.0","result":{}' "$lab_dir/raw.out"
check "an unknown method is named as such" grep -q '"code":-32601' "$lab_dir/raw.out"

finish
