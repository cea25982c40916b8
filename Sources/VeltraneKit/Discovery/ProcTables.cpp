#include "VeltraneKit/Discovery/ProcTables.hpp"

#include "VeltraneKit/PlainDecimal.hpp"

#include <algorithm>
#include <climits>
#include <cstring>
#include <fstream>
#include <set>
#include <sstream>
#include <system_error>
#include <unistd.h>

namespace veltrane::kit::ProcTables {

namespace {

std::vector<std::string_view> fields(std::string_view line) {
    std::vector<std::string_view> pieces;
    std::size_t i = 0;
    while (i < line.size()) {
        while (i < line.size() && (line[i] == ' ' || line[i] == '\t')) {
            ++i;
        }
        std::size_t start = i;
        while (i < line.size() && line[i] != ' ' && line[i] != '\t') {
            ++i;
        }
        if (i > start) {
            pieces.push_back(line.substr(start, i - start));
        }
    }
    return pieces;
}

std::optional<std::uint32_t> hexWord(std::string_view text) {
    if (text.empty() || text.size() > 8) {
        return std::nullopt;
    }
    std::uint32_t value = 0;
    for (char c : text) {
        int digit = c >= '0' && c <= '9'   ? c - '0'
                    : c >= 'A' && c <= 'F' ? c - 'A' + 10
                    : c >= 'a' && c <= 'f' ? c - 'a' + 10
                                           : -1;
        if (digit < 0) {
            return std::nullopt;
        }
        value = value << 4 | std::uint32_t(digit);
    }
    return value;
}

std::optional<std::uint64_t> decimal64(std::string_view text) {
    if (text.empty() || text.size() > 19) {
        return std::nullopt;
    }
    std::uint64_t value = 0;
    for (char c : text) {
        if (c < '0' || c > '9') {
            return std::nullopt;
        }
        value = value * 10 + std::uint64_t(c - '0');
    }
    return value;
}

bool startsWithDigit(std::string_view name) {
    return !name.empty() && name.front() >= '0' && name.front() <= '9';
}

std::optional<std::string> readLink(const std::filesystem::path& path) {
    std::error_code error;
    auto target = std::filesystem::read_symlink(path, error);
    if (error) {
        return std::nullopt;
    }
    return target.string();
}

} // namespace

bool TCPSocket::reachableOnLoopback() const {
    static constexpr std::array<std::uint8_t, 16> any{};
    static constexpr std::array<std::uint8_t, 4> loopback4{127, 0, 0, 1};
    if (!ipv6) {
        return std::equal(loopback4.begin(), loopback4.end(), address.begin()) ||
               std::equal(any.begin(), any.begin() + 4, address.begin());
    }
    std::array<std::uint8_t, 16> loopback6{};
    loopback6[15] = 1;
    std::array<std::uint8_t, 16> mapped{};
    mapped[10] = mapped[11] = 0xFF;
    std::copy(loopback4.begin(), loopback4.end(), mapped.begin() + 12);
    return address == any || address == loopback6 || address == mapped;
}

std::optional<TCPSocket> parseTCPLine(std::string_view line, bool ipv6) {
    auto pieces = fields(line);
    if (pieces.size() < 10 || pieces[0].size() < 2 || pieces[0].back() != ':' ||
        !decimal64(pieces[0].substr(0, pieces[0].size() - 1))) {
        return std::nullopt;
    }
    TCPSocket socket;
    socket.ipv6 = ipv6;
    auto local = pieces[1];
    auto colon = local.find(':');
    const std::size_t hexDigits = ipv6 ? 32 : 8;
    if (colon != hexDigits || local.size() != hexDigits + 5) {
        return std::nullopt;
    }
    // The kernel prints each 32-bit word of the address as the number that
    // its network-order bytes make in this machine's byte order.
    for (std::size_t word = 0; word < hexDigits / 8; ++word) {
        auto value = hexWord(local.substr(word * 8, 8));
        if (!value) {
            return std::nullopt;
        }
        std::memcpy(socket.address.data() + word * 4, &*value, 4);
    }
    auto port = hexWord(local.substr(colon + 1));
    auto state = hexWord(pieces[3]);
    auto inode = decimal64(pieces[9]);
    if (!port || !state || pieces[3].size() != 2 || !inode) {
        return std::nullopt;
    }
    socket.port = std::uint16_t(*port);
    socket.state = std::uint8_t(*state);
    socket.inode = *inode;
    return socket;
}

std::optional<std::string> readSmallFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        return std::nullopt;
    }
    std::ostringstream text;
    text << in.rdbuf();
    return std::move(text).str();
}

