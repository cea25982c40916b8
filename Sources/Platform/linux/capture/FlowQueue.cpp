#include "Platform/linux/capture/FlowQueue.hpp"

#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <libmnl/libmnl.h>
#include <libnetfilter_queue/libnetfilter_queue.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nfnetlink.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <system_error>

namespace veltrane::platform::capture {

namespace {

using namespace std::chrono_literals;

constexpr auto answerDeadline = 5s;
// Room for a burst of new connections before the kernel lets packets pass
// unqueued; a packet message with its headers takes about a kilobyte.
constexpr int receiveBuffer = 4 << 20;

std::string describe(int error) {
    return std::error_code(error, std::generic_category()).message();
}

std::string addressText(int family, std::span<const std::uint8_t> bytes) {
    std::array<char, INET6_ADDRSTRLEN> text{};
    std::array<std::uint8_t, 16> address{};
    std::memcpy(address.data(), bytes.data(), bytes.size());
    ::inet_ntop(family, address.data(), text.data(), text.size());
    return text.data();
}

std::uint16_t read16(std::span<const std::uint8_t> bytes, std::size_t at) {
    return static_cast<std::uint16_t>(bytes[at] << 8 | bytes[at + 1]);
}

} // namespace

std::optional<QueuedPacket> parsePacketHeaders(std::span<const std::uint8_t> packet,
                                               std::uint32_t id) {
    if (packet.empty()) {
        return std::nullopt;
    }
    QueuedPacket result;
    result.id = id;
    std::size_t transport = 0;
    int protocol = 0;
    switch (packet[0] >> 4) {
    case 4: {
        if (packet.size() < 20) {
            return std::nullopt;
        }
        const std::size_t headerLength = (packet[0] & 0x0fu) * 4u;
        // A later fragment starts inside the transport payload.
        if (headerLength < 20 || (read16(packet, 6) & 0x1fff) != 0) {
            return std::nullopt;
        }
        result.family = AF_INET;
        result.source = addressText(AF_INET, packet.subspan(12, 4));
        result.destination = addressText(AF_INET, packet.subspan(16, 4));
        protocol = packet[9];
        transport = headerLength;
        break;
    }
    case 6: {
        if (packet.size() < 40) {
            return std::nullopt;
        }
        result.family = AF_INET6;
        result.source = addressText(AF_INET6, packet.subspan(8, 16));
        result.destination = addressText(AF_INET6, packet.subspan(24, 16));
        protocol = packet[6];
        transport = 40;
        // Extension headers are at least 8 bytes each, so the walk ends.
        for (bool more = true; more;) {
            if (protocol != IPPROTO_HOPOPTS && protocol != IPPROTO_ROUTING &&
                protocol != IPPROTO_DSTOPTS && protocol != IPPROTO_FRAGMENT &&
                protocol != IPPROTO_AH) {
                more = false;
                continue;
            }
            if (packet.size() < transport + 8) {
                return std::nullopt;
            }
            std::size_t length = (packet[transport + 1] + 1u) * 8u;
            if (protocol == IPPROTO_FRAGMENT) {
                if ((read16(packet, transport + 2) & 0xfff8) != 0) {
                    return std::nullopt;
                }
                length = 8;
            } else if (protocol == IPPROTO_AH) {
                length = (packet[transport + 1] + 2u) * 4u;
            }
            protocol = packet[transport];
            transport += length;
        }
        break;
    }
    default:
        return std::nullopt;
    }
    const std::size_t headerLength = protocol == IPPROTO_TCP ? 20 : 8;
    if ((protocol != IPPROTO_TCP && protocol != IPPROTO_UDP) ||
        packet.size() < transport + headerLength) {
        return std::nullopt;
    }
    result.protocol = protocol;
    result.sourcePort = read16(packet, transport);
    result.destinationPort = read16(packet, transport + 2);
    return result;
}

FlowQueue::FlowQueue(mnl_socket* socket, std::uint16_t queueNumber)
    : socket_(socket), queueNumber_(queueNumber), buffer_(MNL_SOCKET_BUFFER_SIZE + copyRange) {}

FlowQueue::~FlowQueue() {
    mnl_socket_close(socket_);
}

int FlowQueue::fd() const {
    return mnl_socket_get_fd(socket_);
}

namespace {

// Sends one configuration message and waits for its answer. Packets that
// arrive meanwhile are handed to `onPacket`, so none is left held.
template <class OnPacket>
int configure(mnl_socket* socket, nlmsghdr* message, std::uint32_t sequence,
              std::vector<char>& buffer, OnPacket onPacket) {
    message->nlmsg_flags |= NLM_F_ACK;
    message->nlmsg_seq = sequence;
    if (mnl_socket_sendto(socket, message, message->nlmsg_len) < 0) {
        return errno;
    }
    const auto until = std::chrono::steady_clock::now() + answerDeadline;
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            until - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            return ETIMEDOUT;
        }
        pollfd ready{mnl_socket_get_fd(socket), POLLIN, 0};
        ::poll(&ready, 1, static_cast<int>(left.count()));
        ssize_t received = mnl_socket_recvfrom(socket, buffer.data(), buffer.size());
        if (received < 0) {
            if (errno == EAGAIN || errno == EINTR) {
                continue;
            }
            return errno;
        }
        int length = static_cast<int>(received);
        for (auto* header = reinterpret_cast<const nlmsghdr*>(buffer.data());
             mnl_nlmsg_ok(header, length); header = mnl_nlmsg_next(header, &length)) {
            if (header->nlmsg_type != NLMSG_ERROR) {
                onPacket(*header);
            } else if (header->nlmsg_seq == sequence &&
                       header->nlmsg_len >= NLMSG_LENGTH(sizeof(nlmsgerr))) {
                return -static_cast<const nlmsgerr*>(mnl_nlmsg_get_payload(header))->error;
            }
        }
    }
}

} // namespace

