// Every control method through the real socket of a real agent: what it gives, and what it refuses.
#include "agent/ControlService.h"

#include "tests/agent/AgentProcess.h"

#include <gtest/gtest.h>

#include <memory>
#include <set>
#include <string>
#include <vector>

namespace AgentTest {
namespace {

const char* const vrfs = "routing/hardware/route/status";
const char* const enabled = "routing/multicast/fibenabled/status";
const char* const fib = "lumen/multicast/fib/ipv4/user/red";

Json requestKey(unsigned intf = 5, const std::string& group = "239.1.1.1") {
    return {{"intf", "Ethernet" + std::to_string(intf)},
            {"vrfId", 3},
            {"vlanId", 10},
            {"sourceIp", "10.0.0.1"},
            {"groupIp", group},
            {"type", "mrouteRequest"}};
}

Json requestChange(const Json& key) {
    return {{"op", "set"}, {"path", "api/mroute/req"}, {"attribute", "mrouteReq"}, {"key", key}};
}

Json routeChange(const Json& intfs) {
    return {{"op", "set"},
            {"path", fib},
            {"attribute", "route"},
            {"key", {{"source", "10.0.0.1/32"}, {"group", "239.1.1.1/32"}}},
            {"value", {{"intf", intfs}}}};
}

Json vrfInUse() {
    return {{{"op", "set"},
             {"path", vrfs},
             {"attribute", "vrfStatus"},
             {"key", "red"},
             {"value", {{"vrfId", 3}}}},
            {{"op", "set"}, {"path", fib}},
            {{"op", "set"}, {"path", "lumen/multicast/fib/ipv4/sparsemode/red"}},
            {{"op", "set"}, {"path", enabled}, {"attribute", "vrfEnabled"}, {"key", "red"}, {"value", true}}};
}

class ControlServiceTest : public testing::Test {
  protected:
    /// What a method says to parameters that it refuses, and the place it names.
    void expectRefusal(const std::string& method, const Json& params, const std::string& text,
                       const std::string& field, int code = -32602) {
        const Json error = client.error(method, params);
        EXPECT_EQ(error.value("code", 0), code) << error;
        EXPECT_NE(error.value("message", "").find(text), std::string::npos) << error;
        EXPECT_EQ(error.value("data", Json::object()).value("field", ""), field) << error;
    }

