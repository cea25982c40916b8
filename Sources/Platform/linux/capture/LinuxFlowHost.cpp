#include "Platform/linux/capture/LinuxFlowHost.hpp"

#include "Platform/BypassMark.hpp"
#include "Platform/Logger.hpp"
#include "Platform/NENetworkRule.hpp"
#include "Platform/NWHostEndpoint.hpp"
#include "Platform/RuntimePaths.hpp"
#include "Platform/SpliceRelay.hpp"
#include "Platform/linux/UnixLineServer.hpp"
#include "Platform/linux/capture/AppIdentifier.hpp"
#include "Platform/linux/capture/CaptureTables.hpp"
#include "Platform/linux/capture/ConnectOwners.hpp"
#include "Platform/linux/capture/FlowQueue.hpp"
#include "Platform/linux/capture/LinuxTCPFlow.hpp"
#include "Platform/linux/capture/LinuxUDPFlow.hpp"
#include "Platform/linux/capture/SocketOwners.hpp"

#include <algorithm>
#include <arpa/inet.h>
#include <asio.hpp>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <future>
#include <linux/netfilter_ipv4.h>
#include <linux/netfilter_ipv6/ip6_tables.h>
#include <map>
#include <netinet/in.h>
#include <sys/resource.h>
#include <thread>

namespace veltrane::platform::capture {

namespace {

using Clock = std::chrono::steady_clock;

// A redirected connection that never arrives (the application died between
// its first packet and the redirect) must not hold its flow for ever.
constexpr auto pendingLifetime = std::chrono::seconds(10);
// A decision that takes this long means the host is stuck (a provider
// that never returns, a deadlock): connections are then waiting in the
// kernel's queue, and the machine must not lose its network for it.
constexpr auto hungDecision = std::chrono::seconds(5);

// A UDP flow has no end of its own: one that has been silent this long is
// ended, as a stateful firewall would forget it.
constexpr auto udpIdleLifetime = std::chrono::seconds(120);
// A resolver's socket asks once or twice and is done: its flow (and the
// reply socket it holds) goes soon after, well past any forward's time-out.
constexpr auto dnsIdleLifetime = std::chrono::seconds(15);

// A spliced flow holds six descriptors (two sockets, two pipes): under the
// usual soft limit of 1024 the host would stop taking flows at about 170.
// Raised as far as the process may; the hard limit itself only with the
// privilege to.
rlim_t raiseDescriptorLimit() {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) {
        return 0;
    }
    const rlimit wanted{std::max<rlim_t>(limit.rlim_max, 1 << 20),
                        std::max<rlim_t>(limit.rlim_max, 1 << 20)};
    if (::setrlimit(RLIMIT_NOFILE, &wanted) == 0) {
        return wanted.rlim_cur;
    }
    const rlimit soft{limit.rlim_max, limit.rlim_max};
    return ::setrlimit(RLIMIT_NOFILE, &soft) == 0 ? soft.rlim_cur : limit.rlim_cur;
}

std::pair<std::string, std::uint16_t> addressText(const sockaddr_storage& address) {
    char text[INET6_ADDRSTRLEN] = {};
    if (address.ss_family == AF_INET6) {
        const auto* in6 = reinterpret_cast<const sockaddr_in6*>(&address);
        ::inet_ntop(AF_INET6, &in6->sin6_addr, text, sizeof text);
        return {text, ntohs(in6->sin6_port)};
    }
    const auto* in4 = reinterpret_cast<const sockaddr_in*>(&address);
    ::inet_ntop(AF_INET, &in4->sin_addr, text, sizeof text);
    return {text, ntohs(in4->sin_port)};
}

// Where the application meant to go, before the redirect.
std::optional<std::pair<std::string, std::uint16_t>> originalDestination(int fd, bool v6) {
    sockaddr_storage original{};
    socklen_t length = sizeof original;
    const int failed = v6 ? ::getsockopt(fd, SOL_IPV6, IP6T_SO_ORIGINAL_DST, &original, &length)
                          : ::getsockopt(fd, SOL_IP, SO_ORIGINAL_DST, &original, &length);
    if (failed != 0) {
        return std::nullopt;
    }
    char text[INET6_ADDRSTRLEN] = {};
    if (original.ss_family == AF_INET6) {
        const auto* in6 = reinterpret_cast<const sockaddr_in6*>(&original);
        ::inet_ntop(AF_INET6, &in6->sin6_addr, text, sizeof text);
        return std::pair(std::string(text), ntohs(in6->sin6_port));
    }
    const auto* in4 = reinterpret_cast<const sockaddr_in*>(&original);
    ::inet_ntop(AF_INET, &in4->sin_addr, text, sizeof text);
    return std::pair(std::string(text), ntohs(in4->sin_port));
}

// A descriptor closed with its owner.
class OwnedFd {
public:
    explicit OwnedFd(int fd) : fd_(fd) {}
    ~OwnedFd() {
        if (fd_ >= 0) {
            ::close(fd_);
        }
    }
    OwnedFd(const OwnedFd&) = delete;
    OwnedFd& operator=(const OwnedFd&) = delete;
    int get() const { return fd_; }

private:
    int fd_;
};

std::string pendingKey(const std::string& source, std::uint16_t sourcePort,
                       const std::string& destination, std::uint16_t destinationPort) {
    return source + "|" + std::to_string(sourcePort) + "|" + destination + "|" +
           std::to_string(destinationPort);
}

} // namespace

