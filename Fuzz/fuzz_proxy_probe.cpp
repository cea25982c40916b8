// Feeds arbitrary bytes to the readers of the local proxy scanner: the two
// probe replies, a /proc/net/tcp{,6} line and an fdinfo file.
#include "VeltraneKit/Discovery/ProcTables.hpp"
#include "VeltraneKit/Discovery/ProxyProbeReplies.hpp"

#include <cstdlib>
#include <span>
#include <string_view>

namespace replies = veltrane::kit::ProxyProbeReplies;
namespace tables = veltrane::kit::ProcTables;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::span<const std::uint8_t> bytes(data, size);

    auto method = replies::socks5ChosenMethod(bytes);
    if (replies::isSOCKS5Proxy(bytes) && !(method && (*method == 0 || *method == 2))) {
        std::abort();
    }

    auto status = replies::httpStatusLine(bytes);
    if (status && (!status->starts_with("HTTP/") || status->find("\r\n") != std::string::npos)) {
        std::abort();
    }
    if (replies::isHTTPProxy(bytes) && !status) {
        std::abort();
    }

    std::string_view text(reinterpret_cast<const char*>(data), size);
    for (bool ipv6 : {false, true}) {
        if (auto socket = tables::parseTCPLine(text, ipv6); socket && socket->ipv6 != ipv6) {
            std::abort();
        }
    }
    if (auto name = tables::tunInterfaceName(text); name && name->empty()) {
        std::abort();
    }
    (void)tables::socketInode(text);
    return 0;
}