std::vector<TCPSocket> listeningSockets(const std::filesystem::path& proc) {
    std::vector<TCPSocket> sockets;
    // thread-self: the namespace of this thread, which is also where the
    // probes' sockets are made.
    for (bool ipv6 : {false, true}) {
        auto text = readSmallFile(proc / "thread-self/net" / (ipv6 ? "tcp6" : "tcp"));
        if (!text) {
            continue;
        }
        std::string_view rest = *text;
        while (!rest.empty()) {
            auto end = rest.find('\n');
            auto line = rest.substr(0, end);
            rest = end == std::string_view::npos ? std::string_view{} : rest.substr(end + 1);
            if (auto socket = parseTCPLine(line, ipv6); socket && socket->listening()) {
                sockets.push_back(*socket);
            }
        }
    }
    return sockets;
}

std::optional<std::string> tunInterfaceName(std::string_view fdinfo) {
    constexpr std::string_view key = "iff:";
    while (!fdinfo.empty()) {
        auto end = fdinfo.find('\n');
        auto line = fdinfo.substr(0, end);
        fdinfo = end == std::string_view::npos ? std::string_view{} : fdinfo.substr(end + 1);
        if (line.substr(0, key.size()) != key) {
            continue;
        }
        line.remove_prefix(key.size());
        auto pieces = fields(line);
        if (pieces.size() == 1) {
            return std::string(pieces[0]);
        }
        return std::nullopt;
    }
    return std::nullopt;
}

std::optional<std::uint64_t> socketInode(std::string_view link) {
    constexpr std::string_view prefix = "socket:[";
    if (link.size() <= prefix.size() + 1 || link.substr(0, prefix.size()) != prefix ||
        link.back() != ']') {
        return std::nullopt;
    }
    return decimal64(link.substr(prefix.size(), link.size() - prefix.size() - 1));
}

std::vector<std::int32_t> processIDs(const std::filesystem::path& proc) {
    std::vector<std::int32_t> pids;
    std::error_code error;
    for (std::filesystem::directory_iterator it(proc, error), end; !error && it != end;
         it.increment(error)) {
        auto name = it->path().filename().string();
        if (!startsWithDigit(name)) {
            continue;
        }
        if (auto pid = parsePlainDecimal(name, INT32_MAX); pid && *pid > 0) {
            pids.push_back(std::int32_t(*pid));
        }
    }
    std::sort(pids.begin(), pids.end());
    return pids;
}

std::vector<std::pair<int, std::string>> openFiles(const std::filesystem::path& proc,
                                                   std::int32_t pid) {
    std::vector<std::pair<int, std::string>> files;
    std::error_code error;
    auto directory = proc / std::to_string(pid) / "fd";
    for (std::filesystem::directory_iterator it(directory, error), end; !error && it != end;
         it.increment(error)) {
        auto name = it->path().filename().string();
        auto fd = parsePlainDecimal(name, INT32_MAX);
        if (!fd || !startsWithDigit(name)) {
            continue;
        }
        if (auto target = readLink(it->path())) {
            files.emplace_back(int(*fd), std::move(*target));
        }
    }
    std::sort(files.begin(), files.end());
    return files;
}

std::optional<std::string> processName(const std::filesystem::path& proc, std::int32_t pid) {
    auto base = proc / std::to_string(pid);
    if (auto comm = readSmallFile(base / "comm")) {
        while (!comm->empty() && comm->back() == '\n') {
            comm->pop_back();
        }
        if (!comm->empty()) {
            return comm;
        }
    }
    if (auto exe = readLink(base / "exe")) {
        auto name = std::filesystem::path(*exe).filename().string();
        if (!name.empty()) {
            return name;
        }
    }
    return std::nullopt;
}

std::map<std::uint64_t, std::string> socketOwnerNames(const std::filesystem::path& proc,
                                                      const std::vector<std::uint64_t>& inodes) {
    std::set<std::uint64_t> wanted(inodes.begin(), inodes.end());
    std::map<std::uint64_t, std::int32_t> owners;
    if (wanted.empty()) {
        return {};
    }
    for (auto pid : processIDs(proc)) {
        for (const auto& [fd, target] : openFiles(proc, pid)) {
            if (auto inode = socketInode(target); inode && wanted.contains(*inode)) {
                owners[*inode] = pid;
            }
        }
    }
    std::map<std::int32_t, std::optional<std::string>> names;
    std::map<std::uint64_t, std::string> result;
    for (const auto& [inode, pid] : owners) {
        auto [it, fresh] = names.try_emplace(pid);
        if (fresh) {
            it->second = processName(proc, pid);
        }
        if (it->second) {
            result[inode] = *it->second;
        }
    }
    return result;
}

} // namespace veltrane::kit::ProcTables
