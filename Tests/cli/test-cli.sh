#!/usr/bin/env bash
# The command as users run it: verdicts on the bundled profile, the JSON form,
# and the one-line refusal of a profile that does not read.
set -u
veltrane=$1
root=$2
profile=$root/examples/default-profile.json
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
# shellcheck source=../e2e/check.sh
. "$(dirname "$0")/../e2e/check.sh"

expect "socks route" 0 "route: proxy Local SOCKS (127.0.0.1:1080 socks5)" \
    "$veltrane" test-route --profile "$profile" --app curl --host example.com --port 443
expect "trace names the skipped guard" 0 "跳过「Localhost」：目标主机不匹配（example.com）" \
    "$veltrane" test-route --profile "$profile" --app curl --host example.com --port 443
expect "chain route" 0 "proxy Local SOCKS (127.0.0.1:1080 socks5) → Office HTTP (proxy.office.example:3128 http)" \
    "$veltrane" test-route --profile "$profile" --app anything --host 10.20.3.4 --port 80
expect "udp skips tcp rule" 0 "传输层不匹配（规则限 tcp）" \
    "$veltrane" test-route --profile "$profile" --app curl --host example.com --port 443 --udp
expect "interface route" 0 "route: interface tun0" \
    "$veltrane" test-route --profile "$profile" --app git --host repo.corp.example --port 22
expect "block" 0 "route: block" \
    "$veltrane" test-route --profile "$profile" --app x --host a.tracker.example --port 443
expect "json" 0 '"action":"direct","matchedRule":"Default","trace":[' \
    "$veltrane" test-route --profile "$profile" --app nobody --host example.org --port 80 --json

sed 's/"tags": \["web"\]/"tagz": []/' "$profile" >"$tmp/broken.json"
expect "broken profile names key" 2 "tags" \
    "$veltrane" test-route --profile "$tmp/broken.json" --app a --host b --port 1
expect "broken profile names file" 2 "$tmp/broken.json" \
    "$veltrane" test-route --profile "$tmp/broken.json" --app a --host b --port 1
expect "missing file" 2 "$tmp/none.json" \
    "$veltrane" test-route --profile "$tmp/none.json" --app a --host b --port 1
printf 'not json' >"$tmp/garbage.json"
expect "not json" 2 "garbage.json" \
    "$veltrane" test-route --profile "$tmp/garbage.json" --app a --host b --port 1
expect "dns table that does not read" 2 "garbage.json is no fake-address table" \
    "$veltrane" dns --file "$tmp/garbage.json"
expect "dns with nothing running" 0 "mode      off" env XDG_RUNTIME_DIR="$tmp" "$veltrane" dns

# MCP registration in a scratch home where only Claude Code is present, and
# the server answering without a running service.
home=$tmp/home
mkdir -p "$home/.claude"
inhome() { env HOME="$home" XDG_CONFIG_HOME= XDG_RUNTIME_DIR="$tmp" "$veltrane" "$@"; }
expect "mcp list" 0 '"detected":true,"displayName":"Claude Code","id":"claude-code","installed":false' \
    inhome mcp list --json
expect "mcp install" 0 "Claude Code: installed in $home/.claude.json" inhome mcp install
grep -q '"args": \[' "$home/.claude.json" && grep -q '"command": "veltrane"' "$home/.claude.json" ||
    { echo "FAIL mcp install wrote:"; cat "$home/.claude.json"; failures=$((failures + 1)); }
expect "mcp list installed" 0 '"id":"claude-code","installed":true' inhome mcp list --json
expect "mcp unknown client" 2 "unknown client" inhome mcp install --client nope
expect "mcp uninstall" 0 "Claude Code: removed from" inhome mcp uninstall
! grep -q '"veltrane"' "$home/.claude.json" ||
    { echo "FAIL mcp uninstall left:"; cat "$home/.claude.json"; failures=$((failures + 1)); }
expect "mcp serve" 0 '"protocolVersion":"2025-06-18"' sh -c \
    "echo '{\"jsonrpc\":\"2.0\",\"id\":1,\"method\":\"initialize\",\"params\":{\"protocolVersion\":\"2025-06-18\"}}' |
     XDG_RUNTIME_DIR='$tmp' '$veltrane' mcp serve"
expect "scan --add without service" 1 "not running" inhome scan proxies --add
tunnels=$("$veltrane" scan tunnels --json)
[[ $tunnels == \[*\] ]] || { echo "FAIL scan tunnels --json: $tunnels"; failures=$((failures + 1)); }

finish
