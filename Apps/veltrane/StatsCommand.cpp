#include "ControlCommands.hpp"
#include "VeltraneKit/DTOCoding.hpp"

#include <algorithm>
#include <cstdio>
#include <iostream>
#include <memory>
#include <vector>

namespace veltrane::app {
namespace {

using kit::ExtensionControlError;

struct StatsOptions {
    std::string socket;
    bool json = false;
};

std::string formatUptime(kit::Timestamp startedAt, kit::Timestamp now) {
    using namespace std::chrono;
    const auto total = std::max<std::int64_t>(duration_cast<seconds>(now - startedAt).count(), 0);
    const auto days = total / 86400, hours = total % 86400 / 3600, minutes = total % 3600 / 60;
    char text[64];
    if (days > 0) {
        std::snprintf(text, sizeof text, "%lldd %02lldh %02lldm", static_cast<long long>(days),
                      static_cast<long long>(hours), static_cast<long long>(minutes));
    } else if (hours > 0) {
        std::snprintf(text, sizeof text, "%lldh %02lldm", static_cast<long long>(hours),
                      static_cast<long long>(minutes));
    } else {
        std::snprintf(text, sizeof text, "%lldm %02llds", static_cast<long long>(minutes),
                      static_cast<long long>(total % 60));
    }
    return text;
}

void printTable(const kit::StatsSnapshot& s) {
    std::cout << "Running since  " << kit::DTOCoding::formatDate(s.startedAt) << " (up "
              << formatUptime(s.startedAt, std::chrono::system_clock::now()) << ")\n";
    std::cout << "Connections    " << s.totalConnections << " total, " << s.activeConnections
              << " active, " << s.failedConnections << " failed, " << s.blockedConnections
              << " blocked\n";
    std::cout << "Traffic        " << control::formatBytes(s.bytesSent) << " sent, "
              << control::formatBytes(s.bytesReceived) << " received\n\n";
    if (s.perApp.empty()) {
        std::cout << "No connection has closed yet.\n";
        return;
    }
    // Busiest applications first.
    std::vector<std::pair<std::string, kit::AppStats>> rows(s.perApp.begin(), s.perApp.end());
    std::stable_sort(rows.begin(), rows.end(), [](const auto& a, const auto& b) {
        return a.second.connections > b.second.connections;
    });
    std::size_t width = std::string("APPLICATION").size();
    for (const auto& row : rows) {
        width = std::max(width, row.first.size());
    }
    std::printf("%-*s  %11s  %10s  %10s\n", static_cast<int>(width), "APPLICATION", "CONNECTIONS",
                "SENT", "RECEIVED");
    for (const auto& [name, app] : rows) {
        std::printf("%-*s  %11llu  %10s  %10s\n", static_cast<int>(width), name.c_str(),
                    static_cast<unsigned long long>(app.connections),
                    control::formatBytes(app.bytesSent).c_str(),
                    control::formatBytes(app.bytesReceived).c_str());
    }
    std::fflush(stdout);
}

int runStats(const StatsOptions& options) {
    auto client = control::connect(options.socket);
    if (!client) {
        return exitUnavailable;
    }
    try {
        const auto stats = client->fetchStats();
        if (!stats) {
            std::cerr << "veltrane: the extension could not encode its statistics\n";
            return exitUnavailable;
        }
        if (options.json) {
            std::cout << kit::DTOCoding::encode(*stats) << "\n";
        } else {
            printTable(*stats);
        }
    } catch (const ExtensionControlError& error) {
        std::cerr << "veltrane: " << error.localizedDescription() << "\n";
        return exitUnavailable;
    }
    return exitOK;
}

} // namespace

void addStatsCommand(CLI::App& app, CommandRunner& runner) {
    auto options = std::make_shared<StatsOptions>();
    auto* command = app.add_subcommand(
        "stats", "Show the running extension's counters: connections, traffic, and per "
                 "application the connections that closed");
    command
        ->add_option("--socket", options->socket,
                     "Control socket of the extension (default: the runtime directory's, "
                     "then the system one)")
        ->type_name("PATH");
    command->add_flag("--json", options->json, "Print the counters as one JSON object");
    command->footer("Exits with status 1 when no extension is running.");
    command->callback([options, &runner] { runner = [options] { return runStats(*options); }; });
}

} // namespace veltrane::app
