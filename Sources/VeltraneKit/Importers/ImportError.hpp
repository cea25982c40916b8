#pragma once

#include "VeltraneKit/Error.hpp"

#include <string>

namespace veltrane::kit {

// Why another tool's configuration could not be imported. A failed read of the
// file itself is not one of these: it reaches the caller as the
// std::filesystem::filesystem_error of the read.
class ImportError final : public Error {
public:
    enum class Kind {
        malformed,         // the document does not read at all; `detail` says why
        unrecognizedFormat // it reads, but is not a format any adapter knows
    };

    static ImportError malformed(std::string detail);
    static ImportError unrecognizedFormat();

    Kind kind() const { return kind_; }
    // The payload of `malformed`; empty for `unrecognizedFormat`.
    const std::string& detail() const { return detail_; }

    std::string domain() const override { return "ImportError"; }
    int code() const override { return static_cast<int>(kind_); }
    std::string localizedDescription() const override;

private:
    ImportError(Kind kind, std::string detail);

    Kind kind_;
    std::string detail_;
};

} // namespace veltrane::kit
