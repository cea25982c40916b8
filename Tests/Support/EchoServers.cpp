#include "Support/EchoServers.hpp"

#include "Support/Peers.hpp"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace veltrane::test {

namespace {

// Waits until `fd` is readable; false when `wake` fired instead.
bool readable(int fd, int wake) {
    pollfd fds[2] = {{fd, POLLIN, 0}, {wake, POLLIN, 0}};
    while (::poll(fds, 2, -1) < 0) {
    }
    return (fds[1].revents & POLLIN) == 0;
}

} // namespace

TCPEchoServer::TCPEchoServer(std::string banner) : banner_(std::move(banner)) {
    if (::pipe2(wake_, O_CLOEXEC) != 0) {
        return;
    }
    listener_ = boundLoopback(SOCK_STREAM, port_);
    if (listener_ >= 0 && ::listen(listener_, 64) != 0) {
        ::close(listener_);
        listener_ = -1;
    }
    if (listener_ >= 0) {
        acceptor_ = std::thread([this] { acceptLoop(); });
    }
}

TCPEchoServer::~TCPEchoServer() {
    if (wake_[1] >= 0) {
        char byte = 0;
        [[maybe_unused]] auto n = ::write(wake_[1], &byte, 1);
    }
    if (acceptor_.joinable()) {
        acceptor_.join();
    }
    {
        std::lock_guard guard(lock_);
        for (int fd : connections_) {
            ::shutdown(fd, SHUT_RDWR);
        }
    }
    for (auto& worker : workers_) {
        worker.join();
    }
    for (int fd : connections_) {
        ::close(fd);
    }
    for (int fd : {listener_, wake_[0], wake_[1]}) {
        if (fd >= 0) {
            ::close(fd);
        }
    }
}

void TCPEchoServer::acceptLoop() {
    while (readable(listener_, wake_[0])) {
        int fd = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) {
            continue;
        }
        std::lock_guard guard(lock_);
        connections_.push_back(fd);
        workers_.emplace_back([fd, this] { echo(fd, banner_); });
    }
}

void TCPEchoServer::echo(int fd, const std::string& banner) {
    if (!banner.empty() && ::send(fd, banner.data(), banner.size(), MSG_NOSIGNAL) <= 0) {
        return;
    }
    char buffer[16384];
    for (;;) {
        ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
        if (n <= 0) {
            break;
        }
        ssize_t at = 0;
        while (at < n) {
            ssize_t written =
                ::send(fd, buffer + at, static_cast<std::size_t>(n - at), MSG_NOSIGNAL);
            if (written <= 0) {
                return;
            }
            at += written;
        }
    }
    ::shutdown(fd, SHUT_WR);
}

UDPEchoServer::UDPEchoServer() {
    if (::pipe2(wake_, O_CLOEXEC) != 0) {
        return;
    }
    socket_ = boundLoopback(SOCK_DGRAM, port_);
    if (socket_ >= 0) {
        thread_ = std::thread([this] { loop(); });
    }
}

UDPEchoServer::~UDPEchoServer() {
    if (wake_[1] >= 0) {
        char byte = 0;
        [[maybe_unused]] auto n = ::write(wake_[1], &byte, 1);
    }
    if (thread_.joinable()) {
        thread_.join();
    }
    for (int fd : {socket_, wake_[0], wake_[1]}) {
        if (fd >= 0) {
            ::close(fd);
        }
    }
}

void UDPEchoServer::loop() {
    char buffer[65536];
    while (readable(socket_, wake_[0])) {
        sockaddr_storage from{};
        socklen_t length = sizeof from;
        ssize_t n = ::recvfrom(socket_, buffer, sizeof buffer, MSG_DONTWAIT,
                               reinterpret_cast<sockaddr*>(&from), &length);
        if (n < 0) {
            continue;
        }
        ::sendto(socket_, buffer, static_cast<std::size_t>(n), 0,
                 reinterpret_cast<sockaddr*>(&from), length);
    }
}

} // namespace veltrane::test
