#pragma once

#include <string_view>

namespace veltrane::kit::SharedPaths {

inline constexpr std::string_view appGroupID = "group.com.veltrane.shared";
inline constexpr std::string_view automationMachService = "com.veltrane.automation";
inline constexpr std::string_view extensionMachService = "group.com.veltrane.shared.xpc";

} // namespace veltrane::kit::SharedPaths