struct LinuxFlowHost::Impl {
    explicit Impl(Options options)
        : options(std::move(options)), io(std::max(this->options.threads, 1)),
          signals(io, SIGINT, SIGTERM) {}

    Options options;
    asio::io_context io;
    asio::signal_set signals;
    std::shared_ptr<NETransparentProxyProvider> provider;
    ProcessResolver resolver;
    SigningIdentifiers identifiers;
    // Decisions are made one at a time, so they share one sock_diag socket.
    OwnedFd diagSocket{openSocketDiagnosis()};

    // Made by setTunnelNetworkSettings, on the thread of the start.
    std::unique_ptr<CaptureTables> tables;
    std::unique_ptr<ConnectOwners> connectOwners;
    std::unique_ptr<FlowQueue> queue;
    std::unique_ptr<asio::posix::stream_descriptor> queueReady;
    std::unique_ptr<asio::ip::tcp::acceptor> listener4;
    std::unique_ptr<asio::ip::tcp::acceptor> listener6;
    std::unique_ptr<UnixLineServer> messages;
    // Transparent sockets where carried UDP arrives, one per family.
    std::vector<std::unique_ptr<asio::posix::stream_descriptor>> transparent;
    std::mutex udpLock;                                            // guards udpFlows
    std::map<std::string, std::shared_ptr<LinuxUDPFlow>> udpFlows; // by the application's address
    std::unique_ptr<asio::steady_timer> sweeper;

    struct Pending {
        std::shared_ptr<LinuxTCPFlow> flow;
        Clock::time_point since;
    };
    // When the decision under way started (0: none); read by the watchdog.
    std::atomic<Clock::rep> decidingSince{0};
    std::thread watchdog;
    std::atomic<bool> stopping{false};
    void watch();

    std::mutex pendingLock; // guards pending
    std::map<std::string, Pending> pending;

    bool openListeners(std::string& whyNot);
    void acceptOn(asio::ip::tcp::acceptor& acceptor);
    void acceptReady(asio::ip::tcp::acceptor& acceptor);
    void pair(int fd, const sockaddr_storage& peer);
    void waitForPackets();
    enum class Answer { direct, refuse, carry };
    // handleNewFlow, and what its answer means for the connection.
    template <class Flow>
    Answer ask(const std::shared_ptr<Flow>& flow);
    std::optional<std::uint32_t> markFor(const QueuedPacket& packet, Answer answer) const;
    void decide(const QueuedPacket& packet);
    void decideDatagram(const QueuedPacket& packet);
    bool openTransparent(std::uint16_t& port, std::string& whyNot);
    void receiveDatagrams(asio::posix::stream_descriptor& socket);
    void relayDirect(asio::ip::tcp::socket accepted,
                     const std::pair<std::string, std::uint16_t>& destination);
    // `diag`: a sock_diag socket for this thread alone; -1 makes one.
    NEFlowMetaData metaDataFor(const QueuedPacket& packet, int diag);
    void sweep();
    std::string handleMessage(std::string_view line);
};