std::unique_ptr<FlowQueue> FlowQueue::open(std::uint16_t queueNumber, std::string& whyNot) {
    mnl_socket* socket = mnl_socket_open2(NETLINK_NETFILTER, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (socket == nullptr) {
        whyNot = "flow queue: cannot open a netlink socket: " + describe(errno);
        return nullptr;
    }
    std::unique_ptr<FlowQueue> queue(new FlowQueue(socket, queueNumber));
    if (mnl_socket_bind(socket, 0, MNL_SOCKET_AUTOPID) < 0) {
        whyNot = "flow queue: cannot bind a netlink socket: " + describe(errno);
        return nullptr;
    }
    // Overruns are the kernel's to handle (it lets packets pass); the socket
    // should not report them as errors.
    int on = 1;
    mnl_socket_setsockopt(socket, NETLINK_NO_ENOBUFS, &on, sizeof on);
    ::setsockopt(queue->fd(), SOL_SOCKET, SO_RCVBUFFORCE, &receiveBuffer, sizeof receiveBuffer);

    std::vector<QueuedPacket> early;
    auto keep = [&](const nlmsghdr& header) { queue->take(header, early); };
    // The kernel checks privilege before anything else, and this obsolete
    // command does nothing after that check: a plain answer to "may we?",
    // which the bind below cannot give (it says EPERM for a queue bound by
    // another socket too).
    std::array<char, 256> message{};
    auto* probe = nfq_nlmsg_put(message.data(), NFQNL_MSG_CONFIG, queueNumber);
    nfq_nlmsg_cfg_put_cmd(probe, AF_INET, NFQNL_CFG_CMD_PF_BIND);
    if (int error = configure(socket, probe, 1, queue->buffer_, keep); error != 0) {
        whyNot = error == EPERM
                     ? "flow queue: no privilege (queues need CAP_NET_ADMIN)"
                     : "flow queue: the kernel has no netfilter queues: " + describe(error);
        return nullptr;
    }

    auto* bind = nfq_nlmsg_put(message.data(), NFQNL_MSG_CONFIG, queueNumber);
    nfq_nlmsg_cfg_put_cmd(bind, AF_INET, NFQNL_CFG_CMD_BIND);
    nfq_nlmsg_cfg_put_params(bind, NFQNL_COPY_PACKET, copyRange);
    nfq_nlmsg_cfg_put_qmaxlen(bind, maxLength);
    mnl_attr_put_u32(bind, NFQA_CFG_FLAGS, htonl(NFQA_CFG_F_FAIL_OPEN));
    mnl_attr_put_u32(bind, NFQA_CFG_MASK, htonl(NFQA_CFG_F_FAIL_OPEN));
    if (int error = configure(socket, bind, 2, queue->buffer_, keep); error != 0) {
        whyNot =
            "flow queue: cannot bind queue " + std::to_string(queueNumber) + ": " +
            (error == EPERM || error == EBUSY ? "another socket is bound to it" : describe(error));
        return nullptr;
    }
    queue->early_ = std::move(early);
    return queue;
}

void FlowQueue::take(const nlmsghdr& header, std::vector<QueuedPacket>& packets) {
    if (NFNL_SUBSYS_ID(header.nlmsg_type) != NFNL_SUBSYS_QUEUE ||
        NFNL_MSG_TYPE(header.nlmsg_type) != NFQNL_MSG_PACKET) {
        return; // answers to verdicts for packets that had gone already
    }
    std::array<nlattr*, NFQA_MAX + 1> attributes{};
    if (nfq_nlmsg_parse(&header, attributes.data()) < 0 || attributes[NFQA_PACKET_HDR] == nullptr) {
        return;
    }
    nfqnl_msg_packet_hdr packetHeader{};
    std::memcpy(&packetHeader, mnl_attr_get_payload(attributes[NFQA_PACKET_HDR]),
                sizeof packetHeader);
    const std::uint32_t id = ntohl(packetHeader.packet_id);
    std::span<const std::uint8_t> bytes;
    if (const nlattr* payload = attributes[NFQA_PAYLOAD]; payload != nullptr) {
        bytes = {static_cast<const std::uint8_t*>(mnl_attr_get_payload(payload)),
                 mnl_attr_get_payload_len(payload)};
    }
    auto packet = parsePacketHeaders(bytes, id);
    if (!packet) {
        accept(id, std::nullopt);
        return;
    }
    if (const nlattr* mark = attributes[NFQA_MARK]; mark != nullptr) {
        packet->mark = ntohl(mnl_attr_get_u32(mark));
    }
    packets.push_back(std::move(*packet));
}

std::vector<QueuedPacket> FlowQueue::receive() {
    std::vector<QueuedPacket> packets = std::move(early_);
    early_.clear();
    for (;;) {
        ssize_t received = ::recv(fd(), buffer_.data(), buffer_.size(), MSG_DONTWAIT);
        if (received < 0) {
            if (errno == EINTR) {
                continue;
            }
            break; // EAGAIN: all taken
        }
        int length = static_cast<int>(received);
        for (auto* header = reinterpret_cast<const nlmsghdr*>(buffer_.data());
             mnl_nlmsg_ok(header, length); header = mnl_nlmsg_next(header, &length)) {
            take(*header, packets);
        }
    }
    return packets;
}

bool FlowQueue::accept(std::uint32_t id, std::optional<std::uint32_t> mark) {
    std::array<char, 128> message{};
    auto* verdict = nfq_nlmsg_put(message.data(), NFQNL_MSG_VERDICT, queueNumber_);
    nfq_nlmsg_verdict_put(verdict, static_cast<int>(id), NF_ACCEPT);
    if (mark) {
        nfq_nlmsg_verdict_put_mark(verdict, *mark);
    }
    return mnl_socket_sendto(socket_, verdict, verdict->nlmsg_len) >= 0;
}

} // namespace veltrane::platform::capture
