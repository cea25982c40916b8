#include "ExtensionCore/DNS/DNSResponder.hpp"

#include <arpa/inet.h>
#include <atomic>
#include <cstdio>
#include <gtest/gtest.h>
#include <mutex>
#include <netinet/in.h>
#include <poll.h>
#include <regex>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

using namespace veltrane;
using core::DNSResponder;
using Bytes = std::vector<std::uint8_t>;

namespace {

// A query as a resolver would send it; every field can be bent for a case.
struct Query {
    std::uint16_t id = 0xBEEF;
    std::uint8_t flagsHigh = 0x01; // RD
    std::uint8_t flagsLow = 0x00;
    std::uint16_t qdcount = 1;
    std::uint16_t arcount = 0;
    std::vector<std::string> labels{"www", "example", "com"};
    std::uint16_t qtype = 1;
    std::uint16_t qclass = 1;
    Bytes trailer{}; // after the first question: more questions, an OPT record

    Bytes bytes() const {
        Bytes b{static_cast<std::uint8_t>(id >> 8),
                static_cast<std::uint8_t>(id),
                flagsHigh,
                flagsLow,
                static_cast<std::uint8_t>(qdcount >> 8),
                static_cast<std::uint8_t>(qdcount),
                0,
                0,
                0,
                0,
                static_cast<std::uint8_t>(arcount >> 8),
                static_cast<std::uint8_t>(arcount)};
        for (const auto& label : labels) {
            b.push_back(static_cast<std::uint8_t>(label.size()));
            b.insert(b.end(), label.begin(), label.end());
        }
        b.push_back(0);
        b.insert(b.end(),
                 {static_cast<std::uint8_t>(qtype >> 8), static_cast<std::uint8_t>(qtype),
                  static_cast<std::uint8_t>(qclass >> 8), static_cast<std::uint8_t>(qclass)});
        b.insert(b.end(), trailer.begin(), trailer.end());
        return b;
    }
};

const Bytes kOPT = {0x00, 0x00, 0x29, 0x10, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00};

DNSResponder makeResponder(std::vector<std::string> exclusions = {"localhost", "*.local",
                                                                  "%ComputerName%"}) {
    DNSResponder responder(std::make_shared<kit::FakeIPAllocator>(0x10000, 3600),
                           std::move(exclusions));
    responder.computerName = [] { return std::string("My-Box.lan"); };
    return responder;
}

TEST(DNSResponderTest, ParsesTheFirstQuestionOnly) {
    struct {
        const char* name;
        Bytes bytes;
        std::optional<DNSResponder::Question> expected;
    } cases[] = {
        {"case kept", Query{.labels = {"WwW", "ExAmple", "COM"}}.bytes(),
         DNSResponder::Question{"WwW.ExAmple.COM", 1, 1, 33}},
        {"AAAA in CH", Query{.qtype = 28, .qclass = 3}.bytes(),
         DNSResponder::Question{"www.example.com", 28, 3, 33}},
        {"flags not looked at", Query{.flagsHigh = 0xFF, .flagsLow = 0xFF}.bytes(),
         DNSResponder::Question{"www.example.com", 1, 1, 33}},
        {"second question ignored",
         Query{.qdcount = 2, .trailer = {3, 'f', 'o', 'o', 0, 0, 1, 0, 1}}.bytes(),
         DNSResponder::Question{"www.example.com", 1, 1, 33}},
        {"63-byte label", Query{.labels = {std::string(63, 'a'), "io"}}.bytes(),
         DNSResponder::Question{std::string(63, 'a') + ".io", 1, 1, 12 + 1 + 63 + 1 + 2 + 1 + 4}},
        {"invalid UTF-8 repaired", Query{.labels = {"a\xFF", "b"}}.bytes(),
         DNSResponder::Question{"a\xEF\xBF\xBD.b", 1, 1, 12 + 3 + 2 + 1 + 4}},
        {"QDCOUNT 0", Query{.qdcount = 0}.bytes(), std::nullopt},
        {"root question", Query{.labels = {}}.bytes(), std::nullopt},
        // The same limit rules out compression pointers.
        {"64-byte label", Query{.labels = {std::string(64, 'a'), "io"}}.bytes(), std::nullopt},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(DNSResponder::parseQuestion(c.bytes), c.expected) << c.name;
    }
}

TEST(DNSResponderTest, EveryTruncationOfAQueryIsRejectedUntilTheQuestionIsWhole) {
    const Bytes full = Query{.arcount = 1, .trailer = kOPT}.bytes();
    const auto question = DNSResponder::parseQuestion(full);
    ASSERT_TRUE(question);
    for (std::size_t length = 0; length <= full.size(); ++length) {
        const auto parsed = DNSResponder::parseQuestion(std::span(full).first(length));
        if (length < question->questionEnd) {
            EXPECT_EQ(parsed, std::nullopt) << length;
        } else {
            EXPECT_EQ(parsed, question) << length;
        }
    }
}

TEST(DNSResponderTest, BuildsTheAnswerLayoutByteForByte) {
    const Bytes query =
        Query{.id = 0x0A0B, .flagsHigh = 0x00, .arcount = 1, .labels = {"A", "b"}, .trailer = kOPT}
            .bytes();
    const auto response = DNSResponder::buildAResponse(query, 12 + 5 + 4, "198.18.1.255", 60);
    const Bytes expected = {
        0x0A, 0x0B, 0x81, 0x80, 0x00, 0x01, 0x00, 0x01, 0x00, 0x00, 0x00, 0x00, // header
        1,    'A',  1,    'b',  0,    0x00, 0x01, 0x00, 0x01,                   // question
        0xC0, 0x0C, 0x00, 0x01, 0x00, 0x01, 0x00, 0x00, 0x00, 0x3C,             // name ... TTL
        0x00, 0x04, 198,  18,   1,    255,                                      // address
    };
    EXPECT_EQ(response, expected);

    struct {
        const char* ip;
        std::optional<std::array<std::uint8_t, 4>> octets;
    } cases[] = {
        {"1..2.3.4.", std::array<std::uint8_t, 4>{1, 2, 3, 4}}, // empty pieces dropped
        {"x.1.2.3.4", std::array<std::uint8_t, 4>{1, 2, 3, 4}}, // bad pieces skipped
        {"001.2.3.4", std::array<std::uint8_t, 4>{1, 2, 3, 4}},
        {"1.2.3.256", std::nullopt},
        {"1.2.3", std::nullopt},
        {"1.2.3.4.5", std::nullopt},
    };
    for (const auto& c : cases) {
        const auto built = DNSResponder::buildAResponse(query, 21, c.ip, 60);
        ASSERT_EQ(built.has_value(), c.octets.has_value()) << c.ip;
        if (built) {
            EXPECT_TRUE(std::equal(c.octets->begin(), c.octets->end(), built->end() - 4)) << c.ip;
        }
    }
    EXPECT_EQ(DNSResponder::buildAResponse(query, query.size() + 1, "1.2.3.4", 60), std::nullopt);
    EXPECT_EQ(DNSResponder::buildAResponse(Bytes(8, 0), 8, "1.2.3.4", 60), std::nullopt);
}

TEST(DNSResponderTest, AnswersOnlyInternetAQueriesForNamesNotExcluded) {
    using Outcome = DNSResponder::Outcome;
    using P = DNSResponder::Passthrough;
    struct {
        const char* name;
        Bytes query;
        std::optional<std::string> passthroughName; // nullopt: answered
        bool unparsed = false;
    } cases[] = {
        {"AAAA", Query{.qtype = 28}.bytes(), "www.example.com"},
        {"class CH", Query{.qclass = 3}.bytes(), "www.example.com"},
        {"single label not listed", Query{.labels = {"intranet"}}.bytes(), "intranet"},
        {"*.local", Query{.labels = {"printer", "LOCAL"}}.bytes(), "printer.LOCAL"},
        {"unparsable", Bytes(12, 0), std::nullopt, true},
        {"A", Query{}.bytes(), std::nullopt},
    };
    for (const auto& c : cases) {
        auto responder = makeResponder();
        const Outcome outcome = responder.handle(c.query);
        if (c.passthroughName || c.unparsed) {
            EXPECT_EQ(outcome, Outcome(P{c.passthroughName})) << c.name;
            EXPECT_EQ(responder.allocator->count(), 0u) << c.name;
        } else {
            ASSERT_TRUE(std::holds_alternative<DNSResponder::Answered>(outcome)) << c.name;
        }
    }
}

TEST(DNSResponderTest, AnswerKeepsTheQueryCaseCountAndIdButDropsWhatFollowsTheQuestion) {
    auto responder = makeResponder();
    responder.allocator->ip("first.example"); // takes 198.18.0.2
    const Query query{.id = 0x7777,
                      .flagsHigh = 0x00, // RD 0
                      .qdcount = 2,
                      .arcount = 1,
                      .labels = {"MiXeD", "Example", "Com"},
                      .trailer = kOPT};
    const auto outcome = responder.handle(query.bytes());
    const auto* answered = std::get_if<DNSResponder::Answered>(&outcome);
    ASSERT_NE(answered, nullptr);
    EXPECT_EQ(answered->hostname, "MiXeD.Example.Com");
    EXPECT_EQ(answered->fakeIP, "198.18.0.3");
    EXPECT_EQ(responder.allocator->host("198.18.0.3"), "mixed.example.com");
    const Bytes& r = answered->response;
    ASSERT_EQ(r.size(), 12 + 19 + 4 + 16u);
    EXPECT_EQ((Bytes{r.begin(), r.begin() + 12}),
              (Bytes{0x77, 0x77, 0x81, 0x80, 0x00, 0x02, 0x00, 0x01, 0x00, 0x00, 0x00, 0x00}));
    const Bytes sent = query.bytes();
    EXPECT_TRUE(std::equal(sent.begin() + 12, sent.begin() + 35, r.begin() + 12));
}

TEST(DNSResponderTest, ExclusionsMatchWholeNamesAndWildcardsCrossDots) {
    struct {
        std::vector<std::string> exclusions;
        const char* host;
        bool excluded;
    } cases[] = {
        // The wildcards' own rules are WildcardPattern's; here, which way a
        // pattern goes.
        {{"example.com"}, "EXAMPLE.com", true},
        {{"example.com"}, "www.example.com", false},
        {{"*.example.com"}, "a.b.example.com", true},
        {{"?.example.com"}, "a.example.com", true},
        {{"%ComputerName%"}, "my-box.LAN", true},
        {{"%ComputerName%"}, "other.lan", false},
        {{"%computername%"}, "my-box.lan", false}, // only the exact spelling expands
        {{"nomatch.example", "*.lan"}, "my-box.lan", true},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(makeResponder(c.exclusions).isExcluded(c.host), c.excluded)
            << c.host << " against " << (c.exclusions.empty() ? "" : c.exclusions.front());
    }
}

// Serves a responder on a loopback UDP port, answering passthrough with
// REFUSED so that a resolver tool stops waiting, and keeps every outcome.
class LoopbackDNSServer {
public:
    explicit LoopbackDNSServer(DNSResponder responder) : responder_(std::move(responder)) {
        fd_ = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(::bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        socklen_t length = sizeof address;
        ::getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length);
        port_ = ntohs(address.sin_port);
        thread_ = std::thread([this] { serve(); });
    }
    ~LoopbackDNSServer() {
        stop_ = true;
        thread_.join();
        ::close(fd_);
    }

