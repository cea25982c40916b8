#pragma once

#include <exception>
#include <string>

namespace veltrane::kit {

// Base of every error a user may see. Each component has one error type that
// derives from it and carries its payload; what() is the localized text.
class Error : public std::exception {
public:
    virtual std::string domain() const = 0;
    virtual int code() const = 0;
    virtual std::string localizedDescription() const = 0;

    const char* what() const noexcept override;

private:
    mutable std::string whatCache_;
};

} // namespace veltrane::kit
