#include "Platform/linux/capture/CaptureTables.hpp"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <libmnl/libmnl.h>
#include <libnftnl/chain.h>
#include <libnftnl/common.h>
#include <libnftnl/expr.h>
#include <libnftnl/rule.h>
#include <libnftnl/table.h>
#include <linux/fib_rules.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_conntrack_common.h>
#include <linux/netfilter/nf_conntrack_tuple_common.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/x_tables.h>
#include <linux/netfilter/xt_NFQUEUE.h>
#include <linux/rtnetlink.h>
#include <new>
#include <poll.h>
#include <span>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

namespace veltrane::platform::capture {

namespace {

using namespace std::chrono_literals;

// The kernel answers within the sendmsg() call; the deadline only guards
// against a reply that never comes.
constexpr auto answerDeadline = 5s;
constexpr std::uint32_t reg = NFT_REG_1;
// lo is interface 1 in every namespace.
constexpr std::uint32_t loopbackIndex = 1;
constexpr std::uint16_t quicPort = 443;
constexpr std::uint16_t dnsPort = 53;

std::string describe(int error) {
    return std::error_code(error, std::generic_category()).message();
}

struct Outcome {
    int error = 0;              // errno of the first failure; 0 when all were acknowledged
    std::uint32_t sequence = 0; // the message that failed
};

// Sends `bytes` and reads until the kernel has acknowledged every message in
// `expected`, or refused one. Answers to earlier exchanges that stopped at an
// error are still queued; their sequence numbers are not expected, so they
// are skipped.
Outcome exchange(mnl_socket* socket, std::span<const char> bytes,
                 std::vector<std::uint32_t> expected,
                 const std::function<void(const nlmsghdr&)>& onData = {}) {
    if (mnl_socket_sendto(socket, bytes.data(), bytes.size()) < 0) {
        return {errno, 0};
    }
    std::vector<char> buffer(MNL_SOCKET_BUFFER_SIZE);
    const auto until = std::chrono::steady_clock::now() + answerDeadline;
    while (!expected.empty()) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            until - std::chrono::steady_clock::now());
        pollfd ready{mnl_socket_get_fd(socket), POLLIN, 0};
        if (left.count() <= 0) {
            return {ETIMEDOUT, 0};
        }
        if (::poll(&ready, 1, static_cast<int>(left.count())) < 0 && errno != EINTR) {
            return {errno, 0};
        }
        ssize_t received = mnl_socket_recvfrom(socket, buffer.data(), buffer.size());
        if (received < 0) {
            if (errno == EAGAIN || errno == EINTR) {
                continue;
            }
            return {errno, 0};
        }
        int length = static_cast<int>(received);
        for (auto* header = reinterpret_cast<const nlmsghdr*>(buffer.data());
             mnl_nlmsg_ok(header, length); header = mnl_nlmsg_next(header, &length)) {
            auto waiting = std::find(expected.begin(), expected.end(), header->nlmsg_seq);
            if (waiting == expected.end()) {
                continue;
            }
            if (header->nlmsg_type != NLMSG_ERROR) {
                if (onData) {
                    onData(*header);
                }
                continue;
            }
            if (header->nlmsg_len < NLMSG_LENGTH(sizeof(nlmsgerr))) {
                return {EBADMSG, header->nlmsg_seq};
            }
            const auto* answer = static_cast<const nlmsgerr*>(mnl_nlmsg_get_payload(header));
            if (answer->error != 0) {
                return {-answer->error, header->nlmsg_seq};
            }
            expected.erase(waiting);
        }
    }
    return {};
}

template <auto Free>
struct Freed {
    template <class Object>
    void operator()(Object* object) const {
        Free(object);
    }
};
using TableObject = std::unique_ptr<nftnl_table, Freed<nftnl_table_free>>;
using ChainObject = std::unique_ptr<nftnl_chain, Freed<nftnl_chain_free>>;
using RuleObject = std::unique_ptr<nftnl_rule, Freed<nftnl_rule_free>>;

template <class Object>
Object allocated(typename Object::pointer pointer) {
    if (pointer == nullptr) {
        throw std::bad_alloc();
    }
    return Object(pointer);
}

