#include "ExtensionCore/Clients/HTTPProxyError.hpp"

#include "VeltraneKit/Localize.hpp"

namespace veltrane::core {

HTTPProxyError HTTPProxyError::connectionFailed(std::string reason) {
    HTTPProxyError error(Case::connectionFailed);
    error.reason_ = std::move(reason);
    return error;
}

HTTPProxyError HTTPProxyError::rejected(std::int64_t status, std::string reason) {
    HTTPProxyError error(Case::rejected);
    error.status_ = status;
    error.reason_ = std::move(reason);
    return error;
}

HTTPProxyError HTTPProxyError::malformedResponse() {
    return HTTPProxyError(Case::malformedResponse);
}

std::string HTTPProxyError::errorDescription() const {
    switch (kind_) {
    case Case::connectionFailed:
        return kit::RL("无法连接代理：%@", {reason_});
    case Case::rejected:
        // The status alone decides: a 407 reads as a wrong password even
        // when no credentials were sent.
        if (status_ == 407) {
            return kit::RL("代理认证失败（用户名或密码可能不对）");
        }
        return kit::RL("代理拒绝了连接（HTTP %lld %@）", {status_, reason_});
    case Case::malformedResponse:
        return kit::RL("代理返回了无法解析的响应");
    }
    return kit::RL("代理返回了无法解析的响应");
}

std::string HTTPProxyError::domain() const {
    return errorDomain;
}
int HTTPProxyError::code() const {
    return static_cast<int>(kind_);
}
std::string HTTPProxyError::localizedDescription() const {
    return errorDescription();
}

} // namespace veltrane::core
