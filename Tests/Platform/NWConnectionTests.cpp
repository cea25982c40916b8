#include "Platform/BypassMark.hpp"
#include "Platform/linux/LinuxConnection.hpp"
#include "Support/EchoServers.hpp"
#include "Support/NWPrinters.hpp"
#include "Support/NetNamespace.hpp"
#include "Support/Peers.hpp"
#include "Support/PoolQueue.hpp"

#include <asio.hpp>
#include <asio/experimental/as_tuple.hpp>
#include <cerrno>
#include <condition_variable>
#include <future>
#include <gtest/gtest.h>
#include <latch>
#include <linux/capability.h>
#include <mutex>
#include <string>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace veltrane::platform {

namespace {

using asio::awaitable;
using asio::use_awaitable;
using asio::ip::tcp;
using asio::ip::udp;
using test::NetNamespace;
using test::PoolQueue;
using namespace std::chrono_literals;

constexpr auto deadline = 20s;
constexpr auto asTuple = asio::experimental::as_tuple(use_awaitable);

Bytes bytesOf(const std::string& text) {
    return Bytes(text.begin(), text.end());
}
std::string textOf(const std::optional<Bytes>& data) {
    return data ? std::string(data->begin(), data->end()) : std::string();
}

// The peers' side: one thread with its own io_context, scripts as coroutines.
class PeerLoop {
public:
    PeerLoop() : guard_(asio::make_work_guard(io_)), thread_([this] { io_.run(); }) {}
    ~PeerLoop() {
        guard_.reset();
        io_.stop();
        thread_.join();
    }
    asio::io_context& io() { return io_; }

    template <class T>
    std::future<T> spawn(awaitable<T> script) {
        auto promise = std::make_shared<std::promise<T>>();
        auto future = promise->get_future();
        asio::co_spawn(io_, std::move(script), [promise](std::exception_ptr error, T value) {
            if (error) {
                promise->set_exception(error);
            } else {
                promise->set_value(std::move(value));
            }
        });
        return future;
    }

private:
    asio::io_context io_;
    asio::executor_work_guard<asio::io_context::executor_type> guard_;
    std::thread thread_;
};

// State reports, in order, for waiting with a deadline. Handlers share its
// record, so a late report after the test moved on lands somewhere valid.
class StateLog {
public:
    using Entry = std::pair<NWConnectionState, std::optional<NWError>>;

    NWConnection::StateUpdateHandler handler() {
        return [record = record_](NWConnectionState state, const std::optional<NWError>& error) {
            std::lock_guard lock(record->mutex);
            record->entries.emplace_back(state, error);
            record->changed.notify_all();
        };
    }

    // The first ready, failed or cancelled report.
    std::optional<Entry> settled() {
        std::unique_lock lock(record_->mutex);
        std::optional<Entry> found;
        record_->changed.wait_for(lock, deadline, [&] {
            for (const auto& entry : record_->entries) {
                if (entry.first == NWConnectionState::ready ||
                    entry.first == NWConnectionState::failed ||
                    entry.first == NWConnectionState::cancelled) {
                    found = entry;
                    return true;
                }
            }
            return false;
        });
        return found;
    }

    std::vector<Entry> entries() {
        std::lock_guard lock(record_->mutex);
        return record_->entries;
    }

