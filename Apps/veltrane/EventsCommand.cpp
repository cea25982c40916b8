#include "ControlCommands.hpp"
#include "VeltraneKit/ConnectionQueryDTO.hpp"
#include "VeltraneKit/DTOCoding.hpp"
#include "VeltraneKit/EventRingBuffer.hpp"

#include <chrono>
#include <cstdio>
#include <iostream>
#include <limits>
#include <memory>
#include <nlohmann/json.hpp>
#include <sstream>
#include <thread>

namespace veltrane::app {
namespace {

using kit::ConnectionEvent;
using kit::ExtensionControlError;

struct EventsOptions {
    std::string socket;
    bool json = false;
    bool follow = false;
    std::string app;
    std::string host;
    std::int64_t sinceMinutes = 0;
    std::int64_t limit = kit::ConnectionQueryDTO::defaultLimit;
    double interval = 1.0;
    // Which of the optional filters were given.
    bool hasApp = false, hasHost = false, hasSince = false;
};

std::string describe(const ConnectionEvent& e) {
    std::ostringstream line;
    line << kit::DTOCoding::formatDate(e.date) << "  ";
    const std::string phase(kit::rawValue(e.phase));
    line << phase << std::string(phase.size() < 7 ? 7 - phase.size() : 0, ' ') << "  ";
    line << e.app;
    if (e.responsibleApp) {
        line << " (for " << *e.responsibleApp << ")";
    }
    line << "  " << (e.host.empty() ? "-" : e.host) << ":" << e.port << "/"
         << kit::rawValue(e.transport) << "  " << e.route;
    if (e.ruleName) {
        line << "  rule \"" << *e.ruleName << "\"";
    }
    if (e.phase == ConnectionEvent::Phase::close || e.phase == ConnectionEvent::Phase::failed) {
        char lifetime[32];
        std::snprintf(lifetime, sizeof lifetime, "%.1f s", e.lifetime);
        line << "  sent " << control::formatBytes(e.bytesSent) << ", received "
             << control::formatBytes(e.bytesReceived) << " in " << lifetime;
    }
    if (e.errorDescription) {
        line << "  error: " << *e.errorDescription;
    }
    return line.str();
}

kit::ConnectionQueryDTO queryOf(const EventsOptions& options) {
    kit::ConnectionQueryDTO query;
    if (options.hasApp) {
        query.app = options.app;
    }
    if (options.hasHost) {
        query.host = options.host;
    }
    if (options.hasSince) {
        query.sinceMinutes = options.sinceMinutes;
    }
    query.limit = options.limit;
    return query;
}

// The query's filters over events the extension handed out, oldest first.
std::vector<ConnectionEvent> selectEvents(std::vector<ConnectionEvent> events,
                                          const kit::ConnectionQueryDTO& query,
                                          std::int64_t limit) {
    return kit::EventRingBuffer::filter(std::move(events), query.app, query.host,
                                        query.since(std::chrono::system_clock::now()), limit);
}

void print(const std::vector<ConnectionEvent>& events, const EventsOptions& options) {
    if (options.json && !options.follow) {
        // One document: the array, as the extension itself encodes it.
        auto text = kit::DTOCoding::encode(events);
        std::cout << (text ? *text : std::string("[]")) << "\n";
    } else {
        for (const auto& event : events) {
            if (options.json) {
                std::cout << kit::DTOCoding::encode(event).value_or("{}") << "\n";
            } else {
                std::cout << describe(event) << "\n";
            }
        }
    }
    std::cout.flush();
}

int runEvents(const EventsOptions& options) {
    auto client = control::connect(options.socket);
    if (!client) {
        return exitUnavailable;
    }
    const auto query = queryOf(options);
    try {
        auto fetched = client->fetchEvents(0);
        if (!fetched.events) {
            std::cerr << "veltrane: the extension could not encode its events\n";
        }
        print(selectEvents(fetched.events.value_or(std::vector<ConnectionEvent>{}), query,
                           query.effectiveLimit()),
              options);
        if (!options.follow) {
            return exitOK;
        }
        std::uint64_t token = fetched.token;
        const auto pause = std::chrono::duration_cast<std::chrono::milliseconds>(
            std::chrono::duration<double>(options.interval));
        for (;;) {
            std::this_thread::sleep_for(pause);
            try {
                fetched = client->fetchEvents(token);
            } catch (const ExtensionControlError& error) {
                if (error.kind() != ExtensionControlError::Kind::connectionLost) {
                    throw;
                }
                // The extension may have restarted: one new connection
                // decides; nothing there ends the command.
                fetched = client->fetchEvents(token);
            }
            if (fetched.token < token) {
                std::cerr << "veltrane: the extension restarted; following its new events\n";
            }
            token = fetched.token;
            if (!fetched.events) {
                std::cerr << "veltrane: the extension could not encode some events\n";
                continue;
            }
            // New events only pass the app and host filters; the limit was
            // for what came before.
            print(selectEvents(std::move(*fetched.events), query,
                               std::numeric_limits<std::int64_t>::max()),
                  options);
        }
    } catch (const ExtensionControlError& error) {
        std::cerr << "veltrane: " << error.localizedDescription() << "\n";
        return exitUnavailable;
    }
}

} // namespace

void addEventsCommand(CLI::App& app, CommandRunner& runner) {
    auto options = std::make_shared<EventsOptions>();
    auto* command = app.add_subcommand(
        "events", "Show the running extension's recent connection events, oldest first");
    command
        ->add_option("--socket", options->socket,
                     "Control socket of the extension (default: the runtime directory's, "
                     "then the system one)")
        ->type_name("PATH");
    command->add_flag("--json", options->json,
                      "Print JSON: one array, or with --follow one event object per line");
    command->add_flag("--follow,-f", options->follow,
                      "Keep running and print new events as they come (Ctrl-C ends it)");
    auto* appOption =
        command
            ->add_option("--app", options->app,
                         "Only events whose application name or bundle id contains TEXT (any case)")
            ->type_name("TEXT");
    auto* hostOption =
        command
            ->add_option("--host", options->host,
                         "Only events whose destination host contains TEXT (any case)")
            ->type_name("TEXT");
    auto* sinceOption =
        command
            ->add_option(
                "--since", options->sinceMinutes,
                "Only events of the last MINUTES minutes (a negative count matches nothing)")
            ->type_name("MINUTES");
    command
        ->add_option("--limit", options->limit,
                     "At most N of the newest matching events (default 500); 0 or a negative "
                     "N shows none. With --follow it limits only the events shown at start")
        ->type_name("N");
    command
        ->add_option("--interval", options->interval,
                     "Seconds between two polls with --follow (default 1)")
        ->type_name("SECONDS")
        ->check(CLI::Range(0.05, 3600.0));
    command->footer("The extension hands out its newest 2000 events; the filters apply to those. "
                    "Exits with status 1 when no extension is running.");
    command->callback([options, appOption, hostOption, sinceOption, &runner] {
        options->hasApp = appOption->count() > 0;
        options->hasHost = hostOption->count() > 0;
        options->hasSince = sinceOption->count() > 0;
        runner = [options] { return runEvents(*options); };
    });
}

} // namespace veltrane::app
