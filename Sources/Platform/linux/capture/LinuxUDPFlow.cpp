#include "Platform/linux/capture/LinuxUDPFlow.hpp"

#include <arpa/inet.h>
#include <asio.hpp>
#include <cerrno>
#include <cstring>
#include <deque>
#include <map>
#include <mutex>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace veltrane::platform::capture {

namespace {

// Datagrams held for a reader that does not read: past this the oldest go,
// as a congested network would drop them.
constexpr std::size_t maxHeld = 256;

std::optional<sockaddr_storage> socketAddress(const std::string& host, std::uint16_t port,
                                              socklen_t& length) {
    sockaddr_storage address{};
    auto* in4 = reinterpret_cast<sockaddr_in*>(&address);
    auto* in6 = reinterpret_cast<sockaddr_in6*>(&address);
    if (::inet_pton(AF_INET, host.c_str(), &in4->sin_addr) == 1) {
        in4->sin_family = AF_INET;
        in4->sin_port = htons(port);
        length = sizeof(sockaddr_in);
        return address;
    }
    if (::inet_pton(AF_INET6, host.c_str(), &in6->sin6_addr) == 1) {
        in6->sin6_family = AF_INET6;
        in6->sin6_port = htons(port);
        length = sizeof(sockaddr_in6);
        return address;
    }
    return std::nullopt;
}

} // namespace

struct LinuxUDPFlow::State {
    DispatchQueue& queue;
    NWEndpointRef localEndpoint;
    NWEndpointRef firstRemote;
    NEFlowMetaData metaData;
    sockaddr_storage application{};
    socklen_t applicationLength = 0;
    std::uint32_t bypassMark = 0;

    mutable std::mutex lock; // guards everything below
    OnEnd onEnd;
    bool opened = false;
    bool ended = false;
    bool readClosed = false;
    bool writeClosed = false;
    std::deque<std::pair<Bytes, NWEndpointRef>> held;
    ReadDatagramsCompletion reader;
    std::chrono::steady_clock::time_point lastActivity = std::chrono::steady_clock::now();
    // One socket per address the replies claim to come from.
    std::map<std::string, int> replySockets;

    State(DispatchQueue& queue, NWEndpointRef localEndpoint, NEFlowMetaData metaData)
        : queue(queue), localEndpoint(std::move(localEndpoint)), metaData(std::move(metaData)) {}

    ~State() {
        for (const auto& [key, fd] : replySockets) {
            ::close(fd);
        }
    }

    // Under `lock`: the reader, with everything held, when there is both.
    std::function<void()> takeReadLocked() {
        if (!reader || (held.empty() && !ended)) {
            return {};
        }
        std::vector<Bytes> datagrams;
        std::vector<NWEndpointRef> endpoints;
        for (auto& [payload, endpoint] : held) {
            datagrams.push_back(std::move(payload));
            endpoints.push_back(std::move(endpoint));
        }
        held.clear();
        return [reader = std::exchange(reader, {}), datagrams = std::move(datagrams),
                endpoints = std::move(endpoints)]() mutable {
            // Empty lists with no error: the flow has ended.
            reader(std::move(datagrams), std::move(endpoints), std::nullopt);
        };
    }

    // Under `lock`. The socket that sends as `host`:`port`; transparent, so
    // it may bind an address that is not this machine's.
    int replySocketLocked(const std::string& host, std::uint16_t port) {
        const std::string key = host + "|" + std::to_string(port);
        if (auto found = replySockets.find(key); found != replySockets.end()) {
            return found->second;
        }
        socklen_t length = 0;
        const auto address = socketAddress(host, port, length);
        if (!address || address->ss_family != application.ss_family) {
            return -1;
        }
        const bool v4 = address->ss_family == AF_INET;
        const int fd = ::socket(address->ss_family, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        const int on = 1;
        ::setsockopt(fd, v4 ? SOL_IP : SOL_IPV6, v4 ? IP_TRANSPARENT : IPV6_TRANSPARENT, &on,
                     sizeof on);
        ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        ::setsockopt(fd, SOL_SOCKET, SO_MARK, &bypassMark, sizeof bypassMark);
        if (!v4) {
            ::setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on);
        }
        if (::bind(fd, reinterpret_cast<const sockaddr*>(&*address), length) != 0) {
            ::close(fd);
            return -1;
        }
        replySockets.emplace(key, fd);
        return fd;
    }

    void finishIfClosed() {
        OnEnd done;
        {
            std::lock_guard guard(lock);
            if (!(readClosed && writeClosed)) {
                return;
            }
            done = std::exchange(onEnd, {});
        }
        if (done) {
            done();
        }
    }
};

