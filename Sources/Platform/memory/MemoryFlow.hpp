#pragma once

#include "Platform/FlowError.hpp"
#include "Platform/NEFlowMetaData.hpp"

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

namespace veltrane::platform {

// Runs a function later, on the threads that run the test's queue.
using MemoryPoster = std::function<void(std::function<void()>)>;

// What a memory flow saw the system do. `WriteItem` is what one write
// carried.
template <class WriteItem>
struct MemoryFlowRecord {
    std::size_t opens = 0;
    bool opened = false;            // an open completed with success
    std::size_t reads = 0;          // read calls
    std::size_t writes = 0;         // write calls
    std::vector<WriteItem> written; // what the application received, write by write
    std::vector<std::optional<FlowError>> closeReads;
    std::vector<std::optional<FlowError>> closeWrites;
    std::size_t readsInFlight = 0;
    std::size_t writesInFlight = 0;
    std::size_t maxReadsInFlight = 0;
    std::size_t maxWritesInFlight = 0;
    std::size_t heldWrites = 0;
    std::size_t operationsBeforeOpen = 0; // reads or writes before the open succeeded

    bool closed() const { return !closeReads.empty() && !closeWrites.empty(); }
};

// The shared part of the in-memory TCP and UDP flows: the scripted
// application, the open/close bookkeeping and the waiting. Every completion
// is posted, never run inside the call that started the operation.
template <class FlowBase, class ReadItem, class WriteItem>
class MemoryFlow : public FlowBase {
public:
    using Record = MemoryFlowRecord<WriteItem>;

    // --- The application's side; callable at any time, from any thread ---

    // The open completes with `error`.
    void failOpen(FlowError error) {
        std::lock_guard guard(mutex_);
        openError_ = std::move(error);
    }
    // The application is gone before the open completes: the open and every
    // operation after it fail as not connected.
    void goAwayBeforeOpen() {
        std::lock_guard guard(mutex_);
        openError_ = NEAppProxyError::notConnected();
        gone_ = NEAppProxyError::notConnected();
    }
    // The application goes away now: the pending and all later reads and
    // writes complete with `error`.
    void appGoAway(FlowError error = NEAppProxyError::notConnected()) {
        std::unique_lock lock(mutex_);
        gone_ = error;
        failPendingRead(lock, error);
        failHeldWrites(lock, error);
        changed_.notify_all();
    }
    // The `nth` read call (counted from 1) completes with `error`.
    void failRead(std::size_t nth, FlowError error) {
        std::lock_guard guard(mutex_);
        failReadAt_ = {nth, std::move(error)};
    }
    // The `nth` write call (counted from 1) completes with `error`.
    void failWrite(std::size_t nth, FlowError error) {
        std::lock_guard guard(mutex_);
        failWriteAt_ = {nth, std::move(error)};
    }
    // Writes stay pending until released, as with an application that does
    // not read.
    void holdWrites() {
        std::lock_guard guard(mutex_);
        holdWrites_ = true;
    }
    void releaseWrites() {
        std::unique_lock lock(mutex_);
        holdWrites_ = false;
        auto held = std::exchange(held_, {});
        record_.heldWrites = 0;
        for (auto& [item, done] : held) {
            record_.written.push_back(std::move(item));
            complete(
                lock, [done = std::move(done)] { done(std::nullopt); }, false);
        }
        changed_.notify_all();
    }

    // --- What the system did ---

    Record record() const {
        std::lock_guard guard(mutex_);
        return record_;
    }
    // Waits until `predicate` holds for the record; false when `timeout`
    // passed first. The predicate runs under the flow's lock: it must only
    // read the record it is given.
    bool waitFor(const std::function<bool(const Record&)>& predicate,
                 std::chrono::milliseconds timeout = std::chrono::seconds(10)) const {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, timeout, [&] { return predicate(record_); });
    }
    // Both closeRead and closeWrite were called.
    bool waitClosed(std::chrono::milliseconds timeout = std::chrono::seconds(10)) const {
        return waitFor([](const Record& r) { return r.closed(); }, timeout);
    }

    // --- NEAppProxyFlow ---

    NEFlowMetaData metaData() const override { return metaData_; }

    void open(typename FlowBase::OpenCompletion completion) override {
        std::unique_lock lock(mutex_);
        ++record_.opens;
        if (openError_) {
            complete(lock, [completion = std::move(completion), error = *openError_] {
                completion(error);
            });
            return;
        }
        complete(lock, [this, completion = std::move(completion)] {
            {
                std::lock_guard guard(mutex_);
                record_.opened = true;
                changed_.notify_all();
            }
            completion(std::nullopt);
        });
    }

    void closeRead(const std::optional<FlowError>& error) override {
        std::unique_lock lock(mutex_);
        record_.closeReads.push_back(error);
        readClosed_ = true;
        failPendingRead(lock, NEAppProxyError::notConnected());
        changed_.notify_all();
    }

    void closeWrite(const std::optional<FlowError>& error) override {
        std::unique_lock lock(mutex_);
        record_.closeWrites.push_back(error);
        writeClosed_ = true;
        failHeldWrites(lock, NEAppProxyError::notConnected());
        changed_.notify_all();
    }

protected:
    using ReadDone = std::function<void(ReadItem item, const std::optional<FlowError>& error)>;
    using WriteDone = std::function<void(const std::optional<FlowError>& error)>;

    MemoryFlow(MemoryPoster post, NEFlowMetaData metaData, ReadItem endOfSending)
        : post_(std::move(post)), metaData_(std::move(metaData)),
          endOfSending_(std::move(endOfSending)) {}

