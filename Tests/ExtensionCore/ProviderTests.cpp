// The provider under the in-memory flow host, against real proxies on
// loopback: decisions, the events of each road, and what is left afterwards.
#include "ExtensionCore/Clients/InterfaceError.hpp"
#include "ExtensionCore/Clients/SOCKSError.hpp"
#include "ExtensionCore/Errors/ErrorConversion.hpp"
#include "ExtensionCore/Errors/ErrorHumanizer.hpp"
#include "ExtensionCore/ProviderHarness.hpp"
#include "Support/EchoServers.hpp"
#include "Support/NetNamespace.hpp"
#include "Support/Peers.hpp"

#include <arpa/inet.h>
#include <cerrno>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace veltrane::core {
namespace {

using kit::ConnectionEvent;
using kit::RuleAction;
using platform::FlowError;
using platform::NWHostEndpoint;
using test::bytes;
using test::Phase;
using test::ProviderHarness;

const auto refused = FlowError::posix(ECONNREFUSED);

std::variant<platform::MemoryTCPFlow::Record, platform::MemoryUDPFlow::Record>
recordOf(const std::shared_ptr<platform::NEAppProxyFlow>& flow) {
    if (auto tcp = std::dynamic_pointer_cast<platform::MemoryTCPFlow>(flow)) {
        return tcp->record();
    }
    return std::dynamic_pointer_cast<platform::MemoryUDPFlow>(flow)->record();
}

TEST(ProviderTest, WithoutProfileEveryFlowGoesDirectSilently) {
    ProviderHarness h;
    h.start(std::nullopt);
    const auto fake = h.provider->fakeIP().ip("example.test");
    EXPECT_FALSE(h.host->deliver(h.tcp(fake, 443)));
    EXPECT_FALSE(h.host->deliver(h.udp("0.0.0.0", 53)));
    EXPECT_TRUE(h.events().empty());
    // The look-up was never made, so the mapping's expiry was not renewed.
    EXPECT_EQ(h.provider->fakeIP().count(), 1u);
    EXPECT_EQ(h.host->record().startResults.front(), std::nullopt);
}

TEST(ProviderTest, DispatchTable) {
    ProviderHarness h;
    auto proxy = test::loopbackProxy(1080);
    auto other = test::loopbackProxy(1081);
    kit::ProxyChain chain{kit::UUID::random(), "chain", {other.id, proxy.id}};
    auto p =
        test::profile({proxy, other},
                      {test::rule({"blocked.test", "198.18.0.5", "127.0.0.1"}, RuleAction::block()),
                       test::rule({"quic-fallback.test"}, RuleAction::proxy(proxy.id)),
                       test::rule({"direct.test"}, RuleAction::direct()),
                       test::rule({"pinned.test"}, RuleAction::interface("tun9"))},
                      {chain});
    // UDP flows have no host: these rules are told apart by transport.
    auto udpBlock = test::rule({}, RuleAction::block());
    udpBlock.transport = kit::FlowTransport::udp;
    udpBlock.ports = {"5353"};
    auto udpDirect = test::rule({}, RuleAction::chain(chain.id), kit::QUICPolicy::direct);
    udpDirect.transport = kit::FlowTransport::udp;
    udpDirect.ports = {"4433"};
    auto udpPinned = test::rule({}, RuleAction::interface("tun9"));
    udpPinned.transport = kit::FlowTransport::udp;
    udpPinned.ports = {"4434"};
    auto udpFallback = test::rule({}, RuleAction::proxy(proxy.id));
    udpFallback.transport = kit::FlowTransport::udp;
    p.rules.insert(p.rules.begin(), {udpBlock, udpDirect, udpPinned, udpFallback});
    h.start(p);
    const auto mapped = h.provider->fakeIP().ip("Blocked.test");

    const struct {
        const char* name;
        std::shared_ptr<platform::NEAppProxyFlow> flow;
        bool answer;
        std::optional<std::optional<FlowError>> closedWith; // nullopt: not closed
        std::optional<std::tuple<Phase, std::string, std::uint16_t>> event;
    } cases[] = {
        {"block", h.tcp("blocked.test", 8080), true, std::nullopt,
         std::tuple{Phase::blocked, "blocked.test", 8080}},
        {"fake address turns into its name", h.tcp(mapped, 443), true, std::nullopt,
         std::tuple{Phase::blocked, "blocked.test", 443}},
        {"fake address never handed out stays text", h.tcp("198.18.0.5", 443), true, std::nullopt,
         std::tuple{Phase::blocked, "198.18.0.5", 443}},
        {"loop guard beats a block rule", h.tcp("127.0.0.1", 1080), false, {}, std::nullopt},
        {"direct",
         h.tcp("direct.test", 80),
         false,
         {},
         std::tuple{Phase::direct, "direct.test", 80}},
        // No event: one observation per application and host within the interval.
        {"tcp to 53 meets the rules", h.tcp("direct.test", 53), false, {}, std::nullopt},
        {"udp block keeps its local port", h.udp("0.0.0.0", 5353), true, std::nullopt,
         std::tuple{Phase::blocked, "", 5353}},
        {"udp fallback refuses", h.udp("0.0.0.0", 40000), true, refused,
         std::tuple{Phase::blocked, "", 443}},
        {"udp quic direct", h.udp("0.0.0.0", 4433), false, {}, std::nullopt},
        {"udp pinned refuses", h.udp("0.0.0.0", 4434), true, refused,
         std::tuple{Phase::blocked, "", 443}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const auto before = h.events().size();
        EXPECT_EQ(h.host->deliver(c.flow), c.answer);
        auto events = h.events();
        ASSERT_EQ(events.size() - before, c.event ? 1u : 0u);
        if (c.event) {
            const auto& e = events.back();
            EXPECT_EQ(std::tuple(e.phase, e.host, e.port), *c.event);
        }
        auto [opens, closes, closeRead] = std::visit(
            [](const auto& record) {
                return std::tuple(record.opens, record.closeReads.size(),
                                  record.closeReads.empty() ? std::nullopt
                                                            : record.closeReads.front());
            },
            recordOf(c.flow));
        EXPECT_EQ(opens, 0u);
        EXPECT_EQ(closes, c.answer ? 1u : 0u);
        if (c.closedWith) {
            EXPECT_EQ(closeRead, *c.closedWith);
        }
    }
}

TEST(ProviderTest, DirectObservationsAreDeduplicatedByApplicationAndHost) {
    auto now = std::make_shared<std::chrono::steady_clock::time_point>();
    ProviderHarness h(nullptr, [now] { return *now; });
    kit::Verdict verdict;
    kit::AppIdentity a{.displayName = "a"};
    kit::AppIdentity bundled{.displayName = "helper", .appBundleName = "Suite"};
    kit::AppIdentity sibling{.displayName = "main", .appBundleName = "Suite"};
    auto observe = [&](const kit::AppIdentity& app, const std::string& host, std::uint16_t port) {
        h.provider->recordDirectObservation(app, host, port, kit::FlowTransport::tcp, verdict);
        kit::ConnectionQueryDTO all;
        all.limit = 10000;
        return h.collector.query(all).size();
    };
    EXPECT_EQ(observe(a, "x.test", 80), 1u);
    EXPECT_EQ(observe(a, "x.test", 443), 1u); // the port is no part of the key
    EXPECT_EQ(observe(a, "", 443), 1u);       // no host, no observation
    EXPECT_EQ(observe(bundled, "x.test", 80), 2u);
    EXPECT_EQ(observe(sibling, "x.test", 80), 2u); // one bundle, one key
    *now += std::chrono::seconds(59);
    EXPECT_EQ(observe(a, "x.test", 80), 2u);
    *now += std::chrono::seconds(1);
    EXPECT_EQ(observe(a, "x.test", 80), 3u); // exactly the interval later
    EXPECT_EQ(h.events().front().port, 80);
    // Past the bound, only entries older than the interval go: the young
    // key "a|x.test" still suppresses.
    for (int i = 0; i < 4001; ++i) {
        observe(a, "h" + std::to_string(i), 1);
    }
    *now += std::chrono::seconds(30);
    EXPECT_EQ(observe(a, "x.test", 80), 4004u);
}

TEST(ProviderTest, EventFieldsComeFromIdentityVerdictAndError) {
    ProviderHarness h;
    auto proxy = test::loopbackProxy(1080);
    kit::Verdict verdict;
    verdict.resolved = kit::Verdict::Proxy{{proxy}};
    verdict.matchedRule = test::rule({"x"}, RuleAction::proxy(proxy.id));
    verdict.matchedRule->name = "Work";
    const kit::AppIdentity app{.bundleID = "org.example.app",
                               .displayName = "app",
                               .responsibleExecutable = "launcher",
                               .appBundleName = "Example"};
    h.provider->record(Phase::failed, app, "x.test", 443, kit::FlowTransport::tcp, verdict, 5, 7,
                       1.5, flowError(SOCKSError::authFailed()));
    h.provider->record(Phase::close,
                       kit::AppIdentity{.executableName = "curl",
                                        .responsibleAppName = "Terminal",
                                        .responsibleExecutable = "bash"},
                       "y.test", 80, kit::FlowTransport::udp, kit::Verdict{}, 0, 0, 0,
                       std::nullopt);
    auto events = h.events();
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[0].app, "app");
    EXPECT_EQ(events[0].bundleID, "org.example.app");
    EXPECT_EQ(events[0].responsibleApp, "launcher");
    EXPECT_EQ(events[0].appBundleName, "Example");
    EXPECT_EQ(events[0].ruleName, "Work");
    EXPECT_EQ(events[0].route, verdict.actionDescription());
    EXPECT_EQ(std::tuple(events[0].bytesSent, events[0].bytesReceived, events[0].lifetime),
              std::tuple(5u, 7u, 1.5));
    EXPECT_EQ(events[0].errorDescription, ErrorHumanizer::humanize(SOCKSError::authFailed()));
    EXPECT_EQ(events[1].app, "curl");
    EXPECT_EQ(events[1].responsibleApp, "Terminal");
    EXPECT_EQ(events[1].ruleName, std::nullopt);
    EXPECT_EQ(events[1].route, "direct");
    EXPECT_EQ(events[1].errorDescription, std::nullopt);
    EXPECT_EQ(h.collector.snapshot().failedConnections, 1u);
}

TEST(ProviderTest, StartPrefersOptionsAndReportsCaptureFailures) {
    ProviderHarness h;
    auto optionsProfile = test::profile({}, {test::rule({"*"}, RuleAction::block())});
    platform::NETunnelProviderProtocol configuration{
        platform::ProviderDictionary{{"profile", test::encoded(test::profile({}, {}))}}};
    h.provider->setProtocolConfiguration(configuration);
    h.host->startProxy(platform::ProviderDictionary{{"profile", std::string("text, not bytes")}});
    ASSERT_TRUE(h.host->waitFor([](const auto& r) { return !r.startResults.empty(); }));
    EXPECT_EQ(h.provider->currentState()->profile.rules.size(), 0u); // configuration won
    h.host->startProxy(platform::ProviderDictionary{{"profile", test::encoded(optionsProfile)}});
    ASSERT_TRUE(h.host->waitFor([](const auto& r) { return r.startResults.size() == 2; }));
    EXPECT_EQ(h.provider->currentState()->profile, optionsProfile);

    h.host->failTunnelSettings(refused);
    h.host->startProxy(std::nullopt);
    ASSERT_TRUE(h.host->waitFor([](const auto& r) { return r.startResults.size() == 3; }));
    EXPECT_EQ(h.host->record().startResults.back(), refused);
}

TEST(ProviderTest, TCPFlowsThroughRealProxies) {
    std::string whyNot;
    auto socks = test::startMicrosocks(whyNot);
    auto locked = test::startMicrosocks(whyNot, test::UserPass{"u", "right"});
    auto http = test::startTinyproxy(whyNot);
    if (!socks || !locked || !http) {
        GTEST_SKIP() << whyNot;
    }
    test::TCPEchoServer echo;
    test::TCPEchoServer banner("220 ready\r\n");
    test::TCPEchoServer behindHTTP;
    ProviderHarness h;
    auto viaSocks = test::loopbackProxy(socks->port());
    auto viaHTTP = test::loopbackProxy(http->port(), kit::ProxyProtocol::http);
    auto wrongPassword = test::loopbackProxy(locked->port(), kit::ProxyProtocol::socks5,
                                             kit::ProxyCredentials{"u", "wrong"});
    auto nowhere = test::loopbackProxy(test::freeLoopbackPort(SOCK_STREAM));
    kit::ProxyChain chain{kit::UUID::random(), "chain", {viaSocks.id, nowhere.id}};
    auto httpRule = test::rule({}, RuleAction::proxy(viaHTTP.id));
    httpRule.ports = {std::to_string(behindHTTP.port())};
    h.start(test::profile({viaSocks, viaHTTP, wrongPassword, nowhere},
                          {httpRule, test::rule({"127.0.0.4"}, RuleAction::proxy(wrongPassword.id)),
                           test::rule({"*"}, RuleAction::chain(chain.id))},
                          {chain}));
    // A name the proxy must resolve itself; where "localhost" means ::1
    // first, the echo on 127.0.0.1 is named by its address instead.
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    const bool named =
        ::getaddrinfo("localhost", nullptr, &hints, &found) == 0 && found->ai_family == AF_INET;
    if (found != nullptr) {
        ::freeaddrinfo(found);
    }
    const auto hello = test::tlsHello(named ? "localhost" : "127.0.0.1");
    const auto authText = ErrorHumanizer::humanize(SOCKSError::authFailed());

    const struct {
        const char* name;
        std::string host;
        std::uint16_t port;
        std::optional<test::Bytes> send; // nothing: the application waits to be spoken to
        std::string expectReceived;
        std::vector<Phase> phases;
        std::optional<std::string> error;
    } cases[] = {
        // The echo listens on 127.0.0.1 only: the proxy reaches it because
        // it was asked for the sniffed name, not the dialled address.
        {"sniffed name to a chain's first server",
         "127.0.0.2",
         echo.port(),
         hello,
         test::text(hello),
         {Phase::open, Phase::close},
         std::nullopt},
        {"http connect",
         "127.0.0.1",
         behindHTTP.port(),
         bytes("ping"),
         "ping",
         {Phase::open, Phase::close},
         std::nullopt},
        {"server speaks first",
         "127.0.0.1",
         banner.port(),
         std::nullopt,
         "220 ready\r\nhi",
         {Phase::open, Phase::close},
         std::nullopt},
        {"wrong password",
         "127.0.0.4",
         echo.port(),
         bytes("x"),
         "",
         {Phase::open, Phase::failed},
         authText},
        {"ipv6 literal without a name",
         "::1",
         echo.port(),
         bytes("x"),
         "",
         {Phase::open, Phase::blocked},
         std::nullopt},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const auto before = h.events().size();
        auto flow = h.tcp(c.host, c.port);
        ASSERT_TRUE(h.host->deliver(flow));
        if (c.send) {
            flow->appSend(*c.send);
        } else {
            ASSERT_TRUE(flow->waitFor([](const auto& r) { return !r.written.empty(); }));
            flow->appSend(bytes("hi"));
        }
        flow->waitFor([&](const auto& r) {
            std::size_t n = 0;
            for (const auto& w : r.written) {
                n += w.size();
            }
            return n >= c.expectReceived.size() || r.closed();
        });
        flow->appFinish();
        ASSERT_TRUE(flow->waitClosed());
        ASSERT_TRUE(h.waitEvents(before + c.phases.size()));
        auto events = h.events();
        std::vector<Phase> phases;
        for (auto i = before; i < events.size(); ++i) {
            phases.push_back(events[i].phase);
            EXPECT_EQ(events[i].host, c.host); // the events keep the dialled address
        }
        EXPECT_EQ(phases, c.phases);
        EXPECT_EQ(test::text(flow->received()), c.expectReceived);
        const auto& last = events.back();
        EXPECT_EQ(last.errorDescription, c.error);
        if (c.phases.back() == Phase::close) {
            EXPECT_EQ(last.bytesReceived, c.expectReceived.size());
            EXPECT_EQ(last.bytesSent, c.send ? c.send->size() : 2u);
        } else if (c.error) {
            auto closedWith = flow->record().closeReads.front();
            ASSERT_TRUE(closedWith);
            EXPECT_EQ(ErrorHumanizer::humanize(*closedWith), *c.error);
        } else {
            EXPECT_EQ(flow->record().closeReads.front(), refused);
        }
    }
    // The application gone before the open: an orderly end, not a failure.
    auto gone = h.tcp("127.0.0.1", echo.port());
    gone->goAwayBeforeOpen();
    const auto before = h.events().size();
    ASSERT_TRUE(h.host->deliver(gone));
    ASSERT_TRUE(h.waitEvents(before + 2));
    EXPECT_EQ(h.phases().back(), Phase::close);
    // A pump that ends with an error: failed, with what it carried so far.
    auto broken = h.tcp("127.0.0.1", echo.port());
    broken->failWrite(1, FlowError::posix(EIO));
    ASSERT_TRUE(h.host->deliver(broken));
    broken->appSend(bytes("ping"));
    ASSERT_TRUE(h.waitEvents(before + 4));
    const auto failed = h.events().back();
    EXPECT_EQ(std::tuple(failed.phase, failed.bytesReceived), std::tuple(Phase::failed, 0u));
    EXPECT_EQ(failed.errorDescription, ErrorHumanizer::humanize(FlowError::posix(EIO)));
    auto stats = h.collector.snapshot();
    EXPECT_EQ(stats.failedConnections, 2u);
    EXPECT_EQ(stats.activeConnections, 0u);
}

TEST(ProviderTest, PinnedFlowsLeaveByTheirInterfaceOrFailClosed) {
    std::string whyNot;
    auto ns = test::NetNamespace::create(whyNot);
    if (!ns) {
        GTEST_SKIP() << whyNot;
    }
    ASSERT_TRUE(ns->must("ip link set lo up"));
    std::optional<test::TCPEchoServer> echo;
    {
        auto inside = ns->enter();
        echo.emplace();
    }
    ProviderHarness h(ns.get());
    auto inside = ns->enter(); // the registry watches the namespace it starts in
    h.start(test::profile({}, {test::rule({"127.0.0.1"}, RuleAction::interface("lo")),
                               test::rule({"*"}, RuleAction::interface("gone0"))}));
    // The registry hears of the namespace's interfaces on the queue.
    test::waitUntil([&] { return h.registry.interface("lo").has_value(); });
    const auto unavailable = ErrorHumanizer::humanize(InterfaceError::unavailable("gone0"));
    const struct {
        const char* host;
        Phase end;
    } cases[] = {{"127.0.0.1", Phase::close}, {"::1", Phase::failed}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.host);
        auto flow = h.tcp(c.host, echo->port());
        const auto before = h.events().size();
        ASSERT_TRUE(h.host->deliver(flow));
        flow->appSend(bytes("pin"));
        flow->waitFor([](const auto& r) { return !r.written.empty() || r.closed(); });
        flow->appFinish();
        ASSERT_TRUE(flow->waitClosed());
        ASSERT_TRUE(h.waitEvents(before + 2));
        EXPECT_EQ(h.phases().back(), c.end);
        if (c.end == Phase::close) {
            EXPECT_EQ(test::text(flow->received()), "pin");
        }
        if (std::string(c.host) == "::1") {
            EXPECT_EQ(h.events().back().errorDescription, unavailable);
            EXPECT_GE(flow->record().reads, 1u); // failed after its first bytes were read
        }
    }
}

