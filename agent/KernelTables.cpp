#include "agent/KernelTables.h"

#include "agent/OperationError.h"

#include <algorithm>
#include <charconv>

namespace Agent {

namespace {

constexpr const char* vrfStatusPath = "routing/hardware/route/status";
constexpr const char* vrfEnabledPath = "routing/multicast/fibenabled/status";
constexpr std::uint64_t nullIndex = 512;

State::Datum routeKey(const Kernel::MfcKey& key) {
    State::Datum::Record record;
    record.emplace_back("source", key.source == 0 ? "0.0.0.0/0" : Kernel::ipv4Text(key.source) + "/32");
    record.emplace_back("group", Kernel::ipv4Text(key.group) + "/32");
    return State::Datum(std::move(record));
}

Kernel::Ipv4 addressOf(std::string_view prefix) {
    Kernel::Ipv4 address = 0;
    const char* at = prefix.data();
    const char* const end = at + prefix.size();
    for (int part = 0; part < 4 && at < end; ++part) {
        Kernel::Ipv4 byte = 0;
        at = std::from_chars(at, end, byte).ptr + 1;
        address = address << 8 | byte;
    }
    return address;
}

const State::Datum* fieldOf(const State::Datum& record, std::string_view name) {
    for (const auto& [field, content] : *record.record()) {
        if (field == name) {
            return &content;
        }
    }
    return nullptr;
}

Change deletion(const char* path, const char* attribute, State::Datum key) {
    return {.op = Change::Op::del, .path = path, .attribute = attribute, .key = std::move(key)};
}

} // namespace

bool KernelTables::carryOut(std::span<const Change> changes, std::string& why) {
    try {
        operations_.apply(changes);
        return true;
    } catch (const OperationError& error) {
        why = error.what();
        return false;
    }
}

std::string KernelTables::tablePath(const Kernel::VrfConfig& vrf, Kernel::RouteType type) const {
    const bool isSparse = type == Kernel::RouteType::sparseMode;
    return operations_.host().isLumen()
               ? std::string("lumen/multicast/fib/ipv4/") + (isSparse ? "sparsemode/" : "user/") + vrf.name
               : "routing/multicast/routestatus/" + vrf.name + (isSparse ? "/sparsemode" : "/static");
}

bool KernelTables::vrf(const Kernel::VrfConfig& vrf, bool multicastEnabled, std::string& why) {
    const State::Datum name(vrf.name);
    std::vector<Change> changes;
    if (!multicastEnabled) {
        changes.push_back(
            {.path = vrfEnabledPath, .attribute = "vrfEnabled", .key = name, .value = State::Datum(false)});
    }
    changes.push_back({.path = vrfStatusPath,
                       .attribute = "vrfStatus",
                       .key = name,
                       .value = State::Datum(State::Datum::Record{{"vrfId", std::uint64_t{vrf.id}}})});
    for (const Kernel::RouteType type : Kernel::routeTypes) {
        changes.push_back({.path = tablePath(vrf, type)});
    }
    if (multicastEnabled) {
        changes.push_back(
            {.path = vrfEnabledPath, .attribute = "vrfEnabled", .key = name, .value = State::Datum(true)});
    }
    return carryOut(changes, why);
}

bool KernelTables::vrfGone(const Kernel::VrfConfig& vrf, std::string& why) {
    const State::Datum name(vrf.name);
    const Change changes[] = {deletion(vrfEnabledPath, "vrfEnabled", name),
                              deletion(vrfStatusPath, "vrfStatus", name)};
    if (!carryOut(changes, why)) {
        return false;
    }
    for (const Kernel::RouteType type : Kernel::routeTypes) {
        indexes_.erase(tablePath(vrf, type));
    }
    return true;
}

// Gives each interface its index in the table, the lowest free one from 1 where it has none yet.
bool KernelTables::indexesOf(const std::string& path, std::span<const Kernel::Oif> oifs,
                             std::vector<Change>& changes, State::Datum::List& list, std::string& why) {
    const auto [at, isNew] = indexes_.try_emplace(path);
    Indexes& indexes = at->second;
    if (isNew) {
        indexes.taken.assign(nullIndex, false);
        indexes.taken[0] = true;
        for (const auto& [index, intf] : operations_.members(path, "oifIndexIntf").members) {
            indexes.taken[std::min(*index.number(), nullIndex - 1)] = true; // another writer's
        }
    }
    for (const Kernel::Oif& oif : oifs) {
        auto known = indexes.byIfindex.find(oif.ifindex);
        if (known == indexes.byIfindex.end()) {
            const auto free = std::find(indexes.taken.begin(), indexes.taken.end(), false);
            if (free == indexes.taken.end()) {
                why = "the table has no index left for interface " + std::string(oif.name);
                return false;
            }
            const auto index = static_cast<std::uint64_t>(free - indexes.taken.begin());
            *free = true;
            known = indexes.byIfindex.emplace(oif.ifindex, index).first;
            changes.push_back({.path = path,
                               .attribute = "oifIndexIntf",
                               .key = State::Datum(index),
                               .value = State::Datum(oif.name)});
        }
        list.push_back(State::Datum(known->second));
    }
    return true;
}

bool KernelTables::route(const Kernel::VrfConfig& vrf, Kernel::RouteType type, const Kernel::MfcKey& key,
                         std::span<const Kernel::Oif> oifs, std::string& why) {
    const std::string path = tablePath(vrf, type);
    std::vector<Change> changes;
    State::Datum::Record route;
    State::Datum::List list;
    if (operations_.host().isLumen()) {
        for (const Kernel::Oif& oif : oifs) {
            list.push_back(State::Datum(oif.name));
        }
        route.emplace_back("intf", std::move(list));
        route.emplace_back("ready", std::uint64_t{1});
    } else {
        if (!indexesOf(path, oifs, changes, list, why)) {
            return false;
        }
        route.emplace_back("oifs", std::move(list));
    }
    changes.push_back(
        {.path = path, .attribute = "route", .key = routeKey(key), .value = State::Datum(std::move(route))});
    return carryOut(changes, why);
}

void KernelTables::routeGone(const Kernel::VrfConfig& vrf, Kernel::RouteType type,
                             const Kernel::MfcKey& key) {
    const Change change{
        .op = Change::Op::del, .path = tablePath(vrf, type), .attribute = "route", .key = routeKey(key)};
    operations_.change(change);
}

bool KernelTables::interfaceNamed(int ifindex, std::string_view name) {
    for (const auto& [path, indexes] : indexes_) {
        const auto known = indexes.byIfindex.find(ifindex);
        if (known != indexes.byIfindex.end()) {
            operations_.change({.path = path,
                                .attribute = "oifIndexIntf",
                                .key = State::Datum(known->second),
                                .value = State::Datum(name)});
        }
    }
    return operations_.host().isLumen();
}

void KernelTables::interfaceGone(int ifindex) {
    for (auto& [path, indexes] : indexes_) {
        const auto known = indexes.byIfindex.find(ifindex);
        if (known != indexes.byIfindex.end()) {
            operations_.change({.op = Change::Op::del,
                                .path = path,
                                .attribute = "oifIndexIntf",
                                .key = State::Datum(known->second)});
            indexes.taken[known->second] = false;
            indexes.byIfindex.erase(known);
        }
    }
}

std::optional<bool> KernelTables::multicastEnabled(const Kernel::VrfConfig& vrf) const {
    const State::Datum name(vrf.name);
    if (!operations_.value(vrfStatusPath, "vrfStatus", &name)) {
        return std::nullopt;
    }
    const auto enabled = operations_.value(vrfEnabledPath, "vrfEnabled", &name);
    return enabled && *enabled->boolean();
}

void KernelTables::eachRoute(const Kernel::VrfConfig& vrf, Kernel::RouteType type,
                             const RouteVisitor& visit) const {
    const std::string path = tablePath(vrf, type);
    const bool isLumen = operations_.host().isLumen();
    std::map<std::uint64_t, std::string> names;
    if (!isLumen) {
        for (const auto& [index, intf] : operations_.members(path, "oifIndexIntf").members) {
            names.emplace(*index.number(), *intf.text());
        }
    }
    std::vector<std::string_view> oifs;
    for (const auto& [key, route] : operations_.members(path, "route").members) {
        oifs.clear();
        for (const State::Datum& oif : *fieldOf(route, isLumen ? "intf" : "oifs")->list()) {
            oifs.push_back(isLumen ? std::string_view(*oif.text()) : std::string_view(names[*oif.number()]));
        }
        visit({.source = addressOf(*fieldOf(key, "source")->text()),
               .group = addressOf(*fieldOf(key, "group")->text())},
              oifs);
    }
}

} // namespace Agent
