// "run" starts the extension under the Linux capture host, serves the
// automation service and follows the network; "reload" hands the running
// extension a profile from a file.
#include "Commands.hpp"
#include "Platform/linux/capture/CaptureTables.hpp"
#include "VeltraneKit/ProfileCoding.hpp"
#include "VeltraneKit/ProfileStore/FingerprintReader.hpp"
#include "VeltraneKit/ProfileStore/ProfileStore.hpp"
#include "VeltraneKit/SharedPaths.hpp"
#include "run/AutomationHost.hpp"
#include "run/ExtensionProcess.hpp"
#include "run/NetworkFollower.hpp"
#include "run/NetworkNamespace.hpp"
#include "run/PrintRules.hpp"

#include <csignal>
#include <iostream>
#include <pthread.h>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <vector>

namespace veltrane::app {
namespace {

struct RunOptions {
    std::string profile;
    std::string netns;
    std::uint16_t listenPort = 0;
    std::vector<std::string> includeLocal;
    std::vector<std::string> exemptUsers;
    bool fakeDNS = false;
    bool automationReadOnly = false;
    bool printRules = false;
    bool json = false;
};

std::unique_ptr<kit::ProfileStore> openStore() {
    try {
        return std::make_unique<kit::ProfileStore>(kit::SharedPaths::storeDirectory());
    } catch (const kit::Error& error) {
        std::cerr << "veltrane run: no profile store: " << error.localizedDescription() << "\n";
    } catch (const std::exception& error) {
        std::cerr << "veltrane run: no profile store: " << error.what() << "\n";
    }
    return nullptr;
}

// The profile to start with: the file given, else the store's profile bound
// to this network (made active), else the store's active one.
std::string startingProfile(const RunOptions& options, kit::ProfileStore* store) {
    if (!options.profile.empty()) {
        if (auto bytes = readProfileFile(options.profile, "run")) {
            return *bytes;
        }
    } else if (store) {
        try {
            const auto fingerprint = kit::currentFingerprint();
            if (auto bound = fingerprint ? store->profileMatching(*fingerprint) : std::nullopt) {
                if (store->activeID() != bound->id) {
                    store->setActive(bound->id);
                    std::cerr << "veltrane run: switched to profile \"" << bound->name
                              << "\": the network " << kit::encodeFingerprint(*fingerprint)
                              << " is bound to it\n";
                }
            }
            const auto active = store->activeProfile();
            std::cerr << "veltrane run: profile \"" << active.name << "\" from the store "
                      << store->directory().string() << "\n";
            return kit::encodeProfile(active, false);
        } catch (const kit::Error& error) {
            std::cerr << "veltrane run: no active profile: " << error.localizedDescription()
                      << "\n";
        }
    }
    std::cerr << "veltrane run: running without a profile: every connection goes direct\n";
    return {};
}

// The profile run would start with, chosen the same way but changing nothing.
std::string profileToShow(const RunOptions& options) {
    if (!options.profile.empty()) {
        return readProfileFile(options.profile, "run").value_or("");
    }
    auto store = openStore();
    if (!store) {
        return {};
    }
    try {
        const auto fingerprint = kit::currentFingerprint();
        if (auto bound = fingerprint ? store->profileMatching(*fingerprint) : std::nullopt) {
            return kit::encodeProfile(*bound, false);
        }
        return kit::encodeProfile(store->activeProfile(), false);
    } catch (const kit::Error&) {
        return {};
    }
}

// SIGHUP to a run given a profile file: the file is read again and handed
// over, so that an edit takes effect without a restart. One that does not
// read as a profile leaves the one in effect alone.
void rereadProfileFile(const std::string& path, ExtensionProcess& extension,
                       AutomationHost* automation) {
    const auto document = readProfileFile(path, "run");
    if (!document) {
        return;
    }
    const auto profile = kit::decodeProfile(std::string_view(*document));
    if (!profile) {
        std::cerr << "veltrane run: " << path << " is not a profile; the one in effect stays\n";
        return;
    }
    const bool running = extension.running();
    if (running && !extension.hand(*document)) {
        std::cerr << "veltrane run: the extension did not take " << path << "\n";
        return;
    }
    if (automation) {
        automation->pinnedReread(*document, *profile);
    }
    std::cerr << "veltrane run: " << path << " read again; "
              << (running ? "in effect now" : "in effect when redirection is turned on") << "\n";
}

int run(const RunOptions& options) {
    if (::geteuid() != 0) {
        std::cerr << "veltrane run: capturing traffic needs root (CAP_NET_ADMIN)\n";
        return exitBadInput;
    }
    ExtensionProcess::Options extensionOptions;
    extensionOptions.listenPort = options.listenPort;
    extensionOptions.includeLocal = options.includeLocal;
    extensionOptions.exemptUsers = options.exemptUsers;
    extensionOptions.fakeDNS = options.fakeDNS;
    if (options.printRules) {
        if (!options.netns.empty() && !enterNetworkNamespace(options.netns)) {
            return exitBadInput;
        }
        return printRules(extensionOptions, profileToShow(options), options.json);
    }
    // Signals are taken by one thread of ours; every thread made from here
    // on inherits the mask, and the extension gets a clean one.
    sigset_t signals;
    sigemptyset(&signals);
    for (int signal : {SIGINT, SIGTERM, SIGHUP, SIGUSR1}) {
        sigaddset(&signals, signal);
    }
    ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
    if (!options.netns.empty() && !enterNetworkNamespace(options.netns)) {
        return exitBadInput;
    }

    auto store = openStore();
    ExtensionProcess extension(extensionOptions);
    const std::string profile = startingProfile(options, store.get());
    extension.start(profile);

    std::unique_ptr<AutomationHost> automation;
    std::unique_ptr<NetworkFollower> follower;
    if (store) {
        std::optional<AutomationHost::PinnedProfile> pinned;
        if (!options.profile.empty()) {
            pinned = AutomationHost::PinnedProfile{options.profile, profile};
        }
        automation = std::make_unique<AutomationHost>(*store, extension,
                                                      !options.automationReadOnly, pinned);
        if (options.profile.empty() && !profile.empty()) {
            try {
                automation->handedAtStart(store->activeProfile());
            } catch (const kit::Error&) {
            }
        }
        try {
            automation->start();
            std::cerr << "veltrane run: automation service on " << automation->socketPath()
                      << (options.automationReadOnly ? " (read-only)" : "") << "\n";
        } catch (const std::system_error& error) {
            std::cerr << "veltrane run: no automation service: " << error.what() << "\n";
            automation.reset();
        }
        // A profile given as a file is kept; the store's follows the network.
        if (options.profile.empty()) {
            follower = std::make_unique<NetworkFollower>(
                *store,
                [&](const kit::Profile& bound, const std::string& why) {
                    try {
                        store->setActive(bound.id);
                    } catch (const kit::Error& error) {
                        std::cerr << "veltrane run: cannot switch to \"" << bound.name
                                  << "\": " << error.localizedDescription() << "\n";
                        return;
                    }
                    if (automation) {
                        automation->activate(bound, why);
                    } else if (extension.hand(kit::encodeProfile(bound, false))) {
                        std::cerr << "veltrane run: switched to profile \"" << bound.name
                                  << "\": " << why << "\n";
                    }
                },
                [] { return kit::currentFingerprint(); });
            follower->start();
        }
    }

    std::thread signalThread([&] {
        for (;;) {
            int signal = 0;
            if (::sigwait(&signals, &signal) != 0 || signal == SIGUSR1) {
                return;
            }
            if (signal == SIGHUP) {
                if (!options.profile.empty()) {
                    rereadProfileFile(options.profile, extension, automation.get());
                    continue;
                }
                // As after a reload of the service: the store's active profile again.
                if (store) {
                    try {
                        const auto active = store->activeProfile();
                        if (extension.hand(kit::encodeProfile(active, false))) {
                            std::cerr << "veltrane run: profile \"" << active.name
                                      << "\" handed to the extension again\n";
                        }
                    } catch (const kit::Error& error) {
                        std::cerr << "veltrane run: no active profile: "
                                  << error.localizedDescription() << "\n";
                    }
                }
                continue;
            }
            extension.finish(signal);
            return;
        }
    });
    const int status = extension.wait();
    if (follower) {
        follower->stop();
    }
    if (automation) {
        automation->stop();
    }
    ::pthread_kill(signalThread.native_handle(), SIGUSR1);
    signalThread.join();
    return status;
}

int reload(const std::string& profilePath) {
    const auto profile = readProfileFile(profilePath, "reload");
    if (!profile) {
        return exitBadInput;
    }
    const auto taken = handToRunningExtension(*profile);
    if (!taken) {
        std::cerr << "veltrane reload: no running extension (is `veltrane run` running?)\n";
        return exitUnavailable;
    }
    if (!*taken) {
        std::cerr << "veltrane reload: the extension did not take the profile\n";
        return exitUnavailable;
    }
    std::cout << "reloaded " << profilePath << "\n";
    return exitOK;
}

} // namespace

void addRunCommands(CLI::App& app, CommandRunner& runner) {
    auto options = std::make_shared<RunOptions>();
    auto* runVerb = app.add_subcommand(
        "run", "Capture this machine's (or a namespace's) new connections and route them by a "
               "profile, until interrupted. Needs root. Without --profile, the profile store's "
               "active profile is used, and a profile bound to the network the machine is on "
               "is made active whenever the network changes. Serves the automation service.");
    runVerb->add_option("--profile", options->profile,
                        "Route by this profile (JSON file) instead of the store's");
    runVerb->add_option("--netns", options->netns,
                        "Run inside this existing network namespace (ip netns) instead");
    runVerb
        ->add_option("--listen-port", options->listenPort,
                     "Receive carried connections on this port of 127.0.0.1 and ::1 "
                     "(default: a free one)")
        ->check(CLI::Range(1, 65535));
    runVerb
        ->add_option("--include-local", options->includeLocal,
                     "Also route connections to this machine's own addresses inside this "
                     "network (192.0.2.0/24, 2001:db8::/32; repeatable); they are left alone "
                     "by default")
        ->check([](const std::string& value) {
            return platform::capture::Network::parse(value)
                       ? std::string()
                       : "not an address or a network: " + value;
        });
    runVerb->add_option("--exempt-user", options->exemptUsers,
                        "Never capture connections of this user's processes, by name or uid "
                        "(repeatable): a local proxy server's own connections");
    runVerb->add_flag("--fake-dns", options->fakeDNS,
                      "Also capture the machine's DNS queries (UDP port 53, a local stub "
                      "resolver's included): with the profile's dns.resolveViaProxy on, A "
                      "queries are answered with fake addresses that rules then match by name, "
                      "for every protocol; see `veltrane dns`");
    runVerb->add_flag("--automation-read-only", options->automationReadOnly,
                      "Let automation clients (veltrane verbs, MCP) read but change nothing");
    runVerb->add_flag("--print-rules", options->printRules,
                      "Print the netfilter rules, policy routes and marks this run would "
                      "install, and exit, changing nothing (they are shown from a network "
                      "namespace made for the purpose)");
    runVerb->add_flag("--json", options->json, "With --print-rules: as JSON (nft -j, ip -j)");
    runVerb->callback([&runner, options] { runner = [options] { return run(*options); }; });

    auto profile = std::make_shared<std::string>();
    auto* reloadVerb = app.add_subcommand(
        "reload", "Hand the running extension a new profile; connections already carried keep "
                  "their route.");
    reloadVerb->add_option("--profile", *profile, "The profile (JSON file)")->required();
    reloadVerb->callback([&runner, profile] { runner = [profile] { return reload(*profile); }; });
}

} // namespace veltrane::app