TEST(ProviderTest, UDPRelayedThroughDanteAndDNSAnsweredOrForwarded) {
    std::string whyNot;
    auto dante = test::startDante(whyNot);
    if (!dante) {
        GTEST_SKIP() << whyNot;
    }
    test::UDPEchoServer resolver; // answers every query with the query itself
    int silent = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    ASSERT_EQ(::bind(silent, reinterpret_cast<sockaddr*>(&address), length), 0);
    ASSERT_EQ(::getsockname(silent, reinterpret_cast<sockaddr*>(&address), &length), 0);
    const auto silentPort = std::to_string(ntohs(address.sin_port));

    ProviderHarness h;
    auto proxy = test::loopbackProxy(dante->port());
    h.start(test::profile({proxy},
                          {test::rule({}, RuleAction::proxy(proxy.id), kit::QUICPolicy::proxy)}));
    const auto baseline = test::openDescriptors();
    auto quic = h.udp("10.9.8.7", 51000);
    ASSERT_TRUE(h.host->deliver(quic));
    auto to = NWHostEndpoint::endpointWithHostname("127.0.0.1", std::to_string(resolver.port()));
    quic->appSend({bytes("quic1"), bytes("quic22")}, {to, to});
    ASSERT_TRUE(quic->waitFor([](const auto& r) { return r.written.size() == 2; }));
    quic->appFinish();
    ASSERT_TRUE(h.waitEvents(2));
    auto events = h.events();
    EXPECT_EQ(std::tuple(events[1].phase, events[1].host, events[1].port, events[1].bytesSent),
              std::tuple(Phase::close, std::string("10.9.8.7"), 0, 11u));
    // The relay's sockets close after its close event is recorded.
    EXPECT_TRUE(test::waitUntil([&] { return test::openDescriptors() <= baseline; }));

    // A query is answered with a fake address, an AAAA query forwarded; each
    // reply names the server the query was sent to.
    auto query = [](const std::string& name, std::uint8_t type) {
        test::Bytes q = test::hex("1234 0100 0001 0000 0000 0000");
        for (std::size_t at = 0; at < name.size();) {
            auto dot = std::min(name.find('.', at), name.size());
            q.push_back(static_cast<std::uint8_t>(dot - at));
            q.insert(q.end(), name.begin() + at, name.begin() + dot);
            at = dot + 1;
        }
        return test::concat({q, {0, 0, type, 0, 1}});
    };
    auto dns = h.udp("0.0.0.0", 53);
    ASSERT_TRUE(h.host->deliver(dns));
    auto silentServer = NWHostEndpoint::endpointWithHostname("127.0.0.1", silentPort);
    dns->appSend({query("app.test", 1), query("app.test", 28), query("lost.test", 28)},
                 {to, to, silentServer});
    ASSERT_TRUE(dns->waitFor([](const auto& r) { return r.written.size() == 2; }));
    auto written = dns->record().written;
    EXPECT_EQ(written[0].datagrams.size(), 1u);
    EXPECT_EQ(*platform::hostEndpoint(written[0].sentBy[0]), *to);
    EXPECT_EQ(written[1].datagrams[0], query("app.test", 28));
    EXPECT_EQ(h.provider->fakeIP().count(), 1u);
    EXPECT_EQ(h.events().size(), 2u); // DNS leaves no event
    // Both forwards' sockets go: the answered one at once, the silent
    // resolver's after the time-out.
    EXPECT_TRUE(test::waitUntil([&] { return test::openDescriptors() <= baseline; }));
    dns->appFinish();
    ASSERT_TRUE(dns->waitClosed());
    ::close(silent);
}

