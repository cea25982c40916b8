#pragma once

#include "Platform/NWConnection.hpp"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

namespace veltrane::platform {

// Moves a TCP flow's bytes both ways between two connected kernel stream
// sockets with splice(), through a pipe per direction while bytes move, so
// they never cross the process; an idle flow holds no buffer and no pipe.
//
// It ends once: when the upstream finishes and every byte it sent has
// reached the application, or when either socket fails. The application
// finishing its sending half-closes the upstream; replies keep flowing. The
// relay owns both sockets once started, and closes them before it reports
// the end: the application's with a reset when the upstream failed or the
// relay was stopped, so that the application sees a failure as one.
class SpliceRelay {
public:
    struct Ending {
        std::uint64_t sent = 0;           // bytes the upstream socket took
        std::uint64_t received = 0;       // bytes the application's socket took
        std::optional<int> appError;      // errno of the application's socket
        std::optional<int> upstreamError; // errno of the upstream socket
    };
    using OnEnd = std::function<void(const Ending&)>;

    // Handlers run on `queue`. Nothing when the relay cannot be set up (out of
    // descriptors): copy instead.
    static std::shared_ptr<SpliceRelay> make(DispatchQueue& queue, OnEnd onEnd);
    virtual ~SpliceRelay() = default;

    // Takes both connected, non-blocking sockets over and sets the bytes
    // going. Nothing is held for them but the relay's two waits. A side given
    // as -1 (it could not be handed over) ends the relay at once with an
    // error on that side.
    virtual void start(int appSocket, int upstreamSocket) = 0;

    // Ends the relay now, with no error of its own, as when the caller has
    // learnt that a side failed elsewhere. Its end is reported as usual.
    virtual void stop() = 0;
};

} // namespace veltrane::platform
