#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace veltrane::test {

// A TCP server on 127.0.0.1 that sends back every byte it receives, on any
// number of connections, and half-closes when the client does. With a banner
// it speaks first, as SSH or SMTP servers do. Stops and joins its threads
// when destroyed.
class TCPEchoServer {
public:
    explicit TCPEchoServer(std::string banner = {});
    ~TCPEchoServer();
    TCPEchoServer(const TCPEchoServer&) = delete;
    TCPEchoServer& operator=(const TCPEchoServer&) = delete;

    std::uint16_t port() const { return port_; }
    bool ok() const { return listener_ >= 0; }

private:
    void acceptLoop();
    static void echo(int fd, const std::string& banner);

    int listener_ = -1;
    int wake_[2] = {-1, -1};
    std::uint16_t port_ = 0;
    const std::string banner_;
    std::thread acceptor_;
    std::mutex lock_;
    std::vector<int> connections_;
    std::vector<std::thread> workers_;
};

// A UDP socket on 127.0.0.1 that returns every datagram to its sender.
class UDPEchoServer {
public:
    UDPEchoServer();
    ~UDPEchoServer();
    UDPEchoServer(const UDPEchoServer&) = delete;
    UDPEchoServer& operator=(const UDPEchoServer&) = delete;

    std::uint16_t port() const { return port_; }
    bool ok() const { return socket_ >= 0; }

private:
    void loop();

    int socket_ = -1;
    int wake_[2] = {-1, -1};
    std::uint16_t port_ = 0;
    std::thread thread_;
};

} // namespace veltrane::test