TableObject tableNamed(const std::string& name) {
    auto table = allocated<TableObject>(nftnl_table_alloc());
    nftnl_table_set_str(table.get(), NFTNL_TABLE_NAME, name.c_str());
    nftnl_table_set_u32(table.get(), NFTNL_TABLE_FAMILY, NFPROTO_INET);
    return table;
}

// One rule, written the way it reads: matches, then what happens. Every
// step loads into the one register it then tests.
class Rule {
public:
    Rule(const std::string& table, const char* chain)
        : rule_(allocated<RuleObject>(nftnl_rule_alloc())) {
        nftnl_rule_set_str(rule_.get(), NFTNL_RULE_TABLE, table.c_str());
        nftnl_rule_set_str(rule_.get(), NFTNL_RULE_CHAIN, chain);
        nftnl_rule_set_u32(rule_.get(), NFTNL_RULE_FAMILY, NFPROTO_INET);
    }

    nftnl_rule* get() const { return rule_.get(); }

    Rule& markIs(std::uint32_t mask, std::uint32_t value) {
        loadMeta(NFT_META_MARK);
        keep(mask);
        return compare(NFT_CMP_EQ, value);
    }
    Rule& connectionMarkIs(std::uint32_t mask, std::uint32_t value) {
        loadConntrack(NFT_CT_MARK);
        keep(mask);
        return compare(NFT_CMP_EQ, value);
    }
    Rule& connectionMarked(std::uint32_t mask) {
        loadConntrack(NFT_CT_MARK);
        keep(mask);
        return compare(NFT_CMP_NEQ, std::uint32_t{0});
    }
    // The uid of the sending socket's owner; packets without a socket (a
    // forwarded one) never match.
    Rule& ownerIs(std::uint32_t uid) {
        loadMeta(NFT_META_SKUID);
        return compare(NFT_CMP_EQ, uid);
    }
    Rule& family(std::uint8_t nfproto) {
        loadMeta(NFT_META_NFPROTO);
        return compare(NFT_CMP_EQ, nfproto);
    }
    Rule& protocol(std::uint8_t l4proto) {
        loadMeta(NFT_META_L4PROTO);
        return compare(NFT_CMP_EQ, l4proto);
    }
    template <std::size_t N>
    Rule& destinationIn(std::uint32_t offset, const std::array<std::uint8_t, N>& mask,
                        const std::array<std::uint8_t, N>& network) {
        loadPayload(NFT_PAYLOAD_NETWORK_HEADER, offset, N);
        keep(mask);
        return compare(NFT_CMP_EQ, network);
    }
    Rule& destinationIsLocal() {
        auto* fib = add("fib");
        nftnl_expr_set_u32(fib, NFTNL_EXPR_FIB_FLAGS, NFTA_FIB_F_DADDR);
        nftnl_expr_set_u32(fib, NFTNL_EXPR_FIB_RESULT, NFT_FIB_RESULT_ADDRTYPE);
        nftnl_expr_set_u32(fib, NFTNL_EXPR_FIB_DREG, reg);
        return compare(NFT_CMP_EQ, std::uint32_t{RTN_LOCAL});
    }
    Rule& newConnection() {
        loadConntrack(NFT_CT_STATE);
        keep(std::uint32_t{NF_CT_STATE_BIT(IP_CT_NEW)});
        return compare(NFT_CMP_NEQ, std::uint32_t{0});
    }
    Rule& originalDirection() {
        loadConntrack(NFT_CT_DIRECTION);
        return compare(NFT_CMP_EQ, std::uint8_t{IP_CT_DIR_ORIGINAL});
    }
    // FIN, SYN, RST and ACK: a connection attempt has SYN alone among them,
    // whatever its ECN bits say.
    Rule& loneSyn() {
        loadPayload(NFT_PAYLOAD_TRANSPORT_HEADER, 13, 1);
        keep(std::uint8_t{0x17});
        return compare(NFT_CMP_EQ, std::uint8_t{0x02});
    }
    Rule& destinationPort(std::uint16_t port) {
        loadPayload(NFT_PAYLOAD_TRANSPORT_HEADER, 2, 2);
        return compare(NFT_CMP_EQ, htons(port));
    }

