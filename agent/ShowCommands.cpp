#include "agent/ShowCommands.h"

#include "agent/JsonDatum.h"
#include "agent/TextTable.h"
#include "records/IpAddr.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <tuple>
#include <vector>

namespace Agent {

using nlohmann::json;

namespace {

struct Shown {
    std::string_view name;
    std::vector<std::string> columns;
};

const std::array<Shown, 6>& everythingShown() {
    static const std::array<Shown, 6> shown{{
        {"mroute", {"vrf", "source", "group", "intf", "vlan", "oifs"}},
        {"mgroup", {"vrf", "source", "group", "intf", "vlan", "id"}},
        {"vrfs", {"vrf", "id", "multicast", "static", "sparse"}},
        {"routes", {"vrf", "type", "source", "group", "oifs", "ready"}},
        {"requests", {"service", "vrf", "source", "group", "intf", "vlan", "type"}},
        {"groups", {"vrf", "source", "group", "vlan", "wanted", "id"}},
    }};
    return shown;
}

std::string addressText(const json& address) {
    return address == "0.0.0.0" ? "any" : address.get<std::string>();
}

std::string vrfText(const Operations& operations, const json& id) {
    const auto number = id.get<std::uint32_t>();
    return operations.vrfNameOf(number).value_or(std::to_string(number));
}

// A request's key as columns.
json requestRow(const Operations& operations, const json& key) {
    return {{"vrf", vrfText(operations, key["vrfId"])},
            {"source", addressText(key["sourceIp"])},
            {"group", addressText(key["groupIp"])},
            {"intf", key["intf"]},
            {"vlan", key["vlanId"]},
            {"type", key["type"]}};
}

std::vector<json> requests(const Operations& operations, bool isMroute) {
    const char* path = isMroute ? "api/mroute/req" : "api/mgroup/req";
    std::vector<json> rows;
    for (const auto& [key, nothing] :
         operations.members(path, isMroute ? "mrouteReq" : "mgroupReq").members) {
        json row = requestRow(operations, toJson(key));
        row["service"] = isMroute ? "mroute" : "mgroup";
        rows.push_back(std::move(row));
    }
    return rows;
}

// Requests with their answers, and answers whose request is gone.
std::vector<json> answers(const Operations& operations, bool isMroute) {
    const char* requestPath = isMroute ? "api/mroute/req" : "api/mgroup/req";
    const char* answerPath = isMroute ? "api/mroute/resp" : "api/mgroup/resp";
    const char* requestAttribute = isMroute ? "mrouteReq" : "mgroupReq";
    const char* answerAttribute = isMroute ? "mrouteResp" : "mgroupId";
    const char* column = isMroute ? "oifs" : "id";
    std::vector<json> rows;
    for (const auto& [key, nothing] : operations.members(requestPath, requestAttribute).members) {
        json row = requestRow(operations, toJson(key));
        const auto answer = operations.value(answerPath, answerAttribute, &key);
        row[column] = answer ? toJson(*answer) : json();
        rows.push_back(std::move(row));
    }
    for (const auto& [key, answer] : operations.members(answerPath, answerAttribute).members) {
        if (!operations.value(requestPath, requestAttribute, &key)) {
            json row = requestRow(operations, toJson(key));
            row[column] = toJson(answer);
            row["withdrawn"] = true;
            rows.push_back(std::move(row));
        }
    }
    return rows;
}

std::string tablePath(const Operations& operations, const std::string& vrf, bool isSparse) {
    return operations.host().isLumen()
               ? std::string("lumen/multicast/fib/ipv4/") + (isSparse ? "sparsemode/" : "user/") + vrf
               : "routing/multicast/routestatus/" + vrf + (isSparse ? "/sparsemode" : "/static");
}

std::vector<std::string> vrfNames(const Operations& operations) {
    std::vector<std::string> names;
    for (const auto& [name, status] :
         operations.members("routing/hardware/route/status", "vrfStatus").members)
        names.push_back(*name.text());
    for (const auto& [name, on] :
         operations.members("routing/multicast/fibenabled/status", "vrfEnabled").members)
        if (std::find(names.begin(), names.end(), *name.text()) == names.end())
            names.push_back(*name.text());
    return names;
}

std::vector<json> vrfs(const Operations& operations) {
    std::vector<json> rows;
    for (const std::string& name : vrfNames(operations)) {
        const State::Datum key(name);
        const auto status = operations.value("routing/hardware/route/status", "vrfStatus", &key);
        const auto enabled = operations.value("routing/multicast/fibenabled/status", "vrfEnabled", &key);
        json row{{"vrf", name}, {"id", status ? toJson(*status)["vrfId"] : json()}};
        row["multicast"] = enabled && *enabled->boolean();
        for (const bool sparse : {false, true}) {
            row[sparse ? "sparse" : "static"] =
                operations.members(tablePath(operations, name, sparse), "route", nullptr, 0).size;
        }
        rows.push_back(std::move(row));
    }
    return rows;
}

void addRoutes(const Operations& operations, const std::string& vrf, bool isSparse, std::vector<json>& rows) {
    const std::string path = tablePath(operations, vrf, isSparse);
    for (const auto& [key, value] : operations.members(path, "route").members) {
        const json names = toJson(key);
        const json route = toJson(value);
        json row{{"vrf", vrf},
                 {"type", isSparse ? "sparse" : "static"},
                 {"source", names["source"] == "0.0.0.0/0" ? json("any") : names["source"]},
                 {"group", names["group"]},
                 {"ready", true}};
        if (operations.host().isLumen()) {
            row["oifs"] = route["intf"];
            row["ready"] = route["ready"] == 1;
        } else {
            json oifs = json::array();
            for (const json& index : route["oifs"]) {
                const State::Datum indexKey(index.get<std::uint64_t>());
                const auto intf =
                    index <= 512 ? operations.value(path, "oifIndexIntf", &indexKey) : std::nullopt;
                oifs.push_back(intf ? *intf->text() : "#" + std::to_string(index.get<std::uint64_t>()));
            }
            row["oifs"] = std::move(oifs);
        }
        rows.push_back(std::move(row));
    }
}

std::vector<json> groups(const Operations& operations) {
    const auto rowOf = [&](const State::Datum& key) {
        const json names = toJson(key);
        return json{{"vrf", vrfText(operations, names["vrfId"])},
                    {"source", addressText(names["source"])},
                    {"group", addressText(names["group"])},
                    {"vlan", names["vlanId"]}};
    };
    std::vector<json> rows;
    for (const auto& [key, nothing] : operations.members("l3/mroutegroup/config", "mroutes").members) {
        json row = rowOf(key);
        row["wanted"] = true;
        const auto group = operations.value("l3/mroutegroup/status", "mgroups", &key);
        row["id"] = group ? toJson(*group)["groupId"] : json();
        rows.push_back(std::move(row));
    }
    for (const auto& [key, group] : operations.members("l3/mroutegroup/status", "mgroups").members) {
        if (!operations.value("l3/mroutegroup/config", "mroutes", &key)) {
            json row = rowOf(key);
            row["wanted"] = false;
            row["id"] = toJson(group)["groupId"];
            rows.push_back(std::move(row));
        }
    }
    return rows;
}

// Addresses sort by number, whatever their text; "any" first.
std::uint64_t addressRank(const json& row, const char* column) {
    const auto found = row.find(column);
    if (found == row.end() || *found == "any")
        return 0;
    const auto text = found->get<std::string>();
    return L3::IpGenAddr::fromString(text.substr(0, text.find('/'))).ipv4().value();
}

std::string cellText(const json& row, const std::string& column) {
    const auto found = row.find(column);
    if (found == row.end() || found->is_null())
        return {};
    if (found->is_array()) {
        std::string list;
        for (const json& each : *found)
            list += (list.empty() ? "" : " ") + each.get<std::string>();
        return list.empty() ? "none" : list;
    }
    if (found->is_boolean())
        return *found ? "yes" : "no";
    return found->is_string() ? found->get<std::string>() : found->dump();
}

} // namespace

bool isShown(std::string_view what) {
    const auto& all = everythingShown();
    return std::any_of(all.begin(), all.end(), [&](const Shown& shown) { return shown.name == what; });
}

json show(const Operations& operations, std::string_view what) {
    std::vector<json> rows;
    if (what == "mroute" || what == "mgroup") {
        rows = answers(operations, what == "mroute");
    } else if (what == "vrfs") {
        rows = vrfs(operations);
    } else if (what == "routes") {
        for (const std::string& vrf : vrfNames(operations)) {
            addRoutes(operations, vrf, false, rows);
            addRoutes(operations, vrf, true, rows);
        }
    } else if (what == "requests") {
        rows = requests(operations, true);
        auto more = requests(operations, false);
        std::move(more.begin(), more.end(), std::back_inserter(rows));
    } else if (what == "groups") {
        rows = groups(operations);
    }
    std::stable_sort(rows.begin(), rows.end(), [](const json& a, const json& b) {
        return std::tuple(a["vrf"].get<std::string>(), addressRank(a, "group"), addressRank(a, "source")) <
               std::tuple(b["vrf"].get<std::string>(), addressRank(b, "group"), addressRank(b, "source"));
    });
    return {{"show", what}, {"rows", std::move(rows)}};
}

std::string showText(const json& shown) {
    const auto& all = everythingShown();
    const auto found =
        std::find_if(all.begin(), all.end(), [&](const Shown& each) { return each.name == shown["show"]; });
    std::vector<std::string> heading = found->columns;
    for (std::string& column : heading) {
        std::transform(column.begin(), column.end(), column.begin(),
                       [](char c) { return static_cast<char>(c >= 'a' && c <= 'z' ? c - 'a' + 'A' : c); });
    }
    TextTable table(heading);
    for (const json& row : shown["rows"]) {
        std::vector<std::string> cells;
        for (const std::string& column : found->columns)
            cells.push_back(cellText(row, column));
        if (row.contains("withdrawn"))
            cells.back() += " (withdrawn)";
        table.row(std::move(cells));
    }
    return table.text();
}

std::string answerText(const json& answer) {
    const json& key = answer["key"];
    const bool isMroute = answer["attribute"] == "mrouteResp";
    std::string text = std::string(isMroute ? "mroute" : "mgroup") + " (" + addressText(key["sourceIp"]) +
                       ", " + addressText(key["groupIp"]) + ") in " +
                       (answer.contains("vrf") ? answer["vrf"].get<std::string>() : key["vrfId"].dump()) +
                       " for " + key["intf"].get<std::string>() + " vlan " + key["vlanId"].dump() + ": ";
    return text + (answer["value"].is_null() ? "gone" : cellText(answer, "value"));
}

} // namespace Agent
