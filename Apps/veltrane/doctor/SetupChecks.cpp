// The machine's name resolution and the active profile with its proxies.
#include "AutomationAccess.hpp"
#include "Platform/linux/SmallFile.hpp"
#include "VeltraneKit/Error.hpp"
#include "doctor/DoctorCheck.hpp"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <future>
#include <netdb.h>
#include <nlohmann/json.hpp>
#include <poll.h>
#include <sstream>
#include <sys/socket.h>
#include <unistd.h>

namespace veltrane::app::doctor {
namespace {

std::vector<std::string> words(const std::string& line) {
    std::istringstream stream(line);
    std::vector<std::string> result;
    for (std::string word; stream >> word;) {
        result.push_back(word);
    }
    return result;
}

std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> result;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        result.push_back(line.substr(0, line.find('#')));
    }
    return result;
}

bool loopback(const std::string& address) {
    in_addr v4{};
    in6_addr v6{};
    if (::inet_pton(AF_INET, address.c_str(), &v4) == 1) {
        return (ntohl(v4.s_addr) >> 24) == 127;
    }
    return ::inet_pton(AF_INET6, address.c_str(), &v6) == 1 && IN6_IS_ADDR_LOOPBACK(&v6);
}

std::string joined(const std::vector<std::string>& items) {
    std::string text;
    for (const auto& item : items) {
        text += (text.empty() ? "" : ", ") + item;
    }
    return text;
}

Finding resolvConf() {
    const char* check = "DNS";
    const auto text = platform::readSmallFile("/etc/resolv.conf", 1 << 20);
    if (!text) {
        return Finding::warning(check, "no /etc/resolv.conf: applications ask 127.0.0.1",
                                "write the network's name servers into /etc/resolv.conf");
    }
    std::vector<std::string> servers;
    for (const auto& line : lines(*text)) {
        const auto parts = words(line);
        if (parts.size() >= 2 && parts[0] == "nameserver") {
            servers.push_back(parts[1]);
        }
    }
    if (servers.empty()) {
        return Finding::warning(check,
                                "/etc/resolv.conf names no server: applications ask 127.0.0.1",
                                "write the network's name servers into /etc/resolv.conf");
    }
    for (const auto& server : servers) {
        if (server == "127.0.0.53") {
            return Finding::warning(
                check,
                "systemd-resolved stub (127.0.0.53): applications ask it through name-service "
                "calls over loopback, which is never captured, so their DNS queries leave as "
                "systemd-resolved's own",
                "rules by host name still match (the name is read from each connection); to "
                "route an application's DNS by its rules, point /etc/resolv.conf at the upstream "
                "servers (resolvectl dns lists them)");
        }
        if (loopback(server)) {
            return Finding::warning(
                check,
                "a local resolver at " + server +
                    " answers applications over loopback, which is never captured, so their "
                    "DNS queries leave as the resolver's own",
                "route the resolver's program by a rule, or point /etc/resolv.conf at the "
                "upstream servers");
        }
    }
    return Finding::good(check, "applications ask " + joined(servers) + " themselves");
}

Finding nameServices() {
    const char* check = "name services";
    const auto text = platform::readSmallFile("/etc/nsswitch.conf", 1 << 20);
    if (!text) {
        return Finding::good(check,
                             "no /etc/nsswitch.conf: hosts are looked up in files, then DNS");
    }
    for (const auto& line : lines(*text)) {
        auto parts = words(line);
        if (parts.empty() || parts[0] != "hosts:") {
            continue;
        }
        std::vector<std::string> modules;
        std::vector<std::string> bypassing;
        for (std::size_t i = 1; i < parts.size(); ++i) {
            if (parts[i].starts_with('[')) {
                continue; // an action such as [NOTFOUND=return]
            }
            modules.push_back(parts[i]);
            // myhostname answers only for this machine's own names.
            if (parts[i] != "files" && parts[i] != "dns" && parts[i] != "myhostname") {
                bypassing.push_back(parts[i]);
            }
        }
        if (bypassing.empty()) {
            return Finding::good(check, "hosts: " + joined(modules));
        }
        return Finding::warning(
            check,
            "hosts: " + joined(bypassing) +
                " answer names without a DNS query on port 53 (resolve asks systemd-resolved over "
                "its socket, mdns multicasts on port 5353)",
            "rules by host name still match (the name is read from each connection); for DNS "
            "queries of the applications' own, put dns before them in /etc/nsswitch.conf");
    }
    return Finding::good(check, "no hosts line: hosts are looked up in files, then DNS");
}

