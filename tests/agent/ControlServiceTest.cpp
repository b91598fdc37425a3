// Every control method through the real socket of a real agent: what it gives, and what it refuses.
#include "tests/agent/AgentProcess.h"

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

namespace AgentTest {
namespace {

const char* const vrfs = "routing/hardware/route/status";
const char* const fib = "lumen/multicast/fib/ipv4/user/red";
const Json vrfsAlone = json("{'path': %}", vrfs);
const Json vrfEntries = json("{'path': %, 'attribute': 'vrfStatus'}", vrfs);

Json requestKey(unsigned intf = 5, const std::string& group = "239.1.1.1") {
    return json("{'intf': %, 'vrfId': 3, 'vlanId': 10, 'sourceIp': '10.0.0.1', 'groupIp': %, 'type': %}",
                "Ethernet" + std::to_string(intf), group, "mrouteRequest");
}

Json requestChange(const Json& key) {
    return json("{'op': 'set', 'path': 'api/mroute/req', 'attribute': 'mrouteReq', 'key': %}", key);
}

Json routeChange(const Json& intfs) {
    return json("{'op': 'set', 'path': %, 'attribute': 'route', 'value': {'intf': %},"
                " 'key': {'source': '10.0.0.1/32', 'group': '239.1.1.1/32'}}",
                fib, intfs);
}

class ControlServiceTest : public testing::Test {
  protected:
    ControlServiceTest() { client.run("vrf red id 3 multicast on"); }

    TemporaryFolder folder;
    AgentProcess agent{folder, {"--toggle", "KestrelNatMfibLumen=on", "--software-chip"}};
    RpcClient client{agent.client()};