    // The application sends `item`; one read delivers it.
    void appDeliver(ReadItem item) {
        std::unique_lock lock(mutex_);
        items_.push_back(std::move(item));
        servePendingRead(lock);
        changed_.notify_all();
    }
    // After the items sent so far, reads report the end of sending.
    void appEnd() {
        std::unique_lock lock(mutex_);
        finished_ = true;
        servePendingRead(lock);
        changed_.notify_all();
    }

    void startRead(ReadDone done) {
        std::unique_lock lock(mutex_);
        ++record_.reads;
        ++record_.readsInFlight;
        record_.maxReadsInFlight = std::max(record_.maxReadsInFlight, record_.readsInFlight);
        changed_.notify_all();
        if (auto error = operationError(record_.reads, failReadAt_, readClosed_)) {
            deliverRead(lock, std::move(done), ReadItem{}, std::move(error));
            return;
        }
        if (pendingRead_) {
            // A second read while one is pending breaks the one-at-a-time rule;
            // it is counted above and served after the first.
            queuedReads_.push_back(std::move(done));
            return;
        }
        pendingRead_ = std::move(done);
        servePendingRead(lock);
    }

    void startWrite(WriteItem item, WriteDone done) {
        std::unique_lock lock(mutex_);
        ++record_.writes;
        ++record_.writesInFlight;
        record_.maxWritesInFlight = std::max(record_.maxWritesInFlight, record_.writesInFlight);
        changed_.notify_all();
        if (auto error = operationError(record_.writes, failWriteAt_, writeClosed_)) {
            complete(
                lock, [done = std::move(done), error = *error] { done(error); }, false);
            return;
        }
        if (holdWrites_) {
            held_.emplace_back(std::move(item), std::move(done));
            record_.heldWrites = held_.size();
            return;
        }
        record_.written.push_back(std::move(item));
        complete(
            lock, [done = std::move(done)] { done(std::nullopt); }, false);
    }

private:
    std::optional<FlowError>
    operationError(std::size_t count,
                   const std::optional<std::pair<std::size_t, FlowError>>& failAt,
                   bool sideClosed) {
        if (!record_.opened) {
            ++record_.operationsBeforeOpen;
            return NEAppProxyError::notConnected();
        }
        if (gone_) {
            return gone_;
        }
        if (sideClosed) {
            return NEAppProxyError::notConnected();
        }
        if (failAt && failAt->first == count) {
            return failAt->second;
        }
        return std::nullopt;
    }

    void servePendingRead(std::unique_lock<std::mutex>& lock) {
        while (pendingRead_) {
            if (!items_.empty()) {
                ReadItem item = std::move(items_.front());
                items_.pop_front();
                deliverRead(lock, takePendingRead(), std::move(item), std::nullopt);
            } else if (finished_) {
                deliverRead(lock, takePendingRead(), endOfSending_, std::nullopt);
            } else {
                return;
            }
        }
    }

    void failPendingRead(std::unique_lock<std::mutex>& lock, const FlowError& error) {
        while (pendingRead_) {
            deliverRead(lock, takePendingRead(), ReadItem{}, error);
        }
    }

    void failHeldWrites(std::unique_lock<std::mutex>& lock, const FlowError& error) {
        auto held = std::exchange(held_, {});
        record_.heldWrites = 0;
        for (auto& entry : held) {
            complete(
                lock, [done = std::move(entry.second), error] { done(error); }, false);
        }
    }

    ReadDone takePendingRead() {
        ReadDone done = std::move(*pendingRead_);
        pendingRead_.reset();
        if (!queuedReads_.empty()) {
            pendingRead_ = std::move(queuedReads_.front());
            queuedReads_.pop_front();
        }
        return done;
    }

    void deliverRead(std::unique_lock<std::mutex>& lock, ReadDone done, ReadItem item,
                     std::optional<FlowError> error) {
        complete(
            lock,
            [done = std::move(done), item = std::move(item), error = std::move(error)]() mutable {
                done(std::move(item), error);
            },
            true);
    }

    // Posts `fn`; the in-flight count of its kind drops just before it runs.
    void complete(std::unique_lock<std::mutex>&, std::function<void()> fn) {
        post_([self = this->shared_from_this(), fn = std::move(fn)] { fn(); });
    }
    void complete(std::unique_lock<std::mutex>&, std::function<void()> fn, bool isRead) {
        post_([this, self = this->shared_from_this(), fn = std::move(fn), isRead] {
            {
                std::lock_guard guard(mutex_);
                if (isRead) {
                    --record_.readsInFlight;
                } else {
                    --record_.writesInFlight;
                }
                changed_.notify_all();
            }
            fn();
        });
    }

    MemoryPoster post_;
    const NEFlowMetaData metaData_;
    const ReadItem endOfSending_;

    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    Record record_;
    std::deque<ReadItem> items_;
    bool finished_ = false;
    std::optional<FlowError> openError_;
    std::optional<FlowError> gone_;
    std::optional<std::pair<std::size_t, FlowError>> failReadAt_;
    std::optional<std::pair<std::size_t, FlowError>> failWriteAt_;
    bool holdWrites_ = false;
    bool readClosed_ = false;
    bool writeClosed_ = false;
    std::optional<ReadDone> pendingRead_;
    std::deque<ReadDone> queuedReads_;
    std::vector<std::pair<WriteItem, WriteDone>> held_;
};

} // namespace veltrane::platform