LinuxFlowHost::LinuxFlowHost(Options options) : impl_(std::make_unique<Impl>(std::move(options))) {}

LinuxFlowHost::~LinuxFlowHost() = default;

bool LinuxFlowHost::Impl::openListeners(std::string& whyNot) {
    // One port for both families: the redirect names a port, and the
    // address is the loopback of the connection's own family.
    try {
        listener4 = std::make_unique<asio::ip::tcp::acceptor>(
            io, asio::ip::tcp::endpoint(asio::ip::make_address("127.0.0.1"), options.listenerPort));
        const auto port = listener4->local_endpoint().port();
        listener6 = std::make_unique<asio::ip::tcp::acceptor>(io);
        listener6->open(asio::ip::tcp::v6());
        listener6->set_option(asio::ip::v6_only(true));
        std::error_code error;
        listener6->bind(asio::ip::tcp::endpoint(asio::ip::make_address("::1"), port), error);
        if (error) {
            // No IPv6 loopback here: IPv6 connections then stay direct.
            platform::log::error("no IPv6 listener ({}); IPv6 connections go direct",
                                 error.message());
            listener6.reset();
        } else {
            listener6->listen();
        }
    } catch (const std::system_error& error) {
        whyNot = std::string("cannot listen on the loopback: ") + error.what();
        return false;
    }
    for (auto* listener : {listener4.get(), listener6.get()}) {
        if (listener) {
            listener->non_blocking(true);
            acceptOn(*listener);
        }
    }
    return true;
}

// Accepted by hand, with the peer's address: the socket reaches its flow as
// a bare descriptor, never registered with the reactor on the way.
void LinuxFlowHost::Impl::acceptOn(asio::ip::tcp::acceptor& acceptor) {
    acceptor.async_wait(asio::ip::tcp::acceptor::wait_read,
                        [this, &acceptor](const std::error_code& error) {
                            if (error != asio::error::operation_aborted) {
                                acceptReady(acceptor);
                            }
                        });
}

void LinuxFlowHost::Impl::acceptReady(asio::ip::tcp::acceptor& acceptor) {
    for (int round = 0; round < 64; ++round) {
        sockaddr_storage peer{};
        socklen_t length = sizeof peer;
        const int fd = ::accept4(acceptor.native_handle(), reinterpret_cast<sockaddr*>(&peer),
                                 &length, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd >= 0) {
            pair(fd, peer);
        } else if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
            // Out of descriptors: the listener stays readable, so wait for
            // flows to end rather than spin on it.
            auto pause = std::make_shared<asio::steady_timer>(io, std::chrono::milliseconds(50));
            pause->async_wait([this, &acceptor, pause](const std::error_code& error) {
                if (!error) {
                    acceptOn(acceptor);
                }
            });
            return;
        } else if (errno != EINTR && errno != ECONNABORTED) {
            break;
        }
    }
    acceptOn(acceptor);
}

