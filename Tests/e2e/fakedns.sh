#!/usr/bin/env bash
# Fake-address DNS end to end: `veltrane run --fake-dns` in the lab's client
# namespace, whose applications ask a local stub (dnsmasq on 127.0.0.1, no
# cache) that forwards to the lab's resolver (dnsmasq in the server
# namespace, serving the zone "test"). Needs root; skips (77) without.
# Usage: fakedns.sh VELTRANE SOURCE_DIR
set -u
veltrane=$1
root=$2
# shellcheck source=lab-run.sh
. "$root/Tests/e2e/lab-run.sh"
if [ ! -x /usr/sbin/dnsmasq ]; then
    echo "skipped: dnsmasq is not installed (scripts/bootstrap installs it)"
    exit 77
fi
# A run left over by a failed check is killed outright.
exit_signal=KILL

is_fake() { [[ $1 =~ ^198\.1[89]\. ]]; }
ask() { lab_in dig +short +time=2 +tries=1 "$@" 2>/dev/null | tr '\n' ' '; }

lab_up || exit 1
# A default route, as every machine has: fake addresses lie on no link.
lab_in ip route add default via 192.0.2.2
# The zone, on the lab's resolver; the proxy finds the names in its hosts file.
lab_srv ip addr add 192.0.2.53/24 dev vts"$lab_id"
lab_srv dnsmasq --keep-in-foreground --conf-file=/dev/null --no-resolv --no-hosts \
    --bind-interfaces --listen-address=192.0.2.2 --pid-file= --user=root \
    --address=/origin.test/192.0.2.2 --address=/six.test/2001:db8::2 \
    --address=/banner.test/192.0.2.2 --address=/plain.test/192.0.2.2 \
    --address=/excluded.test/192.0.2.2 >"$lab_dir/zone.log" 2>&1 &
lab_pids+=($!)
printf '192.0.2.2 origin.test banner.test plain.test\n' >>/etc/netns/"$lab_server"/hosts
echo "nameserver 192.0.2.2" >/etc/netns/"$lab_server"/resolv.conf
# A resolver that never answers.
lab_srv python3 -c '
import socket
s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
s.bind(("192.0.2.53", 53))
while True:
    s.recvfrom(4096)' &
lab_pids+=($!)
# A server that speaks first, as SSH does: its clients send no name at all.
lab_srv python3 -c '
import socket, sys
s = socket.socket()
s.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
s.bind(("0.0.0.0", 2222))
s.listen()
while True:
    c, peer = s.accept()
    c.sendall(b"SSH-2.0-lab\r\n")
    print(peer[0], flush=True)
    c.close()' >"$lab_dir/banner.log" 2>&1 &
lab_pids+=($!)
lab_wait_port "$lab_server" 2222 || exit 1
# The client's stub, as a desktop's systemd-resolved would be.
lab_in dnsmasq --keep-in-foreground --conf-file=/dev/null --no-resolv --no-hosts \
    --bind-interfaces --listen-address=127.0.0.1 --pid-file= --user=root --cache-size=0 \
    --server=192.0.2.2 >"$lab_dir/stub.log" 2>&1 &
lab_pids+=($!)
echo "nameserver 127.0.0.1" >/etc/netns/"$lab_client"/resolv.conf
for _ in $(seq 100); do
    [ -n "$(ask origin.test)" ] && break
    sleep 0.05
done

python3 - "$root/examples/demo-profile.json" >"$lab_dir/profile.json" <<'EOF'
import json, sys
profile = json.load(open(sys.argv[1]))
proxy = profile["proxies"][0]["id"]
template = profile["rules"][1]
def rule(n, hosts, action):
    return dict(template, id="D3E0C0DE-0000-4000-8000-00000000020%d" % n, name=hosts[0],
                apps=[], hosts=hosts, ports=[], action=action)
profile["rules"] = [rule(1, ["origin.test", "banner.test"], {"kind": "proxy", "id": proxy}),
                    rule(2, ["plain.test"], {"kind": "direct"})]
