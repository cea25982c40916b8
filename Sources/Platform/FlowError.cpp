#include "Platform/FlowError.hpp"

namespace veltrane::platform {

FlowError FlowError::from(const NWError& error) {
    return FlowError{error.domainName(), error.code, error.localizedDescription()};
}

FlowError FlowError::posix(int errnoValue) {
    return from(NWError::posix(errnoValue));
}

FlowError NEAppProxyError::make(Code code) {
    const char* text = "The flow failed";
    switch (code) {
    case Code::notConnected:
        text = "The flow is not connected";
        break;
    case Code::peerReset:
        text = "The flow was reset by the peer";
        break;
    case Code::hostUnreachable:
        text = "The remote host is unreachable";
        break;
    case Code::invalidArgument:
        text = "An argument passed to the flow was invalid";
        break;
    case Code::aborted:
        text = "The flow was aborted";
        break;
    case Code::refused:
        text = "The flow was refused";
        break;
    case Code::internal:
        text = "The flow host failed internally";
        break;
    }
    return FlowError{errorDomain, static_cast<int>(code), text};
}

bool isOrderlyEnd(const FlowError& error) {
    return error.domain == NEAppProxyError::errorDomain &&
           error.code == static_cast<int>(NEAppProxyError::Code::notConnected);
}

bool isOrderlyEnd(const std::optional<FlowError>& error) {
    return !error || isOrderlyEnd(*error);
}

} // namespace veltrane::platform
