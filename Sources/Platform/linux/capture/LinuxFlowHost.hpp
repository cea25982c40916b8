#pragma once

#include "Platform/NEFlowHost.hpp"
#include "Platform/linux/capture/CaptureTables.hpp"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace veltrane::platform::capture {

// The flow host of a Linux machine: netfilter hands it the first packet of
// every new outbound TCP connection; it finds the application behind the
// socket, asks the provider, and lets the connection go on untouched
// (declined), resets it (refused), or redirects it to its own listener,
// where the connection becomes the flow's socket (carried). Everything it
// adds to the kernel is owned by its process and vanishes with it.
class LinuxFlowHost final : public NEFlowHost,
                            public NEProviderHost,
                            public std::enable_shared_from_this<LinuxFlowHost> {
public:
    struct Options {
        std::string tableName = "veltrane";
        std::uint16_t queueNumber = 4242;
        std::uint32_t markMask = 0x00700000;
        std::uint32_t bypassMark = 0x00100000;
        std::uint32_t carryMark = 0x00200000;
        std::uint32_t refuseMark = 0x00300000;
        // Threads running the shared queue. One is the fastest: the relays'
        // bytes move in the kernel, and a second thread only adds hand-overs
        // between the two (a wake-up and a lock per step of every flow).
        int threads = 1;
        // The carried connections' listener on 127.0.0.1 and ::1; 0: a free port.
        std::uint16_t listenerPort = 0;
        // Also decide connections to this machine's own non-loopback
        // addresses inside these networks (a lab whose servers sit on
        // local addresses); the rest of them are left alone.
        std::vector<Network> localIncluded;
        std::vector<std::uint32_t> exemptUsers; // uids whose connections are never decided
        // Also hand the provider every new UDP flow to port 53 (beyond the
        // loopback), as its network rules ask when it answers DNS itself.
        bool captureDNS = false;
        // The provider configuration's profile, if any.
        std::optional<std::vector<std::uint8_t>> profile;
        // Where app messages (one profile document per line) arrive; empty:
        // the runtime directory's "com.veltrane.flowhost".
        std::string messageSocketPath;
    };

    static constexpr const char* messageService = "com.veltrane.flowhost";

    explicit LinuxFlowHost(Options options);
    ~LinuxFlowHost() override;

    // Until SIGINT or SIGTERM; 0 after a clean stop, 2 when the capture
    // could not be set up.
    int run(std::shared_ptr<NETransparentProxyProvider> provider) override;

    DispatchQueue* sharedQueue() override;
    bool capturesDNS() const override;

    void setTunnelNetworkSettings(std::optional<NETransparentProxyNetworkSettings> settings,
                                  SettingsCompletion completion) override;

    struct Impl;

private:
    std::unique_ptr<Impl> impl_;
};

} // namespace veltrane::platform::capture