void LinuxFlowHost::Impl::pair(int fd, const sockaddr_storage& peerAddress) {
    const bool v6 = peerAddress.ss_family == AF_INET6;
    const auto peer = addressText(peerAddress);
    const auto original = originalDestination(fd, v6);
    std::shared_ptr<LinuxTCPFlow> flow;
    if (original) {
        const auto key = pendingKey(peer.first, peer.second, original->first, original->second);
        std::lock_guard guard(pendingLock);
        if (auto found = pending.find(key); found != pending.end()) {
            flow = std::move(found->second.flow);
            pending.erase(found);
        }
    }
    if (!flow && original) {
        // Its first packet never reached the queue (its connection tracking
        // entry was reopened by a reused source port and kept the verdict of
        // the earlier connection): it is decided now, as it arrives.
        QueuedPacket late;
        late.family = v6 ? AF_INET6 : AF_INET;
        late.protocol = IPPROTO_TCP;
        late.source = peer.first;
        late.sourcePort = peer.second;
        late.destination = original->first;
        late.destinationPort = original->second;
        auto candidate =
            LinuxTCPFlow::make(io,
                               NWHostEndpoint::endpointWithHostname(
                                   late.destination, std::to_string(late.destinationPort)),
                               metaDataFor(late, -1));
        const auto answer = ask(candidate);
        if (answer == Answer::carry) {
            flow = std::move(candidate);
        } else if (answer == Answer::direct) {
            // Already redirected, it cannot simply proceed: it goes where it
            // was going from a socket of our own.
            asio::ip::tcp::socket socket(io);
            std::error_code error;
            socket.assign(v6 ? asio::ip::tcp::v6() : asio::ip::tcp::v4(), fd, error);
            if (error) {
                ::close(fd);
                return;
            }
            relayDirect(std::move(socket), *original);
            return;
        }
    }
    if (!flow) {
        // Nobody asked for this one (a connection to the listener itself, or
        // one refused): refuse it plainly.
        ::linger off{1, 0};
        ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &off, sizeof off);
        ::close(fd);
        return;
    }
    flow->attach(fd, v6);
}

void LinuxFlowHost::Impl::relayDirect(asio::ip::tcp::socket accepted,
                                      const std::pair<std::string, std::uint16_t>& destination) {
    auto app = std::make_shared<asio::ip::tcp::socket>(std::move(accepted));
    auto upstream = std::make_shared<asio::ip::tcp::socket>(io);
    auto resetApp = [app] {
        ::linger off{1, 0};
        ::setsockopt(app->native_handle(), SOL_SOCKET, SO_LINGER, &off, sizeof off);
        std::error_code ignored;
        app->close(ignored);
    };
    std::error_code error;
    const asio::ip::tcp::endpoint to(asio::ip::make_address(destination.first, error),
                                     destination.second);
    if (!error) {
        upstream->open(to.protocol(), error);
    }
    if (error) {
        resetApp();
        return;
    }
    const int mark = static_cast<int>(bypassSocketMark());
    ::setsockopt(upstream->native_handle(), SOL_SOCKET, SO_MARK, &mark, sizeof mark);
    upstream->async_connect(to, [this, app, upstream, resetApp](const std::error_code& failed) {
        if (failed) {
            resetApp();
            return;
        }
        auto relay = SpliceRelay::make(io, [](const SpliceRelay::Ending&) {});
        if (!relay) {
            resetApp();
            return;
        }
        // The relay closes both, resetting the application's when the
        // upstream fails.
        std::error_code ignored;
        const int appFd = app->release(ignored);
        relay->start(appFd, upstream->release(ignored));
    });
}

void LinuxFlowHost::Impl::waitForPackets() {
    queueReady->async_wait(asio::posix::stream_descriptor::wait_read,
                           [this](const std::error_code& error) {
                               if (error) {
                                   return;
                               }
                               for (const auto& packet : queue->receive()) {
                                   decidingSince = Clock::now().time_since_epoch().count();
                                   decide(packet);
                                   decidingSince = 0;
                               }
                               waitForPackets();
                           });
}

NEFlowMetaData LinuxFlowHost::Impl::metaDataFor(const QueuedPacket& packet, int diag) {
    NEFlowMetaData metaData;
    const auto owner =
        lookupSocket(packet.family, packet.protocol, packet.source, packet.sourcePort,
                     packet.destination, packet.destinationPort, diag);
    if (!owner) {
        return metaData;
    }
    if (const auto pid = resolver.pidFor(*owner)) {
        metaData.sourceAppSigningIdentifier = identifiers.forProcess(*pid, owner->cgroupId);
        metaData.sourceAppAuditToken = makeAuditToken(*pid);
    }
    return metaData;
}

