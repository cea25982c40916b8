#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <utility>

namespace veltrane::platform {

// Tells the connections pinned to a network interface when it is removed or
// set down. A socket bound to a device that is gone neither fails nor ends by
// itself: it retransmits into nothing for a quarter of an hour, and the
// application behind it waits as long.
//
// One netlink socket and one thread for the whole process, made on the first
// watch, in the network namespace of the thread that asks.
class LinkWatch {
public:
    using Token = std::uint64_t;

    static LinkWatch& shared();

    // `gone` runs once, on the watch's own thread (or on the caller's, when
    // the interface is already gone), unless unwatched first. Token 0: the
    // watch could not be set up, and nothing will be told.
    Token watch(unsigned interfaceIndex, std::function<void()> gone);
    void unwatch(Token token);

private:
    LinkWatch() = default;
    bool startLocked();
    void run(int fd);
    void tell(unsigned interfaceIndex);
    void tellWhereUnusable();

    std::mutex lock_; // guards everything below
    std::map<Token, std::pair<unsigned, std::function<void()>>> watchers_;
    Token next_ = 1;
    bool started_ = false;
    bool failed_ = false;
};

} // namespace veltrane::platform
