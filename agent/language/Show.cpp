#include "agent/language/Show.h"

#include "agent/json/Json.h"
#include "agent/language/AnswerText.h"
#include "agent/language/RowPage.h"
#include "records/MrouteGroup.h"
#include "records/RouteStatus.h"
#include "state/Value.h"
#include "text/Words.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <memory>

namespace Agent {

namespace {

using KestrelCommon::MrouteGroup::MgroupColl;
using KestrelCommon::MrouteGroup::MrouteColl;
using KestrelL3::IpMcastKey;
using Routing::Hardware::RouteStatus;
using Routing::Multicast::Fib::VrfEnabledStatus;
using State::Datum;

// An address as two numbers that order as it does among those of its family.
std::array<std::uint64_t, 2> numbersOf(const L3::IpGenAddr& address) {
    std::array<std::uint64_t, 2> numbers{};
    std::memcpy(numbers.data(), address.bytes().data(), sizeof numbers);
    for (std::uint64_t& number : numbers)
        if constexpr (std::endian::native == std::endian::little)
            number = __builtin_bswap64(number);
    return numbers;
}

// ---- answers and requests -----------------------------------------------------------------------------------

struct AskedRow {
    const Service* service;
    RequestKey key;
    bool isWithdrawn = false;
};

// The sort keys of a service's requests. Places of VRFs are kept by the last bits of their identifiers: there are many
// requests, of few VRFs.
class RequestOrder {
  public:
    RequestOrder(const VrfNames& vrfs, const Service& service)
        : vrfs_(vrfs)
        , service_(service.index()) {}

    RowKey operator()(const RequestKey& key) {
        const std::uint32_t vrfId = key.vrfId.value();
        Known& known = known_[vrfId % known_.size()];
        if (known.vrfId != vrfId)
            known = {.vrfId = vrfId, .place = vrfs_.placeOf(vrfId)};
        return {.vrf = known.place,
                .rest = {vrfId, key.groupIp.value(), key.sourceIp.value(), service_, key.intf.number(),
                         std::uint64_t{key.vlanId} << 8U | static_cast<std::uint64_t>(key.type)}};
    }

  private:
    struct Known {
        std::uint32_t vrfId = UINT32_MAX; // none's
        std::uint64_t place = 0;
    };

