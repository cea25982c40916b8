#pragma once

// Readers of the kernel's process and socket tables under /proc. Every line
// parser here takes text the kernel wrote but still treats it as untrusted:
// a line that does not fit gives nullopt, never an exception.

#include <array>
#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace veltrane::kit::ProcTables {

// One socket row of /proc/net/tcp or /proc/net/tcp6.
struct TCPSocket {
    bool ipv6 = false;
    std::array<std::uint8_t, 16> address{}; // network order; IPv4 in the first four bytes
    std::uint16_t port = 0;
    std::uint8_t state = 0; // 0x0A is LISTEN
    std::uint64_t inode = 0;

    bool listening() const { return state == 0x0A; }
    // Bound to 127.0.0.1, ::1, ::ffff:127.0.0.1 or a wildcard address, so
    // reachable on loopback.
    bool reachableOnLoopback() const;

    friend bool operator==(const TCPSocket&, const TCPSocket&) = default;
};

// One row ("  0: 0100007F:1F90 00000000:0000 0A ... inode ..."); the header
// and anything malformed give nullopt. `ipv6` says which table the line is from.
std::optional<TCPSocket> parseTCPLine(std::string_view line, bool ipv6);

// The listening sockets of the calling thread's network namespace, IPv4 first.
std::vector<TCPSocket> listeningSockets(const std::filesystem::path& proc);

// The tun/tap interface an fdinfo file names ("iff:\tNAME"), if any.
std::optional<std::string> tunInterfaceName(std::string_view fdinfo);

// The inode of an fd link "socket:[INODE]".
std::optional<std::uint64_t> socketInode(std::string_view link);

// Process ids under `proc`, ascending.
std::vector<std::int32_t> processIDs(const std::filesystem::path& proc);

// (fd number, link target) of each open file of a process, fds ascending.
// Empty where the process is gone or not ours to look at.
std::vector<std::pair<int, std::string>> openFiles(const std::filesystem::path& proc,
                                                   std::int32_t pid);

// A process's command name (comm), else its executable's file name.
std::optional<std::string> processName(const std::filesystem::path& proc, std::int32_t pid);

// Owning process name per socket inode, for the inodes asked for. Where
// several processes share a socket the one with the highest id is named.
std::map<std::uint64_t, std::string> socketOwnerNames(const std::filesystem::path& proc,
                                                      const std::vector<std::uint64_t>& inodes);

// The whole file, or nullopt when it cannot be read.
std::optional<std::string> readSmallFile(const std::filesystem::path& path);

} // namespace veltrane::kit::ProcTables