    TemporaryFolder folder;
    AgentProcess agent{folder, {"--toggle", "KestrelNatMfibLumen=on", "--software-chip"}};
    RpcClient client{agent.client()};
};

TEST_F(ControlServiceTest, GetReadsValuesMembersCollectionsAndAll) {
    client.result("apply", {{"changes", vrfInUse()}});
    client.result("apply",
                  {{"changes", {routeChange({"Ethernet2", "Ethernet1"}), requestChange(requestKey())}}});

    EXPECT_EQ(client.result("get", {{"path", "api/multicastSmStatus"}, {"attribute", "mrouteSmReady"}}),
              true);
    EXPECT_EQ(client.result("get", {{"path", "api/multicastSmStatus"}}),
              (Json{{"mrouteSmReady", true}, {"mgroupSmReady", true}}));
    EXPECT_EQ(client.result("get", {{"path", vrfs}, {"attribute", "vrfStatus"}, {"key", "red"}}),
              (Json{{"vrfId", 3}}));
    EXPECT_EQ(client.result("get", {{"path", vrfs}, {"attribute", "vrfStatus"}, {"key", "blue"}}), Json());
    EXPECT_EQ(client.result("get", {{"path", enabled}, {"attribute", "vrfEnabled"}}),
              (Json::array({{{"key", "red"}, {"value", true}}})));
    EXPECT_EQ(client.result("get", {{"path", "api/mroute/req"}, {"attribute", "mrouteReq"}}),
              Json::array({requestKey()}));
    const Json answer = client.result(
        "get", {{"path", "api/mroute/resp"}, {"attribute", "mrouteResp"}, {"key", requestKey()}});
    EXPECT_EQ(std::set<Json>(answer.begin(), answer.end()), (std::set<Json>{"Ethernet1", "Ethernet2"}));
    const Json rows = client.result("get", {{"path", fib}, {"attribute", "route"}});
    ASSERT_EQ(rows.size(), 1U);
    EXPECT_EQ(rows[0].at("value").at("ready"), 1);
    EXPECT_EQ(client.result("get", {{"path", "routing/multicast/routestatus/blue/static"}}),
              (Json{{"route", Json::array()}, {"oifIndexIntf", Json::array()}}));

    for (unsigned intf = 0; intf < 7; ++intf)
        client.result("apply", {{"changes", {requestChange(requestKey(intf))}}});
    Json paged = Json::array();
    for (;;) {
        Json params{{"path", "api/mroute/req"}, {"attribute", "mrouteReq"}, {"limit", 3}};
        if (!paged.empty())
            params["after"] = paged.back();
        const Json page = client.result("get", params);
        if (page.empty())
            break;
        paged.insert(paged.end(), page.begin(), page.end());
    }
    EXPECT_EQ(paged, client.result("get", {{"path", "api/mroute/req"}, {"attribute", "mrouteReq"}}));
}

TEST_F(ControlServiceTest, GetRefusesWhatIsNotThere) {
    expectRefusal("get", {{"path", "api/mroute"}}, "nearest known one is api/mroute/re", "");
    expectRefusal("get", {{"path", vrfs}, {"attribute", "x"}}, "has vrfStatus", "attribute");
    expectRefusal("get", {{"path", vrfs}, {"key", "red"}}, "name the attribute", "attribute");
    expectRefusal("get", {{"path", vrfs}, {"attribute", "vrfStatus"}, {"key", 1.5}}, "is not whole", "key");
    expectRefusal("get", {{"path", vrfs}, {"attribute", "vrfStatus"}, {"key", {1}}}, "takes a string", "key");
    expectRefusal("get", {{"path", vrfs}, {"attribute", "vrfStatus"}, {"after", "red"}}, "begin again",
                  "after");
    expectRefusal("get", {{"path", vrfs}, {"attribute", "vrfStatus"}, {"limit", 65537}}, "at most 65536",
                  "limit");
    expectRefusal("get", {{"path", "api/multicastSmStatus"}, {"attribute", "mrouteSmReady"}, {"key", 1}},
                  "has no key", "key");
}

TEST_F(ControlServiceTest, SetAndDelSayWhetherSomethingChanged) {
    const Json set{{"path", vrfs}, {"attribute", "vrfStatus"}, {"key", "red"}, {"value", {{"vrfId", 3}}}};
    const Json del{{"path", vrfs}, {"attribute", "vrfStatus"}, {"key", "red"}};
    const Json changed{{"changed", true}};
    const Json unchanged{{"changed", false}};
    EXPECT_EQ(client.result("set", set), changed);
    EXPECT_EQ(client.result("set", set), unchanged);
    EXPECT_EQ(client.result("del", del), changed);
    EXPECT_EQ(client.result("del", del), unchanged);
    EXPECT_EQ(client.result("set", {{"path", "routing/multicast/routestatus/red/static"}}), changed);
    EXPECT_EQ(client.result("set", {{"path", "routing/multicast/routestatus/red/static"}}), unchanged);
    expectRefusal("del", {{"path", vrfs}, {"attribute", "vrfStatus"}}, "needs the parameter \"key\"", "key");
    expectRefusal("set", {{"path", vrfs}}, "an attribute must be named", "attribute");
}

TEST_F(ControlServiceTest, ParametersAreHeldAgainstTheirNamesAndTypes) {
    expectRefusal("get", Json::object(), "needs the parameter \"path\"", "path");
    expectRefusal("get", {{"path", 1}}, "must be of type string", "path");
    expectRefusal("get", {{"path", vrfs}, {"atribute", "x"}},
                  "has no parameter \"atribute\"; there are path, ", "atribute");
    expectRefusal("get", {{"path", vrfs}, {"limit", -1}}, "a number of at least 0", "limit");
    expectRefusal("set", {{"path", vrfs}, {"raw", 1}}, "must be of type boolean", "raw");
    expectRefusal("unwatch", {{"x", 1}}, "there are none", "x");
    expectRefusal("nothing", Json::object(), "there are get, set, del, apply, watch", "", -32601);
}

TEST_F(ControlServiceTest, ApplyChecksAllBeforeItChangesAny) {
    Json changes = vrfInUse();
    changes.push_back(routeChange({"Ethernet1"}));
    changes.push_back(requestChange(requestKey()));
    const Json done = client.result("apply", {{"changes", changes}});
    EXPECT_EQ(done.at("changed"), 6);
    ASSERT_EQ(done.at("answers").size(), 1U);
    EXPECT_EQ(done.at("answers")[0], (Json{{"path", "api/mroute/resp"},
                                           {"attribute", "mrouteResp"},
                                           {"key", requestKey()},
                                           {"value", {"Ethernet1"}}}));

    // Half-way in its checks: by a guard, by a type, by a parameter. Nothing before it happens either.
    const Json before = client.result("get", {{"path", "api/mroute/req"}});
    for (const Json& bad :
         {requestChange(requestKey(5, "0.0.0.0")), Json(1), Json{{"op", "put"}, {"path", vrfs}},
          Json{{"op", "set"}, {"path", vrfs}, {"x", 1}},
          Json{{"op", "set"}, {"path", "x/y"}, {"attribute", "z"}},
          Json{{"op", "set"}, {"path", vrfs}, {"attribute", "vrfStatus"}, {"key", 1.5}}}) {
        Json list{requestChange(requestKey(6)), requestChange(requestKey(7))};
        Json key = requestKey(5, "0.0.0.0");
        key["sourceIp"] = "0.0.0.0";
        list.push_back(bad.is_object() && bad.contains("key") && bad["key"].is_object() ? requestChange(key)
                                                                                        : bad);
        const Json error = client.error("apply", {{"changes", list}});
        EXPECT_TRUE(!error.at("data").contains("index") || error.at("data").at("index") == 2) << error;
        EXPECT_EQ(client.result("get", {{"path", "api/mroute/req"}}), before) << error;
    }
    expectRefusal("apply", Json::object(), "either changes or lines", "changes");
    expectRefusal("apply", {{"changes", Json::array()}, {"lines", Json::array()}}, "either", "changes");
    expectRefusal("apply", {{"changes", Json::array()}, {"raw", true}}, "each change says itself", "raw");
    expectRefusal("apply", {{"lines", {1}}}, "lines are strings", "lines");
    EXPECT_EQ(client.result("apply", {{"changes", Json::array()}}),
              (Json{{"changed", 0}, {"answers", Json::array()}}));
}

TEST_F(ControlServiceTest, ApplyTakesLinesAndNamesTheOneThatIsRefused) {
    const Json lines{"vrf red id 3 multicast on", "# a comment",
                     "route red static 10.0.0.1/32 239.1.1.1/32 oifs Ethernet1",
                     "request mroute intf Ethernet5 vrf red vlan 10 source 10.0.0.1 group 239.1.1.1"};
    EXPECT_EQ(client.result("apply", {{"lines", lines}}).at("answers").size(), 1U);

    const Json error = client.error(
        "apply",
        {{"lines",
          {"vrf blue id 4", "", "request mroute intf Ethernet5 vrf red vlan 10 source any group any"}}});
    EXPECT_EQ(error.at("code"), -32000);
    EXPECT_EQ(error.at("data").at("line"), 3);
    EXPECT_EQ(client.result("get", {{"path", vrfs}, {"attribute", "vrfStatus"}, {"key", "blue"}}), Json());
    EXPECT_EQ(client.error("apply", {{"lines", {"vrf blue id 4", "expect x"}}}).at("data").at("line"), 2);
}

TEST_F(ControlServiceTest, ADryRunForetellsTheVeryAnswersAndChangesNothing) {
    client.result("apply", {{"changes", vrfInUse()}});
    Json changes{routeChange({"Ethernet1", "Ethernet9"})};
    for (unsigned intf = 0; intf < 50; ++intf)
        changes.push_back(requestChange(requestKey(intf)));
    changes.push_back(requestChange(requestKey(3, "239.9.9.9")));

    const Json watched = client.result("watch");
    const Json foretold = client.result("apply", {{"changes", changes}, {"dryRun", true}});
    EXPECT_EQ(foretold.at("answers").size(), 51U);
    EXPECT_EQ(client.result("get", {{"path", "api/mroute/req"}}), (Json{{"mrouteReq", Json::array()}}));
    EXPECT_EQ(client.result("watch").at("seq"), watched.at("seq"));
    EXPECT_EQ(client.result("apply", {{"changes", changes}}), foretold);

    // What the types or a guard refuse, the dry run refuses as well.
    changes[0]["value"]["intf"] = 1;
    expectRefusal("apply", {{"changes", changes}, {"dryRun", true}}, "takes an array", "intf");
}

TEST_F(ControlServiceTest, CommandRunsALineAndPutsItIntoWordsIfAsked) {
    client.result("command", {{"line", "vrf red id 3 multicast on"}});
    const Json bare = client.result("command", {{"line", "show vrfs"}});
    EXPECT_TRUE(bare.contains("result"));
    EXPECT_FALSE(bare.contains("text"));
    const Json worded = client.result("command", {{"line", "show vrfs"}, {"text", true}});
    EXPECT_EQ(worded.at("result"), bare.at("result"));
    EXPECT_NE(worded.at("text").get<std::string>().find("red"), std::string::npos);
    const std::string anyAny = "request mroute intf Ethernet5 vrf red vlan 10 source any group any";
    EXPECT_EQ(client.error("command", {{"line", anyAny}}).at("code"), -32000);
    EXPECT_EQ(client.error("command", {{"line", "dance"}}).at("code"), -32602);
    const std::string unmet =
        "expect mroute intf Ethernet5 vrf red vlan 10 source 10.0.0.1 group 239.1.1.1 = none";
    EXPECT_EQ(client.error("command", {{"line", unmet}}).at("code"), -32001);
    // The chip's work is done before an expectation is looked at.
    client.result(
        "command",
        {{"line", "request mgroup intf Ethernet5 vrf red vlan 10 source 10.0.0.1 group 239.1.1.1"}});
    client.result(
        "command",
        {{"line", "expect mgroup intf Ethernet5 vrf red vlan 10 source 10.0.0.1 group 239.1.1.1 = 1"}});
}

TEST_F(ControlServiceTest, SchemaTellsTypesPathsAndMethods) {
    const Json schema = client.result("schema");
    std::set<std::string> methods;
    for (const Json& method : schema.at("methods")) {
        methods.insert(method.at("name"));
        // What the schema tells is what a request is held against.
        for (const Json& parameter : method.at("parameters")) {
            const Json error = client.error(method.at("name"), {{parameter.at("name"), Json(nullptr)}});
            if (parameter.at("type") != "any") {
                EXPECT_EQ(error.at("data").at("field"), parameter.at("name")) << error;
            }
        }
    }
    EXPECT_EQ(methods, (std::set<std::string>{"get", "set", "del", "apply", "watch", "unwatch", "command",
                                              "schema", "status", "kernel", "trace"}));
    // Every path's entity type is described, and every type that is named.
    std::set<std::string> types;
    for (const char* list : {"entityTypes", "valueTypes"}) {
        for (const Json& type : schema.at(list))
            EXPECT_TRUE(types.insert(type.at("name")).second) << type;
    }
    for (const Json& path : schema.at("paths"))
        EXPECT_TRUE(types.contains(path.at("type"))) << path;
    for (const Json& type : schema.at("entityTypes")) {
        for (const Json& attribute : type.at("attributes")) {
            for (const char* kind : {"keyType", "valueType", "memberType"})
                EXPECT_TRUE(types.contains(attribute.value(kind, type.at("name").get<std::string>())))
                    << attribute;
        }
    }
    const Json key = client.result("schema", {{"type", "KestrelNat::NatMrouteKey"}});
    EXPECT_EQ(key.at("fields").size(), 6U);
    EXPECT_EQ(client.result("schema", {{"type", "Lumen::Multicast::Fib::Route"}}).at("attributes").size(),
              3U);
    expectRefusal("schema", {{"type", "KestrelNat::Nothing"}}, "KestrelNat::Nothing", "type");
}

TEST_F(ControlServiceTest, StatusCountsWhatThereIs) {
    client.result("apply", {{"changes", vrfInUse()}});
    client.result("apply", {{"changes", {routeChange({"Ethernet1"}), requestChange(requestKey())}}});
    Json refused = requestKey();
    refused["vlanId"] = 0;
    client.error("apply", {{"changes", {requestChange(refused)}}});
    client.result("watch");
    const RpcClient other(agent.socket());

    const Json status = client.result("status");
    EXPECT_EQ(status.at("fibSource"), "lumen");
    EXPECT_EQ(status.at("sources"), Json::array({"software-chip"}));
    EXPECT_EQ(status.at("toggles")[0].at("origin"), "override");
    EXPECT_EQ(status.at("ready"), (Json{{"mrouteSmReady", true}, {"mgroupSmReady", true}}));
    EXPECT_EQ(status.at("sizes").at("api/mroute/resp").at("mrouteResp"), 1);
    EXPECT_EQ(status.at("sizes").at("lumen/multicast/fib/ipv4/TYPE/VRF"),
              (Json{{"entities", 2}, {"route", 1}}));
    EXPECT_EQ(status.at("tables").at("refusedRows"), 0);
    const Json& counters = status.at("counters");
    EXPECT_EQ(counters.at("changes"), 6);
    EXPECT_EQ(counters.at("refused"), 1);
    EXPECT_EQ(counters.at("watchers"), 1);
    EXPECT_EQ(counters.at("answerSeq"), 1);
    EXPECT_GT(counters.at("traceNext"), counters.at("traceOldest"));
    EXPECT_FALSE(status.at("version").get<std::string>().empty());
}

TEST_F(ControlServiceTest, TraceShowsAndSetsLevelsAndShowsTheRing) {
    Json levels = client.result("trace").at("levels");
    EXPECT_GE(levels.size(), 3U);
    client.result("trace", {{"facility", "KestrelNatMulticastSm"}, {"level", 8}});
    client.result("apply", {{"changes", {requestChange(requestKey())}}});
    EXPECT_NE(agent.said().find("handleMrouteReq adding request"), std::string::npos) << agent.said();
    levels = client.result("trace", {{"facility", "KestrelNatMulticastSm"}}).at("levels");
    ASSERT_EQ(levels.size(), 1U);
    EXPECT_EQ(levels[0].at("level"), 8);

    const Json records = client.result("trace", {{"last", 3}}).at("records");
    ASSERT_EQ(records.size(), 3U);
    EXPECT_EQ(records[2].at("message"), "ControlService::call method=trace");
    EXPECT_EQ(records[2].at("n"), records[1].at("n").get<int>() + 1);
    for (const char* part : {"n", "level", "facility", "file", "line", "function", "message"})
        EXPECT_TRUE(records[0].contains(part)) << part;

    expectRefusal("trace", {{"level", 3}}, "name it", "facility");
    expectRefusal("trace", {{"facility", "Agent"}, {"level", 10}}, "0 to 9", "level");
    expectRefusal("trace", {{"facility", "Nobody"}, {"level", 1}}, "no trace facility", "facility");
    expectRefusal("trace", {{"facility", "Agent"}, {"last", 1}}, "either", "last");
}

TEST_F(ControlServiceTest, WithoutAKernelSourceKernelSaysSo) {
    expectRefusal("kernel", Json::object(), "started without --kernel", "", -32002);
}

TEST_F(ControlServiceTest, SixtyFourClientsAskAtOnce) {
    std::vector<std::unique_ptr<RpcClient>> clients;
    for (unsigned i = 0; i < 64; ++i)
        clients.push_back(std::make_unique<RpcClient>(agent.socket()));
    for (unsigned i = 0; i < 64; ++i) {
        const Json params{{"changes", {requestChange(requestKey(i))}}};
        clients[i]->send(Json{{"jsonrpc", "2.0"}, {"id", i}, {"method", "apply"}, {"params", params}}.dump() +
                         "\n");
    }
    for (unsigned i = 0; i < 64; ++i)
        EXPECT_EQ(Json::parse(clients[i]->line().value_or("null")).at("result").at("changed"), 1);
    EXPECT_EQ(client.result("get", {{"path", "api/mroute/req"}, {"attribute", "mrouteReq"}}).size(), 64U);
}

} // namespace
} // namespace AgentTest