    const VrfNames& vrfs_;
    std::uint64_t service_;
    std::array<Known, 1024> known_ = {};
};

std::vector<Datum> requestCells(const PageFrame& frame, const RequestKey& key) {
    return {frame.vrfs().text(key.vrfId.value()), addressText(key.sourceIp), addressText(key.groupIp),
            key.intf.stringValue(), std::uint64_t{key.vlanId}};
}

// Requests with their answers, and answers whose request is gone.
RowPage answersPage(const PageFrame& frame, const Service& service) {
    const State::Store& database = *frame.operations().host().stores().database;
    const RequestSet& requests = service.requests(database);
    auto picker = frame.picker<AskedRow>();
    RequestOrder orderOf(frame.vrfs(), service);
    for (const RequestKey& key : requests.walk())
        picker.offer(orderOf(key), {.service = &service, .key = key});
    service.eachAnswered(database, [&](const RequestKey& key) {
        const RowKey place = orderOf(key);
        if (picker.takes(place) && !requests.has(key))
            picker.offer(place, {.service = &service, .key = key, .isWithdrawn = true});
    });
    return frame.page(std::move(picker), [&](const AskedRow& asked) {
        const Answer answer = service.answer(database, asked.key);
        Row row{.cells = requestCells(frame, asked.key)};
        row.cells.push_back(toDatum(answer));
        row.cells.push_back(State::toDatum(asked.key.type));
        if (asked.isWithdrawn)
            row.withdrawn = answerWords(answer, "") + " (withdrawn)";
        return row;
    });
}

RowPage requestsPage(const PageFrame& frame) {
    const State::Store& database = *frame.operations().host().stores().database;
    auto picker = frame.picker<AskedRow>();
    for (const Service& service : services()) {
        RequestOrder orderOf(frame.vrfs(), service);
        for (const RequestKey& key : service.requests(database).walk())
            picker.offer(orderOf(key), {.service = &service, .key = key});
    }
    return frame.page(std::move(picker), [&](const AskedRow& asked) {
        Row row{.cells = requestCells(frame, asked.key)};
        row.cells.insert(row.cells.begin(), Datum(asked.service->name));
        row.cells.push_back(State::toDatum(asked.key.type));
        return row;
    });
}

// ---- VRFs and routes ----------------------------------------------------------------------------------------

// Calls visit(name, place) for each VRF from that on where the page begins, in order, until it answers false.
template <class Visit>
void eachVrf(const PageFrame& frame, Visit visit) {
    for (const std::string_view name : frame.vrfs().all()) {
        const std::uint64_t place = frame.vrfs().placeOf(name);
        if (frame.reaches(place) && !visit(name, place))
            return;
    }
}

RowPage vrfsPage(const PageFrame& frame) {
    const Host& host = frame.operations().host();
    auto picker = frame.picker<std::string_view>();
    eachVrf(frame, [&](std::string_view name, std::uint64_t place) {
        picker.offer({.vrf = place}, name);
        return !picker.isFull();
    });
    return frame.page(std::move(picker), [&](std::string_view name) {
        const auto status = host.stores().inDatabase<RouteStatus>()->vrfStatus(name);
        Row row{.cells = {name, status ? Datum(std::uint64_t{status->vrfId()}) : Datum(),
                          host.stores().inDatabase<VrfEnabledStatus>()->vrfEnabled(name)}};
        for (const RouteType type : routeTypes)
            row.cells.emplace_back(std::uint64_t{host.routes().routes(name, type)});
        return row;
    });
}

std::string prefixText(const L3::IpGenPrefix& prefix) {
    return prefix == L3::IpGenPrefix() ? "any" : prefix.stringValue();
}

struct RouteRow {
    std::string_view vrf;
    RouteType type;
    RouteKey key;
};

// What tells routes of one group and source apart.
std::uint64_t otherOf(const RouteKey& key, RouteType type) {
    const auto ofPrefix = [](const L3::IpGenPrefix& prefix) {
        return static_cast<std::uint64_t>(prefix.address().family()) << 8U | prefix.length();
    };
    return static_cast<std::uint64_t>(type) << 32U | ofPrefix(key.group) << 16U | ofPrefix(key.source);
}

RowPage routesPage(const PageFrame& frame) {
    const RouteSource& routes = frame.operations().host().routes();
    auto picker = frame.picker<RouteRow>();
    eachVrf(frame, [&](std::string_view vrf, std::uint64_t place) {
        for (const RouteType type : routeTypes)
            routes.eachKey(vrf, type, [&](const RouteKey& key) {
                const auto group = numbersOf(key.group.address());
                const auto source = numbersOf(key.source.address());
                picker.offer(
                    {.vrf = place, .rest = {group[0], group[1], source[0], source[1], otherOf(key, type), 0}},
                    {.vrf = vrf, .type = type, .key = key});
            });
        return !picker.isFull();
    });
    return frame.page(std::move(picker), [&](const RouteRow& kept) {
        Row row;
        routes.showRoute(kept.vrf, kept.type, kept.key, [&](const ShownRoute& route) {
            row.cells = {kept.vrf,
                         routeTypeText(kept.type),
                         prefixText(route.key.source),
                         route.key.group.stringValue(),
                         Datum::List(route.oifs.begin(), route.oifs.end()),
                         route.isReady};
        });
        return row;
    });
}

// ---- hardware groups ----------------------------------------------------------------------------------------

RowPage groupsPage(const PageFrame& frame) {
    const auto& tables = *frame.operations().host().stores().tables;
    const auto config = State::handleCast<MrouteColl>(tables.entity(MrouteColl::path));
    const auto status = State::handleCast<MgroupColl>(tables.entity(MgroupColl::path));
    const auto isWanted = [&](const IpMcastKey& key) {
        return config && config->mroutesCollection().has(key);
    };
    auto picker = frame.picker<IpMcastKey>();
    const auto orderOf = [&](const IpMcastKey& key) -> RowKey {
        const auto group = numbersOf(key.group);
        const auto source = numbersOf(key.source);
        const auto families = static_cast<std::uint64_t>(key.group.family()) << 8U |
                              static_cast<std::uint64_t>(key.source.family());
        return {.vrf = frame.vrfs().placeOf(key.vrfId),
                .rest = {key.vrfId, group[0], group[1], source[0], source[1], families << 16U | key.vlanId}};
    };
    if (config)
        for (const IpMcastKey& key : config->mroutesCollection().walk())
            picker.offer(orderOf(key), key);
    for (const auto& [key, item] : status->mgroups()) {
        const RowKey place = orderOf(key);
        if (picker.takes(place) && !isWanted(key))
            picker.offer(place, key);
    }
    return frame.page(std::move(picker), [&](const IpMcastKey& key) {
        const auto* item = status->mgroupsCollection().find(key);
        return Row{.cells = {frame.vrfs().text(key.vrfId), addressText(key.source), addressText(key.group),
                             std::uint64_t{key.vlanId}, isWanted(key),
                             item == nullptr ? Datum() : Datum(std::uint64_t{item->groupId})}};
    });
}

// ---- what is shown ------------------------------------------------------------------------------------------

// A table that can be shown. Columns are the names of the rows' members, of which the last `hidden` are left out
// for people.
struct Table {
    std::string name;
    std::vector<std::string_view> columns;
    std::function<RowPage(const PageFrame& frame)> page;
    std::size_t hidden = 0;
};

std::vector<Table> tables() {
    std::vector<Table> all;
    for (const Service& service : services())
        all.push_back({std::string(service.name),
                       {"vrf", "source", "group", "intf", "vlan", service.answerColumn, "type"},
                       [&service](const PageFrame& frame) { return answersPage(frame, service); },
                       1});
    all.push_back({"vrfs", {"vrf", "id", "multicast", "static", "sparse"}, &vrfsPage});
    all.push_back({"routes", {"vrf", "type", "source", "group", "oifs", "ready"}, &routesPage});
    all.push_back({"requests", {"service", "vrf", "source", "group", "intf", "vlan", "type"}, &requestsPage});
    all.push_back({"groups", {"vrf", "source", "group", "vlan", "wanted", "id"}, &groupsPage});
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

void write(Text::Writer& writer, const Table& table, const RowPage& page) {
    const bool isRecord = !writer.isForPeople();
    if (isRecord) {
        writer.beginRecord();
        writer.member("show", table.name);
        writer.field("rows");
    }
    const auto columns = std::span(table.columns).first(table.columns.size() - (isRecord ? 0 : table.hidden));
    writer.beginTable(columns);
    for (const Row& row : page.rows)
        writeRow(writer, columns, row);
    writer.end();
    if (!page.more.empty() && isRecord)
        writer.member("more", page.more);
    else if (!page.more.empty())
        writer.value("more: " + Text::joinWords({"after", page.more}));
    if (isRecord)
        writer.end();
}

} // namespace

void checkPage(const Shown& shown, const ShowQuery& query) {
    if (!shown.hasPages && (query.limit || query.after))
        throw Refusal(shown.name + " is told whole, not in pages",
                      {.field = query.limit ? "limit" : "after"});
    if (query.limit && (*query.limit == 0 || *query.limit > ShowQuery::pageRows))
        throw Refusal("a page has 1 to " + std::to_string(ShowQuery::pageRows) + " rows", {.field = "limit"});
    if (query.after && !isCursor(*query.after))
        throw Refusal("after takes what an earlier page gave as \"more\"", {.field = "after"});
}

std::vector<Shown> shownTables(const Operations& operations) {
    std::vector<Shown> all;
    for (const Table& table : tables())
        all.push_back({table.name, [&operations, table](const ShowQuery& query) -> Text::Tell {
                           const PageFrame frame(operations, query.limit.value_or(ShowQuery::pageRows),
                                                 query.after);
                           const auto page = std::make_shared<RowPage>(table.page(frame));
                           return [table, page](Text::Writer& writer) { write(writer, table, *page); };
                       }});
    return all;
}

} // namespace Agent