    int count(NWConnectionState state) {
        auto all = entries();
        return static_cast<int>(std::count_if(
            all.begin(), all.end(), [state](const Entry& e) { return e.first == state; }));
    }

private:
    struct Record {
        std::mutex mutex;
        std::condition_variable changed;
        std::vector<Entry> entries;
    };
    std::shared_ptr<Record> record_ = std::make_shared<Record>();
};

struct Received {
    std::optional<Bytes> data;
    bool complete = false;
    std::optional<NWError> error;
};

// A second completion of the same operation throws from set_value and ends
// the test program: exactly-once is checked everywhere.
std::future<Received> receiveOnce(NWConnection& connection, std::size_t minimum,
                                  std::size_t maximum) {
    auto promise = std::make_shared<std::promise<Received>>();
    auto future = promise->get_future();
    connection.receive(
        minimum, maximum,
        [promise](std::optional<Bytes> data, bool complete, const std::optional<NWError>& error) {
            promise->set_value(Received{std::move(data), complete, error});
        });
    return future;
}

std::future<Received> receiveMessageOnce(NWConnection& connection) {
    auto promise = std::make_shared<std::promise<Received>>();
    auto future = promise->get_future();
    connection.receiveMessage(
        [promise](std::optional<Bytes> data, bool complete, const std::optional<NWError>& error) {
            promise->set_value(Received{std::move(data), complete, error});
        });
    return future;
}

std::future<std::optional<NWError>> sendOnce(NWConnection& connection,
                                             std::optional<Bytes> content) {
    auto promise = std::make_shared<std::promise<std::optional<NWError>>>();
    auto future = promise->get_future();
    connection.send(std::move(content),
                    [promise](const std::optional<NWError>& error) { promise->set_value(error); });
    return future;
}

template <class T>
T await(std::future<T>& future) {
    if (future.wait_for(deadline) != std::future_status::ready) {
        throw std::runtime_error("no completion before the deadline");
    }
    return future.get();
}

// Reads everything up to the peer's end of stream.
std::string drainStream(NWConnection& connection) {
    std::string all;
    for (int i = 0; i < 10000; ++i) {
        auto future = receiveOnce(connection, 1, 32768);
        Received got = await(future);
        if (got.error) {
            throw std::runtime_error("receive failed: " + got.error->localizedDescription());
        }
        all += textOf(got.data);
        if (got.complete && !got.data) {
            return all;
        }
    }
    throw std::runtime_error("no end of stream");
}

tcp::acceptor listeningAcceptor(asio::io_context& io, const std::string& address = "127.0.0.1") {
    return tcp::acceptor(io, tcp::endpoint(asio::ip::make_address(address), 0));
}

awaitable<std::string> replyAfterEnd(tcp::acceptor acceptor) {
    tcp::socket socket = co_await acceptor.async_accept(use_awaitable);
    std::string seen;
    std::array<char, 4096> buffer;
    for (;;) {
        auto [ec, count] = co_await socket.async_read_some(asio::buffer(buffer), asTuple);
        if (ec) {
            break;
        }
        seen.append(buffer.data(), count);
    }
    std::string reply = "seen:" + seen;
    co_await asio::async_write(socket, asio::buffer(reply), use_awaitable);
    socket.shutdown(tcp::socket::shutdown_send);
    co_return seen;
}

Bytes pattern(std::size_t offset, std::size_t size) {
    Bytes bytes(size);
    for (std::size_t i = 0; i < size; ++i) {
        bytes[i] = static_cast<std::uint8_t>((offset + i) % 251);
    }
    return bytes;
}

awaitable<int> writeInChunks(tcp::acceptor acceptor, std::vector<std::size_t> sizes) {
    tcp::socket socket = co_await acceptor.async_accept(use_awaitable);
    socket.set_option(tcp::no_delay(true));
    std::size_t offset = 0;
    for (std::size_t size : sizes) {
        Bytes chunk = pattern(offset, size);
        co_await asio::async_write(socket, asio::buffer(chunk), use_awaitable);
        offset += size;
        // Let the client read between chunks.
        co_await asio::post(socket.get_executor(), use_awaitable);
    }
    socket.shutdown(tcp::socket::shutdown_send);
    co_return 0;
}

class NWConnectionTest : public ::testing::Test {
protected:
    PeerLoop peer;
    PoolQueue queue;
    LinuxConnectionService service;
};

TEST_F(NWConnectionTest, StartEndsReadyOrFailedWithTheRightError) {
    tcp::acceptor listening = listeningAcceptor(peer.io());
    const std::uint16_t open = listening.local_endpoint().port();
    const std::uint16_t closed = test::freeLoopbackPort(SOCK_STREAM);

    struct {
        const char* name;
        std::string host;
        std::uint16_t port;
        NWParameters parameters;
        NWConnectionState end;
        std::optional<NWError> error;
    } cases[] = {
        {"address literal", "127.0.0.1", open, NWParameters::tcp(), NWConnectionState::ready, {}},
        {"refused after resolving", "localhost", closed, NWParameters::tcp(),
         NWConnectionState::failed, NWError::posix(ECONNREFUSED)},
        {"datagram needs no listener",
         "127.0.0.1",
         closed,
         NWParameters::udp(),
         NWConnectionState::ready,
         {}},
        {"interface that does not exist", "127.0.0.1", open,
         NWParameters{NWParameters::Transport::tcp, "vt-nosuch0"}, NWConnectionState::failed,
         NWError::posix(ENODEV)},
        {"interface name the kernel would cut short", "127.0.0.1", open,
         NWParameters{NWParameters::Transport::tcp, "lo-but-much-too-long"},
         NWConnectionState::failed, NWError::posix(ENODEV)},
        {"empty interface name", "127.0.0.1", open, NWParameters{NWParameters::Transport::udp, ""},
         NWConnectionState::failed, NWError::posix(ENODEV)},
    };

    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        StateLog log;
        auto connection = service.makeConnection(c.host, c.port, c.parameters);
        connection->setStateUpdateHandler(log.handler());
        EXPECT_EQ(connection->state(), NWConnectionState::setup);
        connection->start(queue.context());
        auto settled = log.settled();
        ASSERT_TRUE(settled);
        EXPECT_EQ(settled->first, c.end);
        EXPECT_EQ(settled->second, c.error);
        EXPECT_EQ(connection->state(), c.end);
        auto entries = log.entries();
        ASSERT_EQ(entries.size(), 2u);
        EXPECT_EQ(entries[0].first, NWConnectionState::preparing);
        EXPECT_EQ(log.count(NWConnectionState::waiting), 0);
        connection->setStateUpdateHandler(nullptr);
        connection->cancel();
    }
}

