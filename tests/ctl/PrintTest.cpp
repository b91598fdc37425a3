// Words into lines and values, results into text.
#include "ctl/Print.h"
#include "ctl/Words.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <chrono>
#include <sstream>
#include <string>

namespace CtlTest {
namespace {

using Json = nlohmann::ordered_json;
using namespace std::chrono_literals;

TEST(Words, AreQuotedOnlyWhereTheLineWouldReadOtherwise) {
    EXPECT_EQ(Ctl::joinWords({"route", "red", "10.0.0.1/32", "=", "a,b:c"}), "route red 10.0.0.1/32 = a,b:c");
    EXPECT_EQ(Ctl::joinWords({"a b", "", "#", R"({"k":"\"})", "t\tb", "\xc3\xa9"}),
              "\"a b\" \"\" \"#\" \"{\\\"k\\\":\\\"\\\\\\\"}\" \"t\tb\" \xc3\xa9");
    EXPECT_EQ(Ctl::joinWords({}), "");
}

TEST(Words, AreJsonWhereTheyCanBe) {
    EXPECT_EQ(Ctl::valueOf("3"), 3);
    EXPECT_EQ(Ctl::valueOf("true"), true);
    EXPECT_EQ(Ctl::valueOf(R"({"vrfId": 3})").dump(), R"({"vrfId":3})");
    EXPECT_EQ(Ctl::valueOf(R"("3")"), "3");
    for (const std::string word : {"red", "10.0.0.1", "{vrfId", "Ethernet1", ""})
        EXPECT_EQ(Ctl::valueOf(word), word);
}

TEST(Words, NameDurations) {
    EXPECT_EQ(Ctl::durationOf("500ms"), 500ms);
    EXPECT_EQ(Ctl::durationOf("2s"), 2s);
    EXPECT_EQ(Ctl::durationOf("2"), 2s);
    EXPECT_EQ(Ctl::durationOf("1m"), 1min);
    for (const std::string word : {"", "s", "-1s", "2h", "1.5s", "2 s", "99999999999s"})
        EXPECT_EQ(Ctl::durationOf(word), std::nullopt) << word;
}

Json change(const char* path, const Json& value) {
    return {{"path", path},
            {"key",
             {{"intf", "Ethernet5"},
              {"vrfId", 3},
              {"vlanId", 10},
              {"sourceIp", "10.0.0.1"},
              {"groupIp", "239.1.1.1"},
              {"type", 0}}},
            {"value", value}};
}

TEST(Print, AChangeReadsAsTheAgentPrintsIt) {
    const Json intfs{"Ethernet1", "Ethernet2"};
    EXPECT_EQ(Ctl::changeText(change("api/mroute/resp", intfs)),
              "mroute (10.0.0.1, 239.1.1.1) in 3 for Ethernet5 vlan 10: Ethernet1 Ethernet2");
    EXPECT_EQ(Ctl::changeText(change("api/mroute/resp", Json::array())),
              "mroute (10.0.0.1, 239.1.1.1) in 3 for Ethernet5 vlan 10: none");
    EXPECT_EQ(Ctl::changeText(change("api/mgroup/resp", nullptr)),
              "mgroup (10.0.0.1, 239.1.1.1) in 3 for Ethernet5 vlan 10: gone");
    Json named = change("api/mgroup/resp", 17);
    named["vrf"] = "red";
    named["key"]["sourceIp"] = "0.0.0.0";
    EXPECT_EQ(Ctl::changeText(named), "mgroup (any, 239.1.1.1) in red for Ethernet5 vlan 10: 17");
}

std::string printed(void (*print)(std::ostream&, const Json&), const std::string& value) {
    std::ostringstream out;
    print(out, Json::parse(value));
    return out.str();
}

TEST(Print, NestedObjectsAreAnOutline) {
    EXPECT_EQ(printed(Ctl::printOutline,
                      R"({"name":"a","list":[1,2],"empty":[],"in":{"x":null,"deep":{"y":"z"}},)"
                      R"("rows":[{"p":1,"q":[{"r":2}]},"s"]})"),
              "name: a\n"
              "list: 1, 2\n"
              "empty: none\n"
              "in:\n"
              "  x: null\n"
              "  deep:\n"
              "    y: z\n"
              "rows:\n"
              "  - p: 1\n"
              "    q:\n"
              "      - r: 2\n"
              "  - s\n");
}

} // namespace
} // namespace CtlTest
