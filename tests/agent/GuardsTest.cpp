// Each guard against a real agent, for both sources of routes: what it refuses and what it says, and what
// happens when the caller says `raw`: some changes go through, others end the agent's process, which a dry
// run foretells.
#include "tests/agent/AgentProcess.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace AgentTest {
namespace {

const char* const vrfs = "routing/hardware/route/status";
const char* const enabled = "routing/multicast/fibenabled/status";
const char* const capability = "hardware/kestrel/nat/capability/config";

Json member(const std::string& path, const std::string& attribute, const Json& key, const Json& value = {}) {
    return json("{'op': 'set', 'path': %, 'attribute': %, 'key': %}", path, attribute, key)
        .with("value", value);
}

Json removal(const std::string& path, const std::string& attribute, const Json& key) {
    return json("{'op': 'del', 'path': %, 'attribute': %, 'key': %}", path, attribute, key);
}

Json raw(const Json& change) {
    return change.with("raw", true);
}

// A table or FIB is there.
Json table(const std::string& path) {
    return json("{'op': 'set', 'path': %}", path);
}

Json lists(const std::vector<Json>& changes) {
    return json("{'changes': %}", changes);
}

Json vrf(const std::string& name, std::uint32_t id) {
    return member(vrfs, "vrfStatus", name, json("{'vrfId': %}", id));
}

Json multicast(const std::string& name, bool on = true) {
    return member(enabled, "vrfEnabled", name, on);
}

Json allVrfs() {
    return json("{'op': 'set', 'path': %, 'attribute': 'egressFromAllVrfs', 'value': true}", capability);
}

Json requestKey(const std::string& source = "10.0.0.1", const std::string& group = "239.1.1.1") {
    return json("{'intf': 'Ethernet5', 'vrfId': 3, 'vlanId': 10, 'sourceIp': %, 'groupIp': %}", source,
                group);
}

Json request(const Json& key, const std::string& service = "mroute") {
    return member("api/" + service + "/req", service + "Req", key);
}

// Paths of the two tables or FIBs of a VRF.
std::string tablePath(bool isLumen, const std::string& name, bool isStatic = true) {
    return isLumen ? "lumen/multicast/fib/ipv4/" + std::string(isStatic ? "user/" : "sparsemode/") + name
                   : "routing/multicast/routestatus/" + name + (isStatic ? "/static" : "/sparsemode");
}

std::vector<Json> joined(std::vector<Json> changes, const std::vector<Json>& more) {
    changes.insert(changes.end(), more.begin(), more.end());
    return changes;
}

struct Case {
    std::vector<Json> before;
    Json change;
    std::string text;     // of the refusal
    std::string field;    // it names
    std::string end = {}; // of the process when raw: what it says; empty: it goes on
};

class GuardsTest : public testing::TestWithParam<bool> {
  protected:
    bool isLumen() const { return GetParam(); }
    std::vector<std::string> options() const {
        return {"--toggle", std::string("KestrelNatMfibLumen=") + (isLumen() ? "on" : "off")};
    }

    std::vector<Json> tables(const std::string& name) const {
        return {table(tablePath(isLumen(), name)), table(tablePath(isLumen(), name, false))};
    }
    // A VRF with tables and multicast.
    std::vector<Json> vrfInUse(const std::string& name, std::uint32_t id) const {
        return joined(joined({vrf(name, id)}, tables(name)), {multicast(name)});
    }

    static Json everything(RpcClient& client, const Json& change) {
        return client.result("get", json("{'path': %}", change.at("path")));
    }

    void check(const Case& given) const {
        SCOPED_TRACE(given.change.dump());
        const TemporaryFolder folder;
        AgentProcess agent(folder, options());
        RpcClient client = agent.client();
        client.result("apply", lists(given.before));

        const Json before = everything(client, given.change);
        for (const bool inList : {false, true}) {
            const Json error = inList
                                   ? client.error("apply", lists({given.change}))
                                   : client.error(given.change.at("op").text(), given.change.with("op", {}));
            EXPECT_EQ(error.at("code"), -32000);
            const std::string message = error.at("message").text();
            EXPECT_NE(message.find(given.text), std::string::npos) << message;
            EXPECT_NE(message.find("raw lets it through"), std::string::npos) << message;
            EXPECT_EQ(error.at("data").at("path"), given.change.at("path"));
            EXPECT_EQ(error.at("data").at("field"), given.field);
        }
        EXPECT_EQ(everything(client, given.change), before) << "a refused change changed something";
        checkRaw(given, agent, client);
    }