TEST(NWConnectionNameTest, UnknownNameFailsWithADnsError) {
    // The resolver's query must not leave the machine: resolve inside a
    // namespace of our own, where no name server can be reached.
    std::string whyNot;
    auto ns = NetNamespace::create(whyNot);
    if (!ns) {
        GTEST_SKIP() << whyNot;
    }
    ns->must("ip link set lo up");
    StateLog log;
    {
        PoolQueue queue(2, ns.get());
        LinuxConnectionService service;
        auto connection = service.makeConnection("nonexistent.invalid", 443, NWParameters::tcp());
        connection->setStateUpdateHandler(log.handler());
        connection->start(queue.context());
        auto settled = log.settled();
        ASSERT_TRUE(settled);
        EXPECT_EQ(settled->first, NWConnectionState::failed);
        ASSERT_TRUE(settled->second);
        EXPECT_EQ(settled->second->domain, NWError::Domain::dns);
        EXPECT_EQ(settled->second->domainName(), "DNS");
        EXPECT_FALSE(settled->second->localizedDescription().empty());
        EXPECT_TRUE(queue.drain());
    }
}

TEST_F(NWConnectionTest, HalfCloseLetsRepliesArrive) {
    struct {
        const char* name;
        std::optional<Bytes> end;
    } cases[] = {{"no content", std::nullopt}, {"empty content", Bytes{}}};

    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        tcp::acceptor acceptor = listeningAcceptor(peer.io());
        const auto port = acceptor.local_endpoint().port();
        auto seen = peer.spawn(replyAfterEnd(std::move(acceptor)));

        auto connection = service.makeConnection("127.0.0.1", port, NWParameters::tcp());
        connection->start(queue.context());
        // Queued back to back: the end must wait for the bytes before it.
        auto first = sendOnce(*connection, bytesOf("hello "));
        auto second = sendOnce(*connection, bytesOf("world"));
        auto end = sendOnce(*connection, c.end);
        EXPECT_EQ(await(first), std::nullopt);
        EXPECT_EQ(await(second), std::nullopt);
        EXPECT_EQ(await(end), std::nullopt);
        EXPECT_EQ(await(seen), "hello world");
        EXPECT_EQ(drainStream(*connection), "seen:hello world");

        // After the end, the stream stays finished and writing is refused.
        auto again = receiveOnce(*connection, 1, 10);
        Received after = await(again);
        EXPECT_TRUE(after.complete);
        EXPECT_FALSE(after.data);
        EXPECT_FALSE(after.error);
        auto late = sendOnce(*connection, bytesOf("late"));
        auto lateError = await(late);
        ASSERT_TRUE(lateError);
        EXPECT_EQ(lateError->code, EPIPE);
        connection->cancel();
    }
}

