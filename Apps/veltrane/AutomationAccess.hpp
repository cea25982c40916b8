#pragma once

#include "VeltraneKit/AutomationProtocol/AutomationXPCProtocol.hpp"

#include <memory>
#include <string>

namespace veltrane::kit {
class ProfileStore;
}

namespace veltrane::app {

// The automation operations as the store verbs reach them: through the
// service of a running `veltrane run`, so that a change reaches the running
// extension at once, or, when none runs, over this user's profile store.
// Either way the same implementation does the work, so a verb behaves the
// same with or without a service.
class AutomationAccess {
public:
    virtual ~AutomationAccess() = default;

    virtual kit::AutomationXPCProtocol& operations() = 0;
    // Whether a running service answers the operations.
    virtual bool served() const = 0;

    // The profile store itself, for the few verbs that the operations do not
    // cover. It is the one the service works on: the service found is this
    // user's (or, for root, the system's), and so is the store. Throws what
    // opening a ProfileStore throws.
    virtual kit::ProfileStore& store() = 0;

    // To be called after such a verb changed the store on its own: when a
    // service runs and `activeChanged`, it switches to the active profile
    // again, which applies it to the running extension. The reply of that
    // switch, or a plain success when nothing needed doing.
    kit::AutomationReply retakeActive(bool activeChanged);
};

// A service that answers on AutomationClient::defaultSocketPath(), else the
// local store. Throws AutomationClientError when a service is there but
// cannot be used (permission denied, no answer): such a service is never
// bypassed, or the running system and the store would disagree. Throws what
// opening a ProfileStore throws when the store cannot be opened.
std::unique_ptr<AutomationAccess> openAutomation();

} // namespace veltrane::app