    static void checkRaw(const Case& given, AgentProcess& agent, RpcClient& client) {
        const Json list = lists({raw(given.change)});
        const Json foretold = client.result("apply", list.with("dryRun", true));
        EXPECT_EQ(foretold.contains("assertion"), !given.end.empty()) << foretold;
        if (given.end.empty()) {
            EXPECT_EQ(client.result("apply", list).at("changed"), 1);
            EXPECT_EQ(agent.stop(), 0) << agent.said();
            return;
        }
        EXPECT_NE(foretold.at("assertion").text().find(given.end), std::string::npos) << foretold;
        client.send(json("{'jsonrpc': '2.0', 'id': 1, 'method': 'apply', 'params': %}", list).dump() + "\n");
        EXPECT_EQ(agent.wait(), 128 + SIGABRT);
        EXPECT_NE(agent.said().find(given.end), std::string::npos) << agent.said();
        EXPECT_NE(agent.said().find("last trace records:"), std::string::npos);
        EXPECT_NE(agent.said().find("method=apply"), std::string::npos);
    }
};

TEST_P(GuardsTest, Requests) {
    const auto inUse = vrfInUse("red", 3);
    const auto withRequest = joined(inUse, {request(requestKey())});
    const std::string needs = "req.intf().stringValue() != \"\" && req.vlanId() != 0";

    check({inUse, request(requestKey("0.0.0.0", "0.0.0.0")), "(*,*)", "sourceIp", "reqKey is (*, *)"});
    check({inUse, request(requestKey().with("intf", "")), "without an interface", "intf", needs});
    check({inUse, request(requestKey().with("vlanId", 0)), "VLAN 0", "vlanId", needs});
    check({withRequest, request(requestKey().with("type", 1)), "differs by its type alone", "type"});
    check({withRequest, request(requestKey().with("type", 77)), "differs by its type alone", "type"});
    check({{}, request(requestKey("0.0.0.0", "0.0.0.0"), "mgroup"), "(*,*)", "sourceIp"});
    check({{request(requestKey().with("type", 1), "mgroup")},
           request(requestKey(), "mgroup"),
           "differs by its type alone",
           "type"});
}

TEST_P(GuardsTest, IdentifiersOfVrfs) {
    const auto inUse = vrfInUse("red", 3);
    const auto enabledWithout = joined(tables("blue"), {multicast("blue")});

    check({enabledWithout, vrf("blue", 0x01000000), "more than 24 bits", "vrfId",
           "VrfId::value > 0x00ffffff not allowed"});
    check({inUse, vrf("blue", 3), "is that of VRF \"red\"", "vrfId"});
    check({inUse, vrf("red", 4), "its identifier can't become 4", "vrfId", "vrfId should not change here"});
    check({inUse, vrf("red", 0), "its identifier can't become 0", "vrfId"});
    check({inUse, removal(vrfs, "vrfStatus", "red"), "its entry can't be removed", "key"});
}

TEST_P(GuardsTest, NamesOfVrfs) {
    check({{}, vrf("", 3), "at least one byte", "key"});
    check({{}, vrf("a/b", 3), "no '/'", "key"});
    check({{}, vrf("a\nb", 3), "no control bytes", "key"});
    check({{}, multicast("a/b", false), "no '/'", "key"});
    check({{}, table(tablePath(isLumen(), "a\x7f")), "no control bytes", "path"});
    check({{}, member("lumen/multicast/fib/ipv4/user", "status", "a/b", json("{}")), "no '/'", "key"});
}

TEST_P(GuardsTest, MulticastInAVrf) {
    const std::vector<Json> oneTable{vrf("red", 3), table(tablePath(isLumen(), "red"))};
    const Json noTable = json("{'op': 'del', 'path': %}", tablePath(isLumen(), "red"));
    check({oneTable, noTable, "it keeps its route tables", "path"});
    check({joined(tables("red"), {multicast("red")}), noTable, "it keeps its route tables", "path"});
    check({joined(oneTable, {noTable.with("raw", true)}), multicast("red"), "there is no static route table",
           "key", isLumen() ? "" : "mcastRouteStatic not mounted"});
    check({oneTable, multicast("red"), "there is no sparse route table", "key",
           isLumen() ? "" : "mcastRouteSparse not mounted"});
    if (isLumen())
        check({vrfInUse("red", 3), removal("lumen/multicast/fib/ipv4/user", "status", "red"),
               "VRF \"red\" is enabled", "key"});
}

// What a list writes into a table that it makes anew doesn't count on what was in the one that went.
TEST_P(GuardsTest, TheTablesOfARemovedVrfCanBeMadeAnew) {
    const TemporaryFolder folder;
    const AgentProcess agent(folder, options());
    RpcClient client = agent.client();
    const std::string route = "route red static 10.0.0.1/32 239.1.1.1/32 oifs ";
    client.result("apply", json("{'lines': ['vrf red id 3 multicast on', %]}", route + "E1 E2"));
    client.result("set", request(requestKey()).with("op", {}));
    const std::string del = "del " + tablePath(isLumen(), "red");
    for (const std::string& removal : {std::string("no vrf red"), del}) {
        const Json lines = json("{'lines': ['vrf red multicast off', 'no vrf red', %, %, %, %]}",
                                route + "E1 E3", removal, "vrf red id 3 multicast on", route + "E2");
        EXPECT_EQ(client.result("apply", lines).at("answers").at(0).at("value"), json("['E2']"));
        client.result("apply", json("{'lines': [%]}", route + "E1 E2"));
    }
}

TEST_P(GuardsTest, AllVrfs) {
    const auto gathering =
        joined(joined(vrfInUse("red", 3), {allVrfs(), request(requestKey())}), tables("blue"));
    const std::string text = "can't be added while egressFromAllVrfs is set";
    const std::string end = "Only one mfib must be True";
    check({joined(gathering, {vrf("blue", 4)}), multicast("blue"), text, "key", end});
    check({joined(gathering, {multicast("blue")}), vrf("blue", 4), text, "vrfId", end});
    check({{raw(multicast("green"))}, allVrfs(), "VRF \"green\" lacks a route table or FIB", "value"});
}

TEST_P(GuardsTest, Routes) {
    const Json key = json("{'source': '10.0.0.1/32', 'group': '239.1.1.1/32'}");
    const Json ipv6 = json("{'source': '2001:db8::1/128', 'group': '239.1.1.1/32'}");
    const std::string red = tablePath(isLumen(), "red");
    const auto asked = joined(vrfInUse("red", 3), {request(requestKey())});

    check({asked, member(red, "route", ipv6, json("{}")), "IPv4 keys", "source"});
    if (isLumen())
        return;
    check({asked, member(red, "oifIndexIntf", 512, "Ethernet1"), "the OIF index 512 is none", "key"});
    const auto toIndex = [&](int index) {
        return member(red, "route", key, json("{'oifs': [1, %]}", index));
    };
    check({asked, toIndex(512), "the OIF index 512 is none", "oifs"});
    check({asked, toIndex(600), "the OIF index 600 is none", "oifs",
           "Quill::Multicast::Fib::OifIndex::value <"});
}

TEST_P(GuardsTest, WhatThePlugInWrites) {
    const std::string text = "is written by the plug-in alone";
    check({{}, member("api/mroute/resp", "mrouteResp", requestKey(), json("['Ethernet1']")), text, "key"});
    check({{}, member("api/mgroup/resp", "mgroupId", requestKey(), 17), text, "key"});
    check(
        {{},
         json("{'op': 'set', 'path': 'api/multicastSmStatus', 'attribute': 'mrouteSmReady', 'value': false}"),
         text,
         "value"});
    check({{},
           member("l3/mroutegroup/config", "mroutes",
                  json("{'vrfId': 3, 'source': '10.0.0.1', 'group': '239.1.1.1', 'vlanId': 10}")),
           text,
           "key"});
}

TEST_P(GuardsTest, WhatARawChangeLeftBehindIsRemembered) {
    const TemporaryFolder folder;
    AgentProcess agent(folder, options());
    RpcClient client = agent.client();
    client.result("apply", lists(vrfInUse("red", 3)));
    // The plug-in keeps the VRF whose entry goes, and would end the process when it came again.
    client.result("apply", lists({raw(removal(vrfs, "vrfStatus", "red"))}));
    EXPECT_EQ(client.error("apply", lists({vrf("red", 3)})).at("code"), -32000);
    client.result("apply", lists({multicast("red", false), vrf("red", 3), multicast("red")}));

    if (isLumen()) {
        // A VRF that was added without its FIBs stays without them until it is added anew.
        client.result("apply", lists({vrf("blue", 4), raw(multicast("blue"))}));
        client.result("apply", lists(tables("blue")));
        EXPECT_EQ(client.error("apply", lists({allVrfs()})).at("code"), -32000);
        client.result("apply", lists({multicast("blue", false), multicast("blue"), allVrfs()}));
    }
    client.result("apply", lists({request(requestKey())}));
    EXPECT_EQ(agent.stop(), 0) << agent.said();
}

std::string sourceName(const testing::TestParamInfo<bool>& info) {
    return info.param ? "Lumen" : "Quill";
}

INSTANTIATE_TEST_SUITE_P(Sources, GuardsTest, testing::Bool(), sourceName);

} // namespace
} // namespace AgentTest
