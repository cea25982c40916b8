#include "VeltraneKit/ExtensionControlClient.hpp"

#include "VeltraneKit/DTOCoding.hpp"
#include "VeltraneKit/ExtensionControlWire.hpp"
#include "VeltraneKit/Localize.hpp"

#include <cerrno>
#include <cstring>
#include <nlohmann/json.hpp>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

namespace veltrane::kit {

using nlohmann::json;
using Kind = ExtensionControlError::Kind;

namespace {

// Far above any real reply (2000 events are about a megabyte).
constexpr std::size_t kMaxReply = 256u << 20;

} // namespace

ExtensionControlError::ExtensionControlError(Kind kind, std::string socketPath, std::string detail)
    : kind_(kind), socketPath_(std::move(socketPath)), detail_(std::move(detail)) {}

std::string ExtensionControlError::localizedDescription() const {
    switch (kind_) {
    case Kind::notRunning:
        return RL("no extension is running (nothing answers at %@)", {socketPath_});
    case Kind::permissionDenied:
        return RL("not allowed to talk to the extension at %@: %@", {socketPath_, detail_});
    case Kind::timedOut:
        return RL("the extension at %@ did not answer in time", {socketPath_});
    case Kind::connectionLost:
        return RL("the extension at %@ closed the connection", {socketPath_});
    case Kind::badReply:
        return RL("the extension at %@ sent a reply that does not read: %@",
                  {socketPath_, detail_});
    case Kind::rejected:
        return RL("the extension at %@ refused the request: %@", {socketPath_, detail_});
    }
    return detail_;
}

ExtensionControlClient::ExtensionControlClient(std::string socketPath,
                                               std::chrono::milliseconds timeout)
    : socketPath_(std::move(socketPath)), timeout_(timeout) {}

ExtensionControlClient::~ExtensionControlClient() {
    close();
}

void ExtensionControlClient::fail(Kind kind, std::string detail) {
    close();
    throw ExtensionControlError(kind, socketPath_, std::move(detail));
}

void ExtensionControlClient::connect() {
    if (fd_ >= 0) {
        return;
    }
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (socketPath_.empty() || socketPath_.size() >= sizeof address.sun_path) {
        fail(Kind::notRunning, "socket path too long");
    }
    std::memcpy(address.sun_path, socketPath_.c_str(), socketPath_.size() + 1);
    fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd_ < 0) {
        fail(Kind::connectionLost, std::strerror(errno));
    }
    timeval tv{};
    tv.tv_sec = static_cast<time_t>(timeout_.count() / 1000);
    tv.tv_usec = static_cast<suseconds_t>((timeout_.count() % 1000) * 1000);
    ::setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    ::setsockopt(fd_, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
    if (::connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        const int error = errno;
        switch (error) {
        case EACCES:
        case EPERM:
            fail(Kind::permissionDenied, std::strerror(error));
        case EAGAIN:
        case ETIMEDOUT:
            fail(Kind::timedOut, std::strerror(error));
        default:
            // ENOENT, ECONNREFUSED, ENOTDIR, ENOTSOCK: nothing serves here.
            fail(Kind::notRunning, std::strerror(error));
        }
    }
    received_.clear();
}

void ExtensionControlClient::close() {
    if (fd_ >= 0) {
        ::close(fd_);
        fd_ = -1;
    }
    received_.clear();
}

void ExtensionControlClient::sendAll(std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t n = ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            if (errno == EAGAIN || errno == EWOULDBLOCK) {
                fail(Kind::timedOut, "send");
            }
            fail(Kind::connectionLost, std::strerror(errno));
        }
        bytes.remove_prefix(static_cast<std::size_t>(n));
    }
}

std::string ExtensionControlClient::readLine() {
    std::size_t searched = 0;
    for (;;) {
        const auto newline = received_.find('\n', searched);
        if (newline != std::string::npos) {
            std::string line = received_.substr(0, newline);
            received_.erase(0, newline + 1);
            return line;
        }
        searched = received_.size();
        if (received_.size() > kMaxReply) {
            fail(Kind::badReply, "reply too long");
        }
        char chunk[16384];
        const ssize_t n = ::recv(fd_, chunk, sizeof chunk, 0);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            if (errno == EAGAIN || errno == EWOULDBLOCK) {
                fail(Kind::timedOut, "receive");
            }
            fail(Kind::connectionLost, std::strerror(errno));
        }
        if (n == 0) {
            fail(Kind::connectionLost, "end of stream");
        }
        received_.append(chunk, static_cast<std::size_t>(n));
    }
}

json ExtensionControlClient::call(std::string_view selector, const json& arguments) {
    connect();
    const std::uint64_t id = nextID_++;
    const json idValue(id);
    sendAll(ExtensionControlWire::requestLine(selector, arguments, &idValue) + "\n");
    const std::string line = readLine();
    auto reply = DTOCoding::parse(line);
    if (!reply || !reply->is_object()) {
        fail(Kind::badReply, "not a JSON object");
    }
    auto echoed = reply->find("id");
    if (echoed != reply->end() && *echoed != idValue) {
        fail(Kind::badReply, "reply to another request");
    }
    if (auto error = reply->find("error"); error != reply->end()) {
        throw ExtensionControlError(Kind::rejected, socketPath_,
                                    error->is_string() ? error->get<std::string>() : error->dump());
    }
    auto values = reply->find("reply");
    if (values == reply->end() || !values->is_array()) {
        fail(Kind::badReply, "no reply values");
    }
    return *values;
}

bool ExtensionControlClient::ping() {
    const json values = call(ExtensionControlWire::pingSelector, json::array());
    if (values.size() != 1 || !values[0].is_boolean()) {
        fail(Kind::badReply, "ping");
    }
    return values[0].get<bool>();
}

ExtensionControlClient::FetchedEvents
ExtensionControlClient::fetchEvents(std::uint64_t sinceToken) {
    const json values = call(ExtensionControlWire::fetchEventsSelector, json::array({sinceToken}));
    if (values.size() != 2 || !values[1].is_number_unsigned()) {
        fail(Kind::badReply, "events reply");
    }
    FetchedEvents fetched;
    fetched.token = values[1].get<std::uint64_t>();
    if (values[0].is_null()) {
        return fetched;
    }
    if (!values[0].is_array()) {
        fail(Kind::badReply, "events are not an array");
    }
    std::vector<ConnectionEvent> events;
    events.reserve(values[0].size());
    for (const auto& element : values[0]) {
        auto event = DTOCoding::eventFromJSON(element);
        if (!event) {
            fail(Kind::badReply, "an event does not read");
        }
        events.push_back(std::move(*event));
    }
    fetched.events = std::move(events);
    return fetched;
}

std::optional<StatsSnapshot> ExtensionControlClient::fetchStats() {
    const json values = call(ExtensionControlWire::fetchStatsSelector, json::array());
    if (values.size() != 1) {
        fail(Kind::badReply, "stats reply");
    }
    if (values[0].is_null()) {
        return std::nullopt;
    }
    auto stats = DTOCoding::statsFromJSON(values[0]);
    if (!stats) {
        fail(Kind::badReply, "statistics do not read");
    }
    return stats;
}

} // namespace veltrane::kit