    Json apply(const std::vector<Json>& changes) {
        return client.result("apply", json("{'changes': %}", changes));
    }
};

TEST_F(ControlServiceTest, GetReadsByKeyByAttributeAndAll) {
    const Json cases[][2] = {
        {json("{'path': 'api/multicastSmStatus'}"), json("{'mrouteSmReady': true, 'mgroupSmReady': true}")},
        {vrfEntries.with("key", "red"), json("{'vrfId': 3}")},
        {vrfEntries.with("key", "blue"), {}},
        {json("{'path': 'routing/multicast/fibenabled/status', 'attribute': 'vrfEnabled'}"),
         json("[{'key': 'red', 'value': true}]")},
        {json("{'path': 'routing/multicast/routestatus/blue/static'}"),
         json("{'route': [], 'oifIndexIntf': []}")},
    };
    for (const auto& [params, result] : cases)
        EXPECT_EQ(client.result("get", params), result) << params;
    apply({requestChange(requestKey(1)), requestChange(requestKey(2)), requestChange(requestKey(3))});
    const Json requests = json("{'path': 'api/mroute/req', 'attribute': 'mrouteReq'}");
    const Json page = requests.with("limit", 1).with("after", requestKey(2));
    EXPECT_EQ(client.result("get", page), json("[%]", requestKey(3)));
    const Json del = requests.with("key", requestKey(2));
    EXPECT_EQ(client.result("del", del), json("{'changed': true}"));
    EXPECT_EQ(client.result("del", del), json("{'changed': false}"));
}

TEST_F(ControlServiceTest, RefusalsNameTheRuleAndTheParameter) {
    struct Case {
        const char* method;
        Json params;
        const char* text;
        const char* field;
        int code = -32602;
    };
    const Case cases[] = {
        {"get", json("{}"), "needs the parameter \"path\"", "path"},
        {"get", json("{'path': 1}"), "must be of type string", "path"},
        {"get", json("{'path': 'x', 'path': 'y'}"), "\"path\" of method \"get\" is given twice", "path"},
        {"get", vrfsAlone.with("atribute", "x"), "has no parameter \"atribute\"; there are path, ",
         "atribute"},
        {"get", vrfsAlone.with("limit", -1), "a number of at least 0", "limit"},
        {"set", vrfsAlone.with("raw", 1), "must be of type boolean", "raw"},
        {"unwatch", json("{'x': 1}"), "there are none", "x"},
        {"nothing", json("{}"), "there are get, set, del, apply, watch", "", -32601},
        {"get", json("{'path': 'api/mroute'}"), "nearest known one is api/mroute/re", ""},
        {"get", vrfsAlone.with("attribute", "x"), "has vrfStatus", "attribute"},
        {"get", vrfsAlone.with("key", "red"), "name the attribute", "attribute"},
        {"get", vrfEntries.with("key", json("1.5")), "not 1.5", "key"},
        {"get", vrfEntries.with("key", json("[1]")), "takes a string", "key"},
        {"get", vrfEntries.with("after", "blue"), "begin again", "after"},
        {"get", vrfEntries.with("limit", 65537), "at most 65536", "limit"},
        {"get", json("{'path': 'api/multicastSmStatus', 'attribute': 'mrouteSmReady', 'key': 1}"),
         "has no key", "key"},
        {"del", vrfEntries, "needs the parameter \"key\"", "key"},
        {"set", vrfsAlone, "an attribute must be named", "attribute"},
        {"apply", json("{}"), "either changes or lines", "changes"},
        {"apply", json("{'changes': [], 'lines': []}"), "either", "changes"},
        {"apply", json("{'changes': [], 'raw': true}"), "each change says itself", "raw"},
        {"apply", json("{'lines': [1]}"), "lines are strings", "lines"},
        {"schema", json("{'type': 'KestrelNat::Nothing'}"), "KestrelNat::Nothing", "type"},
        {"show", json("{'what': 'nothing'}"), "nothing", "what"},
        {"trace", json("{'level': 3}"), "name it", "facility"},
        {"trace", json("{'facility': 'Agent', 'level': 10}"), "0 to 9", "level"},
        {"trace", json("{'facility': 'Nobody', 'level': 1}"), "no trace facility", "facility"},
        {"trace", json("{'facility': 'Agent', 'last': 1}"), "either", "last"},
        {"command", json("{'line': 'dance'}"), "dance", ""},
        {"command", json("{'line': 'request mroute intf Ethernet5 vrf 3 vlan 10 source any group any'}"),
         "(*,*)", "sourceIp", -32000},
        {"command",
         json("{'line': 'expect mroute intf Ethernet5 vrf 3 vlan 10 source any group 239.1.1.1 = none'}"),
         "absent", "", -32001},
    };
    for (const auto& [method, params, text, field, code] : cases) {
        SCOPED_TRACE(params.dump());
        const Json error = client.error(method, params);
        EXPECT_EQ(error.at("code"), code) << error;
        EXPECT_NE(error.at("message").text().find(text), std::string::npos) << error;
        const Json data = error.contains("data") ? error.at("data") : json("{}");
        EXPECT_EQ(data.contains("field") ? data.at("field") : "", field) << error;
    }
}

TEST_F(ControlServiceTest, ApplyChecksAllBeforeItChangesAny) {
    const std::vector<Json> changes{routeChange(json("['Ethernet1']")), requestChange(requestKey())};
    const Json answer = json("{'path': 'api/mroute/resp', 'attribute': 'mrouteResp', 'key': %,"
                             " 'value': ['Ethernet1']}",
                             requestKey());
    EXPECT_EQ(apply(changes), json("{'changed': 2, 'answers': [%]}", answer));

    // By a guard, by a type, by a parameter: nothing before it happens either.
    const Json requests = json("{'path': 'api/mroute/req'}");
    const Json before = client.result("get", requests);
    const Json anyAny = requestKey(5, "0.0.0.0").with("sourceIp", "0.0.0.0");
    for (const Json& bad : {requestChange(anyAny), Json(1), json("{'op': 'put', 'path': %}", vrfs),
                            json("{'op': 'set', 'path': %, 'x': 1}", vrfs),
                            json("{'op': 'set', 'path': 'x/y', 'attribute': 'z'}")}) {
        const Json error = client.error("apply", json("{'changes': [%, %, %]}", requestChange(requestKey(6)),
                                                      requestChange(requestKey(7)), bad));
        EXPECT_EQ(error.at("data").at("index"), 2) << error;
        EXPECT_EQ(client.result("get", requests), before) << error;
    }
}

TEST_F(ControlServiceTest, ApplyTakesLinesAndNamesTheOneThatIsRefused) {
    const Json lines =
        json("{'text': true, 'lines': ['# a comment', '',"
             " 'route red static 10.0.0.1/32 239.1.1.1/32 oifs Ethernet1',"
             " 'request mroute intf Ethernet5 vrf red vlan 10 source 10.0.0.1 group 239.1.1.1']}");
    const Json told =
        json("[{'vrf': 'red', 'key': %, 'value': ['Ethernet1'],"
             " 'text': 'mroute (10.0.0.1, 239.1.1.1) in red for Ethernet5 vlan 10: Ethernet1'}]",
             requestKey());
    for (const bool dryRun : {true, false}) // each answer also as people read it, foretold or not
        EXPECT_TRUE(holds(told, client.result("apply", lines.with("dryRun", dryRun)).at("answers")));

    const Json error = client.error(
        "apply", json("{'lines': ['vrf blue id 4', '',"
                      " 'request mroute intf Ethernet5 vrf red vlan 10 source any group any']}"));
    EXPECT_EQ(error.at("code"), -32000);
    EXPECT_EQ(error.at("data").at("line"), 3);
    EXPECT_EQ(client.result("get", vrfEntries.with("key", "blue")), Json());
    const Json noState = client.error("apply", json("{'lines': ['vrf blue id 4', 'expect x']}"));
    EXPECT_EQ(noState.at("data").at("line"), 2);
}

TEST_F(ControlServiceTest, ADryRunForetellsTheVeryAnswersAndChangesNothing) {
    std::vector<Json> changes{routeChange(json("['Ethernet1', 'Ethernet9']")),
                              requestChange(requestKey(3, "239.9.9.9"))};
    for (unsigned intf = 0; intf < 50; ++intf)
        changes.push_back(requestChange(requestKey(intf)));
    const Json watched = client.result("watch");
    const Json foretold = client.result("apply", json("{'changes': %, 'dryRun': true}", changes));
    EXPECT_EQ(foretold.at("answers").size(), 51U);
    EXPECT_EQ(client.result("get", json("{'path': 'api/mroute/req'}")), json("{'mrouteReq': []}"));
    EXPECT_EQ(client.result("watch").at("seq"), watched.at("seq"));
    EXPECT_EQ(apply(changes), foretold);
    // What the types or a guard refuse, the dry run refuses as well.
    const Json refused = json("{'changes': [%], 'dryRun': true}", routeChange(1));
    EXPECT_EQ(client.error("apply", refused).at("data").at("field"), "intf");
}

TEST_F(ControlServiceTest, TheSchemaTellsWhatRequestsAreHeldAgainst) {
    const Json schema = client.result("schema");
    EXPECT_EQ(client.run("schema"), schema);
    EXPECT_EQ(schema.at("methods").size(), 12U);
    for (const Json& method : schema.at("methods").elements()) {
        for (const Json& parameter : method.at("parameters").elements()) {
            const Json params = json(R"({%: null})", parameter.at("name"));
            const Json error = client.error(method.at("name").text(), params);
            EXPECT_TRUE(parameter.at("type") == "any" || error.at("data").at("field") == parameter.at("name"))
                << error;
        }
    }
    // Every type that is named is described.
    std::set<Json> types;
    for (const char* list : {"entityTypes", "valueTypes"})
        for (const Json& type : schema.at(list).elements())
            EXPECT_TRUE(types.insert(type.at("name")).second) << type;
    for (const Json& path : schema.at("paths").elements())
        EXPECT_TRUE(types.contains(path.at("type"))) << path;
    for (const Json& type : schema.at("entityTypes").elements())
        for (const Json& attribute : type.at("attributes").elements())
            for (const char* kind : {"keyType", "valueType", "memberType"})
                EXPECT_TRUE(!attribute.contains(kind) || types.contains(attribute.at(kind))) << attribute;
}

TEST_F(ControlServiceTest, StatusCountsWhatThereIs) {
    apply({routeChange(json("['Ethernet1']")), requestChange(requestKey())});
    client.error("apply", json("{'changes': [%]}", requestChange(requestKey().with("vlanId", 0))));
    client.result("watch");
    const RpcClient other(agent.socket());

    const Json status = client.result("status");
    EXPECT_TRUE(holds(
        json("{'fibSource': 'lumen', 'sources': ['software-chip'], 'tables': {'refusedRows': 0},"
             " 'counters': {'changes': 6, 'refused': 1, 'watchers': 1, 'answerSeq': 1, 'interfaceNames': 2,"
             " 'interfaceNamesMost': 65536, 'interfaceNamesSwept': 0, 'interfaceNameSweeps': 0}}"),
        status))
        << status;
    EXPECT_EQ(status.at("toggles").at(0).at("origin"), "override");
    EXPECT_EQ(status.at("ready"), json("{'mrouteSmReady': true, 'mgroupSmReady': true}"));
    EXPECT_EQ(status.at("sizes").at("api/mroute/resp").at("mrouteResp"), 1);
    EXPECT_EQ(status.at("sizes").at("lumen/multicast/fib/ipv4/TYPE/VRF"),
              json("{'entities': 2, 'route': 1}"));
    const Json counters = status.at("counters");
    EXPECT_GT(counters.at("traceNext").number(), counters.at("traceOldest").number());
    EXPECT_FALSE(status.at("version").text().empty());
    for (const char* line : {"status", "show status"}) { // the same, but for what counts on
        const Json shown = client.run(line);
        EXPECT_EQ(shown.with("counters", {}).with("uptimeSeconds", {}),
                  status.with("counters", {}).with("uptimeSeconds", {}));
    }
}

TEST_F(ControlServiceTest, TraceShowsAndSetsLevelsAndShowsTheRing) {
    EXPECT_GE(client.result("trace").at("levels").size(), 3U);
    client.result("trace", json("{'facility': 'KestrelNatMulticastSm', 'level': 8}"));
    apply({requestChange(requestKey())});
    EXPECT_NE(agent.said().find("handleMrouteReq adding request"), std::string::npos) << agent.said();
    const Json levels = client.result("trace", json("{'facility': 'KestrelNatMulticastSm'}")).at("levels");
    ASSERT_EQ(levels.size(), 1U);
    EXPECT_EQ(levels.at(0).at("level"), 8);

    const Json records = client.result("trace", json("{'last': 3}")).at("records");
    ASSERT_EQ(records.size(), 3U);
    EXPECT_EQ(records.at(2).at("message"), "ControlService::call method=trace");
    EXPECT_EQ(records.at(2).at("n").number(), records.at(1).at("n").number() + 1);
    for (const char* part : {"n", "level", "facility", "file", "line", "function", "message"})
        EXPECT_TRUE(records.at(0).contains(part)) << part;
}

} // namespace
} // namespace AgentTest
