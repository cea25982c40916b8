#include "ExtensionCore/Flow/SNISniffer.hpp"
#include "ExtensionCore/TestBytes.hpp"

#include <algorithm>
#include <arpa/inet.h>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace {

namespace SNISniffer = veltrane::core::SNISniffer;
using veltrane::test::Bytes;
using veltrane::test::bytes;
using veltrane::test::concat;

// ---------------------------------------------------------------------------
// ClientHellos built in code, so each case says what it changes.

struct Extension {
    std::uint16_t type;
    Bytes body;
};

Bytes u16(std::size_t value) {
    return {static_cast<std::uint8_t>(value >> 8), static_cast<std::uint8_t>(value)};
}

Extension serverName(std::vector<std::pair<std::uint8_t, Bytes>> entries) {
    Bytes list;
    for (auto& [type, name] : entries) {
        list = concat({list, {type}, u16(name.size()), name});
    }
    return {0, concat({u16(list.size()), list})};
}

Extension serverName(std::string_view host) {
    return serverName({{0, bytes(host)}});
}

Extension opaque(std::uint16_t type, std::size_t length) {
    return {type, Bytes(length, 0x2A)};
}

struct ClientHello {
    std::uint8_t recordType = 22;
    std::uint8_t handshakeType = 1;
    Bytes sessionID;
    Bytes cipherSuites = {0x13, 0x01, 0x13, 0x02, 0xC0, 0x2F};
    Bytes compressionMethods = {0x00};
    std::optional<std::vector<Extension>> extensions = std::vector<Extension>{};
    std::optional<std::size_t> extensionsLength; // claimed instead of the real one
    std::optional<std::size_t> recordLength;     // claimed instead of the real one

    Bytes build() const {
        Bytes body = concat({{0x03, 0x03},
                             Bytes(32, 0x11),
                             {static_cast<std::uint8_t>(sessionID.size())},
                             sessionID,
                             u16(cipherSuites.size()),
                             cipherSuites,
                             {static_cast<std::uint8_t>(compressionMethods.size())},
                             compressionMethods});
        if (extensions) {
            Bytes block;
            for (const auto& extension : *extensions) {
                block = concat(
                    {block, u16(extension.type), u16(extension.body.size()), extension.body});
            }
            body = concat({body, u16(extensionsLength.value_or(block.size())), block});
        }
        Bytes handshake = concat({{handshakeType, 0x00}, u16(body.size()), body});
        return concat(
            {{recordType, 0x03, 0x01}, u16(recordLength.value_or(handshake.size())), handshake});
    }
};

ClientHello helloWith(std::vector<Extension> extensions) {
    ClientHello hello;
    hello.extensions = std::move(extensions);
    return hello;
}

// A copy of exactly `length` bytes on the heap, so that AddressSanitizer
// sees any read past the end.
std::optional<std::string> tlsPrefix(const Bytes& input, std::size_t length) {
    Bytes copy(input.begin(), input.begin() + static_cast<std::ptrdiff_t>(length));
    return SNISniffer::tlsServerName(copy);
}

std::optional<std::string> httpPrefix(const Bytes& input, std::size_t length) {
    Bytes copy(input.begin(), input.begin() + static_cast<std::ptrdiff_t>(length));
    return SNISniffer::httpHost(copy);
}

std::size_t find(const Bytes& haystack, std::string_view needle) {
    auto at = std::search(haystack.begin(), haystack.end(), needle.begin(), needle.end());
    return at == haystack.end() ? std::string::npos
                                : static_cast<std::size_t>(at - haystack.begin());
}

// The name is found exactly when the prefix holds all of the server_name
// extension (the record length is not trusted), and never otherwise.
void expectEveryTruncation(const Bytes& hello, const std::string& name) {
    const std::size_t nameAt = find(hello, name);
    ASSERT_NE(nameAt, std::string::npos);
    const std::size_t needed = nameAt + name.size();
    for (std::size_t length = 0; length <= hello.size(); ++length) {
        auto expected = length >= needed ? std::optional<std::string>(name) : std::nullopt;
        ASSERT_EQ(tlsPrefix(hello, length), expected) << "prefix of " << length << " bytes";
    }
}

