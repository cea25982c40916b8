#pragma once

#include "VeltraneKit/AutomationProtocol/AutomationClient.hpp"

#include <memory>
#include <string>

namespace veltrane::app {

// A connected client of `veltrane run`'s automation service: at the socket
// given, or else at the first of AutomationClient::socketCandidates() where
// one answers. Throws the AutomationClientError that says most: a socket
// that is there but refuses us before the plain "not running", which then
// names every place that was tried.
std::unique_ptr<kit::AutomationClient> connectAutomation(const std::string& socketOption);

} // namespace veltrane::app
