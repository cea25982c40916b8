#pragma once

#include "Platform/NWConnection.hpp"

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace veltrane::platform {

// Connections over the kernel's own sockets: TCP for streams, a connected UDP
// socket for datagrams.
//
// What callers can count on beyond NWConnection:
// - A name is resolved when the connection starts (the system resolver, so
//   /etc/hosts counts); every address it gives is tried in turn, and the last
//   failure is the one reported. A name that does not resolve fails with a DNS
//   error.
// - Every socket carries the bypass mark; without the right to set it (not
//   root) the connection goes on unmarked. `requiredInterface` binds the socket
//   to that device before it connects; a device that does not exist fails the
//   connection with ENODEV.
// - The connection never enters `waiting`: an unreachable peer is a failure.
// - An I/O error on an established connection moves it to `failed` (on a
//   datagram connection too: a peer whose port is closed answers with a
//   refusal, reported as ECONNREFUSED, rather than with silence); every
//   pending and later operation then completes with that error, and after
//   `cancel()` with ECANCELED. The state handler is released after `failed`
//   or `cancelled`, so owners captured in it are not kept alive.
// - All handlers of one connection run one at a time on the queue, in the
//   order the connection produced them; different connections run in parallel.
// - A connection cancelled before start() completes its held operations at
//   once on the calling thread, as it has no queue yet.
// - On a datagram connection receive() delivers one whole datagram, like
//   receiveMessage(). On a stream receiveMessage() delivers everything up to
//   the peer's end of stream.
class LinuxConnectionService final : public NWConnectionService {
public:
    // A name for which the system resolver gave an address that `distrusted`
    // refuses (our own fake addresses, handed back by a local stub resolver
    // whose upstream queries we answer) is looked up again with `lookUp`,
    // and its addresses are used instead; none fails as a name that does
    // not resolve. Set it before the first connection is made.
    struct SecondOpinion {
        std::function<bool(const std::string& address)> distrusted;
        std::function<void(const std::string& host,
                           std::function<void(std::vector<std::string> addresses)> done)>
            lookUp;
    };
    void setSecondOpinion(SecondOpinion opinion);

    std::shared_ptr<NWConnection> makeConnection(std::string host, std::uint16_t port,
                                                 NWParameters parameters) override;

private:
    std::mutex lock_; // guards secondOpinion_
    std::shared_ptr<const SecondOpinion> secondOpinion_;
};

} // namespace veltrane::platform