    Rule& accept() {
        auto* verdict = add("immediate");
        nftnl_expr_set_u32(verdict, NFTNL_EXPR_IMM_DREG, NFT_REG_VERDICT);
        nftnl_expr_set_u32(verdict, NFTNL_EXPR_IMM_VERDICT, NF_ACCEPT);
        return *this;
    }
    // The kernel has no native queue expression here, so the xtables target
    // goes through nft_compat. Bypass: with nobody on the queue, packets pass.
    Rule& queue(std::uint16_t number) {
        auto* target = add("target");
        nftnl_expr_set_str(target, NFTNL_EXPR_TG_NAME, "NFQUEUE");
        nftnl_expr_set_u32(target, NFTNL_EXPR_TG_REV, 3);
        // The expression frees the info; the kernel wants its size aligned as
        // xtables aligns it.
        constexpr std::size_t size = XT_ALIGN(sizeof(xt_NFQ_info_v3));
        auto* info = static_cast<xt_NFQ_info_v3*>(std::calloc(1, size));
        if (info == nullptr) {
            throw std::bad_alloc();
        }
        info->queuenum = number;
        info->queues_total = 1;
        info->flags = NFQ_FLAG_BYPASS;
        nftnl_expr_set(target, NFTNL_EXPR_TG_INFO, info, size);
        return *this;
    }
    Rule& connectionMarkFromPacket() {
        loadMeta(NFT_META_MARK);
        auto* set = add("ct");
        nftnl_expr_set_u32(set, NFTNL_EXPR_CT_KEY, NFT_CT_MARK);
        nftnl_expr_set_u32(set, NFTNL_EXPR_CT_SREG, reg);
        return *this;
    }
    Rule& packetMarkFromConnection() {
        loadConntrack(NFT_CT_MARK);
        auto* set = add("meta");
        nftnl_expr_set_u32(set, NFTNL_EXPR_META_KEY, NFT_META_MARK);
        nftnl_expr_set_u32(set, NFTNL_EXPR_META_SREG, reg);
        return *this;
    }
    Rule& redirectTo(std::uint16_t port) {
        loadPort(port);
        auto* redirect = add("redir");
        nftnl_expr_set_u32(redirect, NFTNL_EXPR_REDIR_REG_PROTO_MIN, reg);
        return *this;
    }
    Rule& tproxyTo(std::uint16_t port) {
        loadPort(port);
        auto* tproxy = add("tproxy");
        nftnl_expr_set_u32(tproxy, NFTNL_EXPR_TPROXY_FAMILY, NFPROTO_UNSPEC);
        nftnl_expr_set_u32(tproxy, NFTNL_EXPR_TPROXY_REG_PORT, reg);
        return *this;
    }
    Rule& resetConnection() {
        auto* reject = add("reject");
        nftnl_expr_set_u32(reject, NFTNL_EXPR_REJECT_TYPE, NFT_REJECT_TCP_RST);
        nftnl_expr_set_u8(reject, NFTNL_EXPR_REJECT_CODE, 0);
        return *this;
    }
    Rule& portUnreachable() {
        auto* reject = add("reject");
        nftnl_expr_set_u32(reject, NFTNL_EXPR_REJECT_TYPE, NFT_REJECT_ICMPX_UNREACH);
        nftnl_expr_set_u8(reject, NFTNL_EXPR_REJECT_CODE, NFT_REJECT_ICMPX_PORT_UNREACH);
        return *this;
    }

private:
    nftnl_expr* add(const char* name) {
        nftnl_expr* expression = nftnl_expr_alloc(name);
        if (expression == nullptr) {
            throw std::bad_alloc();
        }
        nftnl_rule_add_expr(rule_.get(), expression);
        return expression;
    }
    void loadMeta(std::uint32_t key) {
        auto* meta = add("meta");
        nftnl_expr_set_u32(meta, NFTNL_EXPR_META_KEY, key);
        nftnl_expr_set_u32(meta, NFTNL_EXPR_META_DREG, reg);
    }
    void loadConntrack(std::uint32_t key) {
        auto* ct = add("ct");
        nftnl_expr_set_u32(ct, NFTNL_EXPR_CT_KEY, key);
        nftnl_expr_set_u32(ct, NFTNL_EXPR_CT_DREG, reg);
    }
    void loadPayload(std::uint32_t base, std::uint32_t offset, std::uint32_t length) {
        auto* payload = add("payload");
        nftnl_expr_set_u32(payload, NFTNL_EXPR_PAYLOAD_BASE, base);
        nftnl_expr_set_u32(payload, NFTNL_EXPR_PAYLOAD_OFFSET, offset);
        nftnl_expr_set_u32(payload, NFTNL_EXPR_PAYLOAD_LEN, length);
        nftnl_expr_set_u32(payload, NFTNL_EXPR_PAYLOAD_DREG, reg);
    }
    void loadPort(std::uint16_t port) {
        const std::uint16_t value = htons(port);
        auto* immediate = add("immediate");
        nftnl_expr_set_u32(immediate, NFTNL_EXPR_IMM_DREG, reg);
        nftnl_expr_set(immediate, NFTNL_EXPR_IMM_DATA, &value, sizeof value);
    }
    // Values are compared as the register holds them: marks and states in
    // host order, header fields as they are on the wire.
    template <class Value>
    void keep(const Value& mask) {
        const Value none{};
        auto* bitwise = add("bitwise");
        nftnl_expr_set_u32(bitwise, NFTNL_EXPR_BITWISE_SREG, reg);
        nftnl_expr_set_u32(bitwise, NFTNL_EXPR_BITWISE_DREG, reg);
        nftnl_expr_set_u32(bitwise, NFTNL_EXPR_BITWISE_LEN, sizeof mask);
        nftnl_expr_set(bitwise, NFTNL_EXPR_BITWISE_MASK, &mask, sizeof mask);
        nftnl_expr_set(bitwise, NFTNL_EXPR_BITWISE_XOR, &none, sizeof none);
    }
    template <class Value>
    Rule& compare(std::uint32_t operation, const Value& value) {
        auto* cmp = add("cmp");
        nftnl_expr_set_u32(cmp, NFTNL_EXPR_CMP_SREG, reg);
        nftnl_expr_set_u32(cmp, NFTNL_EXPR_CMP_OP, operation);
        nftnl_expr_set(cmp, NFTNL_EXPR_CMP_DATA, &value, sizeof value);
        return *this;
    }

