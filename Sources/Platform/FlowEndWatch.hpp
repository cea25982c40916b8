#pragma once

#include <functional>

namespace veltrane::platform {

// A flow that can tell, without reading it, that the application has gone
// (finished sending, or reset) while nothing reads the flow: a caller waiting
// on something else, such as a proxy's handshake, then stops waiting.
class FlowEndWatch {
public:
    virtual ~FlowEndWatch() = default;

    // `onEnd` runs at most once, on the flow's queue: when the application
    // finishes sending (`reset` false: it may still wait for an answer) or
    // resets (true) before sending anything more. Not at all when bytes arrive
    // first (they stay unread), or after stopWatching().
    virtual void watchForEnd(std::function<void(bool reset)> onEnd) = 0;
    virtual void stopWatching() = 0;
};

} // namespace veltrane::platform