template <class Flow>
LinuxFlowHost::Impl::Answer LinuxFlowHost::Impl::ask(const std::shared_ptr<Flow>& flow) {
    if (!provider->handleNewFlow(flow)) {
        return Answer::direct;
    }
    // Closed inside handleNewFlow: a refusal, before anything was opened.
    return flow->closedBeforeOpen() ? Answer::refuse : Answer::carry;
}

std::optional<std::uint32_t> LinuxFlowHost::Impl::markFor(const QueuedPacket& packet,
                                                          Answer answer) const {
    if (answer == Answer::direct) {
        return std::nullopt; // declined: the connection simply proceeds
    }
    // A verdict's mark replaces the packet's whole mark: the bits outside
    // our mask (a VPN's, a container runtime's) are carried over.
    const std::uint32_t kept = packet.mark & ~options.markMask;
    return kept | (answer == Answer::refuse ? options.refuseMark : options.carryMark);
}

void LinuxFlowHost::Impl::decide(const QueuedPacket& packet) {
    if (packet.protocol == IPPROTO_UDP) {
        decideDatagram(packet);
        return;
    }
    if (packet.protocol != IPPROTO_TCP) {
        queue->accept(packet.id, std::nullopt);
        return;
    }
    auto flow = LinuxTCPFlow::make(io,
                                   NWHostEndpoint::endpointWithHostname(
                                       packet.destination, std::to_string(packet.destinationPort)),
                                   metaDataFor(packet, diagSocket.get()));
    const auto key =
        pendingKey(packet.source, packet.sourcePort, packet.destination, packet.destinationPort);
    {
        // In the table before the answer: the redirected connection may
        // reach the listener before handleNewFlow has returned.
        std::lock_guard guard(pendingLock);
        pending[key] = Pending{flow, Clock::now()};
    }
    const auto answer = ask(flow);
    if (answer != Answer::carry) {
        std::lock_guard guard(pendingLock);
        pending.erase(key);
    }
    queue->accept(packet.id, markFor(packet, answer));
}

void LinuxFlowHost::Impl::decideDatagram(const QueuedPacket& packet) {
    const auto key = packet.source + "|" + std::to_string(packet.sourcePort);
    auto metaData = metaDataFor(packet, diagSocket.get());
    if (packet.destinationPort == 53) {
        // Our own look-ups (a proxy's name, say) go out as they are: the
        // system resolver's sockets cannot carry the bypass mark, and an
        // answer of ours to ourselves would be a fake address.
        const auto pid = metaData.sourceAppAuditToken
                             ? auditTokenProcessID(*metaData.sourceAppAuditToken)
                             : std::nullopt;
        if (pid && *pid == ::getpid()) {
            queue->accept(packet.id, std::nullopt);
            return;
        }
    }
    {
        // The socket's flow exists already: a new peer of the same socket is
        // carried by it.
        std::lock_guard guard(udpLock);
        if (udpFlows.count(key) != 0) {
            queue->accept(packet.id, markFor(packet, Answer::carry));
            return;
        }
    }
    auto flow = LinuxUDPFlow::make(io, packet.source, packet.sourcePort,
                                   NWHostEndpoint::endpointWithHostname(
                                       packet.destination, std::to_string(packet.destinationPort)),
                                   std::move(metaData), options.bypassMark, [this, key] {
                                       std::lock_guard guard(udpLock);
                                       udpFlows.erase(key);
                                   });
    {
        std::lock_guard guard(udpLock);
        udpFlows[key] = flow;
    }
    const auto answer = ask(flow);
    if (answer != Answer::carry) {
        std::lock_guard guard(udpLock);
        udpFlows.erase(key);
    }
    queue->accept(packet.id, markFor(packet, answer));
}

