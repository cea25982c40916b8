#pragma once

#include "Platform/NWConnection.hpp"

#include <optional>

namespace veltrane::platform {

// A stream carried by a connected kernel socket that a relay may take over,
// so that its bytes need not cross the process.
class KernelStream {
public:
    struct Socket {
        int fd = -1;
        DispatchQueue* queue = nullptr; // where the stream's own handlers run
        Bytes unread;                   // read from the socket, not yet delivered
    };

    virtual ~KernelStream() = default;

    // The socket, with the bytes the stream had read ahead (they are taken
    // out of the stream), when it is established, its peer has not finished
    // and no operation is in flight; nothing otherwise.
    virtual std::optional<Socket> kernelSocket() = 0;

    // Gives the socket up, under the same conditions, once what was read ahead
    // has been taken: the caller closes it from then on, and the stream acts
    // as closed (closing it again does nothing). -1 when it cannot.
    virtual int releaseSocket() = 0;

    // Whether the stream still has something to tell once its socket is
    // released (a connection pinned to an interface fails when it goes):
    // the caller then keeps it.
    virtual bool reportsAfterRelease() const { return false; }
};

} // namespace veltrane::platform
