#include "ExtensionCore/Clients/SOCKSError.hpp"

#include "VeltraneKit/Localize.hpp"

#include <cstdio>

namespace veltrane::core {

namespace {

// Lower-case hexadecimal without leading zeros: 5 -> "5", 255 -> "ff".
std::string hex(std::uint8_t value) {
    char text[4];
    std::snprintf(text, sizeof text, "%x", static_cast<unsigned>(value));
    return text;
}

} // namespace

SOCKSError SOCKSError::connectionFailed(std::string reason) {
    SOCKSError error(Case::connectionFailed);
    error.reason_ = std::move(reason);
    return error;
}

SOCKSError SOCKSError::unsupportedAuth(std::uint8_t method) {
    SOCKSError error(Case::unsupportedAuth);
    error.value_ = method;
    return error;
}

SOCKSError SOCKSError::requestRejected(std::uint8_t reply) {
    SOCKSError error(Case::requestRejected);
    error.value_ = reply;
    return error;
}

SOCKSError SOCKSError::handshakeFailed() {
    return SOCKSError(Case::handshakeFailed);
}
SOCKSError SOCKSError::authRequired() {
    return SOCKSError(Case::authRequired);
}
SOCKSError SOCKSError::authFailed() {
    return SOCKSError(Case::authFailed);
}
SOCKSError SOCKSError::shortRead() {
    return SOCKSError(Case::shortRead);
}

SOCKSError SOCKSError::valueTooLong(Field field) {
    SOCKSError error(Case::valueTooLong);
    error.field_ = field;
    return error;
}

std::string SOCKSError::errorDescription() const {
    switch (kind_) {
    case Case::connectionFailed:
        return kit::RL("无法连接代理：%@", {reason_});
    case Case::unsupportedAuth:
        return kit::RL("代理要求不支持的认证方式 (0x%@)", {hex(value_)});
    case Case::requestRejected:
        return kit::RL("代理拒绝了连接请求 (REP=0x%@)", {hex(value_)});
    case Case::handshakeFailed:
        return kit::RL("SOCKS5 握手失败");
    case Case::authRequired:
        return kit::RL("代理要求认证，但未配置用户名密码");
    case Case::authFailed:
        return kit::RL("代理认证失败（用户名或密码可能不对）");
    case Case::shortRead:
        return kit::RL("代理连接意外关闭");
    case Case::valueTooLong:
        switch (field_) {
        case Field::domain:
            return kit::RL("目标域名超过 255 字节，SOCKS5 无法发送");
        case Field::username:
            return kit::RL("代理用户名超过 255 字节，SOCKS5 无法发送");
        case Field::password:
            return kit::RL("代理密码超过 255 字节，SOCKS5 无法发送");
        }
    }
    return kit::RL("SOCKS5 握手失败");
}

std::string SOCKSError::domain() const {
    return errorDomain;
}
int SOCKSError::code() const {
    return static_cast<int>(kind_);
}
std::string SOCKSError::localizedDescription() const {
    return errorDescription();
}

} // namespace veltrane::core
