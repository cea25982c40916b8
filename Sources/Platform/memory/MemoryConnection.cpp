#include "Platform/memory/MemoryConnection.hpp"

#include <asio/io_context.hpp>
#include <asio/post.hpp>
#include <cerrno>
#include <utility>

namespace veltrane::platform {

Bytes MemoryConnection::Record::sent() const {
    Bytes all;
    for (const auto& send : sends) {
        if (send) {
            all.insert(all.end(), send->begin(), send->end());
        }
    }
    return all;
}

std::shared_ptr<MemoryConnection> MemoryConnection::make(NWParameters parameters) {
    return std::make_shared<MemoryConnection>(std::move(parameters));
}

MemoryConnection::MemoryConnection(NWParameters parameters)
    : startStates_{{NWConnectionState::preparing, std::nullopt},
                   {NWConnectionState::ready, std::nullopt}} {
    record_.parameters = std::move(parameters);
}

void MemoryConnection::setStartStates(std::vector<StateStep> steps) {
    std::lock_guard guard(mutex_);
    startStates_ = std::move(steps);
}

void MemoryConnection::announce(NWConnectionState state, std::optional<NWError> error) {
    Actions actions;
    {
        std::lock_guard guard(mutex_);
        std::vector<StateStep> notes;
        enterState(state, std::move(error), notes, actions);
        notify(std::move(notes), actions);
    }
    run(std::move(actions));
}

void MemoryConnection::peerSend(Bytes chunk) {
    Actions actions;
    {
        std::lock_guard guard(mutex_);
        chunks_.push_back(std::move(chunk));
        serve(actions);
        changed_.notify_all();
    }
    run(std::move(actions));
}

void MemoryConnection::peerFinish(bool withLastData) {
    Actions actions;
    {
        std::lock_guard guard(mutex_);
        finished_ = true;
        finishWithLastData_ = withLastData;
        serve(actions);
        changed_.notify_all();
    }
    run(std::move(actions));
}

void MemoryConnection::failReceive(std::size_t nth, NWError error) {
    std::lock_guard guard(mutex_);
    failReceiveAt_ = {nth, std::move(error)};
}

void MemoryConnection::failSend(std::size_t nth, NWError error) {
    std::lock_guard guard(mutex_);
    failSendAt_ = {nth, std::move(error)};
}

void MemoryConnection::holdSends() {
    std::lock_guard guard(mutex_);
    holdSends_ = true;
}

void MemoryConnection::releaseSends() {
    Actions actions;
    {
        std::lock_guard guard(mutex_);
        holdSends_ = false;
        serve(actions);
        changed_.notify_all();
    }
    run(std::move(actions));
}

MemoryConnection::Record MemoryConnection::record() const {
    std::lock_guard guard(mutex_);
    return record_;
}

bool MemoryConnection::waitFor(const std::function<bool(const Record&)>& predicate,
                               std::chrono::milliseconds timeout) const {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return predicate(record_); });
}

void MemoryConnection::setStateUpdateHandler(StateUpdateHandler handler) {
    std::lock_guard guard(mutex_);
    stateHandler_ = std::move(handler);
}

void MemoryConnection::start(DispatchQueue& queue) {
    Actions actions;
    {
        std::lock_guard guard(mutex_);
        if (record_.started) {
            return;
        }
        record_.started = true;
        queue_ = &queue;
        std::vector<StateStep> notes;
        for (const auto& step : std::vector<StateStep>(startStates_)) {
            enterState(step.state, step.error, notes, actions);
        }
        notify(std::move(notes), actions);
        changed_.notify_all();
    }
    run(std::move(actions));
}

NWConnectionState MemoryConnection::state() const {
    std::lock_guard guard(mutex_);
    return state_;
}

void MemoryConnection::send(std::optional<Bytes> content, SendCompletion completion) {
    Actions actions;
    {
        std::lock_guard guard(mutex_);
        ++record_.sendCalls;
        ++record_.sendsInFlight;
        record_.maxSendsInFlight = std::max(record_.maxSendsInFlight, record_.sendsInFlight);
        changed_.notify_all();
        if (failSendAt_ && failSendAt_->first == record_.sendCalls) {
            completeSend(std::move(completion), failSendAt_->second, actions);
        } else if (auto error = endError()) {
            completeSend(std::move(completion), std::move(error), actions);
        } else {
            sends_.push_back(PendingSend{std::move(content), std::move(completion)});
            record_.heldSends = sends_.size();
            serve(actions);
        }
    }
    run(std::move(actions));
}

void MemoryConnection::receive(std::size_t minimumIncompleteLength, std::size_t maximumLength,
                               ReceiveCompletion completion) {
    startReceive(
        PendingReceive{minimumIncompleteLength, maximumLength, false, std::move(completion)});
}

