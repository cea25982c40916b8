#pragma once

#include "ExtensionCore/Awaitable.hpp"
#include "Support/NetNamespace.hpp"

#include <asio.hpp>
#include <chrono>
#include <future>
#include <gtest/gtest.h>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace veltrane::test {

// A queue run by several threads, as the provider's concurrent queue is, and
// a way to await a coroutine on it from the test's own thread.
class TestQueue {
public:
    explicit TestQueue(int threadCount = 2) : TestQueue(nullptr, threadCount) {}
    // With a namespace, the threads run inside it, so the sockets that
    // connections make on them belong to it.
    explicit TestQueue(const NetNamespace* ns, int threadCount = 2)
        : work_(asio::make_work_guard(io_)) {
        for (int i = 0; i < threadCount; ++i) {
            threads_.emplace_back([this, ns] {
                std::optional<NetNamespace::Entered> inside;
                if (ns) {
                    inside.emplace(ns->enter());
                }
                io_.run();
            });
        }
    }
    ~TestQueue() { stop(); }
    TestQueue(const TestQueue&) = delete;
    TestQueue& operator=(const TestQueue&) = delete;

    asio::io_context& io() { return io_; }

    // Lets the threads finish what is queued, then joins them.
    void stop() {
        work_.reset();
        for (auto& thread : threads_) {
            if (thread.joinable()) {
                thread.join();
            }
        }
    }

    // Runs `task` on the queue and returns its result, rethrowing its error.
    // A task that hangs fails the test instead of hanging it.
    template <class T>
    T await(core::Awaitable<T> task, std::chrono::seconds limit = std::chrono::seconds(20)) {
        auto future = asio::co_spawn(io_, std::move(task), asio::use_future);
        if (future.wait_for(limit) != std::future_status::ready) {
            throw std::runtime_error("task did not finish in time");
        }
        return future.get();
    }

private:
    asio::io_context io_;
    asio::executor_work_guard<asio::io_context::executor_type> work_;
    std::vector<std::thread> threads_;
};

// Awaits `task` and hands back the error of type E it threw, caught on the
// queue's thread; `other` tells what happened instead when there was none.
// Errors cross to the test's thread as values, never as shared exception
// objects.
template <class E, class T>
core::Awaitable<std::optional<E>> catching(core::Awaitable<T> task, std::string* other) {
    std::optional<E> caught;
    try {
        co_await std::move(task);
        *other = "no error";
    } catch (const E& error) {
        caught = error;
    } catch (const std::exception& error) {
        *other = std::string("unexpected error: ") + error.what();
    }
    co_return caught;
}

// The error of type E that `task` threw; a test failure when it threw
// nothing or something else. `queue` is a TestQueue or one like it.
template <class E, class Queue, class T>
std::optional<E> errorOf(Queue& queue, core::Awaitable<T> task) {
    std::string other;
    auto caught = queue.await(catching<E>(std::move(task), &other));
    if (!caught) {
        ADD_FAILURE() << other;
    }
    return caught;
}

} // namespace veltrane::test
