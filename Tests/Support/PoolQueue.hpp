#pragma once

// Needs Asio: include only from test programs that link Platform.

#include "Support/NetNamespace.hpp"

#include <asio.hpp>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

namespace veltrane::test {

// A stand-in for the provider's concurrent queue: one io_context run by a few
// threads, so handlers really do run at the same time. With a namespace, every
// thread runs inside it, and sockets that handlers create belong to it.
class PoolQueue {
public:
    explicit PoolQueue(int threads = 3, const NetNamespace* inside = nullptr)
        : guard_(asio::make_work_guard(context_)) {
        for (int i = 0; i < threads; ++i) {
            threads_.emplace_back([this, inside] {
                std::optional<NetNamespace::Entered> entered;
                if (inside != nullptr) {
                    entered.emplace(inside->enter());
                }
                context_.run();
                std::lock_guard lock(mutex_);
                ++finished_;
                changed_.notify_all();
            });
        }
    }

    ~PoolQueue() { stop(); }
    PoolQueue(const PoolQueue&) = delete;
    PoolQueue& operator=(const PoolQueue&) = delete;

    asio::io_context& context() { return context_; }

    // Lets the queue run out of work and waits for its threads. False when
    // work was still pending at the deadline; the queue is stopped then.
    bool drain(std::chrono::milliseconds limit = std::chrono::seconds(20)) {
        guard_.reset();
        bool idle = false;
        {
            std::unique_lock lock(mutex_);
            idle = changed_.wait_for(
                lock, limit, [this] { return finished_ == static_cast<int>(threads_.size()); });
        }
        stop();
        return idle;
    }

    void stop() {
        guard_.reset();
        context_.stop();
        for (auto& thread : threads_) {
            if (thread.joinable()) {
                thread.join();
            }
        }
    }

private:
    asio::io_context context_;
    asio::executor_work_guard<asio::io_context::executor_type> guard_;
    std::mutex mutex_;
    std::condition_variable changed_;
    int finished_ = 0;
    std::vector<std::thread> threads_;
};

} // namespace veltrane::test
