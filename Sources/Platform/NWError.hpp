#pragma once

#include <string>

namespace veltrane::platform {

// A failure of the connection service: a domain, a code in that domain and
// a readable text. POSIX codes are this machine's errno values.
struct NWError {
    enum class Domain { posix, dns };

    Domain domain = Domain::posix;
    int code = 0;
    std::string text;

    static NWError posix(int errnoValue); // text from strerror
    static NWError dns(int gaiCode);      // text from gai_strerror

    std::string domainName() const; // "POSIX" or "DNS"
    std::string localizedDescription() const;

    friend bool operator==(const NWError&, const NWError&) = default;
};

} // namespace veltrane::platform