bool LinuxFlowHost::Impl::openTransparent(std::uint16_t& port, std::string& whyNot) {
    for (const int family : {AF_INET, AF_INET6}) {
        const bool v4 = family == AF_INET;
        const int fd = ::socket(family, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        const int on = 1;
        sockaddr_storage address{};
        socklen_t length = 0;
        if (v4) {
            auto* in4 = reinterpret_cast<sockaddr_in*>(&address);
            in4->sin_family = AF_INET;
            in4->sin_port = htons(port);
            length = sizeof *in4;
        } else {
            auto* in6 = reinterpret_cast<sockaddr_in6*>(&address);
            in6->sin6_family = AF_INET6;
            in6->sin6_port = htons(port);
            length = sizeof *in6;
            ::setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on);
        }
        const int level = v4 ? SOL_IP : SOL_IPV6;
        if (fd < 0 ||
            ::setsockopt(fd, level, v4 ? IP_TRANSPARENT : IPV6_TRANSPARENT, &on, sizeof on) != 0 ||
            ::setsockopt(fd, level, v4 ? IP_RECVORIGDSTADDR : IPV6_RECVORIGDSTADDR, &on,
                         sizeof on) != 0 ||
            ::bind(fd, reinterpret_cast<sockaddr*>(&address), length) != 0) {
            whyNot = std::string("no transparent UDP socket: ") + std::strerror(errno);
            if (fd >= 0) {
                ::close(fd);
            }
            transparent.clear();
            return false;
        }
        if (port == 0) {
            ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
            port = addressText(address).second;
        }
        transparent.push_back(std::make_unique<asio::posix::stream_descriptor>(io, fd));
    }
    for (auto& socket : transparent) {
        receiveDatagrams(*socket);
    }
    return true;
}

void LinuxFlowHost::Impl::receiveDatagrams(asio::posix::stream_descriptor& socket) {
    socket.async_wait(asio::posix::stream_descriptor::wait_read, [this, &socket](
                                                                     const std::error_code& error) {
        if (error) {
            return;
        }
        for (;;) {
            Bytes payload(65536);
            sockaddr_storage from{};
            char control[256];
            iovec vector{payload.data(), payload.size()};
            msghdr message{};
            message.msg_name = &from;
            message.msg_namelen = sizeof from;
            message.msg_iov = &vector;
            message.msg_iovlen = 1;
            message.msg_control = control;
            message.msg_controllen = sizeof control;
            const ssize_t size = ::recvmsg(socket.native_handle(), &message, MSG_DONTWAIT);
            if (size < 0) {
                break;
            }
            std::optional<std::pair<std::string, std::uint16_t>> destination;
            for (cmsghdr* c = CMSG_FIRSTHDR(&message); c != nullptr; c = CMSG_NXTHDR(&message, c)) {
                if ((c->cmsg_level == SOL_IP && c->cmsg_type == IP_ORIGDSTADDR) ||
                    (c->cmsg_level == SOL_IPV6 && c->cmsg_type == IPV6_ORIGDSTADDR)) {
                    sockaddr_storage original{};
                    std::memcpy(&original, CMSG_DATA(c),
                                std::min<std::size_t>(c->cmsg_len - CMSG_LEN(0), sizeof original));
                    destination = addressText(original);
                }
            }
            const auto source = addressText(from);
            std::shared_ptr<LinuxUDPFlow> flow;
            {
                std::lock_guard guard(udpLock);
                if (auto found = udpFlows.find(source.first + "|" + std::to_string(source.second));
                    found != udpFlows.end()) {
                    flow = found->second;
                }
            }
            if (flow && destination) {
                payload.resize(static_cast<std::size_t>(size));
                flow->deliver(std::move(payload), destination->first, destination->second);
            }
        }
        receiveDatagrams(socket);
    });
}

void LinuxFlowHost::Impl::watch() {
    while (!stopping) {
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
        const auto since = decidingSince.load();
        if (since != 0 && Clock::now() - Clock::time_point(Clock::duration(since)) > hungDecision) {
            // Dying is the one sure way out: the kernel drops our tables with
            // the process, and every new connection goes direct again.
            platform::log::error("a decision has hung for {} s; leaving so that traffic flows",
                                 hungDecision.count());
            std::_Exit(3);
        }
    }
}

