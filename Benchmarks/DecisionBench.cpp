// One new connection's decision as the capture host makes it: the socket's
// owner asked of the kernel (sock_diag), the process behind it, its identity,
// and the provider's answer over a 200-rule profile (loop guard, fake-address
// check, rule match). The flow goes direct, as most flows do.
//
// Arguments: other processes running beside (all in this cgroup, so the
// cgroup path has them to search), whether the connecting process is a new
// one each time (nothing about it cached), whether the eBPF connect hook
// names the owner (needs root; skipped without), and whether all of them run
// in one scope, as one application's processes do (needs root).
//
// Needs loopback up: `unshare --net sh -c 'ip link set lo up && ...'`.
#include "ExtensionCore/Control/StatsCollector.hpp"
#include "ExtensionCore/Provider/TransparentProxyProvider.hpp"
#include "Platform/NEFlowMetaData.hpp"
#include "Platform/linux/Cgroup2.hpp"
#include "Platform/linux/capture/AppIdentifier.hpp"
#include "Platform/linux/capture/ConnectOwners.hpp"
#include "Platform/linux/capture/SocketOwners.hpp"
#include "Platform/memory/MemoryFlowHost.hpp"
#include "Platform/memory/MemoryTCPFlow.hpp"
#include "VeltraneKit/ProfileCoding.hpp"

#include <algorithm>
#include <arpa/inet.h>
#include <asio.hpp>
#include <benchmark/benchmark.h>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <fstream>
#include <netinet/in.h>
#include <poll.h>
#include <spawn.h>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace veltrane;

