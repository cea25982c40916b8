#pragma once

#include "ExtensionCore/Provider/TransparentProxyProvider.hpp"

namespace veltrane {

// The principal class the flow host runs. All behaviour is the data path's.
class VeltraneProvider final : public core::TransparentProxyProvider {
public:
    using TransparentProxyProvider::TransparentProxyProvider;
};

} // namespace veltrane
