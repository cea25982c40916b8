// One new connection's decision as the capture host makes it: the socket's
// owner asked of the kernel (sock_diag), the process behind it, its identity,
// and the provider's answer over a 200-rule profile (loop guard, fake-address
// check, rule match). The flow goes direct, as most flows do.
//
// Arguments: other processes running beside (all in this cgroup, so the
// cgroup path has them to search), whether the connecting process is a new
// one each time (nothing about it cached), and whether the eBPF connect hook
// names the owner (needs root; skipped without).
#include "ExtensionCore/Control/StatsCollector.hpp"
#include "ExtensionCore/Provider/TransparentProxyProvider.hpp"
#include "Platform/NEFlowMetaData.hpp"
#include "Platform/linux/capture/AppIdentifier.hpp"
#include "Platform/linux/capture/ConnectOwners.hpp"
#include "Platform/linux/capture/SocketOwners.hpp"
#include "Platform/memory/MemoryFlowHost.hpp"
#include "Platform/memory/MemoryTCPFlow.hpp"
#include "VeltraneKit/ProfileCoding.hpp"

#include <arpa/inet.h>
#include <asio.hpp>
#include <benchmark/benchmark.h>
#include <csignal>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

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
    ::connect(client.fd, reinterpret_cast<const sockaddr*>(&server), sizeof server);
    sockaddr_in local{};
    socklen_t length = sizeof local;
    ::getsockname(client.fd, reinterpret_cast<sockaddr*>(&local), &length);
    client.sourcePort = ntohs(local.sin_port);
    return client;
}

// A process that connects to `server` and waits until the write end of
// `hold` closes; its source port comes back through `report`.
pid_t connectingChild(const sockaddr_in& server, int report[2], int hold[2]) {
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::close(hold[1]);
        const Client client = connectTo(server);
        (void)!::write(report[1], &client.sourcePort, sizeof client.sourcePort);
        char c;
        (void)!::read(hold[0], &c, 1);
        ::_exit(0);
    }
    return pid;
}

void BM_DecisionPass(benchmark::State& state) {
    const int others = static_cast<int>(state.range(0));
    const bool newProcess = state.range(1) != 0;
    const bool hooked = state.range(2) != 0;

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
    for (auto _ : state) {
        pid_t child = -1;
        int report[2];
        int hold[2];
        std::uint16_t sourcePort = own.sourcePort;
        if (newProcess) {
            state.PauseTiming();
            (void)!::pipe2(report, O_CLOEXEC);
            (void)!::pipe2(hold, O_CLOEXEC);
            child = connectingChild(server, report, hold);
            (void)!::read(report[0], &sourcePort, sizeof sourcePort);
            state.ResumeTiming();
        }
        platform::NEFlowMetaData metaData;
        if (auto owner = platform::capture::lookupSocket(
                AF_INET, IPPROTO_TCP, "127.0.0.1", sourcePort, "127.0.0.1", serverPort, diag)) {
            if (auto pid = resolver.pidFor(*owner)) {
                metaData.sourceAppSigningIdentifier = identifiers.forProcess(*pid, owner->cgroupId);
                metaData.sourceAppAuditToken = platform::makeAuditToken(*pid);
            }
        }
        auto flow = platform::MemoryTCPFlow::make(queue, "192.0.2.10", "443", std::move(metaData));
        decidedDirect &= !host->deliver(flow);
        if (newProcess) {
            state.PauseTiming();
            for (int fd : {report[0], report[1], hold[0], hold[1]}) {
                ::close(fd);
            }
            ::waitpid(child, nullptr, 0);
            // Its accepted end, so the backlog does not fill.
            ::close(::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
            state.ResumeTiming();
        }
    }
    if (!decidedDirect) {
        state.SkipWithError("a flow was not decided direct");
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

// {other processes, a new process each time, eBPF hook}
BENCHMARK(BM_DecisionPass)
    ->ArgNames({"others", "new", "hook"})
    ->Args({0, 0, 0})
    ->Args({500, 0, 0})
    ->Args({500, 1, 0})
    ->Args({500, 1, 1})
    ->Unit(benchmark::kMicrosecond);
