# A two-namespace lab for trying the capture host without touching the
# machine's own network: a client namespace (where `veltrane run --netns`
# captures) joined by a veth pair to a server namespace holding an HTTP
# origin and a SOCKS5 proxy. Documentation addresses only (192.0.2.0/24,
# 2001:db8::/64). Source it, then: lab_up; ...; lab_down (also on exit).
#
# In both namespaces "origin.example" names the origin (its own hosts
# file, /etc/netns/<name>/hosts, which `ip netns exec` mounts over /etc/hosts).

lab_id=${LAB_ID:-$$}
lab_client=vt-lab-c$lab_id
lab_server=vt-lab-s$lab_id
lab_dir=$(mktemp -d /tmp/vt-lab-XXXXXX)
lab_pids=()
# The lab's runs keep their profile store to themselves, not the machine's.
export VELTRANE_STORE_DIR=$lab_dir/store

lab_in() { ip netns exec "$lab_client" "$@"; }
lab_srv() { ip netns exec "$lab_server" "$@"; }

lab_up() {
    ip netns add "$lab_client"
    ip netns add "$lab_server"
    ip link add vtc"$lab_id" netns "$lab_client" type veth peer name vts"$lab_id" netns "$lab_server"
    lab_in ip link set lo up
    lab_srv ip link set lo up
    lab_in ip addr add 192.0.2.1/24 dev vtc"$lab_id"
    lab_in ip addr add 2001:db8::1/64 dev vtc"$lab_id" nodad
    lab_srv ip addr add 192.0.2.2/24 dev vts"$lab_id"
    lab_srv ip addr add 2001:db8::2/64 dev vts"$lab_id" nodad
    lab_in ip link set vtc"$lab_id" up
    lab_srv ip link set vts"$lab_id" up
    mkdir -p /etc/netns/"$lab_client"
    mkdir -p /etc/netns/"$lab_server"
    printf '127.0.0.1 localhost\n192.0.2.2 origin.example\n' >/etc/netns/"$lab_client"/hosts
    # The proxy resolves the names it is asked for in its own namespace.
    cp /etc/netns/"$lab_client"/hosts /etc/netns/"$lab_server"/hosts
    mkdir -p "$lab_dir/www"
    echo "hello from the origin" >"$lab_dir/www/index.html"
    # The origin logs every request with the client's address.
    lab_srv python3 -m http.server 80 --bind 0.0.0.0 --directory "$lab_dir/www" \
        >"$lab_dir/origin.log" 2>&1 &
    lab_pids+=($!)
    lab_srv microsocks -i 192.0.2.2 -p 1080 >"$lab_dir/socks.log" 2>&1 &
    lab_pids+=($!)
    lab_wait_port "$lab_server" 80 && lab_wait_port "$lab_server" 1080
}

# A second link between the namespaces (198.51.100.1 in the client, .2 in
# the server), for flows pinned to an interface; its client end is $pin.
lab_pin_link() {
    pin=vtp$lab_id
    ip link add "$pin" netns "$lab_client" type veth peer name vtq"$lab_id" netns "$lab_server"
    lab_in ip addr add 198.51.100.1/24 dev "$pin"
    lab_in ip link set "$pin" up
    lab_srv ip addr add 198.51.100.2/24 dev vtq"$lab_id"
    lab_srv ip link set vtq"$lab_id" up
}

# Waits (5 s at most) until something listens on the TCP port in the namespace.
lab_wait_port() {
    local ns=$1 port=$2 i
    for i in $(seq 100); do
        ip netns exec "$ns" ss -ltnH "sport = :$port" | grep -q . && return 0
        sleep 0.05
    done
    echo "nothing listens on port $port in $ns" >&2
    return 1
}

lab_down() {
    local pid ns
    # Everything still running in the lab goes, whoever started it.
    for ns in "$lab_client" "$lab_server"; do
        ip netns pids "$ns" 2>/dev/null | xargs -r kill 2>/dev/null || true
    done
    for pid in "${lab_pids[@]}"; do
        wait "$pid" 2>/dev/null || true
    done
    lab_pids=()
    ip netns del "$lab_client" 2>/dev/null || true
    ip netns del "$lab_server" 2>/dev/null || true
    rm -rf /etc/netns/"$lab_client" /etc/netns/"$lab_server" "$lab_dir"
}
