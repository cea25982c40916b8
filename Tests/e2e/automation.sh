#!/usr/bin/env bash
# `veltrane run` as the store's host, end to end in namespaces made and
# removed here: changes made through the automation service reach the
# running extension at once, a read-only service refuses them, and a profile
# bound to a network is made active when the machine moves onto it.
# Usage: automation.sh VELTRANE SOURCE_DIR
set -u
veltrane=$1
root=$2
# shellcheck source=lab-run.sh
. "$root/Tests/e2e/lab-run.sh"

fetch() { lab_in curl -sS --max-time 5 http://origin.example/ >/dev/null 2>&1; }
# Fills the neighbour table for a gateway, with a client no rule names.
touch_gateway() { lab_in bash -c "exec 3<>/dev/tcp/$1/80" 2>/dev/null; }

lab_up || exit 1
lab_in ip route add default via 192.0.2.2
touch_gateway 192.0.2.2
# A second network to move to: another link with its own gateway.
ip link add vtb"$lab_id" netns "$lab_client" type veth peer name vtd"$lab_id" netns "$lab_server"
lab_srv ip addr add 198.51.100.2/24 dev vtd"$lab_id"
lab_srv ip link set vtd"$lab_id" up
lab_in ip link set vtb"$lab_id" up

# Made before any run: with nobody serving, the verbs work on the store.
# A new profile becomes the active one.
"$veltrane" profile create Away >/dev/null
"$veltrane" profile create Lab >/dev/null
"$veltrane" proxy add --name S --address 192.0.2.2 --port 1080 --proto socks5 >/dev/null

start_run || exit 1
check "the store's active profile is in effect" logged 'profile "Lab" from the store'
fetch
check "before any rule, curl goes direct" origin_saw 192.0.2.1
"$veltrane" route set curl proxy:S >/dev/null
check "the route set reaches the extension" logged 'profile "Lab" changed; in effect now'
fetch
check "and curl goes through the proxy at once" origin_saw 192.0.2.2

# A rule as a RuleDTO document: wget goes through the proxy too.
echo '{"name":"Wget via S","enabled":true,"apps":["wget"],"hosts":[],"ports":[],"action":"proxy:S","locked":false}' |
    "$veltrane" rule add --json-input - >/dev/null
"$veltrane" test-route --app wget --host origin.example --port 80 >"$lab_dir/trace.out"
check "the route test names the rule that matched" grep -q "命中「Wget via S」" "$lab_dir/trace.out"
lab_in wget -qO- --timeout=5 http://origin.example/ >/dev/null 2>&1
check "the next wget follows the new rule" origin_saw 192.0.2.2
"$veltrane" rule add --name Bad --app x --action teleport:now >"$lab_dir/bad.out" 2>&1
check "an unknown action is refused" test $? -ne 0
check "with the message on the action" grep -q "未知 action「teleport:now」" "$lab_dir/bad.out"

"$veltrane" profile switch Away >/dev/null
check "a switch by hand says why" logged 'switched to profile "Away": chosen through the automation service'
fetch
check "and the switched-to profile routes at once" origin_saw 192.0.2.1

# Lab is bound to the first network, Away is active: moving away and back
# makes Lab active again; nothing is bound to the second network.
"$veltrane" env bind Lab >/dev/null
lab_in ip addr add 198.51.100.1/24 dev vtb"$lab_id"
lab_in ip route replace default via 198.51.100.2
touch_gateway 198.51.100.2
lab_in ip addr add 198.51.100.9/32 dev vtb"$lab_id" # an address event: look again
sleep 0.5
check "a network bound to nothing leaves the profile alone" \
    bash -c "! grep -q 'switched to profile \"Lab\": the network' '$lab_dir/run.log'"
lab_in ip route replace default via 192.0.2.2
lab_in ip addr del 198.51.100.9/32 dev vtb"$lab_id"
check "back on the bound network, its profile is made active" \
    logged 'switched to profile "Lab": the network {"gatewayMAC"'
fetch
check "and routes curl through the proxy again" origin_saw 192.0.2.2
"$veltrane" profile create Spare >/dev/null
check "a profile created through the service becomes active" \
    logged 'switched to profile "Spare": chosen through the automation service'
stop_run

"$veltrane" run --netns "$lab_client" --listen-port 12399 --print-rules --json >"$lab_dir/printed.json"
check "printing the rules installs nothing" bash -c "! ip netns exec '$lab_client' nft list tables | grep -q ."
start_run --automation-read-only --listen-port 12399 || exit 1
lab_in nft -j list ruleset >"$lab_dir/installed.json"
# The same rules but for handles and the transparent UDP port, free at each start.
check "the printed rules are the ones run installs" python3 - "$lab_dir/printed.json" "$lab_dir/installed.json" <<'PY'
import json, re, sys
def rules(doc):
    text = json.dumps([e for e in doc["nftables"] if "metainfo" not in e], sort_keys=True)
    text = re.sub(r'"handle": \d+', '"handle": 0', text)
    return re.sub(r'"port": \d+', '"port": 0', text) if '"tproxy"' in text else text
printed = json.load(open(sys.argv[1]))
installed = {"nftables": json.load(open(sys.argv[2]))["nftables"]}
sys.exit(0 if rules(printed) == rules(installed) and '"NFQUEUE"' in rules(printed) else 1)
PY
"$veltrane" route set curl direct >"$lab_dir/ro.out" 2>&1
check "a read-only service refuses a change" test $? -eq 1
check "and says why" grep -q "read-only" "$lab_dir/ro.out"
"$veltrane" profile list --json >"$lab_dir/list.out"
check "but answers reads" grep -q '"name":"Lab"' "$lab_dir/list.out"
stop_run

# A run given a profile file keeps routing by it: changes to the store are
# saved, and said to be, but not handed to the extension.
"$veltrane" profile export Lab >"$lab_dir/pinned.json"
start_run --profile "$lab_dir/pinned.json" || exit 1
"$veltrane" route set curl direct >"$lab_dir/pinned.out" 2>&1
check "a run on a profile file does not take the store's change" \
    logged "this run routes by $lab_dir/pinned.json (--profile)"
check "and the verb says it is only saved" grep -q "(saved; the extension" "$lab_dir/pinned.out"
"$veltrane" test-route --app curl --host origin.example --port 80 >"$lab_dir/pinned-route.out"
check "a route test goes by the file too" grep -q "^route: proxy S" "$lab_dir/pinned-route.out"
fetch
check "so curl still goes by the file, through the proxy" origin_saw 192.0.2.2
"$veltrane" disable >/dev/null
check "disable turns redirection off" grep -q '"enabled":false' <("$veltrane" status --json)
fetch
check "and curl goes direct" origin_saw 192.0.2.1
"$veltrane" enable >/dev/null
check "enable turns it on, answering at once" grep -q "^redirection  on" <("$veltrane" status)
fetch
check "by the file again" origin_saw 192.0.2.2
# The store's Lab now sends curl direct; so does the file once read again.
"$veltrane" profile export Lab >"$lab_dir/pinned.json"
kill -HUP "$run_pid"
check "SIGHUP reads the file again" logged "$lab_dir/pinned.json read again; in effect now"
fetch
check "and curl goes by the edit" origin_saw 192.0.2.1
check "as the route test says" grep -q "^route: direct" \
    <("$veltrane" test-route --app curl --host origin.example --port 80)
stop_run

finish
