#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

// What `veltrane doctor` looks at, one finding per check.
namespace veltrane::app::doctor {

struct Finding {
    enum class Status { ok, warn, fail };

    std::string check;
    Status status = Status::ok;
    std::string detail; // what was found, or what is wrong
    std::string fix;    // how to put it right; empty when ok

    static Finding good(std::string check, std::string detail) {
        return {std::move(check), Status::ok, std::move(detail), {}};
    }
    static Finding warning(std::string check, std::string detail, std::string fix) {
        return {std::move(check), Status::warn, std::move(detail), std::move(fix)};
    }
    static Finding failure(std::string check, std::string detail, std::string fix) {
        return {std::move(check), Status::fail, std::move(detail), std::move(fix)};
    }
};

// The automation service and the extension's control socket answer.
std::vector<Finding> runningSystemChecks();
// Root, or CAP_NET_ADMIN in the effective set.
Finding privilegeCheck();
// Netfilter queue, TPROXY, socket owner tables (sock_diag) and eBPF.
std::vector<Finding> kernelChecks();
// Chains of other tables that see new connections before ours.
Finding otherTablesCheck();
// The chains in `nft -j list chains` output that run before our tables on
// the output path, described one each; nothing for text that does not read.
std::vector<std::string> chainsBeforeOurs(const nlohmann::json& ruleset);
// resolv.conf and the hosts line of nsswitch.conf.
std::vector<Finding> nameResolutionChecks();
// The active profile reads, and each of its proxies accepts connections.
std::vector<Finding> profileChecks();

} // namespace veltrane::app::doctor