TEST_F(NWConnectionTest, ReceiveStaysWithinItsBounds) {
    const std::vector<std::size_t> chunks = {1, 2, 3, 5, 7, 11, 13, 17, 4099, 1, 8191, 3};
    std::size_t total = 0;
    for (auto size : chunks) {
        total += size;
    }
    struct {
        std::size_t minimum, maximum;
        std::size_t effectiveMinimum, effectiveMaximum;
    } cases[] = {
        {1, 1, 1, 1},  {3, 7, 3, 7}, {10000, 20000, 10000, 20000}, {0, 16, 1, 16},
        {10, 4, 4, 4}, {1, 0, 1, 1}, {total, total, total, total},
    };

    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << "receive(" << c.minimum << ", " << c.maximum << ")");
        tcp::acceptor acceptor = listeningAcceptor(peer.io());
        const auto port = acceptor.local_endpoint().port();
        auto written = peer.spawn(writeInChunks(std::move(acceptor), chunks));
        auto connection = service.makeConnection("127.0.0.1", port, NWParameters::tcp());
        connection->start(queue.context());

        Bytes all;
        bool ended = false;
        for (int i = 0; i < 100000 && !ended; ++i) {
            auto future = receiveOnce(*connection, c.minimum, c.maximum);
            Received got = await(future);
            ASSERT_FALSE(got.error) << got.error->localizedDescription();
            const std::size_t size = got.data ? got.data->size() : 0;
            EXPECT_LE(size, c.effectiveMaximum);
            if (!got.complete) {
                EXPECT_GE(size, c.effectiveMinimum);
            }
            if (got.data) {
                EXPECT_FALSE(got.data->empty()) << "empty data is given as none";
                all.insert(all.end(), got.data->begin(), got.data->end());
            }
            ended = got.complete;
        }
        EXPECT_TRUE(ended);
        EXPECT_EQ(all, pattern(0, total));
        EXPECT_EQ(await(written), 0);
        connection->cancel();
    }
}

TEST_F(NWConnectionTest, SendsAndReceivesBeforeReadyAreHeld) {
    test::TCPEchoServer echo;
    // A name, so the operations also wait out the resolution.
    StateLog log;
    auto connection = service.makeConnection("localhost", echo.port(), NWParameters::tcp());
    connection->setStateUpdateHandler(log.handler());
    auto first = sendOnce(*connection, bytesOf("abc"));
    auto second = sendOnce(*connection, bytesOf("def"));
    auto reply = receiveOnce(*connection, 6, 6);
    connection->start(queue.context());

    EXPECT_EQ(await(first), std::nullopt);
    EXPECT_EQ(await(second), std::nullopt);
    Received got = await(reply);
    EXPECT_FALSE(got.error);
    EXPECT_EQ(textOf(got.data), "abcdef");
    auto settled = log.settled();
    ASSERT_TRUE(settled);
    EXPECT_EQ(settled->first, NWConnectionState::ready);
    connection->cancel();
}

TEST_F(NWConnectionTest, DatagramsKeepTheirBoundaries) {
    const std::vector<std::size_t> sizes = {1, 0, 512, 1472, 9000, 3};
    for (bool asMessage : {true, false}) {
        SCOPED_TRACE(asMessage ? "receiveMessage" : "receive(1, 16)");
        test::UDPEchoServer echo;
        auto connection = service.makeConnection("127.0.0.1", echo.port(), NWParameters::udp());
        connection->start(queue.context());
        std::vector<std::future<std::optional<NWError>>> sent;
        for (std::size_t i = 0; i < sizes.size(); ++i) {
            sent.push_back(sendOnce(*connection, pattern(i, sizes[i])));
        }
        for (std::size_t i = 0; i < sizes.size(); ++i) {
            auto future =
                asMessage ? receiveMessageOnce(*connection) : receiveOnce(*connection, 1, 16);
            Received got = await(future);
            ASSERT_FALSE(got.error) << got.error->localizedDescription();
            EXPECT_TRUE(got.complete);
            ASSERT_TRUE(got.data);
            EXPECT_EQ(*got.data, pattern(i, sizes[i])) << "datagram " << i;
            EXPECT_EQ(await(sent[i]), std::nullopt);
        }
        connection->cancel();
    }
}

