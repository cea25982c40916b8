// The fake-address table kept across restarts, and the resolver that names
// behind fake addresses are looked up with.

#include "ExtensionCore/DNS/DirectResolver.hpp"
#include "ExtensionCore/Provider/TransparentProxyProvider.hpp"
#include "Platform/Logger.hpp"
#include "Platform/RuntimePaths.hpp"
#include "Platform/linux/LinuxConnection.hpp"
#include "VeltraneKit/FakeDNS/FakeDNSState.hpp"
#include "VeltraneKit/ProfileStore/StoreFiles.hpp"

#include <asio.hpp>
#include <ctime>
#include <filesystem>
#include <unistd.h>

namespace veltrane::core {

namespace {

std::string statePath(const std::string& configured) {
    if (!configured.empty()) {
        return configured;
    }
    return kit::FakeDNSState::pathIn(platform::RuntimePaths::runtimeDirectory()).string();
}

} // namespace

void TransparentProxyProvider::loadFakeDNSState() {
    const auto path = statePath(fakeDNSStatePath_);
    std::error_code missing;
    if (!std::filesystem::exists(path, missing)) {
        return;
    }
    try {
        std::string whyNot;
        const auto state = kit::FakeDNSState::decode(kit::StoreFiles::readFile(path), whyNot);
        if (!state) {
            // Started afresh: applications holding old addresses reach nothing
            // by them, as after a reboot, and ask again.
            platform::log::error("fake-address table {} unreadable ({}); starting empty", path,
                                 whyNot);
            return;
        }
        fakeIP_->restore(state->tableAt(std::time(nullptr)));
        {
            std::lock_guard guard(resolverLock_);
            resolverInUse_ = state->resolver;
        }
        platform::log::info("fake-address table restored: {} names", fakeIP_->count());
    } catch (const std::exception& error) {
        platform::log::error("fake-address table unreadable: {}; starting empty", error.what());
    }
}

void TransparentProxyProvider::saveFakeDNSState() {
    std::lock_guard writing(fakeSaveLock_);
    kit::FakeDNSState state;
    state.pid = ::getpid();
    const auto snapshot = currentState();
    state.answering = snapshot && snapshot->profile.dns.resolveViaProxy;
    {
        std::lock_guard guard(resolverLock_);
        state.resolver = resolverInUse_;
    }
    state.savedAt = std::time(nullptr);
    state.table = fakeIP_->table();
    const auto path = statePath(fakeDNSStatePath_);
    try {
        if (fakeDNSStatePath_.empty()) {
            platform::RuntimePaths::prepareDirectory(platform::RuntimePaths::runtimeDirectory());
        }
        kit::StoreFiles::replaceFile(path, state.encode());
    } catch (const std::exception& error) {
        platform::log::error("cannot keep the fake-address table: {}", error.what());
    }
}

void TransparentProxyProvider::scheduleFakeDNSSave() {
    if (!fakeDNS_ || fakeSaveScheduled_.exchange(true)) {
        return; // a write is on its way and will take this change along
    }
    auto timer = std::make_shared<asio::steady_timer>(*queue_, fakeDNSSaveInterval_);
    timer->async_wait([weak = weak_from_this(), timer](const std::error_code& error) {
        auto owner = weak.lock();
        if (!owner) {
            return;
        }
        owner->fakeSaveScheduled_ = false;
        if (!error) {
            owner->saveFakeDNSState();
        }
    });
}

void TransparentProxyProvider::noteResolver(const platform::NWHostEndpoint& endpoint) {
    const auto& address = endpoint.hostname();
    std::string server = address.find(':') != std::string::npos
                             ? "[" + address + "]:" + endpoint.port()
                             : address + ":" + endpoint.port();
    bool changed = false;
    {
        std::lock_guard guard(resolverLock_);
        if (resolverInUse_ != server) {
            resolverInUse_ = std::move(server);
            changed = true;
        }
    }
    if (changed) {
        scheduleFakeDNSSave();
    }
}

void TransparentProxyProvider::distrustFakeAnswers() {
    auto service = std::dynamic_pointer_cast<platform::LinuxConnectionService>(connections_);
    if (!service) {
        return;
    }
    auto isFake = [](const std::string& address) {
        return kit::FakeIPAllocator::isFakeIP(address);
    };
    service->setSecondOpinion(
        {isFake, [weak = weak_from_this(), isFake](
                     const std::string& host, std::function<void(std::vector<std::string>)> done) {
             auto owner = weak.lock();
             if (!owner) {
                 done({});
                 return;
             }
             // Addresses only, so these connections never come back here.
             DirectResolver::resolve(host, owner->directResolver(), *owner->connections_,
                                     *owner->queue_, owner->dnsForwardTimeout_, isFake,
                                     std::move(done));
         }});
}

std::string TransparentProxyProvider::directResolver() const {
    {
        std::lock_guard guard(resolverLock_);
        if (!resolverInUse_.empty()) {
            return resolverInUse_;
        }
    }
    auto servers = DirectResolver::configuredServers();
    return servers.empty() ? std::string() : servers.front();
}

} // namespace veltrane::core