void MemoryConnection::receiveMessage(ReceiveCompletion completion) {
    startReceive(PendingReceive{0, 0, true, std::move(completion)});
}

void MemoryConnection::startReceive(PendingReceive receive) {
    Actions actions;
    {
        std::lock_guard guard(mutex_);
        ++record_.receiveCalls;
        record_.receiveLimits.emplace_back(receive.minimum, receive.maximum);
        ++record_.receivesInFlight;
        record_.maxReceivesInFlight =
            std::max(record_.maxReceivesInFlight, record_.receivesInFlight);
        changed_.notify_all();
        if (failReceiveAt_ && failReceiveAt_->first == record_.receiveCalls) {
            completeReceive(std::move(receive.completion), std::nullopt, false,
                            failReceiveAt_->second, actions);
        } else if (auto error = endError()) {
            completeReceive(std::move(receive.completion), std::nullopt, false, std::move(error),
                            actions);
        } else {
            receives_.push_back(std::move(receive));
            serve(actions);
        }
    }
    run(std::move(actions));
}

void MemoryConnection::cancel() {
    Actions actions;
    {
        std::lock_guard guard(mutex_);
        ++record_.cancels;
        std::vector<StateStep> notes;
        enterState(NWConnectionState::cancelled, std::nullopt, notes, actions);
        notify(std::move(notes), actions);
        changed_.notify_all();
    }
    run(std::move(actions));
}

void MemoryConnection::enterState(NWConnectionState state, std::optional<NWError> error,
                                  std::vector<StateStep>& notes, Actions& actions) {
    if (state_ == NWConnectionState::cancelled) {
        return; // nothing comes after the end
    }
    state_ = state;
    record_.states.push_back(state);
    if (state == NWConnectionState::failed) {
        failure_ = error.value_or(NWError::posix(ECONNABORTED));
        error = failure_;
    }
    notes.push_back(StateStep{state, std::move(error)});
    if (auto endedWith = endError()) {
        failAll(*endedWith, actions);
    } else {
        serve(actions);
    }
    changed_.notify_all();
}

void MemoryConnection::notify(std::vector<StateStep> notes, Actions& actions) {
    if (notes.empty()) {
        return;
    }
    // One call reports every change made together, so a queue run by several
    // threads still delivers them in order.
    actions.insert(actions.begin(), [this, self = shared_from_this(), notes = std::move(notes)] {
        for (const auto& note : notes) {
            StateUpdateHandler handler;
            {
                std::lock_guard guard(mutex_);
                handler = stateHandler_;
            }
            if (handler) {
                handler(note.state, note.error);
            }
        }
    });
}

void MemoryConnection::serve(Actions& actions) {
    if (state_ != NWConnectionState::ready) {
        return;
    }
    while (!sends_.empty() && !holdSends_) {
        PendingSend send = std::move(sends_.front());
        sends_.pop_front();
        acceptSend(std::move(send), actions);
    }
    record_.heldSends = sends_.size();
    while (!receives_.empty() && serveOne(receives_.front(), actions)) {
        receives_.pop_front();
    }
}

bool MemoryConnection::serveOne(PendingReceive& receive, Actions& actions) {
    const bool datagram = record_.parameters.transport == NWParameters::Transport::udp;
    if (receive.message || datagram) {
        if (!chunks_.empty()) {
            Bytes chunk = std::move(chunks_.front());
            chunks_.pop_front();
            completeReceive(std::move(receive.completion), std::move(chunk), true, std::nullopt,
                            actions);
            return true;
        }
        if (finished_) {
            completeReceive(std::move(receive.completion), std::nullopt, true, std::nullopt,
                            actions);
            return true;
        }
        return false;
    }

    if (!chunks_.empty() && chunks_.front().empty()) {
        chunks_.pop_front();
        completeReceive(std::move(receive.completion), Bytes{}, false, std::nullopt, actions);
        return true;
    }
    // How many chunks, whole, it takes to reach the minimum.
    std::size_t available = 0;
    std::size_t chunksNeeded = 0;
    for (const auto& chunk : chunks_) {
        if (chunk.empty()) {
            break;
        }
        available += chunk.size();
        ++chunksNeeded;
        if (available >= receive.minimum) {
            break;
        }
    }
    if (available < receive.minimum && !finished_) {
        return false;
    }
    if (available == 0) {
        completeReceive(std::move(receive.completion), std::nullopt, true, std::nullopt, actions);
        return true;
    }
    Bytes data;
    for (std::size_t i = 0; i < chunksNeeded && data.size() < receive.maximum; ++i) {
        Bytes& chunk = chunks_.front();
        std::size_t take = std::min(chunk.size(), receive.maximum - data.size());
        data.insert(data.end(), chunk.begin(), chunk.begin() + static_cast<std::ptrdiff_t>(take));
        if (take == chunk.size()) {
            chunks_.pop_front();
        } else {
            chunk.erase(chunk.begin(), chunk.begin() + static_cast<std::ptrdiff_t>(take));
        }
    }
    const bool isComplete = finished_ && finishWithLastData_ && chunks_.empty();
    completeReceive(std::move(receive.completion), std::move(data), isComplete, std::nullopt,
                    actions);
    return true;
}

