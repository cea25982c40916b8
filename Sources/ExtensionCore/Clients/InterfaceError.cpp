#include "ExtensionCore/Clients/InterfaceError.hpp"

#include "VeltraneKit/Localize.hpp"

namespace veltrane::core {

InterfaceError InterfaceError::unavailable(std::string interfaceName) {
    return InterfaceError(Case::unavailable, std::move(interfaceName), {});
}

InterfaceError InterfaceError::connectionFailed(std::string interfaceName, std::string reason) {
    return InterfaceError(Case::connectionFailed, std::move(interfaceName), std::move(reason));
}

std::string InterfaceError::errorDescription() const {
    if (kind_ == Case::unavailable) {
        return kit::RL("网卡「%@」不在了 —— VPN 可能断开了，或重连后换了名字", {interfaceName_});
    }
    return kit::RL("经网卡「%@」连接失败：%@", {interfaceName_, reason_});
}

std::string InterfaceError::domain() const {
    return errorDomain;
}
int InterfaceError::code() const {
    return static_cast<int>(kind_);
}
std::string InterfaceError::localizedDescription() const {
    return errorDescription();
}

} // namespace veltrane::core
