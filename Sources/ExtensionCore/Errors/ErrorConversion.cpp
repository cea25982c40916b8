#include "ExtensionCore/Errors/ErrorConversion.hpp"

#include "ExtensionCore/Clients/NetworkError.hpp"
#include "VeltraneKit/Error.hpp"

#include <system_error>

namespace veltrane::core {

platform::FlowError flowError(const std::exception& error) {
    if (auto* network = dynamic_cast<const NetworkError*>(&error)) {
        return platform::FlowError::from(network->nwError());
    }
    if (auto* component = dynamic_cast<const kit::Error*>(&error)) {
        return {component->domain(), component->code(), component->localizedDescription()};
    }
    if (auto* system = dynamic_cast<const std::system_error*>(&error)) {
        if (system->code().category() == std::generic_category() ||
            system->code().category() == std::system_category()) {
            return platform::FlowError::posix(system->code().value());
        }
    }
    return {"veltrane", 0, error.what()};
}

platform::FlowError flowError(const std::exception_ptr& error) {
    try {
        std::rethrow_exception(error);
    } catch (const std::exception& e) {
        return flowError(e);
    } catch (...) {
        return {"veltrane", 0, "unknown error"};
    }
}

} // namespace veltrane::core
