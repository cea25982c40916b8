#pragma once

#include "ExtensionCore/Awaitable.hpp"

#include <asio.hpp>
#include <chrono>
#include <future>
#include <gtest/gtest.h>
#include <optional>
#include <stdexcept>
#include <thread>
#include <vector>

namespace veltrane::test {

// A queue run by several threads, as the provider's concurrent queue is, and
// a way to await a coroutine on it from the test's own thread.
class TestQueue {
public:
    explicit TestQueue(int threadCount = 2) : work_(asio::make_work_guard(io_)) {
        for (int i = 0; i < threadCount; ++i) {
            threads_.emplace_back([this] { io_.run(); });
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

// The error a task threw, as its exact type; fails the test when it threw
// nothing or something else.
template <class E, class F>
std::optional<E> errorOf(F&& run) {
    try {
        run();
    } catch (const E& error) {
        return error;
    } catch (const std::exception& other) {
        ADD_FAILURE() << "unexpected error: " << other.what();
        return std::nullopt;
    }
    ADD_FAILURE() << "no error";
    return std::nullopt;
}

} // namespace veltrane::test
