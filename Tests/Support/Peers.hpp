#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace veltrane::test {

struct UserPass {
    std::string user;
    std::string password;
};

// A proxy server started by a test on 127.0.0.1 and stopped with it. The
// server runs in a process group of its own, with its configuration and log
// in a temporary directory; the destructor ends the group and removes the
// directory.
//
//   std::string whyNot;
//   auto socks = startMicrosocks(whyNot, UserPass{"user", "pass"});
//   if (!socks) {
//       GTEST_SKIP() << whyNot;   // the server is not installed
//   }
//   ... connect to 127.0.0.1:socks->port() ...
class PeerProcess {
public:
    ~PeerProcess();
    PeerProcess(const PeerProcess&) = delete;
    PeerProcess& operator=(const PeerProcess&) = delete;

    std::uint16_t port() const { return port_; }
    pid_t pid() const { return pid_; }
    // What the server wrote to stdout and stderr so far.
    std::string log() const;

    // Starts the program with the arguments (the first is its path), and
    // waits until 127.0.0.1:port accepts. Null with the reason in `whyNot`
    // when it never got ready.
    struct Launch {
        std::string program;
        std::string name; // for messages and the directory
        // Builds the arguments from the directory and port; may write files.
        std::function<std::vector<std::string>(const std::string& directory, std::uint16_t port)>
            arguments;
    };
    static std::unique_ptr<PeerProcess> start(const Launch& launch, std::string& whyNot);

private:
    PeerProcess(pid_t pid, std::uint16_t port, std::string directory);
    void stop();

    pid_t pid_ = -1;
    std::uint16_t port_ = 0;
    std::string directory_;
};

// microsocks, without or with a user name and password.
std::unique_ptr<PeerProcess> startMicrosocks(std::string& whyNot,
                                             const std::optional<UserPass>& credentials = {});
// danted allowing CONNECT and UDP ASSOCIATE among loopback addresses, no
// authentication.
std::unique_ptr<PeerProcess> startDante(std::string& whyNot);
// tinyproxy allowing CONNECT to any port, with Basic authentication when
// credentials are given.
std::unique_ptr<PeerProcess> startTinyproxy(std::string& whyNot,
                                            const std::optional<UserPass>& credentials = {});

// squid allowing CONNECT to any port from loopback, with Basic
// authentication when credentials are given. Unlike tinyproxy it answers
// wrong credentials with 407.
std::unique_ptr<PeerProcess> startSquid(std::string& whyNot,
                                        const std::optional<UserPass>& credentials = {});

// dnsmasq as an authoritative-only resolver on 127.0.0.1 (UDP and TCP):
// each record is "NAME=ADDRESS"; every other name is unknown.
std::unique_ptr<PeerProcess> startDnsmasq(std::string& whyNot,
                                          const std::vector<std::string>& records);

// A socket of `type` (SOCK_STREAM, SOCK_DGRAM) bound to 127.0.0.1 on a port
// the kernel picked, which goes to `port`; -1 when there is none.
int boundLoopback(int type, std::uint16_t& port);

// A port on 127.0.0.1 that was free a moment ago.
std::uint16_t freeLoopbackPort(int type);

} // namespace veltrane::test
