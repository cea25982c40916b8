#!/usr/bin/env bash
# The capture host end to end, as users run it, inside namespaces made and
# removed here (see scripts/lib/netns-lab.sh). Needs root; skips (77) without.
# Usage: capture.sh VELTRANE SOURCE_DIR
set -u
veltrane=$1
root=$2
# shellcheck source=lab-run.sh
. "$root/Tests/e2e/lab-run.sh"
# A run left over by a failed check is killed outright.
exit_signal=KILL

fetch() { lab_in "$@" >/dev/null 2>"$lab_dir/client.err"; }
events() { "$veltrane" events --json 2>/dev/null; }

lab_up || exit 1
lab_srv python3 "$root/Tests/e2e/echo-server.py" 443 >/dev/null 2>&1 &
lab_pids+=($!)
lab_wait_port "$lab_server" 443 || exit 1
lab_srv python3 "$root/Tests/e2e/echo-server.py" 443 udp >/dev/null 2>&1 &
lab_pids+=($!)
cat >"$lab_dir/danted.conf" <<EOF
logoutput: stderr
internal: 192.0.2.2 port = 1081
external: 192.0.2.2
socksmethod: none
clientmethod: none
user.privileged: root
user.unprivileged: nobody
client pass { from: 0.0.0.0/0 to: 0.0.0.0/0 }
socks pass { from: 0.0.0.0/0 to: 0.0.0.0/0 command: connect udpassociate udpreply }
EOF
lab_srv /usr/sbin/danted -f "$lab_dir/danted.conf" -p "$lab_dir/danted.pid" -N 1 \
    >"$lab_dir/dante.log" 2>&1 &
lab_pids+=($!)
lab_wait_port "$lab_server" 1081 || exit 1
# An IPv6 origin, named in both namespaces, and a second link between them
# with an origin on port 8080 that tells which link a request came by.
echo "2001:db8::2 origin6.example" | tee -a /etc/netns/"$lab_client"/hosts >>/etc/netns/"$lab_server"/hosts
lab_srv python3 -m http.server 80 --bind 2001:db8::2 --directory "$lab_dir/www" \
    >"$lab_dir/origin6.log" 2>&1 &
lab_pids+=($!)
lab_pin_link
lab_srv python3 -m http.server 8080 --bind 0.0.0.0 --directory "$lab_dir/www" \
    >"$lab_dir/pinned.log" 2>&1 &
lab_pids+=($!)
lab_wait_port "$lab_server" 8080 || exit 1
# A copy of the interpreter under another name, for the QUIC refusal.
cp "$(readlink -f /usr/bin/python3)" "$lab_dir/vtquic"
# Python clients are carried like curl; whatever runs in the scope of the
# desktop app "vtlabapp" is refused.
python3 - "$root/examples/demo-profile.json" "$pin" >"$lab_dir/profile.json" <<'EOF'
import json, sys
profile = json.load(open(sys.argv[1]))
profile["rules"][1]["apps"] = ["curl", "python*"]
scoped = dict(profile["rules"][0], id="D3E0C0DE-0000-4000-8000-000000000102",
              name="Scoped app", ports=[], apps=["vtlabapp"])
profile["rules"].insert(0, scoped)
dante = dict(profile["proxies"][0], id="D3E0C0DE-0000-4000-8000-000000000011",
             name="Lab dante", port=1081)
profile["proxies"].append(dante)
quic = dict(profile["rules"][0], ports=[], transport="udp",
            action={"kind": "proxy", "id": dante["id"]})
profile["rules"][:0] = [
    dict(quic, id="D3E0C0DE-0000-4000-8000-000000000103", name="QUIC via dante",
         apps=["python*"], quicPolicy="proxy"),
    dict(quic, id="D3E0C0DE-0000-4000-8000-000000000104", name="QUIC refused",
         apps=["vtquic"], quicPolicy="fallback"),
]
profile["rules"].insert(0, dict(profile["rules"][0], id="D3E0C0DE-0000-4000-8000-000000000105",
                                name="Pinned", ports=["8080"], apps=[], transport="tcp",
                                action={"kind": "interface", "name": sys.argv[2]}))
print(json.dumps(profile))
EOF
profile=$lab_dir/profile.json
start_run --profile "$profile" || exit 1

fetch curl -sS --max-time 5 http://origin.example/
check "curl reaches the origin through the proxy" origin_saw 192.0.2.2
fetch wget -qO- --timeout=5 http://origin.example/
check "wget goes direct with its own address" origin_saw 192.0.2.1
check "the proxy was asked by name" grep -q "upstream 192.0.2.2:1080 for origin.example:80 (sni)" "$lab_dir/run.log"
check "events name curl as the application" grep -q '"app":"curl"' <(events)
check "events name wget as the application" grep -q '"app":"wget"' <(events)
check "owners are named by the connect hook" grep -q "owners by connect hook" "$lab_dir/run.log"

# Nothing listens on 192.0.2.3: only the sniffed name leads to the echo.
check "a 2 KB hello in two segments reaches the proxy by its name" \
    lab_in python3 "$root/Tests/e2e/split-hello.py" 192.0.2.3 443 origin.example