    std::uint16_t port() const { return port_; }
    std::vector<DNSResponder::Outcome> outcomes() {
        std::lock_guard guard(lock_);
        return outcomes_;
    }

private:
    void serve() {
        while (!stop_) {
            pollfd p{fd_, POLLIN, 0};
            if (::poll(&p, 1, 50) <= 0) {
                continue;
            }
            std::uint8_t buffer[4096];
            sockaddr_in from{};
            socklen_t length = sizeof from;
            const ssize_t n = ::recvfrom(fd_, buffer, sizeof buffer, 0,
                                         reinterpret_cast<sockaddr*>(&from), &length);
            if (n <= 0) {
                continue;
            }
            const std::span<const std::uint8_t> query(buffer, static_cast<std::size_t>(n));
            auto outcome = responder_.handle(query);
            Bytes reply;
            if (auto* answered = std::get_if<DNSResponder::Answered>(&outcome)) {
                reply = answered->response;
            } else {
                reply.assign(query.begin(), query.end());
                if (reply.size() >= 4) {
                    reply[2] |= 0x80;                 // QR
                    reply[3] = (reply[3] & 0xF0) | 5; // REFUSED
                }
            }
            {
                std::lock_guard guard(lock_);
                outcomes_.push_back(std::move(outcome));
            }
            ::sendto(fd_, reply.data(), reply.size(), 0, reinterpret_cast<sockaddr*>(&from),
                     length);
        }
    }