TEST(ProviderTest, AppMessagesSwapProfilesForLaterFlowsOnly) {
    std::string whyNot;
    auto socks = test::startMicrosocks(whyNot);
    if (!socks) {
        GTEST_SKIP() << whyNot;
    }
    test::TCPEchoServer echo;
    ProviderHarness h;
    auto proxy = test::loopbackProxy(socks->port());
    h.start(test::profile({proxy}, {test::rule({"*"}, RuleAction::proxy(proxy.id))}));
    auto running = h.tcp("127.0.0.1", echo.port());
    ASSERT_TRUE(h.host->deliver(running));
    running->appSend(bytes("before"));
    ASSERT_TRUE(running->waitFor([](const auto& r) { return r.written.size() == 1; }));

    h.apply(test::profile({}, {test::rule({"*"}, RuleAction::block())}));
    h.host->sendAppMessage(bytes("{broken"));
    ASSERT_TRUE(h.host->waitFor([](const auto& r) { return r.appReplies.size() == 2; }));
    EXPECT_EQ(h.host->record().appReplies.back(), bytes("ok"));

    running->appSend(bytes("after"));
    ASSERT_TRUE(running->waitFor([](const auto& r) { return r.written.size() == 2; }));
    auto next = h.tcp("127.0.0.1", echo.port());
    EXPECT_TRUE(h.host->deliver(next));
    EXPECT_EQ(h.phases().back(), Phase::blocked);
    running->appFinish();
    ASSERT_TRUE(h.waitEvents(3));
    EXPECT_EQ(test::text(running->received()), "beforeafter");
}

