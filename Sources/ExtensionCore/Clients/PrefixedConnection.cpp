#include "ExtensionCore/Clients/PrefixedConnection.hpp"

#include <algorithm>
#include <asio.hpp>

namespace veltrane::core {

namespace {

// A completion that hands on the held-back bytes ahead of what the inner
// connection delivered.
platform::NWConnection::ReceiveCompletion
prepending(platform::Bytes head, platform::NWConnection::ReceiveCompletion completion) {
    return [head = std::move(head), completion = std::move(completion)](
               std::optional<platform::Bytes> data, bool isComplete,
               const std::optional<platform::NWError>& error) mutable {
        platform::Bytes joined = std::move(head);
        if (data) {
            joined.insert(joined.end(), data->begin(), data->end());
        }
        completion(std::move(joined), isComplete, error);
    };
}

} // namespace

PrefixedConnection::PrefixedConnection(std::shared_ptr<platform::NWConnection> inner,
                                       platform::Bytes prefix, platform::DispatchQueue& queue)
    : inner_(std::move(inner)), queue_(queue), prefix_(std::move(prefix)) {}

void PrefixedConnection::setStateUpdateHandler(StateUpdateHandler handler) {
    inner_->setStateUpdateHandler(std::move(handler));
}

void PrefixedConnection::start(platform::DispatchQueue& queue) {
    inner_->start(queue);
}

platform::NWConnectionState PrefixedConnection::state() const {
    return inner_->state();
}

void PrefixedConnection::send(std::optional<platform::Bytes> content, SendCompletion completion) {
    inner_->send(std::move(content), std::move(completion));
}

void PrefixedConnection::cancel() {
    inner_->cancel();
}

platform::Bytes PrefixedConnection::takePrefix(std::size_t maximum) {
    std::lock_guard guard(lock_);
    std::size_t n = std::min(maximum, prefix_.size());
    platform::Bytes taken(prefix_.begin(), prefix_.begin() + static_cast<std::ptrdiff_t>(n));
    prefix_.erase(prefix_.begin(), prefix_.begin() + static_cast<std::ptrdiff_t>(n));
    return taken;
}

void PrefixedConnection::receive(std::size_t minimumIncompleteLength, std::size_t maximumLength,
                                 ReceiveCompletion completion) {
    std::size_t available;
    {
        std::lock_guard guard(lock_);
        available = prefix_.size();
    }
    if (available == 0) {
        inner_->receive(minimumIncompleteLength, maximumLength, std::move(completion));
        return;
    }
    if (available >= minimumIncompleteLength || available >= maximumLength) {
        auto bytes = takePrefix(maximumLength);
        asio::post(queue_,
                   [completion = std::move(completion), bytes = std::move(bytes)]() mutable {
                       completion(std::move(bytes), false, std::nullopt);
                   });
        return;
    }
    // Too little for the minimum: the rest comes from the inner connection.
    auto head = takePrefix(available);
    // Sizes first: the lambda below takes `head` away, and argument order
    // is unspecified.
    const std::size_t minimum = minimumIncompleteLength - head.size();
    const std::size_t maximum = maximumLength - head.size();
    inner_->receive(minimum, maximum, prepending(std::move(head), std::move(completion)));
}

void PrefixedConnection::receiveMessage(ReceiveCompletion completion) {
    auto head = takePrefix(SIZE_MAX);
    if (head.empty()) {
        inner_->receiveMessage(std::move(completion));
        return;
    }
    inner_->receiveMessage(prepending(std::move(head), std::move(completion)));
}

std::optional<platform::KernelStream::Socket> PrefixedConnection::kernelSocket() {
    auto* kernel = dynamic_cast<platform::KernelStream*>(inner_.get());
    if (!kernel) {
        return std::nullopt;
    }
    auto socket = kernel->kernelSocket();
    if (!socket) {
        return std::nullopt;
    }
    std::lock_guard guard(lock_);
    prefix_.insert(prefix_.end(), socket->unread.begin(), socket->unread.end());
    socket->unread = std::exchange(prefix_, {});
    return socket;
}

bool PrefixedConnection::reportsAfterRelease() const {
    const auto* kernel = dynamic_cast<const platform::KernelStream*>(inner_.get());
    return kernel != nullptr && kernel->reportsAfterRelease();
}

int PrefixedConnection::releaseSocket() {
    auto* kernel = dynamic_cast<platform::KernelStream*>(inner_.get());
    {
        std::lock_guard guard(lock_);
        if (!kernel || !prefix_.empty()) {
            return -1;
        }
    }
    return kernel->releaseSocket();
}

} // namespace veltrane::core