TEST_F(NWConnectionTest, DatagramsToAClosedPortEndInRefusal) {
    // Without the refusal, a reader would wait for an answer that never comes.
    StateLog log;
    auto connection = service.makeConnection("127.0.0.1", test::freeLoopbackPort(SOCK_DGRAM),
                                             NWParameters::udp());
    connection->setStateUpdateHandler(log.handler());
    connection->start(queue.context());
    auto sent = sendOnce(*connection, bytesOf("anyone?"));
    auto reply = receiveMessageOnce(*connection);
    // The refusal may be handled while the send's own completion is still on
    // its way; the send then ends with the failure instead. Either is orderly.
    const auto sendError = await(sent);
    EXPECT_TRUE(!sendError || *sendError == NWError::posix(ECONNREFUSED)) << sendError->text;
    Received got = await(reply);
    EXPECT_FALSE(got.data);
    EXPECT_EQ(got.error, NWError::posix(ECONNREFUSED));
    auto entries = log.entries();
    ASSERT_FALSE(entries.empty());
    EXPECT_EQ(entries.back().first, NWConnectionState::failed);
    EXPECT_EQ(entries.back().second, NWError::posix(ECONNREFUSED));
}

// Counts every completion, so that a lost or doubled one shows.
class Tally {
public:
    NWConnection::SendCompletion send() {
        int slot = add();
        return [this, slot](const std::optional<NWError>& error) { land(slot, error); };
    }
    NWConnection::ReceiveCompletion receive() {
        int slot = add();
        return [this, slot](std::optional<Bytes>, bool, const std::optional<NWError>& error) {
            land(slot, error);
        };
    }
    std::vector<int> counts() {
        std::lock_guard lock(mutex_);
        return counts_;
    }
    std::vector<std::optional<NWError>> errors() {
        std::lock_guard lock(mutex_);
        return errors_;
    }

private:
    int add() {
        std::lock_guard lock(mutex_);
        counts_.push_back(0);
        errors_.emplace_back();
        return static_cast<int>(counts_.size()) - 1;
    }
    void land(int slot, const std::optional<NWError>& error) {
        std::lock_guard lock(mutex_);
        ++counts_[slot];
        errors_[slot] = error;
    }

    std::mutex mutex_;
    std::vector<int> counts_;
    std::vector<std::optional<NWError>> errors_;
};

TEST(NWConnectionCancelTest, CancelEndsPendingOperationsOnce) {
    enum class When { beforeStart, whileConnecting, whenReady, afterFailure };
    struct {
        const char* name;
        When when;
        int cancelledReports;
        int pendingErrorCode; // what the operations made before cancel() end with
    } cases[] = {
        {"before start", When::beforeStart, 1, ECANCELED},
        {"while connecting", When::whileConnecting, 1, ECANCELED},
        {"when ready", When::whenReady, 1, ECANCELED},
        // The handler is let go after `failed`, so nobody hears `cancelled`.
        {"after failure", When::afterFailure, 0, ECONNREFUSED},
    };

    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        StateLog log;
        Tally tally;
        {
            PoolQueue queue;
            asio::io_context peerIo;
            tcp::acceptor listening = listeningAcceptor(peerIo);
            const auto port = c.when == When::afterFailure ? test::freeLoopbackPort(SOCK_STREAM)
                                                           : listening.local_endpoint().port();
            LinuxConnectionService service;
            auto connection = service.makeConnection("127.0.0.1", port, NWParameters::tcp());
            connection->setStateUpdateHandler(log.handler());
            connection->receive(1, 100, tally.receive());
            connection->receive(5, 5, tally.receive());
            connection->receiveMessage(tally.receive());
            if (c.when != When::beforeStart) {
                connection->start(queue.context());
            }
            if (c.when == When::whenReady || c.when == When::afterFailure) {
                ASSERT_TRUE(log.settled());
            }
            connection->cancel();
            connection->receive(1, 1, tally.receive());
            connection->send(bytesOf("x"), tally.send());
            connection->cancel();
            ASSERT_TRUE(queue.drain());
            EXPECT_EQ(connection->state(), NWConnectionState::cancelled);
        }
        EXPECT_EQ(tally.counts(), std::vector<int>(5, 1));
        auto errors = tally.errors();
        for (std::size_t i = 0; i < errors.size(); ++i) {
            ASSERT_TRUE(errors[i]) << "operation " << i;
            EXPECT_EQ(errors[i]->code, i < 3 ? c.pendingErrorCode : ECANCELED) << "operation " << i;
        }
        EXPECT_EQ(log.count(NWConnectionState::cancelled), c.cancelledReports);
    }
}