namespace {

kit::Profile twoHundredRules() {
    kit::Profile profile;
    profile.id = kit::UUID::random();
    profile.name = "bench";
    kit::ProxyServer proxy{kit::UUID::random(),        "p",         "127.0.0.1", 1080,
                           kit::ProxyProtocol::socks5, std::nullopt};
    profile.proxies = {proxy};
    for (int i = 0; i < 200; ++i) {
        kit::Rule rule;
        rule.id = kit::UUID::random();
        rule.name = "Rule " + std::to_string(i);
        rule.apps = {"tool" + std::to_string(i), "com.vendor" + std::to_string(i) + ".*"};
        rule.hosts = {"*.vendor" + std::to_string(i) + ".com"};
        rule.ports = {"443", "8000-9000"};
        rule.action = kit::RuleAction::proxy(proxy.id);
        profile.rules.push_back(std::move(rule));
    }
    return profile;
}

// A connected loopback client socket and its 4-tuple.
struct Client {
    int fd = -1;
    std::uint16_t sourcePort = 0;
};

Client connectTo(const sockaddr_in& server) {
    Client client;
    client.fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (::connect(client.fd, reinterpret_cast<const sockaddr*>(&server), sizeof server) != 0) {
        return client; // no source port: nothing to look up
    }
    sockaddr_in local{};
    socklen_t length = sizeof local;
    ::getsockname(client.fd, reinterpret_cast<sockaddr*>(&local), &length);
    client.sourcePort = ntohs(local.sin_port);
    return client;
}

// A new process, spawned rather than forked: a forked copy of this one would
// share its pages until written, and every page the timed decision then
// touched would be copied under the clock. It connects to `server` and lives
// until `hold` closes. Its source port is read off the accepted connection,
// whose descriptor comes back in `accepted`; -1 when it did not connect.
pid_t connectingProcess(std::uint16_t serverPort, int listener, int hold, int& accepted,
                        std::uint16_t& sourcePort) {
    const std::string script =
        "exec 3<>/dev/tcp/127.0.0.1/" + std::to_string(serverPort) + " && read -r _";
    const char* argv[] = {"/bin/bash", "-c", script.c_str(), nullptr};
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_adddup2(&actions, hold, STDIN_FILENO);
    pid_t pid = -1;
    const int spawned =
        ::posix_spawn(&pid, argv[0], &actions, nullptr, const_cast<char* const*>(argv), environ);
    ::posix_spawn_file_actions_destroy(&actions);
    accepted = -1;
    sourcePort = 0;
    if (spawned != 0) {
        return -1;
    }
    pollfd ready{listener, POLLIN, 0};
    if (::poll(&ready, 1, 5000) == 1) {
        sockaddr_in peer{};
        socklen_t length = sizeof peer;
        accepted = ::accept4(listener, reinterpret_cast<sockaddr*>(&peer), &length, SOCK_CLOEXEC);
        sourcePort = accepted >= 0 ? ntohs(peer.sin_port) : 0;
    }
    return pid;
}

// Runs this process, and so every process it starts, in a cgroup scope of
// its own, as a desktop application's many processes run in theirs: each
// new process then answers to the scope's leader, which has to be found
// among all of them. Moves back and removes the scope when it goes.
class OwnScope {
public:
    static std::unique_ptr<OwnScope> enter(std::string& whyNot) {
        const auto& mount = platform::cgroup2Mount();
        std::ifstream membership("/proc/self/cgroup");
        std::string line;
        std::string home;
        while (std::getline(membership, line)) {
            if (line.starts_with("0::")) {
                home = line.substr(3);
            }
        }
        if (!mount || home.empty()) {
            whyNot = "no cgroup2 hierarchy";
            return nullptr;
        }
        auto scope = std::unique_ptr<OwnScope>(new OwnScope(
            *mount + "/vt-bench-" + std::to_string(::getpid()) + ".scope", *mount + home));
        if (::mkdir(scope->path_.c_str(), 0755) != 0 || !moveHere(scope->path_)) {
            whyNot = "cannot make or join a scope (needs root)";
            return nullptr;
        }
        return scope;
    }
    ~OwnScope() {
        moveHere(home_);
        // The kernel empties a scope a moment after its last member is reaped.
        for (int attempt = 0; attempt < 100 && ::rmdir(path_.c_str()) != 0 && errno == EBUSY;
             ++attempt) {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    }

private:
    OwnScope(std::string path, std::string home) : path_(std::move(path)), home_(std::move(home)) {}
    // Writing 0 moves the writing process.
    static bool moveHere(const std::string& cgroup) {
        std::ofstream procs(cgroup + "/cgroup.procs");
        procs << 0 << std::flush;
        return static_cast<bool>(procs);
    }
    std::string path_;
    std::string home_;
};

void BM_DecisionPass(benchmark::State& state) {
    const int others = static_cast<int>(state.range(0));
    const bool newProcess = state.range(1) != 0;
    const bool hooked = state.range(2) != 0;
    const bool scoped = state.range(3) != 0;

    std::unique_ptr<OwnScope> scope;
    if (scoped) {
        std::string whyNot;
        scope = OwnScope::enter(whyNot);
        if (!scope) {
            state.SkipWithError(whyNot.c_str());
            return;
        }
    }

    std::unique_ptr<platform::capture::ConnectOwners> hook;
    if (hooked) {
        std::string whyNot;
        hook = platform::capture::ConnectOwners::attach(whyNot);
        if (!hook) {
            state.SkipWithError(whyNot.c_str());
            return;
        }
    }
    std::vector<pid_t> idle;
    for (int i = 0; i < others; ++i) {
        const pid_t pid = ::fork();
        if (pid == 0) {
            ::pause();
            ::_exit(0);
        }
        idle.push_back(pid);
    }

    asio::io_context queue;
    auto work = asio::make_work_guard(queue);
    std::thread runner([&] { queue.run(); });
    core::StatsCollector collector;
    core::TransparentProxyProvider::Options options;
    options.queue = &queue;
    options.collector = &collector;
    options.controlSocketPath = "/tmp/veltrane-bench-" + std::to_string(::getpid()) + ".sock";
    auto provider = std::make_shared<core::TransparentProxyProvider>(std::move(options));
    const auto profile = kit::encodeProfile(twoHundredRules(), false);
    auto host = platform::MemoryFlowHost::make(
        provider, platform::NETunnelProviderProtocol{platform::ProviderDictionary{
                      {"profile", platform::Bytes(profile.begin(), profile.end())}}});
    host->startProxy(std::nullopt);
    host->waitFor([](const auto& r) { return !r.startResults.empty(); });

    const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in server{};
    server.sin_family = AF_INET;
    server.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof server;
    ::bind(listener, reinterpret_cast<sockaddr*>(&server), length);
    ::listen(listener, 4096);
    ::getsockname(listener, reinterpret_cast<sockaddr*>(&server), &length);
    const std::uint16_t serverPort = ntohs(server.sin_port);

    platform::capture::ProcessResolver resolver;
    platform::capture::SigningIdentifiers identifiers;
    if (hook) {
        resolver.setCookieLookup([&hook](std::uint64_t cookie) { return hook->pidOf(cookie); });
    }
    const int diag = platform::capture::openSocketDiagnosis();
    Client own = newProcess ? Client{} : connectTo(server);
    bool decidedDirect = true;
    // A pass whose socket was not found times a look-up that failed early
    // (loopback down in a fresh namespace, say): such a run means nothing.
    bool allNamed = true;
    // Google Benchmark reports the mean; the tail is what a user notices as
    // a stalled connect, so every pass is timed on its own as well.
    std::vector<double> passes;
    for (auto _ : state) {
        pid_t child = -1;
        int hold[2] = {-1, -1};
        int accepted = -1;
        std::uint16_t sourcePort = own.sourcePort;
        if (newProcess) {
            state.PauseTiming();
            (void)!::pipe2(hold, O_CLOEXEC);
            child = connectingProcess(serverPort, listener, hold[0], accepted, sourcePort);
            state.ResumeTiming();
        }
        const auto began = std::chrono::steady_clock::now();
        platform::NEFlowMetaData metaData;
        if (auto owner = platform::capture::lookupSocket(
                AF_INET, IPPROTO_TCP, "127.0.0.1", sourcePort, "127.0.0.1", serverPort, diag)) {
            if (auto pid = resolver.pidFor(*owner)) {
                metaData.sourceAppSigningIdentifier = identifiers.forProcess(*pid, owner->cgroupId);
                metaData.sourceAppAuditToken = platform::makeAuditToken(*pid);
            }
        }
        allNamed &= !metaData.sourceAppSigningIdentifier.empty();
        auto flow = platform::MemoryTCPFlow::make(queue, "192.0.2.10", "443", std::move(metaData));
        decidedDirect &= !host->deliver(flow);
        passes.push_back(
            std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - began)
                .count());
        if (newProcess) {
            state.PauseTiming();
            for (int fd : {hold[0], hold[1], accepted}) {
                if (fd >= 0) {
                    ::close(fd);
                }
            }
            if (child > 0) {
                ::waitpid(child, nullptr, 0);
            }
            state.ResumeTiming();
        }
    }
    if (!decidedDirect) {
        state.SkipWithError("a flow was not decided direct");
    } else if (!allNamed) {
        state.SkipWithError("a connection's process was not found (is loopback up?)");
    }
    if (!passes.empty()) {
        std::sort(passes.begin(), passes.end());
        const auto at = [&](double share) {
            return passes[std::min(
                passes.size() - 1,
                static_cast<std::size_t>(share * static_cast<double>(passes.size())))];
        };
        state.counters["p50_us"] = at(0.50);
        state.counters["p99_us"] = at(0.99);
    }
    ::close(diag);
    ::close(own.fd);
    ::close(listener);
    for (pid_t pid : idle) {
        ::kill(pid, SIGKILL);
        ::waitpid(pid, nullptr, 0);
    }
    host->stopProxy(0);
    // The provider keeps timers of its own on the queue: stop it outright.
    queue.stop();
    runner.join();
}

} // namespace

// {other processes, a new process each time, eBPF hook, all in one scope}
BENCHMARK(BM_DecisionPass)
    ->ArgNames({"others", "new", "hook", "scope"})
    ->Args({0, 0, 0, 0})
    ->Args({500, 0, 0, 0})
    ->Args({500, 1, 0, 0})
    ->Args({500, 1, 1, 0})
    ->Args({500, 1, 1, 1})
    ->Unit(benchmark::kMicrosecond);
