#include "ExtensionCore/Control/ExtensionXPCServer.hpp"

#include "ExtensionCore/Control/StatsCollector.hpp"
#include "Platform/RuntimePaths.hpp"
#include "Platform/linux/UnixLineServer.hpp"
#include "VeltraneKit/DTOCoding.hpp"
#include "VeltraneKit/ExtensionControlWire.hpp"

#include <nlohmann/json.hpp>

namespace veltrane::core {

using nlohmann::json;
namespace Wire = kit::ExtensionControlWire;

namespace {

constexpr std::size_t kMaxRequest = 64 * 1024;

// Reply values as the text of a JSON array; data goes in as it was encoded,
// absent data as null. Appended piece by piece: the bytes can be megabytes.
std::string values(const std::optional<std::string>& data,
                   std::optional<std::uint64_t> token = std::nullopt) {
    std::string text;
    text.reserve((data ? data->size() : 4) + 24);
    text += '[';
    text += data ? std::string_view(*data) : std::string_view("null");
    if (token) {
        text += ',';
        text += std::to_string(*token);
    }
    text += ']';
    return text;
}

} // namespace

ExtensionXPCServer::ExtensionXPCServer(StatsCollector* collector)
    : collector_(collector ? *collector : StatsCollector::shared()) {}

ExtensionXPCServer::~ExtensionXPCServer() {
    stop();
}

void ExtensionXPCServer::start(std::string_view machServiceName) {
    const std::string directory = platform::RuntimePaths::runtimeDirectory();
    platform::RuntimePaths::prepareDirectory(directory);
    startAtPath(directory + "/" + std::string(machServiceName));
}

void ExtensionXPCServer::startAtPath(std::string socketPath) {
    stop();
    platform::UnixLineServer::Options options;
    options.maxLineLength = kMaxRequest;
    options.overlongReply =
        Wire::errorLine("request longer than " + std::to_string(kMaxRequest) + " bytes", nullptr);
    auto listener = std::make_unique<platform::UnixLineServer>(
        std::move(socketPath), [this](std::string_view line) { return handleLine(line); },
        std::move(options));
    listener->start();
    std::lock_guard guard(lock_);
    listener_ = std::move(listener);
}

void ExtensionXPCServer::stop() {
    std::unique_ptr<platform::UnixLineServer> listener;
    {
        std::lock_guard guard(lock_);
        listener = std::move(listener_);
    }
    if (listener) {
        listener->stop();
    }
}

std::string ExtensionXPCServer::socketPath() const {
    std::lock_guard guard(lock_);
    return listener_ ? listener_->path() : std::string();
}

void ExtensionXPCServer::ping(PingReply reply) {
    reply(true);
}

void ExtensionXPCServer::fetchEvents(std::uint64_t sinceToken, EventsReply reply) {
    auto result = collector_.events(sinceToken);
    reply(kit::DTOCoding::encode(result.events), result.token);
}

void ExtensionXPCServer::fetchStats(StatsReply reply) {
    reply(kit::DTOCoding::encode(collector_.snapshot()));
}

std::string ExtensionXPCServer::handleLine(std::string_view line) {
    auto request = kit::DTOCoding::parse(line);
    if (!request) {
        return Wire::errorLine("the request is not JSON", nullptr);
    }
    if (!request->is_object()) {
        return Wire::errorLine("the request is not a JSON object", nullptr);
    }
    const json* id = nullptr;
    if (auto it = request->find("id"); it != request->end()) {
        id = &*it;
    }
    auto selector = request->find("selector");
    if (selector == request->end() || !selector->is_string()) {
        return Wire::errorLine("the request names no selector", id);
    }
    json arguments = json::array();
    if (auto it = request->find("arguments"); it != request->end() && !it->is_null()) {
        if (!it->is_array()) {
            return Wire::errorLine("\"arguments\" is not an array", id);
        }
        arguments = *it;
    }
    const auto name = selector->get<std::string>();

    std::string reply;
    if (name == Wire::pingSelector) {
        if (!arguments.empty()) {
            return Wire::errorLine(name + " takes no arguments", id);
        }
        ping([&](bool alive) { reply = Wire::replyLine(alive ? "[true]" : "[false]", id); });
    } else if (name == Wire::fetchEventsSelector) {
        if (arguments.size() != 1 || !arguments[0].is_number_unsigned()) {
            return Wire::errorLine(name + " takes one argument, a token from 0 to 2^64-1", id);
        }
        fetchEvents(arguments[0].get<std::uint64_t>(),
                    [&](std::optional<std::string> data, std::uint64_t token) {
                        reply = Wire::replyLine(values(data, token), id);
                    });
    } else if (name == Wire::fetchStatsSelector) {
        if (!arguments.empty()) {
            return Wire::errorLine(name + " takes no arguments", id);
        }
        fetchStats(
            [&](std::optional<std::string> data) { reply = Wire::replyLine(values(data), id); });
    } else {
        return Wire::errorLine("unknown selector \"" + name + "\"", id);
    }
    return reply;
}

} // namespace veltrane::core