TEST(NWConnectionCancelTest, CancelRacingWithTheConnectionEndsEverythingOnce) {
    for (int round = 0; round < 150; ++round) {
        SCOPED_TRACE(round);
        StateLog log;
        Tally tally;
        {
            PoolQueue queue(3);
            asio::io_context peerIo;
            // The kernel completes connections to a listener nobody accepts on.
            tcp::acceptor listening = listeningAcceptor(peerIo);
            LinuxConnectionService service;
            auto connection = service.makeConnection("127.0.0.1", listening.local_endpoint().port(),
                                                     NWParameters::tcp());
            connection->setStateUpdateHandler(log.handler());
            connection->send(bytesOf("early"), tally.send());
            connection->receive(1, 10, tally.receive());
            std::latch go(3);
            std::thread canceller([&] {
                go.arrive_and_wait();
                for (int i = 0; i < round % 4; ++i) {
                    connection->receive(1, 10, tally.receive());
                }
                connection->cancel();
            });
            std::thread user([&] {
                go.arrive_and_wait();
                connection->send(bytesOf("late"), tally.send());
                connection->receiveMessage(tally.receive());
                connection->cancel();
            });
            connection->start(queue.context());
            go.arrive_and_wait();
            canceller.join();
            user.join();
            connection.reset();
            ASSERT_TRUE(queue.drain());
        }
        auto counts = tally.counts();
        EXPECT_EQ(counts, std::vector<int>(counts.size(), 1));
        auto errors = tally.errors();
        // Receives can only end by cancellation: the peer never writes.
        for (std::size_t i = 0; i < errors.size(); ++i) {
            if (errors[i]) {
                EXPECT_EQ(errors[i]->code, ECANCELED);
            }
        }
        EXPECT_EQ(log.count(NWConnectionState::cancelled), 1);
        EXPECT_EQ(log.count(NWConnectionState::failed), 0);
    }
}

// Takes from the calling thread alone the capabilities that setting a
// socket mark needs, as if the process did not run as root.
bool dropMarkPrivilege() {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[2] = {};
    if (::syscall(SYS_capget, &header, data) != 0) {
        return false;
    }
    for (int capability : {CAP_NET_ADMIN, CAP_NET_RAW}) {
        data[capability / 32].effective &= ~(1u << (capability % 32));
    }
    return ::syscall(SYS_capset, &header, data) == 0;
}

TEST(NWConnectionPrivilegeTest, WithoutTheRightToMarkItGoesOnUnmarked) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "runs unprivileged already";
    }
    PeerLoop peer;
    tcp::acceptor listening = listeningAcceptor(peer.io());
    asio::io_context io;
    auto guard = asio::make_work_guard(io);
    std::promise<bool> dropped;
    std::thread unprivileged([&] {
        dropped.set_value(dropMarkPrivilege());
        io.run();
    });
    auto droppedFuture = dropped.get_future();
    ASSERT_TRUE(await(droppedFuture));

    for (auto parameters : {NWParameters::tcp(), NWParameters::udp()}) {
        StateLog log;
        LinuxConnectionService service;
        auto connection =
            service.makeConnection("127.0.0.1", listening.local_endpoint().port(), parameters);
        connection->setStateUpdateHandler(log.handler());
        connection->start(io);
        auto settled = log.settled();
        ASSERT_TRUE(settled);
        EXPECT_EQ(settled->first, NWConnectionState::ready);
        EXPECT_EQ(settled->second, std::nullopt);
        connection->cancel();
    }
    guard.reset();
    unprivileged.join();
}

// Who reached the peer: it answers with the source address it saw.
awaitable<void> tellSourceOverStream(tcp::acceptor acceptor) {
    for (;;) {
        tcp::socket socket = co_await acceptor.async_accept(use_awaitable);
        std::string source = socket.remote_endpoint().address().to_string();
        co_await asio::async_write(socket, asio::buffer(source), use_awaitable);
    }
}

awaitable<void> tellSourceOverDatagrams(udp::socket socket) {
    std::array<char, 2048> buffer;
    for (;;) {
        udp::endpoint from;
        co_await socket.async_receive_from(asio::buffer(buffer), from, use_awaitable);
        std::string source = from.address().to_string();
        co_await socket.async_send_to(asio::buffer(source), from, use_awaitable);
    }
}