void LinuxFlowHost::Impl::sweep() {
    sweeper->expires_after(std::chrono::seconds(2));
    sweeper->async_wait([this](const std::error_code& error) {
        if (error) {
            return;
        }
        std::vector<std::shared_ptr<LinuxTCPFlow>> expired;
        {
            std::lock_guard guard(pendingLock);
            const auto now = Clock::now();
            for (auto it = pending.begin(); it != pending.end();) {
                if (now - it->second.since > pendingLifetime) {
                    expired.push_back(std::move(it->second.flow));
                    it = pending.erase(it);
                } else {
                    ++it;
                }
            }
        }
        for (const auto& flow : expired) {
            flow->abandon(NEAppProxyError::notConnected());
        }
        std::vector<std::shared_ptr<LinuxUDPFlow>> idle;
        {
            std::lock_guard guard(udpLock);
            for (const auto& [key, flow] : udpFlows) {
                const auto* first = hostEndpoint(flow->firstRemoteEndpoint());
                const bool dns = first != nullptr && first->port() == "53";
                if (Clock::now() - flow->lastActivity() >
                    (dns ? dnsIdleLifetime : udpIdleLifetime)) {
                    idle.push_back(flow);
                }
            }
        }
        for (const auto& flow : idle) {
            flow->end();
        }
        sweep();
    });
}

std::string LinuxFlowHost::Impl::handleMessage(std::string_view line) {
    auto reply = std::make_shared<std::promise<std::string>>();
    auto answer = reply->get_future();
    provider->handleAppMessage(
        Bytes(line.begin(), line.end()), [reply](std::optional<Bytes> bytes) {
            reply->set_value(bytes ? std::string(bytes->begin(), bytes->end()) : std::string());
        });
    return answer.get();
}

void LinuxFlowHost::setTunnelNetworkSettings(
    std::optional<NETransparentProxyNetworkSettings> settings, SettingsCompletion completion) {
    auto& impl = *impl_;
    auto fail = [&](const std::string& why) {
        FlowError error = NEAppProxyError::make(NEAppProxyError::Code::internal);
        error.text = why;
        completion(error);
    };
    if (!settings) {
        impl.queueReady.reset();
        impl.queue.reset();
        impl.tables.reset();
        completion(std::nullopt);
        return;
    }
    std::string whyNot;
    if (!impl.listener4 && !impl.openListeners(whyNot)) {
        fail(whyNot);
        return;
    }
    TableConfig config;
    config.name = impl.options.tableName;
    config.queueNumber = impl.options.queueNumber;
    config.tcpListenerPort = impl.listener4->local_endpoint().port();
    config.localIncluded = impl.options.localIncluded;
    config.exemptUsers = impl.options.exemptUsers;
    std::uint16_t udpPort = 0;
    if (impl.transparent.empty() && !impl.openTransparent(udpPort, whyNot)) {
        // TCP is captured all the same; QUIC then simply goes direct.
        platform::log::error("{}; UDP/443 goes direct", whyNot);
        whyNot.clear();
    }
    config.udpTransparentPort = udpPort;
    if (impl.options.captureDNS && udpPort == 0) {
        platform::log::error("DNS cannot be captured without a transparent UDP socket");
    }
    // Only when the provider's rules ask for DNS as well as for QUIC.
    config.captureDNS = impl.options.captureDNS && udpPort != 0 &&
                        std::any_of(settings->includedNetworkRules.begin(),
                                    settings->includedNetworkRules.end(), [](const auto& rule) {
                                        return rule.protocol == NENetworkRule::Protocol::udp &&
                                               rule.remoteNetwork &&
                                               rule.remoteNetwork->port() == "53";
                                    });
    config.marks.mask = impl.options.markMask;
    config.marks.bypass = impl.options.bypassMark;
    config.marks.carry = impl.options.carryMark;
    config.marks.refuse = impl.options.refuseMark;
    // The tables first: they also tell whether another instance runs. Until
    // the queue is bound, its bypass lets every packet pass.
    impl.tables = CaptureTables::install(config, whyNot);
    if (!impl.tables) {
        fail(whyNot);
        return;
    }
    if (!impl.connectOwners) {
        // Without the hook owners are still found, through the socket's
        // cgroup and /proc, only slower for a process's first connection.
        impl.connectOwners = ConnectOwners::attach(whyNot);
        if (impl.connectOwners) {
            impl.resolver.setCookieLookup([hook = impl.connectOwners.get()](std::uint64_t cookie) {
                return hook->pidOf(cookie);
            });
        } else {
            platform::log::error("{}; owners are found through /proc", whyNot);
            whyNot.clear();
        }
    }
    impl.queue = FlowQueue::open(impl.options.queueNumber, whyNot);
    if (!impl.queue) {
        impl.tables.reset();
        fail(whyNot);
        return;
    }
    impl.queueReady =
        std::make_unique<asio::posix::stream_descriptor>(impl.io, ::dup(impl.queue->fd()));
    impl.waitForPackets();
    completion(std::nullopt);
}