// A TCP connection to the proxy within a second: the error, or empty.
std::string tryConnect(const std::string& address, std::uint16_t port) {
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICSERV;
    addrinfo* found = nullptr;
    const int resolved =
        ::getaddrinfo(address.c_str(), std::to_string(port).c_str(), &hints, &found);
    if (resolved != 0) {
        return std::string("cannot resolve ") + address + ": " + ::gai_strerror(resolved);
    }
    std::unique_ptr<addrinfo, void (*)(addrinfo*)> owned(found, ::freeaddrinfo);
    const int fd = ::socket(found->ai_family, found->ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC,
                            found->ai_protocol);
    if (fd < 0) {
        return std::strerror(errno);
    }
    int error = 0;
    if (::connect(fd, found->ai_addr, found->ai_addrlen) != 0) {
        error = errno;
        if (error == EINPROGRESS) {
            pollfd wait{fd, POLLOUT, 0};
            if (::poll(&wait, 1, 1000) == 1) {
                socklen_t length = sizeof error;
                ::getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length);
            } else {
                error = ETIMEDOUT;
            }
        }
    }
    ::close(fd);
    if (error == ETIMEDOUT) {
        return "no answer within 1 s";
    }
    return error == 0 ? std::string() : std::strerror(error);
}

std::optional<nlohmann::json> dataOf(const kit::AutomationReply& reply) {
    if (!reply.succeeded || !reply.data) {
        return std::nullopt;
    }
    auto data = nlohmann::json::parse(*reply.data, nullptr, false);
    return data.is_discarded() ? std::nullopt : std::optional(std::move(data));
}

} // namespace

std::vector<Finding> nameResolutionChecks() {
    return {resolvConf(), nameServices()};
}

std::vector<Finding> profileChecks() {
    const char* check = "profile";
    const std::string createFix = "create one: veltrane profile create NAME";
    std::optional<nlohmann::json> status;
    std::optional<nlohmann::json> proxies;
    std::string source;
    std::string why;
    try {
        auto access = openAutomation();
        source = access->served() ? "through the running system" : "from the profile store";
        const auto statusReply = access->operations().getStatusWithReply();
        status = dataOf(statusReply);
        why = statusReply.text;
        // The profile in effect, which a run given a profile file keeps
        // whatever the store's active one is.
        const auto profileReply = access->operations().exportProfileWithName("");
        if (auto document = dataOf(profileReply); document && document->is_object()) {
            proxies = document->value("proxies", nlohmann::json());
        }
        if (!profileReply.succeeded) {
            why = profileReply.text;
        }
    } catch (const kit::Error& error) {
        why = error.localizedDescription();
    } catch (const std::exception& error) {
        why = error.what();
    }
    const std::string name =
        status && status->is_object() ? status->value("activeProfile", "") : std::string();
    if (name.empty() || !proxies || !proxies->is_array()) {
        return {Finding::failure(check, "no active profile reads: " + why, createFix)};
    }
    std::vector<Finding> findings{Finding::good(
        check, "\"" + name + "\" reads " + source + ", with " + std::to_string(proxies->size()) +
                   (proxies->size() == 1 ? " proxy" : " proxies"))};
    // Side by side: a dead proxy costs its second once, not once each.
    struct Probe {
        std::string name;
        std::string endpoint;
        std::future<std::string> result;
    };
    std::vector<Probe> probes;
    for (const auto& proxy : *proxies) {
        if (!proxy.is_object()) {
            continue;
        }
        const auto address = proxy.value("address", "");
        const auto port = proxy.value("port", 0);
        if (port <= 0 || port > 65535) {
            continue;
        }
        probes.push_back({proxy.value("name", "?"), address + ":" + std::to_string(port),
                          std::async(std::launch::async, tryConnect, address,
                                     static_cast<std::uint16_t>(port))});
    }
    for (auto& probe : probes) {
        const auto error = probe.result.get();
        const std::string proxyCheck = "proxy " + probe.name;
        if (error.empty()) {
            findings.push_back(Finding::good(proxyCheck, probe.endpoint + " accepts connections"));
        } else {
            findings.push_back(Finding::failure(
                proxyCheck, probe.endpoint + ": " + error,
                "start the proxy, or correct its address in the profile (veltrane proxy list)"));
        }
    }
    return findings;
}

} // namespace veltrane::app::doctor
