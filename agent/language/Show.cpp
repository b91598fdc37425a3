#include "agent/language/Show.h"

#include "agent/json/Json.h"
#include "agent/language/AnswerText.h"
#include "records/MrouteGroup.h"
#include "records/RouteStatus.h"
#include "state/Value.h"

#include <algorithm>
#include <set>
#include <tuple>

namespace Agent {

namespace {

using KestrelCommon::MrouteGroup::MgroupColl;
using KestrelCommon::MrouteGroup::MrouteColl;
using Routing::Hardware::RouteStatus;
using Routing::Multicast::Fib::VrfEnabledStatus;
using State::Datum;

// A row: what it is sorted by, and its cells in the order of the columns.
struct Row {
    std::string vrf;
    std::uint32_t group = 0;
    std::uint32_t source = 0;
    std::vector<Datum> cells;
    std::string withdrawn = {}; // the words of an answer whose request is gone
};

using Rows = std::vector<Row>;

// A table that can be shown. Columns are the names of the rows' members, of which the last `hidden` are left out
// for people.
struct Table {
    std::string name;
    std::vector<std::string_view> columns;
    std::function<void(const Operations& operations, Rows& rows)> collect;
    std::size_t hidden = 0;
};

Row requestRow(const Operations& operations, const RequestKey& key) {
    const std::string vrf = vrfText(operations, key.vrfId.value());
    return {.vrf = vrf,
            .group = key.groupIp.value(),
            .source = key.sourceIp.value(),
            .cells = {vrf, addressText(key.sourceIp), addressText(key.groupIp), key.intf.stringValue(),
                      std::uint64_t{key.vlanId}}};
}

// Requests with their answers, and answers whose request is gone.
void collectAnswers(const Operations& operations, const Service& of, Rows& rows) {
    const State::Store& database = *operations.host().stores().database;
    const RequestSet& requests = of.requests(database);
    const auto add = [&](const RequestKey& key, const Answer& answer) {
        rows.push_back(requestRow(operations, key));
        rows.back().cells.push_back(toDatum(answer));
        rows.back().cells.push_back(State::toDatum(key.type));
    };
    for (const RequestKey& key : requests.walk())
        add(key, of.answer(database, key));
    of.eachAnswer(database, [&](const RequestKey& key, const Answer& answer) {
        if (requests.has(key))
            return;
        add(key, answer);
        rows.back().withdrawn = answerWords(answer, "") + " (withdrawn)";
    });
}

void collectRequests(const Operations& operations, Rows& rows) {
    for (const Service& service : services())
        for (const RequestKey& key : service.requests(*operations.host().stores().database).walk()) {
            Row row = requestRow(operations, key);
            row.cells.insert(row.cells.begin(), Datum(service.name));
            row.cells.push_back(State::toDatum(key.type));
            rows.push_back(std::move(row));
        }
}

std::set<std::string> vrfNames(const Stores& stores) {
    std::set<std::string> names;
    for (const auto& [name, status] : stores.inDatabase<RouteStatus>()->vrfStatus())
        names.insert(name.stringValue());
    for (const auto& [name, isOn] : stores.inDatabase<VrfEnabledStatus>()->vrfEnabled())
        names.insert(name.stringValue());
    return names;
}

void collectVrfs(const Operations& operations, Rows& rows) {
    const Stores& stores = operations.host().stores();
    for (const std::string& name : vrfNames(stores)) {
        const auto status = stores.inDatabase<RouteStatus>()->vrfStatus(name);
        Row row{.vrf = name,
                .cells = {name, status ? Datum(std::uint64_t{status->vrfId()}) : Datum(),
                          stores.inDatabase<VrfEnabledStatus>()->vrfEnabled(name)}};
        for (const RouteType type : routeTypes)
            row.cells.emplace_back(std::uint64_t{operations.host().routes().routes(name, type)});
        rows.push_back(std::move(row));
    }
}

std::string prefixText(const L3::IpGenPrefix& prefix) {
    return prefix == L3::IpGenPrefix() ? "any" : prefix.stringValue();
}

void collectRoutes(const Operations& operations, Rows& rows) {
    for (const std::string& vrf : vrfNames(operations.host().stores()))
        for (const RouteType type : routeTypes)
            operations.host().routes().eachRoute(vrf, type, [&](const ShownRoute& route) {
                rows.push_back({.vrf = vrf,
                                .group = route.key.group.ipv4().value(),
                                .source = route.key.source.ipv4().value(),
                                .cells = {vrf, routeTypeText(type), prefixText(route.key.source),
                                          route.key.group.stringValue(),
                                          Datum::List(route.oifs.begin(), route.oifs.end()), route.isReady}});
                return true;
            });
}

void collectGroups(const Operations& operations, Rows& rows) {
    const auto& tables = *operations.host().stores().tables;
    const auto config = State::handleCast<MrouteColl>(tables.entity(MrouteColl::path));
    const auto status = State::handleCast<MgroupColl>(tables.entity(MgroupColl::path));
    const auto add = [&](const KestrelL3::IpMcastKey& key, bool isWanted, const Datum& id) {
        const std::string vrf = vrfText(operations, key.vrfId);
        rows.push_back({.vrf = vrf,
                        .group = key.group.ipv4().value(),
                        .source = key.source.ipv4().value(),
                        .cells = {vrf, addressText(key.source), addressText(key.group),
                                  std::uint64_t{key.vlanId}, isWanted, id}});
    };
    if (config)
        for (const KestrelL3::IpMcastKey& key : config->mroutesCollection().walk()) {
            const auto* item = status->mgroupsCollection().find(key);
            add(key, true, item == nullptr ? Datum() : Datum(std::uint64_t{item->groupId}));
        }
    for (const auto& [key, item] : status->mgroups())
        if (!config || !config->mroutesCollection().has(key))
            add(key, false, Datum(std::uint64_t{item.groupId}));
}

std::vector<Table> tables() {
    std::vector<Table> all;
    for (const Service& service : services())
        all.push_back({std::string(service.name),
                       {"vrf", "source", "group", "intf", "vlan", service.answerColumn, "type"},
                       [&service](const Operations& operations, Rows& rows) {
                           collectAnswers(operations, service, rows);
                       },
                       1});
    all.push_back({"vrfs", {"vrf", "id", "multicast", "static", "sparse"}, &collectVrfs});
    all.push_back({"routes", {"vrf", "type", "source", "group", "oifs", "ready"}, &collectRoutes});
    all.push_back(
        {"requests", {"service", "vrf", "source", "group", "intf", "vlan", "type"}, &collectRequests});
    all.push_back({"groups", {"vrf", "source", "group", "vlan", "wanted", "id"}, &collectGroups});
    return all;
}

void writeRow(Text::Writer& writer, std::span<const std::string_view> columns, const Row& row) {
    writer.beginRecord();
    for (std::size_t i = 0; i < columns.size(); ++i) {
        writer.field(columns[i]);
        const bool isLast = i + 1 == columns.size();
        if (writer.isForPeople() && isLast && !row.withdrawn.empty())
            writer.value(row.withdrawn);
        else
            Json::write(writer, row.cells[i]);
    }
    if (!row.withdrawn.empty())
        writer.member("withdrawn", true);
    writer.end();
}

void write(Text::Writer& writer, const Operations& operations, const Table& table) {
    Rows rows;
    table.collect(operations, rows);
    std::ranges::stable_sort(rows, {},
                             [](const Row& row) { return std::tie(row.vrf, row.group, row.source); });
    const bool isRecord = !writer.isForPeople();
    if (isRecord) {
        writer.beginRecord();
        writer.member("show", table.name);
        writer.field("rows");
    }
    const auto columns = std::span(table.columns).first(table.columns.size() - (isRecord ? 0 : table.hidden));
    writer.beginTable(columns);
    for (const Row& row : rows)
        writeRow(writer, columns, row);
    writer.end();
    if (isRecord)
        writer.end();
}

} // namespace

std::vector<Shown> shownTables(const Operations& operations) {
    std::vector<Shown> all;
    for (const Table& table : tables())
        all.emplace_back(table.name,
                         [&operations, table](Text::Writer& writer) { write(writer, operations, table); });
    return all;
}

} // namespace Agent
