#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

struct mnl_socket;
struct nlmsghdr;

namespace veltrane::platform::capture {

// The first packet of a new flow, held by the kernel until it has a verdict.
struct QueuedPacket {
    std::uint32_t id = 0;
    int family = 0;   // AF_INET or AF_INET6
    int protocol = 0; // IPPROTO_TCP or IPPROTO_UDP
    std::string source;
    std::uint16_t sourcePort = 0;
    std::string destination;
    std::uint16_t destinationPort = 0;
    // The packet's mark as it was queued: a verdict's mark replaces all of
    // it, so bits outside our mask are carried over from here.
    std::uint32_t mark = 0;

    friend bool operator==(const QueuedPacket&, const QueuedPacket&) = default;
};

// Reads the addresses and ports of an IPv4 or IPv6 packet that carries TCP
// or UDP. The bytes come from outside: nothing past the span is read, and a
// packet that is short, malformed, a later fragment or of another protocol
// gives nothing. Every field but `mark` (left 0) is set.
std::optional<QueuedPacket> parsePacketHeaders(std::span<const std::uint8_t> packet,
                                               std::uint32_t id);

// One netfilter queue. The kernel copies at most `copyRange` bytes of each
// packet (the headers are all we read) and holds at most `maxLength` packets;
// beyond that packets pass unqueued rather than stall the machine, as they do
// while nobody is bound (the capture rules queue with bypass). Closing the
// queue lets the kernel drop what it still holds; their senders retransmit.
//
// The queue belongs to the network namespace of the thread that calls
// open(). receive() is called from one thread at a time; accept() from any.
class FlowQueue {
public:
    static constexpr std::uint32_t maxLength = 1024;
    static constexpr std::uint32_t copyRange = 256;

    // Null, with the reason in `whyNot`, without CAP_NET_ADMIN or when
    // another socket is bound to the queue.
    static std::unique_ptr<FlowQueue> open(std::uint16_t queueNumber, std::string& whyNot);

    ~FlowQueue();
    FlowQueue(const FlowQueue&) = delete;
    FlowQueue& operator=(const FlowQueue&) = delete;

    // Readable when packets wait; then call receive().
    int fd() const;
    std::uint16_t queueNumber() const { return queueNumber_; }

    // Takes every packet waiting, without blocking. Packets it cannot read
    // are accepted unchanged at once and not returned.
    std::vector<QueuedPacket> receive();

    // Lets the packet go on, with `mark` as its new mark when given. False
    // when the kernel did not take the verdict.
    bool accept(std::uint32_t id, std::optional<std::uint32_t> mark);

private:
    FlowQueue(mnl_socket* socket, std::uint16_t queueNumber);
    // Adds the packet of one queue message to `packets`.
    void take(const nlmsghdr& header, std::vector<QueuedPacket>& packets);

    mnl_socket* socket_;
    std::uint16_t queueNumber_;
    std::vector<char> buffer_;
    std::vector<QueuedPacket> early_; // arrived while the queue was being set up
};

} // namespace veltrane::platform::capture
