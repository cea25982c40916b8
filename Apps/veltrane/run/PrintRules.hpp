#pragma once

#include "run/ExtensionProcess.hpp"

#include <string>

namespace veltrane::app {

// Prints the netfilter rules, policy routes and marks that `veltrane run`
// installs with these options and this profile, as nft and ip show them, and
// changes nothing: they are installed for real, by the extension itself, in
// a network namespace made for the purpose and gone when this returns.
// The exit status for the command.
int printRules(const ExtensionProcess::Options& options, const std::string& profile, bool json);

} // namespace veltrane::app