DispatchQueue* LinuxFlowHost::sharedQueue() {
    return &impl_->io;
}

bool LinuxFlowHost::capturesDNS() const {
    return impl_->options.captureDNS;
}

int LinuxFlowHost::run(std::shared_ptr<NETransparentProxyProvider> provider) {
    auto& impl = *impl_;
    impl.provider = provider;
    setBypassSocketMark(impl.options.bypassMark);
    // A peer gone while bytes move to it is an error of that flow: splice()
    // has no flag to keep the signal away, so it is ignored process-wide.
    std::signal(SIGPIPE, SIG_IGN);
    const auto descriptors = raiseDescriptorLimit();
    provider->attachHost(weak_from_this());
    if (impl.options.profile) {
        provider->setProtocolConfiguration(
            NETunnelProviderProtocol{ProviderDictionary{{"profile", *impl.options.profile}}});
    }

    std::promise<std::optional<FlowError>> started;
    provider->startProxy(std::nullopt, [&started](const std::optional<FlowError>& error) {
        started.set_value(error);
    });
    if (auto error = started.get_future().get()) {
        platform::log::error("capture unavailable: {}", error->localizedDescription());
        impl.tables.reset();
        return 2;
    }

    try {
        const auto path = impl.options.messageSocketPath.empty()
                              ? RuntimePaths::socketPath(messageService)
                              : impl.options.messageSocketPath;
        if (impl.options.messageSocketPath.empty()) {
            RuntimePaths::prepareDirectory(RuntimePaths::runtimeDirectory());
        }
        impl.messages = std::make_unique<UnixLineServer>(
            path, [&impl](std::string_view line) { return impl.handleMessage(line); });
        impl.messages->start();
    } catch (const std::exception& error) {
        platform::log::error("app messages unavailable: {}", error.what());
    }

    impl.sweeper = std::make_unique<asio::steady_timer>(impl.io);
    impl.sweep();
    impl.signals.async_wait([&impl](const std::error_code&, int) { impl.io.stop(); });
    platform::log::info(
        "capture running: table {}, queue {}, listener port {}, owners {}{}, {} descriptors",
        impl.options.tableName, impl.options.queueNumber, impl.listener4->local_endpoint().port(),
        impl.connectOwners ? "by connect hook" : "through /proc",
        impl.tables && impl.tables->config().captureDNS ? ", DNS captured" : "", descriptors);

    impl.watchdog = std::thread([&impl] { impl.watch(); });
    std::vector<std::thread> threads;
    for (int i = 1; i < std::max(impl.options.threads, 1); ++i) {
        threads.emplace_back([&impl] { impl.io.run(); });
    }
    impl.io.run();
    for (auto& thread : threads) {
        thread.join();
    }
    impl.stopping = true;
    impl.watchdog.join();

    // New connections go direct from the moment the tables are gone;
    // carried ones keep their redirect in conntrack until they end.
    impl.messages.reset();
    impl.transparent.clear();
    impl.queueReady.reset();
    impl.tables.reset();
    impl.queue.reset();
    std::promise<void> stopped;
    provider->stopProxy(0, [&stopped] { stopped.set_value(); });
    stopped.get_future().wait();
    platform::log::info("capture stopped");
    return 0;
}

} // namespace veltrane::platform::capture
