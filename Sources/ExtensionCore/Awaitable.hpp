#pragma once

// Coroutine results without pulling Asio into every header: the template is
// declared here with its executor spelled out, and defined by <asio.hpp> in
// the .cpp files that create or await it.
namespace asio {
class any_io_executor;
template <typename T, typename Executor>
class awaitable;
} // namespace asio

namespace veltrane::core {

template <class T>
using Awaitable = asio::awaitable<T, asio::any_io_executor>;

} // namespace veltrane::core
