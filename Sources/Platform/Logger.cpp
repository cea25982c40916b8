#include "Platform/Logger.hpp"

#include <spdlog/sinks/stdout_sinks.h>

namespace veltrane::platform {

namespace {

constexpr const char* loggerName = "com.veltrane/provider";

std::shared_ptr<spdlog::logger> makeProviderLog() {
    if (auto existing = spdlog::get(loggerName)) {
        return existing;
    }
    auto logger = std::make_shared<spdlog::logger>(
        loggerName, std::make_shared<spdlog::sinks::stderr_sink_mt>());
    // The logger name carries subsystem and category.
    logger->set_pattern("%Y-%m-%d %H:%M:%S.%e [%n] %l: %v");
    logger->set_level(spdlog::level::info);
    logger->flush_on(spdlog::level::info);
    spdlog::register_logger(logger);
    return logger;
}

} // namespace

std::shared_ptr<spdlog::logger> providerLog() {
    static const std::shared_ptr<spdlog::logger> logger = makeProviderLog();
    return logger;
}

} // namespace veltrane::platform
