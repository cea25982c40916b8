#include "VeltraneKit/Localize.hpp"

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <shared_mutex>

namespace veltrane::kit {

namespace {

using Catalogue = std::map<std::string, std::string, std::less<>>;

// Lookups run on every flow. Without a catalogue (the normal case) they only
// read one atomic flag; with one they take a shared lock for the find.
std::atomic<bool> catalogueInstalled{false};
std::shared_mutex catalogueMutex;
std::shared_ptr<const Catalogue> catalogue;

enum class Width { hh, h, plain, l, ll };

std::optional<std::string> formatInteger(const RLArgument& argument, char conversion, Width width) {
    std::uint64_t bits = 0;
    if (const auto* s = std::get_if<std::int64_t>(&argument)) {
        bits = std::uint64_t(*s);
    } else if (const auto* u = std::get_if<std::uint64_t>(&argument)) {
        bits = *u;
    } else {
        return std::nullopt;
    }
    // As printf does: the value is taken at the width the placeholder names.
    const bool isSigned = conversion == 'd' || conversion == 'i';
    switch (width) {
    case Width::hh:
        return isSigned ? std::to_string(std::int8_t(bits)) : std::to_string(std::uint8_t(bits));
    case Width::h:
        return isSigned ? std::to_string(std::int16_t(bits)) : std::to_string(std::uint16_t(bits));
    case Width::plain:
        return isSigned ? std::to_string(std::int32_t(bits)) : std::to_string(std::uint32_t(bits));
    case Width::l:
    case Width::ll:
        break;
    }
    return isSigned ? std::to_string(std::int64_t(bits)) : std::to_string(bits);
}

} // namespace

std::string formatMessage(std::string_view format, const std::vector<RLArgument>& arguments) {
    std::string out;
    out.reserve(format.size() + 16);
    std::size_t nextArgument = 0;
    std::size_t i = 0;
    while (i < format.size()) {
        const std::size_t percent = format.find('%', i);
        if (percent == std::string_view::npos) {
            out.append(format.substr(i));
            break;
        }
        out.append(format.substr(i, percent - i));
        std::size_t j = percent + 1;
        if (j < format.size() && format[j] == '%') {
            out += '%';
            i = j + 1;
            continue;
        }
        // Optional position, as translations reorder arguments: "%2$@".
        std::optional<std::size_t> position;
        std::size_t k = j;
        std::size_t number = 0;
        while (k < format.size() && format[k] >= '0' && format[k] <= '9' && number < 1000) {
            number = number * 10 + std::size_t(format[k] - '0');
            ++k;
        }
        if (k > j && k < format.size() && format[k] == '$' && number > 0) {
            position = number - 1;
            j = k + 1;
        }
        Width width = Width::plain;
        if (format.substr(j, 2) == "ll") {
            width = Width::ll;
            j += 2;
        } else if (format.substr(j, 2) == "hh") {
            width = Width::hh;
            j += 2;
        } else if (j < format.size() && format[j] == 'l') {
            width = Width::l;
            ++j;
        } else if (j < format.size() && format[j] == 'h') {
            width = Width::h;
            ++j;
        }
        const char conversion = j < format.size() ? format[j] : '\0';
        const bool isText = (conversion == '@' || conversion == 's') && width == Width::plain;
        const bool isInteger = conversion == 'd' || conversion == 'i' || conversion == 'u';
        if (!isText && !isInteger) {
            // Not a placeholder we know: the "%" stands as written.
            out += '%';
            i = percent + 1;
            continue;
        }
        const std::size_t end = j + 1;
        const std::size_t index = position ? *position : nextArgument++;
        std::optional<std::string> text;
        if (index < arguments.size()) {
            if (isText) {
                if (const auto* s = std::get_if<std::string>(&arguments[index])) {
                    text = *s;
                }
            } else {
                text = formatInteger(arguments[index], conversion, width);
            }
        }
        // A missing argument or one of the wrong kind leaves the placeholder
        // as written rather than guessing.
        out.append(text ? std::string_view(*text) : format.substr(percent, end - percent));
        i = end;
    }
    return out;
}

std::string RL(std::string_view key) {
    if (catalogueInstalled.load(std::memory_order_acquire)) {
        std::shared_lock lock(catalogueMutex);
        if (catalogue) {
            if (const auto it = catalogue->find(key); it != catalogue->end()) {
                return it->second;
            }
        }
    }
    return std::string(key);
}

std::string RL(std::string_view key, const std::vector<RLArgument>& arguments) {
    return formatMessage(RL(key), arguments);
}

void installMessageCatalogue(std::map<std::string, std::string, std::less<>> entries) {
    const bool any = !entries.empty();
    auto table = std::make_shared<const Catalogue>(std::move(entries));
    {
        std::unique_lock lock(catalogueMutex);
        catalogue = any ? std::move(table) : nullptr;
    }
    catalogueInstalled.store(any, std::memory_order_release);
}

} // namespace veltrane::kit