profile["dns"] = {"resolveViaProxy": True, "exclusions": ["excluded.test"]}
print(json.dumps(profile))
EOF
profile=$lab_dir/profile.json

# Without --fake-dns nothing about DNS changes, whatever the profile says.
plain_a=$(ask origin.test)
plain_aaaa=$(ask AAAA six.test)
start_run --profile "$profile" || exit 1
check "without --fake-dns an A answer is untouched" test "$(ask origin.test)" = "$plain_a"
check "without --fake-dns an AAAA answer is untouched" test "$(ask AAAA six.test)" = "$plain_aaaa"
check "without --fake-dns nothing is kept" test ! -e "$XDG_RUNTIME_DIR/veltrane/fake-dns.json"
stop_run

start_run --profile "$profile" --fake-dns || exit 1
check "the host says DNS is captured" grep -q "DNS captured" "$lab_dir/run.log"
fake=$(lab_in getent hosts origin.test | awk '{ print $1 }')
check "getent hosts through the stub gives a fake address ($fake)" is_fake "$fake"
check "dig through the stub gives the same one" test "$(ask origin.test)" = "$fake "
check "dig asking the resolver itself too" test "$(ask @192.0.2.2 origin.test)" = "$fake "
check "AAAA gets the real answer" test "$(ask AAAA six.test)" = "2001:db8::2 "
check "an excluded name gets the real answer" test "$(ask excluded.test)" = "192.0.2.2 "
started=$(date +%s)
lab_in dig +time=2 +tries=1 @192.0.2.53 AAAA origin.test >/dev/null 2>&1
check "a silent resolver leaves dig to its own time-out" test $(($(date +%s) - started)) -lt 5

lab_in curl -sS --max-time 5 http://origin.test/ >/dev/null 2>"$lab_dir/client.err"
check "curl by name reaches the origin through the proxy" origin_saw 192.0.2.2
check "the proxy is asked by name" grep -q "upstream 192.0.2.2:1080 for origin.test:80" "$lab_dir/run.log"
ssh_to() {
    lab_in timeout 10 ssh -v -p 2222 -o BatchMode=yes -o StrictHostKeyChecking=no \
        -o UserKnownHostsFile=/dev/null -o ConnectTimeout=5 "$1" true 2>"$lab_dir/ssh.err"
}
ssh_to banner.test
check "ssh is routed by the name's rule" \
    grep -q "upstream 192.0.2.2:1080 for banner.test:2222" "$lab_dir/run.log"
check "and the server's greeting reaches it" grep -q "remote software version lab" "$lab_dir/ssh.err"
lab_in curl -sS --max-time 5 http://plain.test/ >/dev/null 2>>"$lab_dir/client.err"
check "a direct rule reaches the real address" origin_saw 192.0.2.1
check "by name, not the fake address" grep -q "direct to plain.test:80 by name" "$lab_dir/run.log"
lab_in python3 "$root/Tests/e2e/udp-echo.py" origin.test 443 >/dev/null 2>&1
check "QUIC to a fake address is refused, so the client falls back" test $? -eq 2
"$veltrane" dns --json >"$lab_dir/dns.json"
check "veltrane dns shows the mode" grep -q '"mode": "answering"' "$lab_dir/dns.json"
check "veltrane dns shows the resolver" grep -q '"resolver": "192.0.2.2:53"' "$lab_dir/dns.json"
check "veltrane dns shows the mapping" grep -q '"host": "origin.test"' "$lab_dir/dns.json"
check "the table is private" test "$(stat -c %a "$XDG_RUNTIME_DIR/veltrane/fake-dns.json")" = 600

# A restart: an application that still holds an address from before.
banner_fake=$(ask banner.test)
stop_run
start_run --profile "$profile" --fake-dns || exit 1
ssh_to "${banner_fake% }"
check "after a restart an old fake address still reaches its name" \
    test "$(grep -c "upstream 192.0.2.2:1080 for banner.test:2222" "$lab_dir/run.log")" -eq 2
stop_run
check "veltrane dns says when nothing answers" bash -c "'$veltrane' dns | grep -q '^mode      off'"

finish
