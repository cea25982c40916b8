#pragma once

#include "Platform/FlowError.hpp"
#include "Platform/NWError.hpp"

#include <exception>
#include <string>

namespace veltrane::core::ErrorHumanizer {

// The one line a user sees for the error that ended a flow. SOCKS5 errors
// become advice by their case; HTTP proxy errors keep their own words; the
// POSIX codes for an unreachable network, a time-out and a refusal get
// advice; everything else keeps its own description. Never fails.
//
// Errors are judged by their generic form (domain and code), so an error
// reads the same whether it is still the thrown client error or has already
// crossed the flow host as a FlowError.
std::string humanize(const platform::FlowError& error);
std::string humanize(const std::exception& error);
std::string humanize(const std::exception_ptr& error);
std::string humanize(const platform::NWError& error);

} // namespace veltrane::core::ErrorHumanizer
