#include "agent/KernelTables.h"

#include "agent/JsonRpc.h"
#include "agent/OperationError.h"
#include "state/Errors.h"

#include <algorithm>

namespace Agent {

namespace {

using Lumen::Multicast::Fib::MfibVrfName;
using Lumen::Multicast::Fib::StatusByVrf;
using LumenRoute = Lumen::Multicast::Fib::Route;
using Quill::Multicast::Fib::OifIndex;
using QuillRoute = Quill::Multicast::Fib::Route;

constexpr const char* vrfStatusPath = "routing/hardware/route/status";
constexpr const char* vrfEnabledPath = "routing/multicast/fibenabled/status";

Routing::Multicast::Fib::IpGenRouteKey routeKey(const Kernel::MfcKey& key) {
    const L3::IpAddr group(key.group);
    return {key.source == 0 ? L3::IpGenPrefix() : L3::IpGenPrefix::host(L3::IpAddr(key.source)),
            L3::IpGenPrefix::host(group)};
}

Kernel::MfcKey mfcKey(const Routing::Multicast::Fib::IpGenRouteKey& key) {
    return {.source = key.source.ipv4().value(), .group = key.group.ipv4().value()};
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

KernelTables::Table KernelTables::tableAt(const Kernel::VrfConfig& vrf, Kernel::RouteType type) const {
    const bool isSparse = type == Kernel::RouteType::sparseMode;
    if (!operations_.host().isLumen())
        return {.path = "routing/multicast/routestatus/" + vrf.name + (isSparse ? "/sparsemode" : "/static")};
    const std::string fibs =
        StatusByVrf::mountPath(L3::AddressFamily::ipv4, isSparse ? "sparsemode" : "user");
    return {.path = fibs + "/" + vrf.name, .fibsPath = fibs, .vrf = MfibVrfName(L3::VrfName(vrf.name))};
}

KernelTables::Table& KernelTables::tableOf(const Kernel::VrfConfig& vrf, Kernel::RouteType type) {
    auto at = tables_.find(vrf.name);
    if (at == tables_.end()) {
        at = tables_
                 .try_emplace(vrf.name, std::array<Table, 2>{tableAt(vrf, Kernel::routeTypes[0]),
                                                             tableAt(vrf, Kernel::routeTypes[1])})
                 .first;
    }
    return at->second[static_cast<std::size_t>(type)];
}

State::Handle<KernelTables::Fib> KernelTables::fib(const Table& table) const {
    const auto fibs =
        State::handleCast<StatusByVrf>(operations_.host().entityStore()->entity(table.fibsPath));
    return fibs ? fibs->status(table.vrf) : State::Handle<Fib>();
}

State::Handle<KernelTables::QuillTable> KernelTables::quillTable(const Table& table) const {
    return State::handleCast<QuillTable>(operations_.host().tableStore()->entity(table.path));
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
    for (const Kernel::RouteType type : Kernel::routeTypes)
        changes.push_back({.path = tableOf(vrf, type).path});
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
    if (!carryOut(changes, why))
        return false;
    tables_.erase(vrf.name);
    return true;
}

// The index of the interface in the table: where it has none yet, the lowest free one from 1.
std::uint16_t KernelTables::indexOf(Table& table, const Kernel::Oif& oif) {
    if (const auto known = table.byIfindex.find(oif.ifindex); known != table.byIfindex.end())
        return known->second;
    if (table.taken.empty()) {
        table.taken.assign(OifIndex::null, false);
        table.taken[0] = true;
        for (const auto& [index, intf] : operations_.members(table.path, "oifIndexIntf").members)
            table.taken[std::min<std::uint64_t>(*index.number(), OifIndex::null - 1)] = true; // another's
    }
    const auto free = std::find(table.taken.begin(), table.taken.end(), false);
    if (free == table.taken.end()) {
        throw OperationError(RpcCode::limitReached,
                             "the table has no index left for interface " + std::string(oif.name),
                             {.path = table.path});
    }
    const auto index = static_cast<std::uint16_t>(free - table.taken.begin());
    operations_.change({.path = table.path,
                        .attribute = "oifIndexIntf",
                        .key = State::Datum(std::uint64_t{index}),
                        .value = State::Datum(oif.name)});
    *free = true;
    table.byIfindex.emplace(oif.ifindex, index);
    return index;
}

bool KernelTables::lumenRoute(Fib& fib, const RouteKey& key, std::span<const Kernel::Oif> oifs) {
    L3::IntfSet intf;
    for (const Kernel::Oif& oif : oifs)
        intf.insert(L3::IntfId(oif.name));
    const State::Handle<LumenRoute> present = fib.route(key);
    if (!present) {
        const auto made = State::makeHandle<LumenRoute>(key);
        made->intfIs(std::move(intf));
        fib.routeIs(made);
        return true;
    }
    if (present->intf() == intf && present->ready() == LumenRoute::isReady)
        return false;
    present->intfIs(std::move(intf));
    present->readyIs(LumenRoute::isReady);
    present->versionAdvance();
    return true;
}

bool KernelTables::route(const Kernel::VrfConfig& vrf, Kernel::RouteType type, const Kernel::MfcKey& key,
                         std::span<const Kernel::Oif> oifs, std::string& why) {
    Table& table = tableOf(vrf, type);
    try {
        bool changed = false;
        if (operations_.host().isLumen()) {
            State::Handle<Fib> found = fib(table);
            if (!found) {
                operations_.change({.path = table.path});
                found = fib(table);
            }
            changed = lumenRoute(*found, routeKey(key), oifs);
        } else {
            QuillRoute row;
            for (const Kernel::Oif& oif : oifs)
                row.oifs.insert(indexOf(table, oif));
            State::Handle<QuillTable> found = quillTable(table);
            if (!found) {
                operations_.change({.path = table.path});
                found = quillTable(table);
            }
            changed = found->routeCollection().is(routeKey(key), std::move(row));
        }
        operations_.changedDirectly(changed);
        return true;
    } catch (const OperationError& error) {
        why = error.what();
    } catch (const State::Error& error) {
        why = error.what();
    }
    return false;
}

void KernelTables::routeGone(const Kernel::VrfConfig& vrf, Kernel::RouteType type,
                             const Kernel::MfcKey& key) {
    const Table& table = tableOf(vrf, type);
    bool changed = false;
    if (operations_.host().isLumen()) {
        const State::Handle<Fib> found = fib(table);
        changed = found && found->routeCollection().del(routeKey(key));
    } else if (const State::Handle<QuillTable> found = quillTable(table)) {
        changed = found->routeHas(routeKey(key));
        found->routeDel(routeKey(key));
    }
    operations_.changedDirectly(changed);
}

bool KernelTables::interfaceNamed(int ifindex, std::string_view name) {
    for (const auto& [vrf, ofTypes] : tables_) {
        for (const Table& table : ofTypes) {
            const auto known = table.byIfindex.find(ifindex);
            if (known != table.byIfindex.end()) {
                operations_.change({.path = table.path,
                                    .attribute = "oifIndexIntf",
                                    .key = State::Datum(std::uint64_t{known->second}),
                                    .value = State::Datum(name)});
            }
        }
    }
    return operations_.host().isLumen();
}

void KernelTables::interfaceGone(int ifindex) {
    for (auto& [vrf, ofTypes] : tables_) {
        for (Table& table : ofTypes) {
            const auto known = table.byIfindex.find(ifindex);
            if (known != table.byIfindex.end()) {
                operations_.change({.op = Change::Op::del,
                                    .path = table.path,
                                    .attribute = "oifIndexIntf",
                                    .key = State::Datum(std::uint64_t{known->second})});
                table.taken[known->second] = false;
                table.byIfindex.erase(known);
            }
        }
    }
}

std::optional<bool> KernelTables::multicastEnabled(const Kernel::VrfConfig& vrf) const {
    const State::Datum name(vrf.name);
    if (!operations_.value(vrfStatusPath, "vrfStatus", &name))
        return std::nullopt;
    const auto enabled = operations_.value(vrfEnabledPath, "vrfEnabled", &name);
    return enabled && *enabled->boolean();
}

void KernelTables::eachRoute(const Kernel::VrfConfig& vrf, Kernel::RouteType type,
                             const RouteVisitor& visit) const {
    const Table table = tableAt(vrf, type);
    std::vector<std::string_view> oifs;
    if (operations_.host().isLumen()) {
        const State::Handle<Fib> found = fib(table);
        if (!found)
            return;
        found->routes([&](const State::Handle<LumenRoute>& route) {
            oifs.clear();
            for (const L3::IntfId intf : route->intf())
                oifs.emplace_back(intf.stringValue());
            visit(mfcKey(route->key()), oifs);
            return true;
        });
        return;
    }
    const State::Handle<QuillTable> found = quillTable(table);
    if (!found)
        return;
    found->routeCollection().visit(nullptr, [&](const RouteKey& key, const QuillRoute& route) {
        oifs.clear();
        for (const std::uint16_t index : route.oifs) {
            const L3::IntfId* const intf = found->oifIndexIntfCollection().find(index);
            oifs.emplace_back(intf == nullptr ? std::string_view() : intf->stringValue());
        }
        visit(mfcKey(key), oifs);
        return true;
    });
}

} // namespace Agent
