// Every control method through the real socket of a real agent: what it gives, and what it refuses.
#include "tests/agent/AgentProcess.h"

#include <gtest/gtest.h>

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
    TemporaryFolder folder;
    AgentProcess agent{folder, {"--toggle", "KestrelNatMfibLumen=on", "--software-chip"}};
    RpcClient client{agent.client()};
};

TEST_F(ControlServiceTest, GetReadsByKeyByAttributeAndAll) {
    client.result("apply", {{"changes", vrfInUse()}});
    const Json cases[][2] = {
        {{{"path", "api/multicastSmStatus"}}, {{"mrouteSmReady", true}, {"mgroupSmReady", true}}},
        {{{"path", vrfs}, {"attribute", "vrfStatus"}, {"key", "red"}}, {{"vrfId", 3}}},
        {{{"path", vrfs}, {"attribute", "vrfStatus"}, {"key", "blue"}}, nullptr},
        {{{"path", enabled}, {"attribute", "vrfEnabled"}}, Json::array({{{"key", "red"}, {"value", true}}})},
        {{{"path", "routing/multicast/routestatus/blue/static"}},
         {{"route", Json::array()}, {"oifIndexIntf", Json::array()}}},
    };
    for (const auto& [params, result] : cases)
        EXPECT_EQ(client.result("get", params), result) << params;
    Json lines{requestChange(requestKey(1)), requestChange(requestKey(2)), requestChange(requestKey(3))};
    client.result("apply", {{"changes", lines}});
    const Json page{
        {"path", "api/mroute/req"}, {"attribute", "mrouteReq"}, {"limit", 1}, {"after", requestKey(2)}};
    EXPECT_EQ(client.result("get", page), Json::array({requestKey(3)}));
    const Json del{{"path", "api/mroute/req"}, {"attribute", "mrouteReq"}, {"key", requestKey(2)}};
    EXPECT_EQ(client.result("del", del), (Json{{"changed", true}}));
    EXPECT_EQ(client.result("del", del), (Json{{"changed", false}}));
}

TEST_F(ControlServiceTest, RefusalsNameTheRuleAndTheParameter) {
    const auto members = [](Json more) {
        more.update({{"path", vrfs}, {"attribute", "vrfStatus"}});
        return more;
    };
    struct Case {
        const char* method;
        Json params;
        const char* text;
        const char* field;
        int code = -32602;
    };
    const Case cases[] = {
        {"get", Json::object(), "needs the parameter \"path\"", "path"},
        {"get", {{"path", 1}}, "must be of type string", "path"},
        {"get",
         {{"path", vrfs}, {"atribute", "x"}},
         "has no parameter \"atribute\"; there are path, ",
         "atribute"},
        {"get", {{"path", vrfs}, {"limit", -1}}, "a number of at least 0", "limit"},
        {"set", {{"path", vrfs}, {"raw", 1}}, "must be of type boolean", "raw"},
        {"unwatch", {{"x", 1}}, "there are none", "x"},
        {"nothing", Json::object(), "there are get, set, del, apply, watch", "", -32601},
        {"get", {{"path", "api/mroute"}}, "nearest known one is api/mroute/re", ""},
        {"get", {{"path", vrfs}, {"attribute", "x"}}, "has vrfStatus", "attribute"},
        {"get", {{"path", vrfs}, {"key", "red"}}, "name the attribute", "attribute"},
        {"get", members({{"key", 1.5}}), "not 1.5", "key"},
        {"get", members({{"key", {1}}}), "takes a string", "key"},
        {"get", members({{"after", "red"}}), "begin again", "after"},
        {"get", members({{"limit", 65537}}), "at most 65536", "limit"},
        {"get",
         {{"path", "api/multicastSmStatus"}, {"attribute", "mrouteSmReady"}, {"key", 1}},
         "has no key",
         "key"},
        {"del", members(Json::object()), "needs the parameter \"key\"", "key"},
        {"set", {{"path", vrfs}}, "an attribute must be named", "attribute"},
        {"apply", Json::object(), "either changes or lines", "changes"},
        {"apply", {{"changes", Json::array()}, {"lines", Json::array()}}, "either", "changes"},
        {"apply", {{"changes", Json::array()}, {"raw", true}}, "each change says itself", "raw"},
        {"apply", {{"lines", {1}}}, "lines are strings", "lines"},
        {"schema", {{"type", "KestrelNat::Nothing"}}, "KestrelNat::Nothing", "type"},
        {"trace", {{"level", 3}}, "name it", "facility"},
        {"trace", {{"facility", "Agent"}, {"level", 10}}, "0 to 9", "level"},
        {"trace", {{"facility", "Nobody"}, {"level", 1}}, "no trace facility", "facility"},
        {"trace", {{"facility", "Agent"}, {"last", 1}}, "either", "last"},
        {"command", {{"line", "dance"}}, "dance", ""},
        {"command",
         {{"line", "request mroute intf Ethernet5 vrf 3 vlan 10 source any group any"}},
         "(*,*)",
         "sourceIp",
         -32000},
        {"command",
         {{"line", "expect mroute intf Ethernet5 vrf 3 vlan 10 source any group 239.1.1.1 = none"}},
         "absent",
         "",
         -32001},
    };
    for (const auto& [method, params, text, field, code] : cases) {
        SCOPED_TRACE(params.dump());
        const Json error = client.error(method, params);
        EXPECT_EQ(error.value("code", 0), code) << error;
        EXPECT_NE(error.value("message", "").find(text), std::string::npos) << error;
        EXPECT_EQ(error.value("data", Json::object()).value("field", ""), field) << error;
    }
}