    RuleObject rule_;
};

// nf_tables messages between a batch begin and end: the kernel applies all
// of them or none.
class Batch {
public:
    explicit Batch(std::uint32_t& sequence) : sequence_(sequence) {
        nftnl_batch_begin(room(), ++sequence_);
        close(reinterpret_cast<nlmsghdr*>(bytes_.data() + used_));
    }

    void table(const nftnl_table* table, std::uint16_t type, std::uint16_t flags,
               std::string what) {
        auto* header = open(type, flags, std::move(what));
        nftnl_table_nlmsg_build_payload(header, table);
        close(header);
    }
    void chain(const std::string& table, const char* name, const char* type, std::uint32_t hook,
               std::int32_t priority) {
        auto chain = allocated<ChainObject>(nftnl_chain_alloc());
        nftnl_chain_set_str(chain.get(), NFTNL_CHAIN_TABLE, table.c_str());
        nftnl_chain_set_str(chain.get(), NFTNL_CHAIN_NAME, name);
        nftnl_chain_set_str(chain.get(), NFTNL_CHAIN_TYPE, type);
        nftnl_chain_set_u32(chain.get(), NFTNL_CHAIN_HOOKNUM, hook);
        nftnl_chain_set_s32(chain.get(), NFTNL_CHAIN_PRIO, priority);
        nftnl_chain_set_u32(chain.get(), NFTNL_CHAIN_POLICY, NF_ACCEPT);
        auto* header = open(NFT_MSG_NEWCHAIN, NLM_F_CREATE, std::string("chain ") + name);
        nftnl_chain_nlmsg_build_payload(header, chain.get());
        close(header);
    }
    void rule(const Rule& rule, std::string what) {
        auto* header = open(NFT_MSG_NEWRULE, NLM_F_CREATE | NLM_F_APPEND, std::move(what));
        nftnl_rule_nlmsg_build_payload(header, rule.get());
        close(header);
    }

    Outcome send(mnl_socket* socket) {
        nftnl_batch_end(room(), ++sequence_);
        close(reinterpret_cast<nlmsghdr*>(bytes_.data() + used_));
        return exchange(socket, {bytes_.data(), used_}, acknowledged_);
    }

