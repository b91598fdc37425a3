// The grammar in process, with the real plug-in: what is read before anything is done, and what a file is held
// against before it is played. What lines do is in ScenarioFilesTest and ControlServiceTest.
#include "agent/language/Language.h"

#include "state/Trace.h"
#include "tests/agent/AgentProcess.h"
#include "tests/agent/InProcessAgent.h"
#include "text/JsonWriter.h"
#include "text/TextWriter.h"

#include <gtest/gtest.h>

#include <optional>
#include <sstream>
#include <string>
#include <vector>

namespace AgentTest {
namespace {

using Agent::Refusal;

const std::string vrfs = "routing/hardware/route/status";
const std::string flow = "intf Ethernet5 vrf red vlan 10 source any group 239.1.1.1";

class LanguageTest : public testing::Test {
  protected:
    LanguageTest() {
        language.addShown("weather", [](Text::Writer& writer) { writer.value("fine"); });
        agent.host.start();
    }

    template <class Writer>
    std::string told(const std::string& line) {
        std::string out;
        language.run(line, false, [&](const Text::Tell& tell) {
            Writer writer(out);
            tell(writer);
        });
        return out;
    }
    /// Why a file of the lines is refused; empty: it is not.
    std::string fault(const std::vector<std::string>& lines) {
        std::string content;
        for (const std::string& line : lines)
            content += line + "\n";
        try {
            language.check(writeFile(folder, "it.scn", content));
            return {};
        } catch (const std::runtime_error& error) {
            return error.what();
        }
    }

