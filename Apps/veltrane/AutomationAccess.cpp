#include "AutomationAccess.hpp"

#include "VeltraneKit/AutomationProtocol/AutomationClient.hpp"
#include "VeltraneKit/AutomationProtocol/StoreAutomation.hpp"
#include "VeltraneKit/ProfileStore/FingerprintReader.hpp"
#include "VeltraneKit/ProfileStore/ProfileStore.hpp"
#include "VeltraneKit/SharedPaths.hpp"

namespace veltrane::app {
namespace {

// The store of this user (or root's system store), opened on first use.
class LazyStore {
public:
    kit::ProfileStore& get() {
        if (!store_) {
            store_ = std::make_unique<kit::ProfileStore>(kit::SharedPaths::storeDirectory());
        }
        return *store_;
    }

private:
    std::unique_ptr<kit::ProfileStore> store_;
};

// A running `veltrane run` answers: it applies every change to its extension.
class ServedAccess final : public AutomationAccess {
public:
    explicit ServedAccess(std::unique_ptr<kit::AutomationClient> client)
        : client_(std::move(client)) {}

    kit::AutomationXPCProtocol& operations() override { return *client_; }
    bool served() const override { return true; }
    kit::ProfileStore& store() override { return store_.get(); }

private:
    std::unique_ptr<kit::AutomationClient> client_;
    LazyStore store_;
};

// Nobody serves: the same operations over the store, with nothing running
// to hand a profile to.
class LocalAccess final : public AutomationAccess {
public:
    LocalAccess() : automation_(store_.get(), hooks()) {}

    kit::AutomationXPCProtocol& operations() override { return automation_; }
    bool served() const override { return false; }
    kit::ProfileStore& store() override { return store_.get(); }

private:
    static kit::StoreAutomation::Hooks hooks() {
        kit::StoreAutomation::Hooks hooks;
        // No extension runs, so there are no counters or events (the empty
        // functions say so), nothing takes a profile and nothing turns on.
        hooks.setEnabled = [](bool) { return false; };
        hooks.currentFingerprint = [] { return kit::currentFingerprint(); };
        hooks.writesAllowed = true;
        return hooks;
    }

    LazyStore store_; // before automation_, which holds a reference into it
    kit::StoreAutomation automation_;
};

} // namespace

kit::AutomationReply AutomationAccess::retakeActive(bool activeChanged) {
    if (!activeChanged || !served()) {
        return kit::AutomationReply::done("");
    }
    auto reply = operations().switchProfileWithName(store().activeProfile().name);
    if (!reply.succeeded) {
        reply.text =
            "saved, but the running service did not take the active profile: " + reply.text;
    }
    return reply;
}

std::unique_ptr<AutomationAccess> openAutomation() {
    // Only this user's own socket: a service found there works on the store
    // that storeDirectory() gives this user too (root's service on the
    // system store, a user's on the user's), so the verbs that change the
    // store directly change the one the service routes by.
    auto client =
        std::make_unique<kit::AutomationClient>(kit::AutomationClient::defaultSocketPath());
    try {
        client->connect();
        return std::make_unique<ServedAccess>(std::move(client));
    } catch (const kit::AutomationClientError& error) {
        if (error.kind() != kit::AutomationClientError::Kind::notRunning) {
            throw;
        }
    }
    return std::make_unique<LocalAccess>();
}

} // namespace veltrane::app