TEST(SNISnifferTest, TLSServerNameCases) {
    struct Case {
        const char* name;
        Bytes input;
        std::optional<std::string> expected;
    };
    const auto named = [](std::string_view host) { return helloWith({serverName(host)}).build(); };
    // Cut-short hellos, names behind other extensions and untrusted record
    // lengths are covered by the truncation tests below.
    Case cases[] = {
        {"application data record",
         [] {
             ClientHello hello = helloWith({serverName("example.com")});
             hello.recordType = 23;
             return hello.build();
         }(),
         std::nullopt},
        {"a ServerHello",
         [] {
             ClientHello hello = helloWith({serverName("example.com")});
             hello.handshakeType = 2;
             return hello.build();
         }(),
         std::nullopt},
        {"first entry of another name type, second a host_name",
         helloWith({serverName({{1, bytes("other")}, {0, bytes("second.example")}})}).build(),
         "second.example"},
        {"host_name that is not UTF-8",
         helloWith({serverName({{0, {'a', 0xC3, 0x28, 'b'}}})}).build(), std::nullopt},
        {"empty host_name", named(""), ""},
        {"case and trailing dot kept", named("Example.COM."), "Example.COM."},
        {"extensions length ends before server_name",
         [] {
             ClientHello hello = helloWith({opaque(10, 4), serverName("hidden.example")});
             hello.extensionsLength = 8;
             return hello.build();
         }(),
         std::nullopt},
        {"name may run past its list but not past the bytes",
         helloWith({{0, concat({u16(3), {0}, u16(5), bytes("a.com")})}}).build(), "a.com"},
        {"server_name extension too short for its list length", helloWith({{0, {0x00}}}).build(),
         std::nullopt},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(SNISniffer::tlsServerName(c.input), c.expected) << c.name;
        for (std::size_t length = 0; length < c.input.size(); ++length) {
            tlsPrefix(c.input, length); // must stay in bounds under AddressSanitizer
        }
    }
}

TEST(SNISnifferTest, BuiltHellosGiveTheNameOnlyOnceItsExtensionIsWhole) {
    ClientHello behind =
        helloWith({opaque(11, 2), opaque(10, 8), serverName("cut.example"), opaque(43, 3)});
    behind.sessionID = Bytes(32, 0x01);
    expectEveryTruncation(behind.build(), "cut.example");
    expectEveryTruncation(helloWith({serverName("first.example")}).build(), "first.example");
}

TEST(SNISnifferTest, HTTPHostCases) {
    struct Case {
        const char* name;
        Bytes input;
        std::optional<std::string> expected;
    };
    std::string padding(2100, 'x');
    Case cases[] = {
        {"host with a port", bytes("GET / HTTP/1.1\r\nHost: example.com:8080\r\n\r\n"),
         "example.com"},
        {"capitals and no blank after the colon",
         bytes("GET / HTTP/1.1\r\nHOST:example.com\r\n\r\n"), "example.com"},
        {"case kept", bytes("GET / HTTP/1.1\r\nHost: Example.COM\r\n\r\n"), "Example.COM"},
        {"no line end after the header", bytes("GET / HTTP/1.1\r\nHost: tail.example"),
         "tail.example"},
        {"the first line counts as well", bytes("host: first.example\r\n\r\n"), "first.example"},
        {"tabs and no-break spaces trimmed",
         bytes("GET / HTTP/1.1\r\nHost:\t\xC2\xA0spaced.example \t\xE3\x80\x80\r\n\r\n"),
         "spaced.example"},
        {"blank before the colon does not count",
         bytes("GET / HTTP/1.1\r\nHost : wrong.example\r\nHost: right.example\r\n\r\n"),
         "right.example"},
        {"only the first Host line counts, even when empty",
         bytes("GET / HTTP/1.1\r\nHost:\r\nHost: later.example\r\n\r\n"), std::nullopt},
        {"leading colons dropped", bytes("GET / HTTP/1.1\r\nHost: :odd.example:1\r\n\r\n"),
         "odd.example"},
        {"Host behind the end of the header block",
         bytes("GET / HTTP/1.1\r\nAccept: */*\r\n\r\nHost: body.example\r\n"), std::nullopt},
        {"LF line ends only", bytes("GET / HTTP/1.1\nHost: lf.example\n\n"), std::nullopt},
        {"Host starting after byte 2048",
         bytes("GET / HTTP/1.1\r\nX-Pad: " + padding + "\r\nHost: late.example\r\n\r\n"),
         std::nullopt},
        {"invalid UTF-8 in the head",
         concat({bytes("GET / HTTP/1.1\r\nX: "), {0xFF}, bytes("\r\nHost: a.example\r\n\r\n")}),
         std::nullopt},
        {"body bytes that are not text within 2048",
         concat({bytes("POST / HTTP/1.1\r\nHost: post.example\r\n\r\n"), {0x00, 0xFE, 0xFF}}),
         std::nullopt},
        {"non-text after byte 2048 is not looked at",
         concat({bytes("POST / HTTP/1.1\r\nHost: post.example\r\n\r\n"),
                 Bytes(2048, 'b'),
                 {0xFE, 0xFF}}),
         "post.example"},
        {"a character cut in two by byte 2048",
         [] {
             Bytes head = bytes("GET / HTTP/1.1\r\nHost: cut.example\r\nX: ");
             head.resize(2047, 'p');
             return concat({head, {0xC3, 0xBC}, bytes("\r\n\r\n")});
         }(),
         std::nullopt},
        {"bracketed IPv6 literal", bytes("GET / HTTP/1.1\r\nHost: [::1]:8080\r\n\r\n"),
         std::nullopt},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(SNISniffer::httpHost(c.input), c.expected) << c.name;
        for (std::size_t length = 0; length < c.input.size(); ++length) {
            httpPrefix(c.input, length); // must stay in bounds under AddressSanitizer
        }
    }
}