    InProcessAgent agent;
    Agent::Language language{agent.operations, [] {}};
    TemporaryFolder folder;
};

TEST_F(LanguageTest, AFaultyLineIsRefusedBeforeItDoesAnythingAndNamesTheWord) {
    struct Case {
        std::string line;
        std::optional<std::size_t> word;
        const char* text;
    };
    const std::string deep(20'000, '[');
    const Case cases[] = {
        {"vrv red", 1, "did you mean \"vrf\"?"},
        {"show nonsense", 2, "weather"},
        {"show mroutes", 2, "did you mean \"mroute\"?"},
        {"show mroute limit 0", 4, "1 to 512"},
        {"show mroute limit 1 after x", 6, "\"more\""},
        {"show weather after x", 4, "told whole"},
        {"expect gibberish", 2, "mroute or mgroup"},
        {"expect mroute intf E vrf 3 vlan 1 source 10.0.0 group any = none", {}, "'10.0.0' is none"},
        {"expect mroute " + flow + " = none", 6, "'red' has no identifier"},
        {"trace Nobody 99", 2, "no trace facility"},
        {"trace Agnet 3", 2, "did you mean \"Agent\"?"},
        {"trace Agent 10", 3, "up to 9"},
        {"get nowhere nothing", 2, "nearest known one"},
        {"get " + vrfs + " vrfStatuses", 3, "has vrfStatus"},
        {"get " + vrfs + " vrfStatus 5 limit 1", 4, "takes a string"},
        {"get " + vrfs + " vrfStatus after 5", 5, "takes a string"},
        {"mark with extra words", 2, "'with'"},
        {"route red sparce", 3, "did you mean \"sparse\"?"},
        {"no egress", 2, "vrf, route, request or group"},
        {"set nowhere nothing 1", 2, "nearest known one"},
        {"request mroute " + flow, 6, "'red' has no identifier"},
        {"get api/mroute/req mrouteReq " + deep, 4, "takes an object, not a string"},
        {"set api/mroute/req mrouteReq " + deep, {}, "takes an object, not a string"},
    };
    for (const Case& given : cases) {
        SCOPED_TRACE(given.line);
        const Refusal refusal = refusalOf([&] { told<Text::JsonWriter>(given.line); });
        EXPECT_EQ(refusal.where().word, given.word) << refusal.what();
        EXPECT_NE(std::string(refusal.what()).find(given.text), std::string::npos) << refusal.what();
        EXPECT_NE(fault({"# first", given.line}).find("it.scn:2: "), std::string::npos);
    }
    for (const State::TraceLevel& level : State::traceLevels())
        EXPECT_TRUE(level.isLoaded) << level.facility;
}

TEST_F(LanguageTest, ACheckJudgesEachLineByThoseBeforeItAndDoesNothing) {
    const std::string given = "set " + vrfs + R"( vrfStatus red "{\"vrfId\":3}")";
    const std::string request = "request mroute " + flow;
    const std::string expectation = "expect mroute " + flow + " = none";
    const std::vector<std::string> fine = {given, request, expectation, "trace Agent 3", "mark"};
    EXPECT_EQ(fault(fine), "");
    EXPECT_EQ(
        fault({"vrf red id 3 multicast on", "vrf red multicast off", "no vrf red", "vrf red multicast on"}),
        "");
    EXPECT_NE(fault({given, "no vrf red", expectation}).find(":3: VRF 'red' has no identifier"),
              std::string::npos);
    // By a guard and by a type, each against what the lines before it would have made.
    EXPECT_NE(
        fault({given, expectation, "vrf blue id 3"}).find(":3: the identifier 3 is that of VRF \"red\""),
        std::string::npos);
    EXPECT_NE(fault({given, "route red static nonsense 239.1.1.1 oifs Ethernet1", "mark"}).find(":2: "),
              std::string::npos);
    EXPECT_EQ(agent.operations.counters().changes, 0U);
    EXPECT_EQ(told<Text::TextWriter>("trace").find('3'), std::string::npos);

    // Carried out in one list they do what they do one by one.
    const std::vector<std::string> again = {given, "no vrf red", "vrf red multicast on"};
    agent.operations.apply(language.changes(again, false));
    EXPECT_EQ(told<Text::JsonWriter>("get " + vrfs + " vrfStatus red"), R"({"vrfId":0})");
    const std::vector<std::string> noState = {"vrf blue", "", "mark"};
    EXPECT_EQ(refusalOf([&] { language.changes(noState, false); }).where().line, 3U);
}

TEST_F(LanguageTest, ResultsReadAlikeWhereverTheyAreTold) {
    EXPECT_EQ(told<Text::TextWriter>("vrf red id 3 multicast on"), "");
    EXPECT_EQ(told<Text::TextWriter>("request mroute " + flow),
              "mroute (any, 239.1.1.1) in red for Ethernet5 vlan 10: none\n");
    EXPECT_NE(told<Text::JsonWriter>("show mroute").find(R"("oifs":[],"type":"mrouteRequest"})"),
              std::string::npos);
    EXPECT_EQ(told<Text::TextWriter>("show mroute"), "VRF  SOURCE  GROUP      INTF       VLAN  OIFS\n"
                                                     "red  any     239.1.1.1  Ethernet5  10    none\n");
    const std::string other = "request mroute intf Ethernet6 vrf red vlan 10 source any group 239.1.1.1";
    told<Text::JsonWriter>(other);
    EXPECT_NE(told<Text::TextWriter>("show mroute limit 1").find("none\nmore: after "), std::string::npos);
    told<Text::JsonWriter>("no " + other);
    EXPECT_EQ(told<Text::TextWriter>("show weather"), "fine\n");
    EXPECT_EQ(told<Text::TextWriter>("expect mroute " + flow + " = none"), "");
    EXPECT_EQ(told<Text::JsonWriter>("expect mroute " + flow + " = none"), R"({"held":true})");

    EXPECT_EQ(told<Text::TextWriter>("get " + vrfs + " vrfStatus"), "red = {\"vrfId\":3}\n");
    EXPECT_EQ(told<Text::TextWriter>("get " + vrfs),
              "vrfStatus:\n  - key: red\n    value:\n      vrfId: 3\n");
    EXPECT_EQ(told<Text::JsonWriter>("get " + vrfs + " vrfStatus limit 0"), "[]");
    EXPECT_EQ(told<Text::JsonWriter>("get " + vrfs + " vrfStatus blue"), "null");

    // An address of another family is told as it is.
    const std::string key =
        R"("{\"vrfId\":3,\"source\":\"2001:db8::1\",\"group\":\"ff02::1\",\"vlanId\":1}")";
    told<Text::JsonWriter>("set l3/mroutegroup/status mgroups " + key + R"( "{\"groupId\":7}")");
    EXPECT_NE(told<Text::TextWriter>("show groups").find("red  2001:db8::1  ff02::1  1     no      7"),
              std::string::npos);
}

TEST_F(LanguageTest, APlayTellsWhatLinesShowAndRefusesWhatItCannotWaitFor) {
    language.addVerb(
        {"later", [](Agent::WordReader&, const Agent::StateCommands&) { return [](const Text::Reply&) {}; }});
    std::ostringstream out;
    EXPECT_TRUE(language.play(writeFile(folder, "a.scn", "# so\nshow weather\n\nmark\n"), out));
    EXPECT_EQ(out.str(), "# so\nshow weather\n    fine\n\nmark\n");
    EXPECT_FALSE(language.play(writeFile(folder, "b.scn", "later\nmark\n"), out));
    EXPECT_THROW(language.play(folder.file(""), out), std::runtime_error); // it is a folder
    EXPECT_THROW(language.check(folder.file("absent.scn")), std::runtime_error);
}

} // namespace
} // namespace AgentTest
