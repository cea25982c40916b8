#include "run/NetworkFollower.hpp"

#include "Platform/NWPathMonitor.hpp"
#include "VeltraneKit/ProfileStore/ProfileStore.hpp"

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <iostream>

namespace veltrane::app {

NetworkFollower::NetworkFollower(kit::ProfileStore& store, Switch onSwitch, Reader reader)
    : store_(store), onSwitch_(std::move(onSwitch)), reader_(std::move(reader)) {}

NetworkFollower::~NetworkFollower() {
    stop();
}

void NetworkFollower::start() {
    if (queue_) {
        return;
    }
    queue_ = std::make_unique<asio::io_context>();
    monitor_ = std::make_unique<platform::NWPathMonitor>();
    // Addresses and links say when to look; what the network is comes from
    // the reader (routes, neighbours, the Wi-Fi name).
    monitor_->setPathUpdateHandler([this](const platform::NWPath&) { pathChanged(); });
    monitor_->start(*queue_);
    thread_ = std::thread([queue = queue_.get()] {
        auto work = asio::make_work_guard(*queue);
        queue->run();
    });
}

void NetworkFollower::stop() {
    if (!queue_) {
        return;
    }
    monitor_->cancel();
    queue_->stop();
    if (thread_.joinable()) {
        thread_.join();
    }
    monitor_.reset();
    queue_.reset();
}

std::optional<NetworkFollower::Fingerprint> NetworkFollower::current() const {
    std::lock_guard guard(mutex_);
    return last_;
}

void NetworkFollower::pathChanged() {
    const auto fingerprint = reader_();
    {
        std::lock_guard guard(mutex_);
        if (read_ && fingerprint == last_) {
            return; // an address came and went; the network is the same
        }
        read_ = true;
        last_ = fingerprint;
    }
    if (!fingerprint) {
        return;
    }
    try {
        auto bound = store_.profileMatching(*fingerprint);
        if (!bound) {
            return;
        }
        std::optional<kit::UUID> active;
        try {
            active = store_.activeID();
        } catch (const kit::Error&) {
        }
        if (active && *active == bound->id) {
            return;
        }
        onSwitch_(*bound,
                  "the network " + kit::encodeFingerprint(*fingerprint) + " is bound to it");
    } catch (const kit::Error& error) {
        std::cerr << "veltrane run: cannot read the profile store: " << error.localizedDescription()
                  << "\n";
    }
}

} // namespace veltrane::app
