#include "ExtensionCore/Clients/InterfaceRegistry.hpp"

namespace veltrane::core {

namespace {

void update(InterfaceRegistry::Table& table, const platform::NWPath& path) {
    // Built outside the lock and swapped in whole, so a look-up sees either
    // the old or the new set. When two entries share a name the later wins.
    std::map<std::string, platform::NWInterface, std::less<>> fresh;
    for (const auto& interface : path.availableInterfaces) {
        fresh.insert_or_assign(interface.name, interface);
    }
    std::lock_guard guard(table.lock);
    table.byName.swap(fresh);
}

} // namespace

InterfaceRegistry& InterfaceRegistry::shared() {
    // Never destroyed: the monitor is never stopped and updates may still
    // arrive while the process ends.
    static auto* registry = new InterfaceRegistry();
    return *registry;
}

InterfaceRegistry::InterfaceRegistry() : table_(std::make_shared<Table>()) {}

void InterfaceRegistry::start(platform::DispatchQueue& queue) {
    {
        std::lock_guard guard(table_->lock);
        if (table_->started) {
            return;
        }
        table_->started = true;
    }
    monitor_.setPathUpdateHandler(
        [table = table_](const platform::NWPath& path) { update(*table, path); });
    monitor_.start(queue);
}

std::optional<platform::NWInterface> InterfaceRegistry::interface(std::string_view name) const {
    std::lock_guard guard(table_->lock);
    auto found = table_->byName.find(name);
    if (found == table_->byName.end()) {
        return std::nullopt;
    }
    return found->second;
}

} // namespace veltrane::core