void MemoryConnection::acceptSend(PendingSend send, Actions& actions) {
    const bool stream = record_.parameters.transport == NWParameters::Transport::tcp;
    const bool empty = !send.content || send.content->empty();
    if (stream && empty) {
        ++record_.halfCloses;
        halfClosed_ = true;
    } else if (stream && halfClosed_) {
        ++record_.sendsAfterHalfClose;
    }
    record_.sends.push_back(std::move(send.content));
    completeSend(std::move(send.completion), std::nullopt, actions);
}

void MemoryConnection::failAll(const NWError& error, Actions& actions) {
    while (!receives_.empty()) {
        PendingReceive receive = std::move(receives_.front());
        receives_.pop_front();
        completeReceive(std::move(receive.completion), std::nullopt, false, error, actions);
    }
    while (!sends_.empty()) {
        PendingSend send = std::move(sends_.front());
        sends_.pop_front();
        completeSend(std::move(send.completion), error, actions);
    }
    record_.heldSends = 0;
}

void MemoryConnection::completeReceive(ReceiveCompletion completion, std::optional<Bytes> data,
                                       bool isComplete, std::optional<NWError> error,
                                       Actions& actions) {
    actions.push_back([this, self = shared_from_this(), completion = std::move(completion),
                       data = std::move(data), isComplete, error = std::move(error)]() mutable {
        {
            std::lock_guard guard(mutex_);
            --record_.receivesInFlight;
            changed_.notify_all();
        }
        if (completion) {
            completion(std::move(data), isComplete, error);
        }
    });
}

void MemoryConnection::completeSend(SendCompletion completion, std::optional<NWError> error,
                                    Actions& actions) {
    actions.push_back([this, self = shared_from_this(), completion = std::move(completion),
                       error = std::move(error)] {
        {
            std::lock_guard guard(mutex_);
            --record_.sendsInFlight;
            changed_.notify_all();
        }
        if (completion) {
            completion(error);
        }
    });
}

std::optional<NWError> MemoryConnection::endError() const {
    if (state_ == NWConnectionState::failed) {
        return failure_;
    }
    if (state_ == NWConnectionState::cancelled) {
        return NWError::posix(ECANCELED);
    }
    return std::nullopt;
}

void MemoryConnection::run(Actions actions) {
    if (actions.empty()) {
        return;
    }
    DispatchQueue* queue = nullptr;
    {
        std::lock_guard guard(mutex_);
        queue = queue_;
    }
    if (queue == nullptr) {
        // Never started: there is no queue to post on, so completions run
        // here, after the lock was released.
        for (auto& action : actions) {
            action();
        }
        return;
    }
    bool post = false;
    {
        std::lock_guard guard(serialMutex_);
        for (auto& action : actions) {
            serial_.push_back(std::move(action));
        }
        post = !std::exchange(draining_, true);
    }
    if (post) {
        asio::post(*queue, [self = shared_from_this(), this] { drain(); });
    }
}

void MemoryConnection::drain() {
    for (;;) {
        std::function<void()> action;
        {
            std::lock_guard guard(serialMutex_);
            if (serial_.empty()) {
                draining_ = false;
                return;
            }
            action = std::move(serial_.front());
            serial_.pop_front();
        }
        action();
    }
}

void MemoryConnectionService::enqueue(std::shared_ptr<MemoryConnection> connection) {
    std::lock_guard guard(mutex_);
    queued_.push_back(std::move(connection));
}

std::vector<MemoryConnectionService::Request> MemoryConnectionService::requests() const {
    std::lock_guard guard(mutex_);
    return requests_;
}

std::shared_ptr<NWConnection> MemoryConnectionService::makeConnection(std::string host,
                                                                      std::uint16_t port,
                                                                      NWParameters parameters) {
    std::lock_guard guard(mutex_);
    std::shared_ptr<MemoryConnection> connection;
    if (queued_.empty()) {
        connection = MemoryConnection::make(parameters);
    } else {
        connection = std::move(queued_.front());
        queued_.pop_front();
    }
    requests_.push_back(Request{std::move(host), port, std::move(parameters), connection});
    return connection;
}

} // namespace veltrane::platform
