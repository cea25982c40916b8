#pragma once

#include "Platform/NWConnection.hpp"

#include <optional>

namespace veltrane::platform {

// A stream carried by a connected kernel socket that a relay may use
// directly, so that its bytes need not cross the process. The stream keeps
// owning the socket; the relay works beside it and gives it back untouched
// before the stream is closed.
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
};

} // namespace veltrane::platform
