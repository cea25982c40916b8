#pragma once

#include "Platform/NWError.hpp"
#include "VeltraneKit/Error.hpp"

namespace veltrane::core {

// A connection service failure carried as a thrown or reported error, keeping
// its domain ("POSIX" or "DNS"), code and text.
class NetworkError : public kit::Error {
public:
    explicit NetworkError(platform::NWError error) : error_(std::move(error)) {}

    const platform::NWError& nwError() const { return error_; }

    std::string domain() const override { return error_.domainName(); }
    int code() const override { return error_.code; }
    std::string localizedDescription() const override { return error_.localizedDescription(); }

private:
    platform::NWError error_;
};

} // namespace veltrane::core