// ---------------------------------------------------------------------------
// First bytes of real clients, caught by a plain listener on loopback.

bool haveProgram(const char* name) {
    const char* path = std::getenv("PATH");
    std::string_view rest = path ? path : "";
    while (!rest.empty()) {
        auto colon = rest.find(':');
        std::string dir(rest.substr(0, colon));
        rest = colon == std::string_view::npos ? std::string_view{} : rest.substr(colon + 1);
        std::string candidate = dir + "/" + name;
        if (::access(candidate.c_str(), X_OK) == 0) {
            return true;
        }
    }
    return false;
}

struct FileDescriptor {
    int fd = -1;
    explicit FileDescriptor(int value) : fd(value) {}
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    ~FileDescriptor() {
        if (fd >= 0) {
            ::close(fd);
        }
    }
};

bool waitReadable(int fd, std::chrono::steady_clock::time_point deadline) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) {
        return false;
    }
    pollfd pfd{fd, POLLIN, 0};
    return ::poll(&pfd, 1, static_cast<int>(left.count())) == 1;
}

// Starts `arguments` (with "{port}" replaced by the listener's port), accepts
// its connection, reads until `whole` says the first message is complete, and
// then ends the client.
Bytes captureFirstBytes(std::vector<std::string> arguments,
                        const std::function<bool(const Bytes&)>& whole) {
    FileDescriptor listener(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    if (::bind(listener.fd, reinterpret_cast<sockaddr*>(&address), size) != 0 ||
        ::listen(listener.fd, 1) != 0 ||
        ::getsockname(listener.fd, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
        ADD_FAILURE() << "no loopback listener";
        return {};
    }
    const std::string port = std::to_string(ntohs(address.sin_port));
    std::vector<char*> argv;
    for (auto& argument : arguments) {
        for (auto at = argument.find("{port}"); at != std::string::npos;
             at = argument.find("{port}")) {
            argument.replace(at, 6, port);
        }
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    for (int fd : {0, 1, 2}) {
        posix_spawn_file_actions_addopen(&actions, fd, "/dev/null", fd == 0 ? O_RDONLY : O_WRONLY,
                                         0);
    }
    pid_t child = 0;
    int spawned = ::posix_spawnp(&child, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (spawned != 0) {
        ADD_FAILURE() << "cannot start " << arguments[0];
        return {};
    }

    Bytes received;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    if (waitReadable(listener.fd, deadline)) {
        FileDescriptor connection(::accept4(listener.fd, nullptr, nullptr, SOCK_CLOEXEC));
        std::uint8_t buffer[4096];
        while (!whole(received) && waitReadable(connection.fd, deadline)) {
            ssize_t count = ::recv(connection.fd, buffer, sizeof buffer, 0);
            if (count <= 0) {
                break;
            }
            received.insert(received.end(), buffer, buffer + count);
        }
    }
    ::kill(child, SIGKILL); // our own child: it has said all we wanted
    int status = 0;
    ::waitpid(child, &status, 0);
    EXPECT_TRUE(whole(received)) << arguments[0] << " sent " << received.size() << " bytes";
    return received;
}

bool wholeTLSRecord(const Bytes& data) {
    return data.size() >= 5 && data.size() >= 5 + (std::size_t{data[3]} << 8 | data[4]);
}

bool wholeHTTPHead(const Bytes& data) {
    return find(data, "\r\n\r\n") != std::string::npos;
}

TEST(SNISnifferTest, ClientHellosOfRealClients) {
    struct Case {
        const char* name;
        const char* program;
        std::vector<std::string> arguments;
        std::string serverName;
        std::size_t sessionIDLength;
    } cases[] = {
        {"openssl TLS 1.2 without a session id",
         "openssl",
         {"openssl", "s_client", "-connect", "127.0.0.1:{port}", "-servername",
          "tls12.sni-test.example", "-tls1_2", "-no_ticket"},
         "tls12.sni-test.example",
         0},
        {"openssl TLS 1.3 with a session id",
         "openssl",
         {"openssl", "s_client", "-connect", "127.0.0.1:{port}", "-servername",
          "Tls13.SNI-Test.example", "-tls1_3", "-alpn", "h2,http/1.1"},
         "Tls13.SNI-Test.example",
         32},
        {"curl over TLS",
         "curl",
         {"curl", "-s", "--resolve", "curl.sni-test.example:{port}:127.0.0.1",
          "https://curl.sni-test.example:{port}/"},
         "curl.sni-test.example",
         32},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        if (!haveProgram(c.program)) {
            GTEST_SKIP() << c.program << " is not installed";
        }
        Bytes hello = captureFirstBytes(c.arguments, wholeTLSRecord);
        ASSERT_GE(hello.size(), 44u);
        EXPECT_EQ(hello[43], c.sessionIDLength);
        EXPECT_EQ(SNISniffer::tlsServerName(hello), c.serverName);
        EXPECT_EQ(SNISniffer::httpHost(hello), std::nullopt);
        expectEveryTruncation(hello, c.serverName);
    }
}

// What a request head cut after `length` bytes gives: the name as far as it
// got, cut at its port; a CR without its LF stays on the value, as only CR LF
// ends a line and line ends are no white space.
std::optional<std::string> expectedHostOfPrefix(const Bytes& head, std::size_t length) {
    const std::size_t line = find(head, "\r\nHost: ");
    const std::size_t valueAt = line + 8;
    if (length <= valueAt) {
        return std::nullopt;
    }
    const std::size_t lineEnd = valueAt + find(Bytes(head.begin() + valueAt, head.end()), "\r\n");
    std::string value(head.begin() + valueAt,
                      head.begin() + static_cast<std::ptrdiff_t>(std::min(length, lineEnd)));
    if (length == lineEnd + 1) {
        value += '\r';
    }
    return value.substr(0, value.find(':'));
}

TEST(SNISnifferTest, RequestHeadsOfRealClients) {
    if (!haveProgram("curl")) {
        GTEST_SKIP() << "curl is not installed";
    }
    struct Case {
        const char* name;
        std::vector<std::string> arguments;
        std::string host;
    } cases[] = {
        {"Host header with a port",
         {"curl", "-s", "http://127.0.0.1:{port}/index.html?q=1", "-H",
          "Host: Ported.Example:8080"},
         "Ported.Example"},
        {"Host from the address", {"curl", "-s", "http://127.0.0.1:{port}/"}, "127.0.0.1"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Bytes head = captureFirstBytes(c.arguments, wholeHTTPHead);
        ASSERT_NE(find(head, "\r\nHost: "), std::string::npos);
        EXPECT_EQ(SNISniffer::httpHost(head), c.host);
        EXPECT_EQ(SNISniffer::tlsServerName(head), std::nullopt);
        for (std::size_t length = 0; length <= head.size(); ++length) {
            ASSERT_EQ(httpPrefix(head, length), expectedHostOfPrefix(head, length))
                << "prefix of " << length << " bytes";
        }
    }
}

} // namespace