TEST_F(ControlServiceTest, ApplyChecksAllBeforeItChangesAny) {
    Json changes = vrfInUse();
    changes.push_back(routeChange({"Ethernet1"}));
    changes.push_back(requestChange(requestKey()));
    const Json done = client.result("apply", {{"changes", changes}});
    EXPECT_EQ(done.at("changed"), 6);
    EXPECT_EQ(done.at("answers"), Json::array({{{"path", "api/mroute/resp"},
                                                {"attribute", "mrouteResp"},
                                                {"key", requestKey()},
                                                {"value", {"Ethernet1"}}}}));

    // By a guard, by a type, by a parameter: nothing before it happens either.
    const Json before = client.result("get", {{"path", "api/mroute/req"}});
    Json anyAny = requestKey(5, "0.0.0.0");
    anyAny["sourceIp"] = "0.0.0.0";
    for (const Json& bad : {requestChange(anyAny), Json(1), Json{{"op", "put"}, {"path", vrfs}},
                            Json{{"op", "set"}, {"path", vrfs}, {"x", 1}},
                            Json{{"op", "set"}, {"path", "x/y"}, {"attribute", "z"}}}) {
        const Json error = client.error(
            "apply", {{"changes", {requestChange(requestKey(6)), requestChange(requestKey(7)), bad}}});
        EXPECT_EQ(error.at("data").value("index", 2), 2) << error;
        EXPECT_EQ(client.result("get", {{"path", "api/mroute/req"}}), before) << error;
    }
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
    Json changes{routeChange({"Ethernet1", "Ethernet9"}), requestChange(requestKey(3, "239.9.9.9"))};
    for (unsigned intf = 0; intf < 50; ++intf)
        changes.push_back(requestChange(requestKey(intf)));
    const Json watched = client.result("watch");
    const Json foretold = client.result("apply", {{"changes", changes}, {"dryRun", true}});
    EXPECT_EQ(foretold.at("answers").size(), 51U);
    EXPECT_EQ(client.result("get", {{"path", "api/mroute/req"}}), (Json{{"mrouteReq", Json::array()}}));
    EXPECT_EQ(client.result("watch").at("seq"), watched.at("seq"));
    EXPECT_EQ(client.result("apply", {{"changes", changes}}), foretold);
    // What the types or a guard refuse, the dry run refuses as well.
    changes[0]["value"]["intf"] = 1;
    EXPECT_EQ(client.error("apply", {{"changes", changes}, {"dryRun", true}}).at("data").at("field"), "intf");
}

TEST_F(ControlServiceTest, TheSchemaTellsWhatRequestsAreHeldAgainst) {
    const Json schema = client.result("schema");
    EXPECT_EQ(schema.at("methods").size(), 12U);
    for (const Json& method : schema.at("methods")) {
        for (const Json& parameter : method.at("parameters")) {
            const Json error = client.error(method.at("name"), {{parameter.at("name"), Json(nullptr)}});
            EXPECT_TRUE(parameter.at("type") == "any" || error.at("data").at("field") == parameter.at("name"))
                << error;
        }
    }
    // Every type that is named is described.
    std::set<std::string> types;
    for (const char* list : {"entityTypes", "valueTypes"})
        for (const Json& type : schema.at(list))
            EXPECT_TRUE(types.insert(type.at("name")).second) << type;
    for (const Json& path : schema.at("paths"))
        EXPECT_TRUE(types.contains(path.at("type"))) << path;
    for (const Json& type : schema.at("entityTypes")) {
        for (const Json& attribute : type.at("attributes")) {
            for (const char* kind : {"keyType", "valueType", "memberType"})
                EXPECT_TRUE(types.contains(attribute.value(kind, type.at("name").get<std::string>())))
                    << attribute;
        }
    }
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
}

} // namespace
} // namespace AgentTest
