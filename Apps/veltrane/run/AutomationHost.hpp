#pragma once

#include "VeltraneKit/AutomationProtocol/StoreAutomation.hpp"

#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace veltrane::platform {
class UnixLineServer;
}

namespace veltrane::app {

class ExtensionProcess;

// The automation service as `veltrane run` offers it: the store's one
// implementation, served on the automation socket of the runtime directory,
// with the extension this command runs behind its hooks. Every change of the
// active profile is handed to the extension at once and leaves one line on
// stderr saying why.
//
// A run given a profile file routes by that file for its whole life (read
// again on SIGHUP): the store's changes are then saved but not handed over,
// and the verbs say so.
class AutomationHost {
public:
    struct PinnedProfile {
        std::string path;     // as given to --profile
        std::string document; // what the extension routes by, or will when on
    };
    AutomationHost(kit::ProfileStore& store, ExtensionProcess& extension, bool writesAllowed,
                   std::optional<PinnedProfile> pinned = std::nullopt);
    ~AutomationHost(); // stops

    // Listens; throws std::system_error when the socket cannot be served.
    void start();
    void stop();
    const std::string& socketPath() const { return socketPath_; }

    // Hands `profile` to the extension as the active one unless it is the
    // one handed last; a switch to another profile says why. True when the
    // extension has it.
    bool activate(const kit::Profile& profile, const std::string& why);
    // What the extension was started with.
    void handedAtStart(const kit::Profile& profile);
    // The profile file was read again and `document` handed over (or kept
    // for when redirection is turned on): the status, the route tests and
    // the next start go by it.
    void pinnedReread(const std::string& document, const kit::Profile& profile);

private:
    kit::ProfileStore& store_;
    ExtensionProcess& extension_;
    std::string socketPath_;
    std::mutex mutex_;
    std::optional<std::string> lastHanded_; // the profile document handed last
    std::optional<kit::UUID> lastID_;
    std::optional<PinnedProfile> pinned_; // present or not for good; the document under mutex_
    std::optional<kit::Profile> pinnedProfile_; // the document decoded, under mutex_
    std::unique_ptr<kit::StoreAutomation> automation_;
    std::unique_ptr<platform::UnixLineServer> server_;
};

} // namespace veltrane::app
