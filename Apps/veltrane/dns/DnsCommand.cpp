#include "Commands.hpp"
#include "Platform/RuntimePaths.hpp"
#include "VeltraneKit/FakeDNS/FakeDNSState.hpp"
#include "VeltraneKit/ProfileStore/StoreFiles.hpp"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>

namespace veltrane::app {
namespace {

struct DnsOptions {
    std::string file;
    bool json = false;
};

bool alive(std::int64_t pid) {
    return pid > 0 && (::kill(static_cast<pid_t>(pid), 0) == 0 || errno == EPERM);
}

int show(const DnsOptions& options) {
    std::string path = options.file;
    if (path.empty()) {
        for (const auto& candidate :
             platform::RuntimePaths::socketCandidates(kit::FakeDNSState::fileName)) {
            std::error_code ignored;
            if (std::filesystem::exists(candidate, ignored)) {
                path = candidate;
                break;
            }
        }
    }
    std::optional<kit::FakeDNSState> state;
    if (!path.empty()) {
        std::string text;
        try {
            text = kit::StoreFiles::readFile(path);
        } catch (const std::exception& error) {
            std::cerr << "veltrane dns: " << error.what() << "\n";
            return exitUnavailable;
        }
        std::string whyNot;
        state = kit::FakeDNSState::decode(text, whyNot);
        if (!state) {
            std::cerr << "veltrane dns: " << path << " is no fake-address table: " << whyNot
                      << "\n";
            return exitBadInput;
        }
    }
    const bool running = state && alive(state->pid);
    const char* mode = !running              ? "off"
                       : state->answering    ? "answering"
                                             : "capturing";
    const auto table = state ? state->tableAt(std::time(nullptr)) : kit::FakeIPAllocator::Table{};
    if (options.json) {
        nlohmann::json mappings = nlohmann::json::array();
        for (const auto& mapping : table.mappings) {
            mappings.push_back({{"address", kit::FakeIPAllocator::addressOf(mapping.offset)},
                                {"host", mapping.host},
                                {"secondsLeft", static_cast<std::int64_t>(mapping.secondsLeft)}});
        }
        nlohmann::json out = {{"mode", mode},
                              {"resolver", state ? state->resolver : std::string()},
                              {"mappings", std::move(mappings)}};
        if (!path.empty()) {
            out["file"] = path;
        }
        std::cout << out.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) << "\n";
        return exitOK;
    }
    if (std::string(mode) == "answering") {
        std::cout << "mode      fake addresses: A queries are answered from 198.18.0.0/15\n";
    } else if (running) {
        std::cout << "mode      queries captured but passed on: the active profile's "
                     "dns.resolveViaProxy is off\n";
    } else {
        std::cout << "mode      off: no `veltrane run --fake-dns` is running";
        if (!table.mappings.empty()) {
            std::cout << "; the addresses below are kept for its next start";
        }
        std::cout << "\n";
    }
    const std::string resolver = state ? state->resolver : std::string();
    std::cout << "resolver  " << (resolver.empty() ? "none seen yet" : resolver) << "\n";
    std::cout << "mappings  " << table.mappings.size() << "\n";
    if (table.mappings.empty()) {
        return exitOK;
    }
    std::size_t width = 4;
    for (const auto& mapping : table.mappings) {
        width = std::max(width, mapping.host.size());
    }
    std::printf("\n%-15s  %-*s  %s\n", "ADDRESS", static_cast<int>(width), "HOST", "EXPIRES IN");
    for (const auto& mapping : table.mappings) {
        const auto left = static_cast<long long>(mapping.secondsLeft);
        std::printf("%-15s  %-*s  %s\n", kit::FakeIPAllocator::addressOf(mapping.offset).c_str(),
                    static_cast<int>(width), mapping.host.c_str(),
                    left > 0 ? (std::to_string(left) + " s").c_str() : "expired (still answered)");
    }
    return exitOK;
}

} // namespace

void addDnsCommand(CLI::App& app, CommandRunner& runner) {
    auto options = std::make_shared<DnsOptions>();
    auto* verb = app.add_subcommand(
        "dns", "Show the fake-address DNS of `veltrane run --fake-dns`: whether A queries are "
               "answered with fake addresses, the resolver that other queries and our own "
               "look-ups go to, and every address handed out with its name. The table is kept "
               "in the runtime directory (readable by its owner only) and survives a restart.");
    verb->add_flag("--json", options->json, "As JSON");
    verb->add_option("--file", options->file,
                     "Read this table instead of the running system's");
    verb->callback([&runner, options] { runner = [options] { return show(*options); }; });
}

} // namespace veltrane::app