TEST(ProviderTest, ThousandsOfFlowsLeaveNothingBehind) {
    std::string whyNot;
    auto socks = test::startMicrosocks(whyNot);
    if (!socks) {
        GTEST_SKIP() << whyNot;
    }
    const auto baseline = test::openDescriptors();
    {
        ProviderHarness h;
        std::optional<test::TCPEchoServer> echo(std::in_place);
        auto proxy = test::loopbackProxy(socks->port());
        h.start(test::profile({proxy}, {test::rule({"blocked.test"}, RuleAction::block()),
                                        test::rule({"direct.test"}, RuleAction::direct()),
                                        test::rule({"::1"}, RuleAction::proxy(proxy.id)),
                                        test::rule({"*"}, RuleAction::proxy(proxy.id))}));
        std::vector<std::shared_ptr<platform::MemoryTCPFlow>> carried;
        for (int i = 0; i < 2000; ++i) {
            const int kind = i % 5;
            if (kind == 1) {
                h.host->deliver(h.tcp(i % 2 ? "blocked.test" : "direct.test", 80));
                continue;
            }
            if (kind == 3) {
                h.host->deliver(h.udp("0.0.0.0", 40000 + i)); // refused by fallback
                continue;
            }
            // Carried and finished, refused after its open, gone before it.
            auto flow = kind == 2 ? h.tcp("::1", 443) : h.tcp("127.0.0.1", echo->port());
            if (kind == 4) {
                flow->goAwayBeforeOpen();
            }
            h.host->deliver(flow);
            if (kind != 4) {
                flow->appSend(bytes("x"));
            }
            if (kind == 0) {
                flow->appFinish();
            }
            carried.push_back(flow);
        }
        for (const auto& flow : carried) {
            ASSERT_TRUE(flow->waitClosed(std::chrono::seconds(30)));
        }
        test::waitUntil([&] { return h.collector.snapshot().activeConnections == 0; });
        EXPECT_EQ(h.collector.snapshot().activeConnections, 0u);
        EXPECT_EQ(h.collector.snapshot().totalConnections, 1200u);
        echo.reset();
    }
    EXPECT_LE(test::openDescriptors(), baseline);
}

