// Other programs' nftables chains (firewalls, VPN clients, container
// runtimes, iptables-nft) that see a new connection before our tables do:
// one that drops, marks or redirects it there decides it first.
#include "doctor/DoctorCheck.hpp"

#include <cerrno>
#include <cstring>
#include <memory>
#include <nftables/libnftables.h>
#include <nlohmann/json.hpp>

namespace veltrane::app::doctor {
namespace {

// Where our decide chain and our steer (nat) chain hook the output path.
constexpr int ourDecidePriority = -150;
constexpr int ourSteerPriority = -100;

std::optional<int> priorityOf(const nlohmann::json& value) {
    if (value.is_number_integer()) {
        return value.get<int>();
    }
    // Older nft versions write named priorities as text.
    static const std::pair<const char*, int> named[] = {{"raw", -300},    {"mangle", -150},
                                                        {"dstnat", -100}, {"filter", 0},
                                                        {"security", 50}, {"srcnat", 100}};
    if (value.is_string()) {
        for (const auto& [name, priority] : named) {
            if (value.get<std::string>() == name) {
                return priority;
            }
        }
    }
    return std::nullopt;
}

} // namespace

std::vector<std::string> chainsBeforeOurs(const nlohmann::json& ruleset) {
    std::vector<std::string> found;
    const auto items = ruleset.find("nftables");
    if (!ruleset.is_object() || items == ruleset.end() || !items->is_array()) {
        return found;
    }
    for (const auto& item : *items) {
        const auto chain = item.find("chain");
        if (!item.is_object() || chain == item.end() || !chain->is_object()) {
            continue;
        }
        const auto family = chain->value("family", "");
        const auto table = chain->value("table", "");
        const auto hook = chain->value("hook", "");
        const auto type = chain->value("type", "filter");
        const auto priority = priorityOf(chain->value("prio", nlohmann::json()));
        if ((family == "inet" && table == "veltrane") || hook != "output" || !priority ||
            (family != "inet" && family != "ip" && family != "ip6")) {
            continue;
        }
        if (*priority < ourDecidePriority || (type == "nat" && *priority < ourSteerPriority)) {
            found.push_back("table " + family + " " + table + ": chain " +
                            chain->value("name", "?") + " (" + type + ", output, priority " +
                            std::to_string(*priority) + ")");
        }
    }
    return found;
}

Finding otherTablesCheck() {
    const char* check = "other tables";
    std::unique_ptr<nft_ctx, void (*)(nft_ctx*)> context(nft_ctx_new(NFT_CTX_DEFAULT),
                                                         nft_ctx_free);
    if (!context) {
        return Finding::warning(check, "cannot use libnftables", "reinstall libnftables1");
    }
    nft_ctx_output_set_flags(context.get(), NFT_CTX_OUTPUT_JSON);
    nft_ctx_buffer_output(context.get());
    nft_ctx_buffer_error(context.get());
    if (nft_run_cmd_from_buffer(context.get(), "list chains") != 0) {
        std::string why = nft_ctx_get_error_buffer(context.get());
        while (!why.empty() && (why.back() == '\n' || why.back() == ' ')) {
            why.pop_back();
        }
        return Finding::warning(check, "cannot list the ruleset: " + why,
                                "run doctor as root (listing tables needs CAP_NET_ADMIN)");
    }
    const auto ruleset =
        nlohmann::json::parse(nft_ctx_get_output_buffer(context.get()), nullptr, false);
    const auto chains = chainsBeforeOurs(ruleset);
    if (chains.empty()) {
        return Finding::good(check, "no other table hooks the output path before ours");
    }
    std::string detail;
    for (const auto& chain : chains) {
        detail += (detail.empty() ? "" : "; ") + chain;
    }
    return Finding::warning(
        check,
        detail + (chains.size() == 1 ? " sees" : " see") +
            " new connections before veltrane decides them",
        "make sure it does not drop, mark or redirect them, or move it to priority -150 or later "
        "(nft list table FAMILY NAME shows its rules)");
}

} // namespace veltrane::app::doctor
