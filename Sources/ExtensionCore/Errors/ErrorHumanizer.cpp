#include "ExtensionCore/Errors/ErrorHumanizer.hpp"

#include "ExtensionCore/Clients/HTTPProxyError.hpp"
#include "ExtensionCore/Clients/SOCKSError.hpp"
#include "ExtensionCore/Errors/ErrorConversion.hpp"
#include "VeltraneKit/Localize.hpp"

#include <cerrno>
#include <optional>
#include <string_view>

namespace veltrane::core::ErrorHumanizer {

namespace {

bool isPOSIXDomain(std::string_view domain) {
    return domain == "POSIX" || domain == "NSPOSIXErrorDomain";
}

// By name: the values are this platform's errno table.
std::optional<std::string> posixAdvice(int code) {
    switch (code) {
    case ENETUNREACH:
    case EHOSTUNREACH:
        return kit::RL("网络不可达 — 检查网络连接");
    case ETIMEDOUT:
        return kit::RL("连接超时 — 代理没有响应");
    case ECONNREFUSED:
        return kit::RL("连接被拒绝 — 代理没在监听这个端口");
    default:
        return std::nullopt;
    }
}

std::optional<std::string> socksAdvice(int code) {
    using Case = SOCKSError::Case;
    switch (static_cast<Case>(code)) {
    case Case::connectionFailed:
        return kit::RL("连不上代理服务器 — 它可能没在运行，或地址端口填错了");
    case Case::unsupportedAuth:
        return kit::RL("代理要求的认证方式不支持");
    case Case::requestRejected:
        return kit::RL("代理拒绝了这个连接 — 目标可能被代理端策略挡住了");
    case Case::handshakeFailed:
    case Case::shortRead:
        return kit::RL("代理握手异常 — 对端可能不是 SOCKS5 代理（端口填错？）");
    case Case::authRequired:
    case Case::authFailed:
        return kit::RL("代理认证失败 — 检查用户名和密码");
    case Case::valueTooLong:
        // Its own text already says which configured value to shorten.
        return std::nullopt;
    }
    return std::nullopt;
}

} // namespace

std::string humanize(const platform::FlowError& error) {
    try {
        if (error.domain == SOCKSError::errorDomain) {
            if (auto advice = socksAdvice(error.code)) {
                return *advice;
            }
            return error.text;
        }
        if (error.domain == HTTPProxyError::errorDomain) {
            return error.text.empty() ? kit::RL("代理连接失败") : error.text;
        }
        if (isPOSIXDomain(error.domain)) {
            if (auto advice = posixAdvice(error.code)) {
                return *advice;
            }
        }
        return error.text;
    } catch (...) {
        return error.text;
    }
}

std::string humanize(const std::exception& error) {
    try {
        return humanize(flowError(error));
    } catch (...) {
        return "error";
    }
}

std::string humanize(const std::exception_ptr& error) {
    if (!error) {
        return {};
    }
    try {
        return humanize(flowError(error));
    } catch (...) {
        return "error";
    }
}

std::string humanize(const platform::NWError& error) {
    return humanize(platform::FlowError::from(error));
}

} // namespace veltrane::core::ErrorHumanizer