std::shared_ptr<LinuxUDPFlow> LinuxUDPFlow::make(DispatchQueue& queue, std::string applicationHost,
                                                 std::uint16_t applicationPort,
                                                 NWEndpointRef firstRemote, NEFlowMetaData metaData,
                                                 std::uint32_t bypassMark, OnEnd onEnd) {
    auto state = std::make_shared<State>(
        queue,
        NWHostEndpoint::endpointWithHostname(applicationHost, std::to_string(applicationPort)),
        std::move(metaData));
    if (auto address = socketAddress(applicationHost, applicationPort, state->applicationLength)) {
        state->application = *address;
    }
    state->bypassMark = bypassMark;
    state->firstRemote = std::move(firstRemote);
    state->onEnd = std::move(onEnd);
    return std::make_shared<LinuxUDPFlow>(std::move(state));
}

LinuxUDPFlow::LinuxUDPFlow(std::shared_ptr<State> state) : state_(std::move(state)) {}

LinuxUDPFlow::~LinuxUDPFlow() = default;

NEFlowMetaData LinuxUDPFlow::metaData() const {
    return state_->metaData;
}

NWEndpointRef LinuxUDPFlow::localEndpoint() const {
    return state_->localEndpoint;
}

NWEndpointRef LinuxUDPFlow::firstRemoteEndpoint() const {
    return state_->firstRemote;
}

std::chrono::steady_clock::time_point LinuxUDPFlow::lastActivity() const {
    std::lock_guard guard(state_->lock);
    return state_->lastActivity;
}

bool LinuxUDPFlow::closedBeforeOpen() const {
    std::lock_guard guard(state_->lock);
    return !state_->opened && state_->readClosed && state_->writeClosed;
}

void LinuxUDPFlow::deliver(Bytes payload, std::string destinationHost,
                           std::uint16_t destinationPort) {
    std::function<void()> read;
    {
        std::lock_guard guard(state_->lock);
        if (state_->ended || state_->readClosed) {
            return;
        }
        state_->lastActivity = std::chrono::steady_clock::now();
        if (state_->held.size() == maxHeld) {
            state_->held.pop_front();
        }
        state_->held.emplace_back(std::move(payload),
                                  NWHostEndpoint::endpointWithHostname(
                                      std::move(destinationHost), std::to_string(destinationPort)));
        read = state_->takeReadLocked();
    }
    if (read) {
        asio::post(state_->queue, std::move(read));
    }
}

void LinuxUDPFlow::end() {
    std::function<void()> read;
    {
        std::lock_guard guard(state_->lock);
        state_->ended = true;
        read = state_->takeReadLocked();
    }
    if (read) {
        asio::post(state_->queue, std::move(read));
    }
}

void LinuxUDPFlow::open(OpenCompletion completion) {
    {
        std::lock_guard guard(state_->lock);
        state_->opened = true;
    }
    asio::post(state_->queue, [completion = std::move(completion)] { completion(std::nullopt); });
}

void LinuxUDPFlow::closeRead(const std::optional<FlowError>&) {
    std::function<void()> read;
    {
        std::lock_guard guard(state_->lock);
        state_->readClosed = true;
        state_->ended = true;
        read = state_->takeReadLocked();
    }
    if (read) {
        asio::post(state_->queue, std::move(read));
    }
    state_->finishIfClosed();
}

void LinuxUDPFlow::closeWrite(const std::optional<FlowError>&) {
    {
        std::lock_guard guard(state_->lock);
        state_->writeClosed = true;
    }
    state_->finishIfClosed();
}

void LinuxUDPFlow::readDatagrams(ReadDatagramsCompletion completion) {
    std::function<void()> read;
    {
        std::lock_guard guard(state_->lock);
        if (!state_->opened) {
            asio::post(state_->queue, [completion = std::move(completion)] {
                completion(std::nullopt, std::nullopt, NEAppProxyError::notConnected());
            });
            return;
        }
        state_->reader = std::move(completion);
        read = state_->takeReadLocked();
    }
    if (read) {
        asio::post(state_->queue, std::move(read));
    }
}

void LinuxUDPFlow::writeDatagrams(std::vector<Bytes> datagrams, std::vector<NWEndpointRef> sentBy,
                                  WriteDatagramsCompletion completion) {
    std::optional<FlowError> error;
    {
        std::lock_guard guard(state_->lock);
        if (!state_->opened || state_->writeClosed) {
            error = NEAppProxyError::notConnected();
        } else {
            state_->lastActivity = std::chrono::steady_clock::now();
            for (std::size_t i = 0; i < datagrams.size() && i < sentBy.size(); ++i) {
                const auto* from = hostEndpoint(sentBy[i]);
                const auto port = from ? std::strtoul(from->port().c_str(), nullptr, 10) : 0;
                const int fd = from ? state_->replySocketLocked(from->hostname(),
                                                                static_cast<std::uint16_t>(port))
                                    : -1;
                // A datagram that cannot be sent is lost, as on any network.
                if (fd >= 0) {
                    ::sendto(fd, datagrams[i].data(), datagrams[i].size(), MSG_DONTWAIT,
                             reinterpret_cast<const sockaddr*>(&state_->application),
                             state_->applicationLength);
                }
            }
        }
    }
    asio::post(state_->queue, [completion = std::move(completion), error] { completion(error); });
}

} // namespace veltrane::platform::capture
