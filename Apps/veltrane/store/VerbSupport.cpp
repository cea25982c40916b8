#include "VerbSupport.hpp"

#include "../Commands.hpp"
#include "VeltraneKit/Error.hpp"
#include "VeltraneKit/JSONText.hpp"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <nlohmann/json.hpp>

namespace veltrane::app::store {

void printJSON(const nlohmann::json& value) {
    std::cout << kit::dumpEscapingSlashes(value, -1) << "\n";
}

int fail(const std::string& why, bool json, int status) {
    std::cerr << "veltrane: " << why << "\n";
    if (json) {
        printJSON({{"succeeded", false}, {"text", why}});
    }
    return status;
}

int finish(const kit::AutomationReply& reply, bool json,
           const std::function<void(const nlohmann::json&)>& human, const std::string& fallback) {
    if (!reply.succeeded) {
        return fail(reply.text.empty() ? "the operation failed" : reply.text, json,
                    exitUnavailable);
    }
    if (!reply.data) {
        if (json) {
            printJSON({{"succeeded", true}, {"text", reply.text}});
        } else {
            std::cout << (reply.text.empty() ? fallback : reply.text) << "\n";
        }
        return exitOK;
    }
    auto data = nlohmann::json::parse(*reply.data, nullptr, false);
    if (data.is_discarded()) {
        return fail("the answer is not JSON", json, exitUnavailable);
    }
    if (json) {
        printJSON(data);
    } else if (human) {
        human(data);
    } else {
        std::cout << data.dump(2) << "\n";
    }
    return exitOK;
}

std::optional<std::string> readInput(const std::string& path) {
    if (path == "-") {
        std::string text((std::istreambuf_iterator<char>(std::cin)), {});
        if (std::cin.bad()) {
            std::cerr << "veltrane: cannot read standard input\n";
            return std::nullopt;
        }
        return text;
    }
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        std::cerr << "veltrane: " << path << ": " << std::strerror(errno) << "\n";
        return std::nullopt;
    }
    std::string text((std::istreambuf_iterator<char>(in)), {});
    if (in.bad()) {
        std::cerr << "veltrane: " << path << ": cannot read the file\n";
        return std::nullopt;
    }
    return text;
}

int withAutomation(bool json, const std::function<int(AutomationAccess&)>& work) {
    try {
        const auto access = openAutomation();
        return work(*access);
    } catch (const kit::Error& error) {
        return fail(error.localizedDescription(), json, exitUnavailable);
    } catch (const std::exception& error) {
        return fail(error.what(), json, exitUnavailable);
    }
}

std::string joined(const std::vector<std::string>& items) {
    std::string out;
    for (const auto& item : items) {
        out += (out.empty() ? "" : ", ") + item;
    }
    return out;
}

} // namespace veltrane::app::store
