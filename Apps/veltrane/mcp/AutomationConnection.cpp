#include "AutomationConnection.hpp"

#include <optional>
#include <vector>

namespace veltrane::app {

using kit::AutomationClientError;

std::unique_ptr<kit::AutomationClient> connectAutomation(const std::string& socketOption) {
    const std::vector<std::string> paths = socketOption.empty()
                                               ? kit::AutomationClient::socketCandidates()
                                               : std::vector<std::string>{socketOption};
    std::optional<AutomationClientError> firstOtherError;
    for (const auto& path : paths) {
        auto client = std::make_unique<kit::AutomationClient>(path);
        try {
            client->connect();
            return client;
        } catch (const AutomationClientError& error) {
            if (error.kind() != AutomationClientError::Kind::notRunning && !firstOtherError) {
                firstOtherError = error;
            }
        }
    }
    if (firstOtherError) {
        throw *firstOtherError;
    }
    std::string where;
    for (std::size_t i = 0; i < paths.size(); ++i) {
        where += (i == 0 ? "" : " or ") + paths[i];
    }
    throw AutomationClientError(AutomationClientError::Kind::notRunning, where, "");
}

} // namespace veltrane::app
