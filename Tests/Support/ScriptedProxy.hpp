#pragma once

// Needs Platform's in-memory connections: include only from test programs
// that link Platform.

#include "Platform/memory/MemoryConnection.hpp"

#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace veltrane::test {

// A connection service whose one connection is a proxy the test plays: a
// proxy client under test asks `service` for its connection and gets
// `connection`, whose far end the test scripts.
struct ScriptedProxy {
    ScriptedProxy() { service.enqueue(connection); }

    platform::MemoryConnectionService service;
    std::shared_ptr<platform::MemoryConnection> connection = platform::MemoryConnection::make();
};

// A way for the proxy to let the client down, and the error it must end in.
template <class E>
struct ScriptedFailure {
    std::string name;
    std::function<void(platform::MemoryConnection&)> script;
    E expected;
};

// Plays each failure on a fresh proxy. `attempt` runs the client against the
// service it is given and returns the error it ended in. The client leaves
// the connection to whoever owns it, so it never cancels it.
template <class E, class Attempt>
void expectFailures(const std::vector<ScriptedFailure<E>>& cases, Attempt attempt) {
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        ScriptedProxy proxy;
        c.script(*proxy.connection);
        EXPECT_EQ(attempt(proxy.service), c.expected);
        EXPECT_EQ(proxy.connection->record().cancels, 0u);
    }
}

} // namespace veltrane::test
