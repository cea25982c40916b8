#pragma once

#include <gtest/gtest.h>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace veltrane::test {

// Stream sockets at a file-system path, for the services that listen on one
// and the clients that talk to them. The caller closes what it is given.

inline sockaddr_un unixAddress(const std::string& path) {
    sockaddr_un address{};
    EXPECT_LT(path.size(), sizeof address.sun_path) << path;
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    return address;
}

// Bound at `path`, and listening when given a backlog.
inline int bindUnix(const std::string& path, int backlog = 0) {
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_un address = unixAddress(path);
    EXPECT_EQ(::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0) << path;
    if (backlog > 0) {
        EXPECT_EQ(::listen(fd, backlog), 0) << path;
    }
    return fd;
}

// Connected to `path`; -1 when nothing accepts there.
inline int connectUnix(const std::string& path) {
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_un address = unixAddress(path);
    if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

} // namespace veltrane::test
