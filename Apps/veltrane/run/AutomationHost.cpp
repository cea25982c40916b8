#include "run/AutomationHost.hpp"

#include "Platform/RuntimePaths.hpp"
#include "Platform/linux/UnixLineServer.hpp"
#include "VeltraneKit/AutomationProtocol/AutomationClient.hpp"
#include "VeltraneKit/AutomationProtocol/AutomationWire.hpp"
#include "VeltraneKit/ExtensionControlClient.hpp"
#include "VeltraneKit/ProfileCoding.hpp"
#include "VeltraneKit/ProfileStore/FingerprintReader.hpp"
#include "VeltraneKit/ProfileStore/ProfileStore.hpp"
#include "VeltraneKit/SharedPaths.hpp"
#include "run/ExtensionProcess.hpp"

#include <chrono>
#include <filesystem>
#include <iostream>
#include <thread>

namespace veltrane::app {

namespace {

// A client of the running extension's control service, or nothing.
std::unique_ptr<kit::ExtensionControlClient> controlClient() {
    for (const auto& path :
         platform::RuntimePaths::socketCandidates(kit::SharedPaths::extensionMachService)) {
        auto client = std::make_unique<kit::ExtensionControlClient>(path, std::chrono::seconds(2));
        try {
            client->connect();
            return client;
        } catch (const kit::ExtensionControlError&) {
        }
    }
    return nullptr;
}

} // namespace

AutomationHost::AutomationHost(kit::ProfileStore& store, ExtensionProcess& extension,
                               bool writesAllowed, std::optional<PinnedProfile> pinned)
    : store_(store), extension_(extension), socketPath_(kit::AutomationClient::defaultSocketPath()),
      pinned_(std::move(pinned)) {
    kit::StoreAutomation::Hooks hooks;
    hooks.stats = []() -> std::optional<kit::StatsSnapshot> {
        auto client = controlClient();
        if (!client) {
            return std::nullopt;
        }
        try {
            return client->fetchStats();
        } catch (const kit::ExtensionControlError&) {
            return std::nullopt;
        }
    };
    hooks.events = []() -> std::optional<std::vector<kit::ConnectionEvent>> {
        auto client = controlClient();
        if (!client) {
            return std::nullopt;
        }
        try {
            return client->fetchEvents(0).events;
        } catch (const kit::ExtensionControlError&) {
            return std::nullopt;
        }
    };
    hooks.applyToExtension = [this](const kit::Profile& profile) {
        return activate(profile, "chosen through the automation service");
    };
    if (pinned_) {
        pinnedProfile_ = kit::decodeProfile(std::string_view(pinned_->document));
        hooks.routedProfile = [this] {
            std::lock_guard guard(mutex_);
            return pinnedProfile_;
        };
    }
    hooks.currentFingerprint = [] { return kit::currentFingerprint(); };
    hooks.setEnabled = [this](bool enabled) {
        if (!enabled) {
            extension_.stop();
            std::cerr << "veltrane run: redirection off (through the automation service); "
                         "connections go direct\n";
            return true;
        }
        if (extension_.running()) {
            return true;
        }
        std::string profile;
        if (pinned_) {
            std::lock_guard guard(mutex_);
            profile = pinned_->document;
        } else {
            try {
                profile = kit::encodeProfile(store_.activeProfile(), false);
            } catch (const kit::Error& error) {
                std::cerr << "veltrane run: no active profile (" << error.localizedDescription()
                          << "); every connection goes direct\n";
            }
        }
        {
            std::lock_guard guard(mutex_);
            lastHanded_ = profile;
        }
        if (!extension_.start(profile)) {
            return false;
        }
        // On once it answers, so that the status read next says so. One that
        // cannot set up its capture ends, and the run with it.
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
        while (std::chrono::steady_clock::now() < deadline) {
            if (auto client = controlClient()) {
                try {
                    if (client->ping()) {
                        std::cerr << "veltrane run: redirection on (through the automation "
                                     "service)\n";
                        return true;
                    }
                } catch (const kit::ExtensionControlError&) {
                }
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        return false;
    };
    hooks.isEnabled = [this] { return extension_.running(); };
    hooks.writesAllowed = writesAllowed;
    automation_ = std::make_unique<kit::StoreAutomation>(store_, std::move(hooks));
}

AutomationHost::~AutomationHost() {
    stop();
}

void AutomationHost::start() {
    platform::RuntimePaths::prepareDirectory(
        std::filesystem::path(socketPath_).parent_path().string());
    platform::UnixLineServer::Options options;
    options.maxLineLength = kit::AutomationWire::maxRequestLength;
    server_ = std::make_unique<platform::UnixLineServer>(
        socketPath_,
        [this](std::string_view line) { return kit::handleAutomationLine(*automation_, line); },
        options);
    server_->start();
}

void AutomationHost::stop() {
    if (server_) {
        server_->stop();
        server_.reset();
    }
}

void AutomationHost::handedAtStart(const kit::Profile& profile) {
    std::lock_guard guard(mutex_);
    lastHanded_ = kit::encodeProfile(profile, false);
    lastID_ = profile.id;
}

void AutomationHost::pinnedReread(const std::string& document, const kit::Profile& profile) {
    std::lock_guard guard(mutex_);
    if (pinned_) {
        pinned_->document = document;
        pinnedProfile_ = profile;
        lastHanded_ = document;
    }
}

bool AutomationHost::activate(const kit::Profile& profile, const std::string& why) {
    if (pinned_) {
        // Not taken: the verb's reply says the change is only saved.
        std::cerr << "veltrane run: profile \"" << profile.name
                  << "\" saved in the store, not handed to the extension: this run routes by "
                  << pinned_->path << " (--profile)\n";
        return false;
    }
    const std::string document = kit::encodeProfile(profile, false);
    std::lock_guard guard(mutex_);
    if (lastHanded_ == document) {
        return extension_.running();
    }
    const bool taken = extension_.hand(document);
    if (taken) {
        lastHanded_ = document;
        if (lastID_ != profile.id) {
            std::cerr << "veltrane run: switched to profile \"" << profile.name << "\": " << why
                      << "\n";
        } else {
            std::cerr << "veltrane run: profile \"" << profile.name
                      << "\" changed; in effect now\n";
        }
        lastID_ = profile.id;
    }
    return taken;
}

} // namespace veltrane::app
