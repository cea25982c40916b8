#pragma once

#include "Platform/NWError.hpp"

#include <optional>
#include <string>

namespace veltrane::platform {

// How errors cross the flow host boundary: as a plain value in their generic
// form, a domain name, a code in that domain and a readable text.
//
// - Completions of flow operations take `std::optional<FlowError>`; no value
//   means success.
// - closeRead/closeWrite take one too; no value is an orderly end, a value
//   reaches the application as its connection's failure.
// - Errors of the connection service cross as FlowError::from(NWError), and
//   errors of other components as {their domain, code, localized text}, so
//   whoever sorts endings into orderly and failed ones looks only at domain
//   and code (see isOrderlyEnd).
struct FlowError {
    std::string domain;
    int code = 0;
    std::string text;

    // Same domain name, code and text as the connection service reports.
    static FlowError from(const NWError& error);
    // An error of the POSIX domain; `errnoValue` is this machine's errno.
    static FlowError posix(int errnoValue);

    const std::string& localizedDescription() const { return text; }

    friend bool operator==(const FlowError&, const FlowError&) = default;
};

// Errors that the flow host reports about a flow.
struct NEAppProxyError {
    static constexpr const char* errorDomain = "NEAppProxyErrorDomain";

    enum class Code : int {
        notConnected = 1, // the flow is not connected: an orderly end
        peerReset = 2,
        hostUnreachable = 3,
        invalidArgument = 4,
        aborted = 5,
        refused = 6,
        internal = 7,
    };

    static FlowError make(Code code);
    static FlowError notConnected() { return make(Code::notConnected); }
};

// True for an error of NEAppProxyErrorDomain with code 1: the application's
// side is gone, which every flow handler takes as an orderly end.
bool isOrderlyEnd(const FlowError& error);
// No error at all is an orderly end too.
bool isOrderlyEnd(const std::optional<FlowError>& error);

} // namespace veltrane::platform
