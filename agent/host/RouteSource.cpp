#include "agent/host/RouteSource.h"

namespace Agent {

std::size_t RouteSource::routes(std::string_view vrf, RouteType type) const {
    const State::Handle<State::Entity> table = find(vrf, type);
    return table ? table->entityType().attribute("route")->size(*table) : 0;
}

std::span<const RouteSourceRow> routeSources() {
    static const RouteSourceRow table[] = {quillSource(), lumenSource()};
    return table;
}

} // namespace Agent