    // What the message with this sequence number did, for error messages.
    std::string what(std::uint32_t sequence) const {
        for (const auto& [number, what] : purposes_) {
            if (number == sequence) {
                return what;
            }
        }
        return "ruleset";
    }

private:
    // Space for the next message; none of ours comes near this.
    char* room() {
        constexpr std::size_t messageRoom = 8192;
        if (bytes_.size() - used_ < messageRoom) {
            bytes_.resize(bytes_.size() + 4 * messageRoom);
        }
        return bytes_.data() + used_;
    }
    nlmsghdr* open(std::uint16_t type, std::uint16_t flags, std::string what) {
        const std::uint32_t sequence = ++sequence_;
        acknowledged_.push_back(sequence);
        purposes_.emplace_back(sequence, std::move(what));
        return nftnl_nlmsg_build_hdr(room(), type, NFPROTO_INET, flags | NLM_F_ACK, sequence);
    }
    void close(const nlmsghdr* header) { used_ += NLMSG_ALIGN(header->nlmsg_len); }

    std::uint32_t& sequence_;
    std::vector<char> bytes_;
    std::size_t used_ = 0;
    std::vector<std::uint32_t> acknowledged_;
    std::vector<std::pair<std::uint32_t, std::string>> purposes_;
};

constexpr const char* queueRule = "queue rule";

} // namespace

std::optional<Network> Network::parse(const std::string& text) {
    const auto slash = text.find('/');
    const std::string address = text.substr(0, slash);
    Network network;
    if (::inet_pton(AF_INET, address.c_str(), network.address.data()) == 1) {
        network.family = AF_INET;
        network.length = 32;
    } else if (::inet_pton(AF_INET6, address.c_str(), network.address.data()) == 1) {
        network.family = AF_INET6;
        network.length = 128;
    } else {
        return std::nullopt;
    }
    if (slash != std::string::npos) {
        const std::string bits = text.substr(slash + 1);
        if (bits.empty() || bits.size() > 3 ||
            bits.find_first_not_of("0123456789") != std::string::npos ||
            std::stoul(bits) > network.length) {
            return std::nullopt;
        }
        network.length = static_cast<unsigned>(std::stoul(bits));
    }
    // Host bits are cleared, so that the rule compares what it masks.
    for (unsigned bit = network.length; bit < 128; ++bit) {
        network.address[bit / 8] &= static_cast<std::uint8_t>(~(0x80 >> (bit % 8)));
    }
    return network;
}

