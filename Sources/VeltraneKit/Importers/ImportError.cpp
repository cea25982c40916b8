#include "VeltraneKit/Importers/ImportError.hpp"

#include "VeltraneKit/Localize.hpp"

#include <utility>

namespace veltrane::kit {

ImportError::ImportError(Kind kind, std::string detail) : kind_(kind), detail_(std::move(detail)) {}

ImportError ImportError::malformed(std::string detail) {
    return ImportError(Kind::malformed, std::move(detail));
}

ImportError ImportError::unrecognizedFormat() {
    return ImportError(Kind::unrecognizedFormat, {});
}

std::string ImportError::localizedDescription() const {
    switch (kind_) {
    case Kind::malformed:
        return RL("配置文件内容异常：%@", {detail_});
    case Kind::unrecognizedFormat:
        break;
    }
    return RL("无法识别的配置格式");
}

} // namespace veltrane::kit
