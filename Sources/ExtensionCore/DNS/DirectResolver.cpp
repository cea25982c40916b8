#include "ExtensionCore/DNS/DirectResolver.hpp"

#include "ExtensionCore/DecimalText.hpp"
#include "Platform/linux/SmallFile.hpp"

#include <arpa/inet.h>
#include <arpa/nameser.h>
#include <asio.hpp>
#include <atomic>
#include <memory>
#include <random>
#include <resolv.h>

namespace veltrane::core::DirectResolver {

namespace {

bool isLoopback(const std::string& address) {
    std::error_code error;
    const auto parsed = asio::ip::make_address(address, error);
    return !error && parsed.is_loopback();
}

std::uint16_t randomID() {
    thread_local std::mt19937 generator{std::random_device{}()};
    return static_cast<std::uint16_t>(generator());
}

// One question of one type; completes once, with nothing on a time-out or a
// reply that is not one.
void ask(const std::string& name, std::uint16_t type, const std::string& address,
         std::uint16_t port, platform::NWConnectionService& connections,
         platform::DispatchQueue& queue, std::chrono::milliseconds timeout,
         std::function<void(std::optional<std::vector<std::string>>)> done) {
    const auto id = randomID();
    auto query = makeQuery(id, name, type);
    if (query.empty()) {
        done(std::nullopt);
        return;
    }
    auto connection = connections.makeConnection(address, port, platform::NWParameters::udp());
    connection->start(queue);
    connection->send(std::move(query), [](const std::optional<platform::NWError>&) {});
    auto strand = asio::make_strand(queue);
    auto timer = std::make_shared<asio::steady_timer>(strand, timeout);
    timer->async_wait([connection](const std::error_code& error) {
        if (!error) {
            connection->cancel(); // the pending receive then ends empty-handed
        }
    });
    // Weak: the connection holds this receive until it ends, and a strong
    // reference back would keep both for ever if the queue stopped first.
    connection->receiveMessage([weak = std::weak_ptr(connection), timer, strand, id, type,
                                done = std::move(done)](std::optional<Bytes> data, bool,
                                                        const std::optional<platform::NWError>&) {
        if (auto connection = weak.lock()) {
            connection->cancel();
        }
        asio::post(strand, [timer] { timer->cancel(); });
        done(data ? parseAddresses(*data, id, type) : std::nullopt);
    });
}

} // namespace

Bytes makeQuery(std::uint16_t id, std::string_view name, std::uint16_t type) {
    if (!name.empty() && name.back() == '.') {
        name.remove_suffix(1);
    }
    if (name.empty() || name.size() > 253) {
        return {};
    }
    Bytes query{static_cast<std::uint8_t>(id >> 8),
                static_cast<std::uint8_t>(id),
                0x01, // RD: the server resolves for us
                0x00,
                0x00,
                0x01, // one question
                0x00,
                0x00,
                0x00,
                0x00,
                0x00,
                0x00};
    std::size_t start = 0;
    while (start <= name.size()) {
        auto end = name.find('.', start);
        if (end == std::string_view::npos) {
            end = name.size();
        }
        const auto length = end - start;
        if (length == 0 || length > 63) {
            return {};
        }
        query.push_back(static_cast<std::uint8_t>(length));
        query.insert(query.end(), name.begin() + static_cast<std::ptrdiff_t>(start),
                     name.begin() + static_cast<std::ptrdiff_t>(end));
        start = end + 1;
    }
    query.insert(query.end(), {0x00, static_cast<std::uint8_t>(type >> 8),
                               static_cast<std::uint8_t>(type), 0x00, 0x01});
    return query;
}

std::optional<std::vector<std::string>> parseAddresses(std::span<const std::uint8_t> reply,
                                                       std::uint16_t id, std::uint16_t type) {
    ns_msg message{};
    if (reply.size() > 65535 ||
        ns_initparse(reply.data(), static_cast<int>(reply.size()), &message) != 0) {
        return std::nullopt;
    }
    if (ns_msg_id(message) != id || ns_msg_getflag(message, ns_f_qr) == 0) {
        return std::nullopt;
    }
    const int rcode = ns_msg_getflag(message, ns_f_rcode);
    std::vector<std::string> addresses;
    if (rcode == ns_r_nxdomain) {
        return addresses; // no such name: no address of any type
    }
    if (rcode != ns_r_noerror) {
        return std::nullopt;
    }
    const int family = type == typeAAAA ? AF_INET6 : AF_INET;
    const std::size_t size = type == typeAAAA ? 16 : 4;
    for (int i = 0; i < ns_msg_count(message, ns_s_an); ++i) {
        ns_rr record{};
        if (ns_parserr(&message, ns_s_an, i, &record) != 0) {
            return std::nullopt;
        }
        // CNAMEs lead the way to the records asked for; only those count.
        if (ns_rr_type(record) != type || ns_rr_class(record) != ns_c_in ||
            ns_rr_rdlen(record) != size) {
            continue;
        }
        char text[INET6_ADDRSTRLEN] = {};
        if (::inet_ntop(family, ns_rr_rdata(record), text, sizeof text) != nullptr) {
            addresses.emplace_back(text);
        }
    }
    return addresses;
}

std::vector<std::string> serversIn(std::string_view resolvConf) {
    std::vector<std::string> servers;
    std::size_t start = 0;
    while (start < resolvConf.size()) {
        auto end = resolvConf.find('\n', start);
        if (end == std::string_view::npos) {
            end = resolvConf.size();
        }
        std::string_view line = resolvConf.substr(start, end - start);
        start = end + 1;
        constexpr std::string_view keyword = "nameserver";
        if (!line.starts_with(keyword) || line.size() == keyword.size() ||
            (line[keyword.size()] != ' ' && line[keyword.size()] != '\t')) {
            continue;
        }
        line.remove_prefix(keyword.size());
        const auto first = line.find_first_not_of(" \t");
        if (first == std::string_view::npos) {
            continue;
        }
        line.remove_prefix(first);
        std::string address(line.substr(0, line.find_first_of(" \t#;\r")));
        // A scoped IPv6 address (fe80::1%eth0) keeps its zone for the socket.
        std::error_code error;
        asio::ip::make_address(address, error);
        if (error || isLoopback(address)) {
            continue;
        }
        servers.push_back(address.find(':') != std::string::npos ? "[" + address + "]:53"
                                                                 : address + ":53");
    }
    return servers;
}

std::vector<std::string> configuredServers() {
    std::vector<std::string> servers;
    for (const char* path : {"/run/systemd/resolve/resolv.conf", "/etc/resolv.conf"}) {
        if (auto text = platform::readSmallFile(path, 1 << 20)) {
            for (auto& server : serversIn(*text)) {
                if (std::find(servers.begin(), servers.end(), server) == servers.end()) {
                    servers.push_back(std::move(server));
                }
            }
        }
    }
    return servers;
}

std::optional<std::pair<std::string, std::uint16_t>> splitServer(std::string_view server) {
    std::string_view address;
    std::string_view port;
    if (server.starts_with("[")) {
        const auto close = server.find("]:");
        if (close == std::string_view::npos) {
            return std::nullopt;
        }
        address = server.substr(1, close - 1);
        port = server.substr(close + 2);
    } else {
        const auto colon = server.rfind(':');
        if (colon == std::string_view::npos) {
            return std::nullopt;
        }
        address = server.substr(0, colon);
        port = server.substr(colon + 1);
    }
    const auto number = parseUnsignedDecimal(port, 65535);
    if (address.empty() || !number || *number == 0) {
        return std::nullopt;
    }
    return std::pair(std::string(address), static_cast<std::uint16_t>(*number));
}

void resolve(std::string name, const std::string& server,
             platform::NWConnectionService& connections, platform::DispatchQueue& queue,
             std::chrono::milliseconds timeout, std::function<bool(const std::string&)> excluded,
             Completion completion) {
    const auto target = splitServer(server);
    if (!target) {
        completion({});
        return;
    }
    auto keep = [excluded](std::optional<std::vector<std::string>> found) {
        std::vector<std::string> kept;
        for (auto& address : found.value_or(std::vector<std::string>{})) {
            if (!excluded || !excluded(address)) {
                kept.push_back(std::move(address));
            }
        }
        return kept;
    };
    ask(name, typeA, target->first, target->second, connections, queue, timeout,
        [=, &connections, &queue](std::optional<std::vector<std::string>> found) {
            auto addresses = keep(std::move(found));
            if (!addresses.empty()) {
                completion(std::move(addresses));
                return;
            }
            ask(name, typeAAAA, target->first, target->second, connections, queue, timeout,
                [=](std::optional<std::vector<std::string>> found6) {
                    completion(keep(std::move(found6)));
                });
        });
}

} // namespace veltrane::core::DirectResolver