    DNSResponder responder_;
    int fd_ = -1;
    std::uint16_t port_ = 0;
    std::atomic<bool> stop_{false};
    std::mutex lock_;
    std::vector<DNSResponder::Outcome> outcomes_;
    std::thread thread_;
};

struct ToolRun {
    int status = -1;
    std::string output;
};

ToolRun run(const std::string& command) {
    ToolRun result;
    FILE* pipe = ::popen((command + " 2>&1").c_str(), "r");
    if (pipe == nullptr) {
        return result;
    }
    char chunk[4096];
    std::size_t n;
    while ((n = std::fread(chunk, 1, sizeof chunk, pipe)) > 0) {
        result.output.append(chunk, n);
    }
    const int status = ::pclose(pipe);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return result;
}

bool haveDig() {
    return run("command -v dig").status == 0;
}

TEST(DNSResponderTest, DigReadsTheFakeAddressTTLAndQuestion) {
    if (!haveDig()) {
        GTEST_SKIP() << "dig is not installed";
    }
    LoopbackDNSServer server(makeResponder());
    const std::string dig =
        "dig @127.0.0.1 -p " + std::to_string(server.port()) + " +tries=1 +time=2 ";
    struct {
        const char* name;
        const char* options;
        const char* expectedIP;
    } cases[] = {
        {"www.example.com", "+noedns", "198.18.0.2"},
        {"WWW.Example.COM", "+edns", "198.18.0.2"}, // same host, any case
        {"MiXeD.CaSe.Example", "+edns", "198.18.0.3"},
    };
    for (const auto& c : cases) {
        const auto result = run(dig + c.options + " " + c.name + " A");
        ASSERT_EQ(result.status, 0) << result.output;
        EXPECT_NE(result.output.find("status: NOERROR"), std::string::npos) << result.output;
        EXPECT_TRUE(std::regex_search(
            result.output,
            std::regex(";; QUESTION SECTION:\n;" + std::string(c.name) + "\\.\\s+IN\\s+A\n")))
            << result.output;
        EXPECT_TRUE(std::regex_search(result.output,
                                      std::regex("\n" + std::string(c.name) +
                                                 "\\.\\s+60\\s+IN\\s+A\\s+" + c.expectedIP + "\n")))
            << result.output;
    }
}

TEST(DNSResponderTest, DigSeesPassthroughForWhatIsNotAnswered) {
    if (!haveDig()) {
        GTEST_SKIP() << "dig is not installed";
    }
    LoopbackDNSServer server(makeResponder());
    const std::string dig =
        "dig @127.0.0.1 -p " + std::to_string(server.port()) + " +tries=1 +time=2 +noedns ";
    struct {
        std::string arguments;
        std::string name;
    } cases[] = {
        {"www.example.com AAAA", "www.example.com"},
        {"www.example.com CH A", "www.example.com"},
        {"printer.local A", "printer.local"},
    };
    for (const auto& c : cases) {
        const auto result = run(dig + c.arguments);
        EXPECT_NE(result.output.find("status: REFUSED"), std::string::npos) << result.output;
    }
    const auto outcomes = server.outcomes();
    ASSERT_EQ(outcomes.size(), std::size(cases));
    for (std::size_t i = 0; i < outcomes.size(); ++i) {
        EXPECT_EQ(outcomes[i], DNSResponder::Outcome(DNSResponder::Passthrough{cases[i].name}));
    }
}

} // namespace