namespace {

void describeRuleset(Batch& batch, const TableConfig& config) {
    const auto& table = config.name;
    const auto& marks = config.marks;
    const bool udp = config.udpTransparentPort != 0;

    // After conntrack (-200), so connection state and marks are known; before
    // nat (-100), so the verdict's mark is there when the redirect is chosen.
    batch.chain(table, "decide", "filter", NF_INET_LOCAL_OUT, -150);
    batch.rule(Rule(table, "decide").markIs(marks.mask, marks.bypass).accept(), "bypass rule");
    batch.rule(Rule(table, "decide").connectionMarked(marks.mask).accept(), "decided rule");
    batch.rule(Rule(table, "decide")
                   .family(NFPROTO_IPV4)
                   .destinationIn<4>(16, {255, 0, 0, 0}, {127, 0, 0, 0})
                   .accept(),
               "loopback rule");
    for (const auto uid : config.exemptUsers) {
        batch.rule(Rule(table, "decide").ownerIs(uid).accept(), "exempt user rule");
    }
    std::array<std::uint8_t, 16> all;
    all.fill(0xff);
    std::array<std::uint8_t, 16> loopback{};
    loopback[15] = 1;
    batch.rule(Rule(table, "decide").family(NFPROTO_IPV6).destinationIn(24, all, loopback).accept(),
               "loopback rule");
    // The queue rules, for every destination or only inside one network.
    auto queueRules = [&](const Network* network) {
        auto base = [&] {
            Rule rule(table, "decide");
            if (network) {
                std::array<std::uint8_t, 16> mask{};
                for (unsigned bit = 0; bit < network->length; ++bit) {
                    mask[bit / 8] |= static_cast<std::uint8_t>(0x80 >> (bit % 8));
                }
                if (network->family == AF_INET) {
                    std::array<std::uint8_t, 4> mask4{mask[0], mask[1], mask[2], mask[3]};
                    const auto& a = network->address;
                    rule.family(NFPROTO_IPV4).destinationIn<4>(16, mask4, {a[0], a[1], a[2], a[3]});
                } else {
                    rule.family(NFPROTO_IPV6).destinationIn(24, mask, network->address);
                }
            }
            return rule;
        };
        batch.rule(base().protocol(IPPROTO_TCP).newConnection().loneSyn().queue(config.queueNumber),
                   queueRule);
        if (udp) {
            batch.rule(base()
                           .protocol(IPPROTO_UDP)
                           .newConnection()
                           .destinationPort(quicPort)
                           .queue(config.queueNumber),
                       queueRule);
            if (config.captureDNS) {
                batch.rule(base()
                               .protocol(IPPROTO_UDP)
                               .newConnection()
                               .destinationPort(dnsPort)
                               .queue(config.queueNumber),
                           queueRule);
            }
        }
    };
    for (const auto& network : config.localIncluded) {
        queueRules(&network);
    }
    batch.rule(Rule(table, "decide").destinationIsLocal().accept(), "local address rule");
    queueRules(nullptr);

    // Nat sees only the first packet of a connection: the one with the verdict.
    batch.chain(table, "steer", "nat", NF_INET_LOCAL_OUT, -100);
    batch.rule(Rule(table, "steer").markIs(marks.mask, marks.carry).connectionMarkFromPacket(),
               "carry rule");
    batch.rule(Rule(table, "steer")
                   .markIs(marks.mask, marks.carry)
                   .protocol(IPPROTO_TCP)
                   .redirectTo(config.tcpListenerPort),
               "redirect rule");

    batch.chain(table, "refuse", "filter", NF_INET_LOCAL_OUT, 0);
    batch.rule(Rule(table, "refuse")
                   .markIs(marks.mask, marks.refuse)
                   .protocol(IPPROTO_TCP)
                   .resetConnection(),
               "reset rule");
    batch.rule(Rule(table, "refuse")
                   .markIs(marks.mask, marks.refuse)
                   .protocol(IPPROTO_UDP)
                   .portUnreachable(),
               "unreachable rule");

    if (udp) {
        // A route chain re-routes what it marks, so the policy rule sends the
        // packet to lo. Replies of the flow keep their own way.
        batch.chain(table, "remark", "route", NF_INET_LOCAL_OUT, -150);
        batch.rule(Rule(table, "remark")
                       .protocol(IPPROTO_UDP)
                       .originalDirection()
                       .connectionMarkIs(marks.mask, marks.carry)
                       .packetMarkFromConnection(),
                   "remark rule");
        batch.chain(table, "divert", "filter", NF_INET_PRE_ROUTING, -150);
        batch.rule(Rule(table, "divert")
                       .protocol(IPPROTO_UDP)
                       .markIs(marks.mask, marks.carry)
                       .tproxyTo(config.udpTransparentPort),
                   "tproxy rule");
    }
}

std::string invalidConfig(const TableConfig& config) {
    if (config.name.empty() || config.name.size() >= NFT_TABLE_MAXNAMELEN) {
        return "the table name must have 1 to " + std::to_string(NFT_TABLE_MAXNAMELEN - 1) +
               " characters";
    }
    if (config.tcpListenerPort == 0) {
        return "no TCP listener port";
    }
    const auto& marks = config.marks;
    for (std::uint32_t mark : {marks.bypass, marks.carry, marks.refuse}) {
        if (mark == 0 || (mark & ~marks.mask) != 0) {
            return "the bypass, carry and refuse marks must be non-zero values under the mask";
        }
    }
    if (marks.bypass == marks.carry || marks.bypass == marks.refuse ||
        marks.carry == marks.refuse) {
        return "the bypass, carry and refuse marks must differ";
    }
    if (config.udpTransparentPort != 0 &&
        (config.routeTable == RT_TABLE_UNSPEC ||
         (config.routeTable >= RT_TABLE_COMPAT && config.routeTable <= RT_TABLE_LOCAL))) {
        return "route table " + std::to_string(config.routeTable) + " is reserved";
    }
    return {};
}

// Adds (or removes) `fwmark carry/mask lookup table` for one family.
Outcome policyRule(mnl_socket* socket, std::uint32_t sequence, bool add, int family,
                   const TableConfig& config) {
    std::array<char, 256> buffer{};
    auto* header = mnl_nlmsg_put_header(buffer.data());
    header->nlmsg_type = add ? RTM_NEWRULE : RTM_DELRULE;
    header->nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK | (add ? NLM_F_CREATE | NLM_F_EXCL : 0);
    header->nlmsg_seq = sequence;
    auto* rule =
        static_cast<fib_rule_hdr*>(mnl_nlmsg_put_extra_header(header, sizeof(fib_rule_hdr)));
    rule->family = static_cast<std::uint8_t>(family);
    rule->action = FR_ACT_TO_TBL;
    mnl_attr_put_u32(header, FRA_TABLE, config.routeTable);
    mnl_attr_put_u32(header, FRA_PRIORITY, config.routeRulePriority);
    mnl_attr_put_u32(header, FRA_FWMARK, config.marks.carry);
    mnl_attr_put_u32(header, FRA_FWMASK, config.marks.mask);
    return exchange(socket, {buffer.data(), header->nlmsg_len}, {sequence});
}

// Adds (or removes) `local default dev lo table table` for one family.
Outcome loopbackRoute(mnl_socket* socket, std::uint32_t sequence, bool add, int family,
                      const TableConfig& config) {
    std::array<char, 256> buffer{};
    auto* header = mnl_nlmsg_put_header(buffer.data());
    header->nlmsg_type = add ? RTM_NEWROUTE : RTM_DELROUTE;
    header->nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK | (add ? NLM_F_CREATE | NLM_F_REPLACE : 0);
    header->nlmsg_seq = sequence;
    auto* route = static_cast<rtmsg*>(mnl_nlmsg_put_extra_header(header, sizeof(rtmsg)));
    route->rtm_family = static_cast<std::uint8_t>(family);
    route->rtm_table = RT_TABLE_UNSPEC;
    route->rtm_protocol = add ? RTPROT_BOOT : RTPROT_UNSPEC;
    route->rtm_scope = add ? RT_SCOPE_HOST : RT_SCOPE_NOWHERE;
    route->rtm_type = RTN_LOCAL;
    mnl_attr_put_u32(header, RTA_TABLE, config.routeTable);
    mnl_attr_put_u32(header, RTA_OIF, loopbackIndex);
    return exchange(socket, {buffer.data(), header->nlmsg_len}, {sequence});
}

mnl_socket* openNetlink(int bus, std::string& whyNot) {
    mnl_socket* socket = mnl_socket_open2(bus, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (socket == nullptr) {
        whyNot = "cannot open a netlink socket: " + describe(errno);
        return nullptr;
    }
    if (mnl_socket_bind(socket, 0, MNL_SOCKET_AUTOPID) < 0) {
        whyNot = "cannot bind a netlink socket: " + describe(errno);
        mnl_socket_close(socket);
        return nullptr;
    }
    return socket;
}

} // namespace

void CaptureTables::SocketCloser::operator()(mnl_socket* socket) const {
    mnl_socket_close(socket);
}

CaptureTables::CaptureTables(TableConfig config, Socket tables)
    : config_(std::move(config)), tables_(std::move(tables)) {}

std::unique_ptr<CaptureTables> CaptureTables::install(const TableConfig& config,
                                                      std::string& whyNot) {
    if (auto invalid = invalidConfig(config); !invalid.empty()) {
        whyNot = "capture tables: " + invalid;
        return nullptr;
    }
    Socket socket(openNetlink(NETLINK_NETFILTER, whyNot));
    if (!socket) {
        return nullptr;
    }
    std::unique_ptr<CaptureTables> tables(new CaptureTables(config, std::move(socket)));
    auto* nft = tables->tables_.get();
    auto& sequence = tables->sequence_;
    const std::string name = "inet table \"" + config.name + "\"";

    // A table of that name, owned or not, is never ours to take over or remove.
    std::array<char, 1024> request{};
    auto* query = nftnl_nlmsg_build_hdr(request.data(), NFT_MSG_GETTABLE, NFPROTO_INET, NLM_F_ACK,
                                        ++sequence);
    nftnl_table_nlmsg_build_payload(query, tableNamed(config.name).get());
    bool exists = false;
    bool owned = false;
    Outcome found =
        exchange(nft, {request.data(), query->nlmsg_len}, {sequence}, [&](const nlmsghdr& header) {
            auto table = allocated<TableObject>(nftnl_table_alloc());
            if (nftnl_table_nlmsg_parse(&header, table.get()) == 0) {
                exists = true;
                owned =
                    (nftnl_table_get_u32(table.get(), NFTNL_TABLE_FLAGS) & NFT_TABLE_F_OWNER) != 0;
            }
        });
    if (found.error == EPERM) {
        whyNot = "capture tables: no privilege (nftables needs CAP_NET_ADMIN)";
        return nullptr;
    }
    if (found.error != 0 && found.error != ENOENT) {
        whyNot = "capture tables: cannot look up the " + name + ": " + describe(found.error);
        return nullptr;
    }
    if (exists) {
        whyNot = owned ? "capture tables: another instance owns the tables (" + name + ")"
                       : "capture tables: an " + name +
                             " exists that no running instance owns; remove it with `nft delete "
                             "table inet " +
                             config.name + "`";
        return nullptr;
    }

    Batch batch(sequence);
    auto table = tableNamed(config.name);
    nftnl_table_set_u32(table.get(), NFTNL_TABLE_FLAGS, NFT_TABLE_F_OWNER);
    batch.table(table.get(), NFT_MSG_NEWTABLE, NLM_F_CREATE | NLM_F_EXCL, "table");
    describeRuleset(batch, config);
    Outcome installed = batch.send(nft);
    if (installed.error != 0) {
        const std::string what = batch.what(installed.sequence);
        const std::string reason = describe(installed.error);
        if (what == "table" && (installed.error == EEXIST || installed.error == EPERM)) {
            whyNot = "capture tables: another instance owns the tables (" + name + ")";
        } else if (what == queueRule) {
            whyNot = "capture tables: the kernel cannot queue packets from nftables (the NFQUEUE "
                     "target through nft_compat, revision 3): " +
                     reason;
        } else {
            whyNot = "capture tables: the kernel refused the " + what + ": " + reason;
        }
        // Nothing of the batch was applied; there is no table to delete.
        tables->tables_.reset();
        return nullptr;
    }

    if (config.udpTransparentPort != 0) {
        tables->routes_.reset(openNetlink(NETLINK_ROUTE, whyNot));
        if (!tables->routes_) {
            whyNot = "capture tables: " + whyNot;
            return nullptr; // the destructor removes the table
        }
        for (int family : {AF_INET, AF_INET6}) {
            Outcome rule = policyRule(tables->routes_.get(), ++sequence, true, family, config);
            // A rule that is there already was left by an instance that died.
            if (family == AF_INET6 && rule.error == EAFNOSUPPORT) {
                continue; // IPv6 is disabled here
            }
            if (rule.error != 0 && rule.error != EEXIST) {
                whyNot =
                    "capture tables: cannot add the policy routing rule: " + describe(rule.error);
                return nullptr;
            }
            tables->routedFamilies_.push_back(family);
            Outcome route = loopbackRoute(tables->routes_.get(), ++sequence, true, family, config);
            if (route.error != 0) {
                whyNot = "capture tables: cannot add the loopback route to table " +
                         std::to_string(config.routeTable) + ": " + describe(route.error);
                return nullptr;
            }
        }
    }
    return tables;
}

CaptureTables::~CaptureTables() {
    // Capturing stops first; the routing only serves packets it marked. The
    // kernel would remove the table with the socket anyway; deleting it here
    // makes the end visible before this returns.
    if (tables_) {
        Batch batch(sequence_);
        batch.table(tableNamed(config_.name).get(), NFT_MSG_DELTABLE, 0, "table");
        batch.send(tables_.get());
    }
    for (int family : routedFamilies_) {
        loopbackRoute(routes_.get(), ++sequence_, false, family, config_);
        policyRule(routes_.get(), ++sequence_, false, family, config_);
    }
}

} // namespace veltrane::platform::capture
