#pragma once

#include <memory>
#include <spdlog/spdlog.h>
#include <utility>

namespace veltrane::platform {

// The one logger of the data path: subsystem "com.veltrane", category
// "provider", at info and error, written to stderr (the journal under
// systemd). Safe from any thread.
std::shared_ptr<spdlog::logger> providerLog();

namespace log {

template <class... Args>
void info(spdlog::format_string_t<Args...> format, Args&&... args) {
    providerLog()->info(format, std::forward<Args>(args)...);
}

template <class... Args>
void error(spdlog::format_string_t<Args...> format, Args&&... args) {
    providerLog()->error(format, std::forward<Args>(args)...);
}

} // namespace log

} // namespace veltrane::platform