fetch curl -sS --max-time 5 http://origin6.example/
check "an IPv6 destination is carried by its name" \
    grep -q '^2001:db8::2 .*"GET / ' "$lab_dir/origin6.log"
fetch wget -qO- --timeout=5 http://192.0.2.2:8080/
check "a pinned flow leaves by its interface" grep -q '^198.51.100.1 ' "$lab_dir/pinned.log"

lab_in python3 "$root/Tests/e2e/udp-echo.py" 192.0.2.2 443 >"$lab_dir/udp.out" 2>&1
check "UDP/443 round trip through the SOCKS5 relay" grep -q "quic from 192.0.2.2" "$lab_dir/udp.out"
lab_in "$lab_dir/vtquic" "$root/Tests/e2e/udp-echo.py" 192.0.2.2 443 >/dev/null 2>&1
check "a fallback policy refuses QUIC" test $? -eq 2

# An application in a systemd-style scope is known by the scope's app id.
cgroup2=$(awk '$9 == "cgroup2" { print $5; exit }' /proc/self/mountinfo)
scope=$cgroup2/app-gnome-vtlabapp-$$.scope
if [ -n "$cgroup2" ] && mkdir "$scope" 2>/dev/null; then
    # Moved in before `ip netns exec`, which mounts a /sys of its own.
    (echo "$BASHPID" >"$scope/cgroup.procs" && exec ip netns exec "$lab_client" \
        curl -sS --max-time 5 http://origin.example/) >/dev/null 2>"$lab_dir/client.err"
    check "an app in a scope is known by its app id" grep -q '"bundleID":"vtlabapp"' <(events)
    check "and its rule applies" grep -q "Couldn't connect\|Connection refused" "$lab_dir/client.err"
    rmdir "$scope"
else
    echo "skip app scope: no writable cgroup2 hierarchy"
fi

started=$(date +%s%N)
fetch curl -sS --max-time 5 http://origin.example:9/
refused_ms=$((($(date +%s%N) - started) / 1000000))
check "a block rule refuses at connect()" grep -q "Connection refused\|Couldn't connect" "$lab_dir/client.err"
check "the refusal is immediate (${refused_ms} ms)" test "$refused_ms" -lt 2000

"$veltrane" run --netns "$lab_client" --profile "$profile" >"$lab_dir/second.log" 2>&1
check "a second instance is refused" grep -q "another instance" "$lab_dir/second.log"

# The host dies without a chance to clean up; the kernel removes its tables.
kill -9 "$(pgrep -P "$run_pid" -f veltrane-extension)"
wait "$run_pid" 2>/dev/null
run_pid=
check "kill -9 leaves no table behind" bash -c "! ip netns exec $lab_client nft list tables | grep -q ."
fetch curl -sS --max-time 5 http://origin.example/
check "after kill -9 curl goes direct" origin_saw 192.0.2.1

check "a restart works" start_run --profile "$profile"
fetch curl -sS --max-time 5 http://origin.example/
check "after the restart curl is carried again" origin_saw 192.0.2.2

# A long download keeps its route while a reload sends curl direct.
head -c 20000000 /dev/zero >"$lab_dir/www/big"
lab_in curl -sS --max-time 30 --limit-rate 10M -o "$lab_dir/big.out" http://origin.example/big &
download=$!
sed 's/"apps": \["curl", "python\*"\]/"apps": ["nobody"]/; s/"apps":\["curl","python\*"\]/"apps":["nobody"]/' "$profile" >"$lab_dir/direct.json"
check "reload is taken" "$veltrane" reload --profile "$lab_dir/direct.json"
check "the running download finishes" wait "$download"
check "the download is whole" test "$(stat -c %s "$lab_dir/big.out")" -eq 20000000
fetch curl -sS --max-time 5 http://origin.example/
check "the next connection follows the new rules" origin_saw 192.0.2.1
stop_run
check "a clean exit removes the tables" bash -c "! ip netns exec $lab_client nft list tables | grep -q ."

# Bad input.
"$veltrane" run --netns vt-no-such-namespace >"$lab_dir/bad.log" 2>&1
check "an unknown namespace is exit status 2" test $? -eq 2
check "an unknown namespace is said plainly" grep -q "no network namespace vt-no-such-namespace" "$lab_dir/bad.log"
printf '{"not": "a profile"' >"$lab_dir/broken.json"
check "a broken profile still runs" start_run --profile "$lab_dir/broken.json"
check "a broken profile is one clear line" grep -q "is not a JSON profile" "$lab_dir/run.log"
fetch curl -sS --max-time 5 http://origin.example/
check "without a profile everything goes direct" origin_saw 192.0.2.1
stop_run

# A namespace fresh from `ip netns add`, whose loopback is down.
bare=vt-bare-$lab_id
ip netns add "$bare"
"$veltrane" run --netns "$bare" >"$lab_dir/bare.log" 2>&1 &
bare_pid=$!
check "a fresh namespace is captured" bash -c \
    "for _ in \$(seq 100); do grep -q 'capture running' '$lab_dir/bare.log' && exit; sleep 0.05; done; exit 1"
check "once its loopback is brought up, as it says" \
    grep -q "loopback was down in $bare; brought it up" "$lab_dir/bare.log"
kill "$bare_pid"
wait "$bare_pid" 2>/dev/null
ip netns del "$bare"

finish
