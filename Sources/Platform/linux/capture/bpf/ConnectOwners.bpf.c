// Remembers which process made each outgoing socket's connect() or sendmsg(),
// keyed by the socket's cookie, so that the host names the owner of a new
// connection exactly, without reading /proc, even when the process is gone a
// moment later. It only observes: every call is allowed as it stands.
#include <linux/bpf.h>
#include <bpf/bpf_helpers.h>

char LICENSE[] SEC("license") = "GPL";

// Set before loading: only sockets of the host's own network namespace are
// remembered (0: all of them).
const volatile __u64 netns_cookie = 0;

struct {
    __uint(type, BPF_MAP_TYPE_LRU_HASH);
    __uint(max_entries, 65536);
    __type(key, __u64);   // socket cookie
    __type(value, __u32); // process id (thread group id)
} owners SEC(".maps");

static __always_inline void remember(struct bpf_sock_addr* ctx) {
    if (netns_cookie != 0 && bpf_get_netns_cookie(ctx) != netns_cookie) {
        return;
    }
    __u64 cookie = bpf_get_socket_cookie(ctx);
    __u32 pid = bpf_get_current_pid_tgid() >> 32;
    // A datagram socket without a peer passes here on every send: write
    // only when the sender changed.
    __u32* known = bpf_map_lookup_elem(&owners, &cookie);
    if (known && *known == pid) {
        return;
    }
    bpf_map_update_elem(&owners, &cookie, &pid, BPF_ANY);
}

SEC("cgroup/connect4")
int connect4(struct bpf_sock_addr* ctx) {
    remember(ctx);
    return 1;
}

SEC("cgroup/connect6")
int connect6(struct bpf_sock_addr* ctx) {
    remember(ctx);
    return 1;
}

SEC("cgroup/sendmsg4")
int sendmsg4(struct bpf_sock_addr* ctx) {
    remember(ctx);
    return 1;
}

SEC("cgroup/sendmsg6")
int sendmsg6(struct bpf_sock_addr* ctx) {
    remember(ctx);
    return 1;
}
