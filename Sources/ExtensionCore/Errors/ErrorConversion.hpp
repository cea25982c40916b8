#pragma once

#include "Platform/FlowError.hpp"

#include <exception>

namespace veltrane::core {

// An error in the generic form in which it crosses the flow host boundary:
// a component's error keeps its domain, code and localized text; a
// connection service error its own domain, code and text; any other
// exception becomes its what() in the domain "veltrane".
platform::FlowError flowError(const std::exception& error);
platform::FlowError flowError(const std::exception_ptr& error);

} // namespace veltrane::core
