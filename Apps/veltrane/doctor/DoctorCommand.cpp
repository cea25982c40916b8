// "doctor": one line per check of what routing needs, with how to fix what
// is wrong.
#include "Commands.hpp"
#include "doctor/DoctorCheck.hpp"
#include "store/VerbSupport.hpp"

#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>

namespace veltrane::app {
namespace {

using doctor::Finding;

const char* statusWord(Finding::Status status, bool json) {
    switch (status) {
    case Finding::Status::ok:
        return json ? "ok" : "ok  ";
    case Finding::Status::warn:
        return "warn";
    case Finding::Status::fail:
        return json ? "fail" : "FAIL";
    }
    return "?";
}

int diagnose(bool json) {
    std::vector<Finding> findings = doctor::runningSystemChecks();
    findings.push_back(doctor::privilegeCheck());
    for (auto&& group : {doctor::kernelChecks(), std::vector{doctor::otherTablesCheck()},
                         doctor::nameResolutionChecks(), doctor::profileChecks()}) {
        findings.insert(findings.end(), group.begin(), group.end());
    }
    bool failed = false;
    nlohmann::json document = nlohmann::json::array();
    for (const auto& finding : findings) {
        failed = failed || finding.status == Finding::Status::fail;
        if (json) {
            document.push_back({{"check", finding.check},
                                {"status", statusWord(finding.status, true)},
                                {"detail", finding.detail},
                                {"fix", finding.fix}});
            continue;
        }
        std::cout << statusWord(finding.status, false) << " " << finding.check << ": "
                  << finding.detail;
        if (!finding.fix.empty()) {
            std::cout << " — " << finding.fix;
        }
        std::cout << "\n";
    }
    if (json) {
        store::printJSON(document);
    }
    return failed ? exitUnavailable : exitOK;
}

} // namespace

void addDoctorCommand(CLI::App& app, CommandRunner& runner) {
    auto json = std::make_shared<bool>(false);
    auto* doctor = app.add_subcommand(
        "doctor", "Check what routing needs: the running system, privileges, kernel features, "
                  "other programs' tables, the DNS set-up, the active profile and its proxies");
    doctor->add_flag("--json", *json,
                     "Print the checks as a JSON array of {check, status, detail, fix}");
    doctor->footer("Exit status: 0 when no check fails (warnings allowed), 1 otherwise.");
    doctor->callback([json, &runner] { runner = [json] { return diagnose(*json); }; });
}

} // namespace veltrane::app