// With the host capturing DNS: queries it delivers are answered, a direct
// flow to a fake address reaches the name's real address (looked up with the
// resolver the queries went to, dnsmasq here), QUIC to one is refused, with
// answering off DNS is left alone, and a new provider takes the table over.
TEST(ProviderTest, FakeDNSModeCarriesNamesAndKeepsItsTable) {
    std::string whyNot;
    auto resolver = test::startDnsmasq(whyNot, {"name.test=127.0.0.1"});
    if (!resolver) {
        GTEST_SKIP() << whyNot;
    }
    test::TCPEchoServer echo("banner\n"); // speaks first, like SSH: nothing to sniff
    const test::TempDir directory;
    const std::string state = directory / "fake-dns.json";
    auto configure = [&](core::TransparentProxyProvider::Options& options) {
        options.fakeDNS = true;
        options.fakeDNSStatePath = state;
    };
    const auto server =
        NWHostEndpoint::endpointWithHostname("127.0.0.1", std::to_string(resolver->port()));
    // What the host reports: the query's first destination, port 53.
    const auto port53 = NWHostEndpoint::endpointWithHostname("127.0.0.1", "53");
    auto answering = test::profile({}, {});
    answering.dns.resolveViaProxy = true;
    std::string fake;
    {
        ProviderHarness h(nullptr, {}, configure);
        h.start(answering);
        auto dns = h.udp("10.0.0.9", 40053);
        dns->setFirstRemoteEndpoint(port53);
        ASSERT_TRUE(h.host->deliver(dns));
        dns->appSend(
            {test::concat({test::hex("4242 0100 0001 0000 0000 0000"),
                           {4, 'n', 'a', 'm', 'e', 4, 't', 'e', 's', 't', 0, 0, 1, 0, 1}})},
            {server});
        ASSERT_TRUE(dns->waitFor([](const auto& r) { return !r.written.empty(); }));
        const auto answer = dns->record().written[0].datagrams[0];
        fake = std::to_string(answer[answer.size() - 4]) + "." +
               std::to_string(answer[answer.size() - 3]) + "." +
               std::to_string(answer[answer.size() - 2]) + "." +
               std::to_string(answer[answer.size() - 1]);
        EXPECT_EQ(h.provider->fakeIP().host(fake), "name.test");
        EXPECT_EQ(h.provider->directResolver(), "127.0.0.1:" + std::to_string(resolver->port()));
        dns->appFinish(); // a flow left open would keep its pending read, and the host, alive
        ASSERT_TRUE(dns->waitClosed());

        auto direct = h.tcp(fake, echo.port());
        ASSERT_TRUE(h.host->deliver(direct));
        ASSERT_TRUE(direct->waitFor([](const auto& r) { return !r.written.empty(); }));
        EXPECT_EQ(test::text(direct->received()), "banner\n");
        direct->appFinish();
        ASSERT_TRUE(direct->waitClosed());
        ASSERT_TRUE(h.waitEvents(2));
        EXPECT_EQ(std::tuple(h.events()[0].host, h.events()[1].phase),
                  std::tuple(std::string("name.test"), Phase::close));

        auto quic = h.udp("10.0.0.9", 40443);
        quic->setFirstRemoteEndpoint(NWHostEndpoint::endpointWithHostname(fake, "443"));
        EXPECT_TRUE(h.host->deliver(quic));
        EXPECT_EQ(h.events().back().phase, Phase::blocked);
        EXPECT_EQ(quic->record().closeReads.front(), FlowError::posix(ECONNREFUSED));

        auto silent = test::profile({}, {});
        silent.dns.resolveViaProxy = false;
        h.apply(silent);
        ASSERT_TRUE(h.host->waitFor([](const auto& r) { return !r.appReplies.empty(); }));
        auto untouched = h.udp("10.0.0.9", 40054);
        untouched->setFirstRemoteEndpoint(port53);
        EXPECT_FALSE(h.host->deliver(untouched));
        EXPECT_EQ(h.events().size(), 3u);
        h.host->stopProxy(0); // which writes the table out
        ASSERT_TRUE(h.host->waitFor([](const auto& r) { return r.stopCompletions == 1; }));
    }
    struct stat file {};
    ASSERT_EQ(::stat(state.c_str(), &file), 0);
    EXPECT_EQ(file.st_mode & 0777, 0600u);
    {
        ProviderHarness h(nullptr, {}, configure);
        h.start(answering);
        EXPECT_EQ(h.provider->fakeIP().host(fake), "name.test");
        EXPECT_EQ(h.provider->fakeIP().ip("other.test"), "198.18.0.3"); // the cursor came along
    }
}

} // namespace
} // namespace veltrane::core