TEST(NWConnectionRouteTest, MarkAndRequiredInterfaceDecideTheWayOut) {
    // Two veth pairs between a client namespace and a peer namespace. The
    // peer's address is routed by a0 in the main table, and by a1 for packets
    // that carry the bypass mark; a pinned connection leaves by its own
    // interface whatever the mark says.
    std::string whyNot;
    auto client = NetNamespace::create(whyNot);
    if (!client) {
        GTEST_SKIP() << whyNot;
    }
    auto server = NetNamespace::create(whyNot);
    if (!server) {
        GTEST_SKIP() << whyNot;
    }
    ASSERT_TRUE(client->addVeth("a0", *server, "b0"));
    ASSERT_TRUE(client->addVeth("a1", *server, "b1"));
    char mark[16];
    std::snprintf(mark, sizeof mark, "0x%x", bypassSocketMark());
    ASSERT_TRUE(client->must("ip link set lo up && "
                             "ip addr add 10.201.0.1/24 dev a0 && ip link set a0 up && "
                             "ip addr add 10.202.0.1/24 dev a1 && ip link set a1 up && "
                             "ip route add 10.203.0.1/32 via 10.201.0.2 dev a0 && "
                             "ip route add 10.203.0.1/32 via 10.202.0.2 dev a1 table 100 && "
                             "ip rule add fwmark " +
                             std::string(mark) + " lookup 100"));
    ASSERT_TRUE(server->must("ip link set lo up && ip addr add 10.203.0.1/32 dev lo && "
                             "ip addr add 10.201.0.2/24 dev b0 && ip link set b0 up && "
                             "ip addr add 10.202.0.2/24 dev b1 && ip link set b1 up"));

    PeerLoop peer;
    std::uint16_t streamPort = 0;
    std::uint16_t datagramPort = 0;
    {
        auto inside = server->enter();
        ASSERT_TRUE(inside.ok());
        tcp::acceptor acceptor = listeningAcceptor(peer.io(), "10.203.0.1");
        udp::socket socket(peer.io(), udp::endpoint(asio::ip::make_address("10.203.0.1"), 0));
        streamPort = acceptor.local_endpoint().port();
        datagramPort = socket.local_endpoint().port();
        asio::co_spawn(peer.io(), tellSourceOverStream(std::move(acceptor)), asio::detached);
        asio::co_spawn(peer.io(), tellSourceOverDatagrams(std::move(socket)), asio::detached);
    }

    using Transport = NWParameters::Transport;
    struct {
        const char* name;
        Transport transport;
        std::optional<std::string> interface;
        std::string source;
    } cases[] = {
        {"marked stream", Transport::tcp, std::nullopt, "10.202.0.1"},
        // The mark alone would send it by a1: the pin must win.
        {"stream pinned to a0", Transport::tcp, "a0", "10.201.0.1"},
        {"marked datagrams", Transport::udp, std::nullopt, "10.202.0.1"},
        {"datagrams pinned to a0", Transport::udp, "a0", "10.201.0.1"},
    };

    PoolQueue queue(2, client.get());
    LinuxConnectionService service;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        StateLog log;
        const bool stream = c.transport == Transport::tcp;
        auto connection = service.makeConnection("10.203.0.1", stream ? streamPort : datagramPort,
                                                 NWParameters{c.transport, c.interface});
        connection->setStateUpdateHandler(log.handler());
        connection->start(queue.context());
        auto settled = log.settled();
        ASSERT_TRUE(settled);
        ASSERT_EQ(settled->first, NWConnectionState::ready)
            << (settled->second ? settled->second->localizedDescription() : "");
        if (stream) {
            auto future = receiveOnce(*connection, c.source.size(), 64);
            EXPECT_EQ(textOf(await(future).data), c.source);
        } else {
            auto sent = sendOnce(*connection, bytesOf("who"));
            EXPECT_EQ(await(sent), std::nullopt);
            auto future = receiveMessageOnce(*connection);
            EXPECT_EQ(textOf(await(future).data), c.source);
        }
        connection->cancel();
    }
}

TEST(NWErrorTest, CarriesDomainCodeAndText) {
    // The DNS domain is checked where a real lookup fails.
    EXPECT_EQ(NWError::posix(ECONNREFUSED).domainName(), "POSIX");
    EXPECT_EQ(NWError::posix(ECONNREFUSED).localizedDescription(), "Connection refused");
    EXPECT_NE(NWError::posix(ECONNREFUSED), NWError::posix(ECONNRESET));
    EXPECT_EQ((NWError{NWError::Domain::posix, 99999, ""}).localizedDescription(),
              "POSIX error 99999");
}

} // namespace
} // namespace veltrane::platform
