#pragma once

#include "ExtensionCore/Provider/ProcessLookup.hpp"
#include "Platform/NEFlowMetaData.hpp"
#include "VeltraneKit/AppIdentity.hpp"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

namespace veltrane::core {

// The process table as identity() asks it; tests answer for processes that
// do not exist.
struct ProcessLookups {
    std::function<std::optional<std::string>(std::int32_t)> path = ProcessLookup::path;
    // Empty when the machine cannot tell which process another works for.
    std::function<std::int32_t(std::int32_t)> responsiblePID = ProcessLookup::responsiblePIDFn();
};

// The application behind a flow, from what the flow host reports and from the
// process table. Never fails: what cannot be found stays absent. May run on
// any thread.
kit::AppIdentity identity(const platform::NEFlowMetaData& metaData);
kit::AppIdentity identity(const platform::NEFlowMetaData& metaData, const ProcessLookups& lookups);

} // namespace veltrane::core
