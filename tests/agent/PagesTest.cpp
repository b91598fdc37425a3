// Pages of `show`: whatever comes and goes between two of them, a row that is there throughout is in one of them.
#include "agent/language/Language.h"

#include "tests/TestSeed.h"
#include "tests/agent/InProcessAgent.h"
#include "text/JsonWriter.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

namespace AgentTest {
namespace {

using Rows = std::vector<Json>;

class PagesTest : public testing::Test {
  protected:
    PagesTest() { agent.host.start(); }

    Json told(const std::string& line) {
        std::string out;
        language.run(line, false, [&](const Text::Tell& tell) {
            Text::JsonWriter writer(out);
            tell(writer);
        });
        return Json::parse(out);
    }
    unsigned draw(unsigned below) { return static_cast<unsigned>(random() % below); }

    // Puts something there, or takes it away; what is refused changes nothing.
    void changeSomething() {
        const unsigned number = draw(3);
        const std::string vrf = "v" + std::to_string(number);
        const std::string host = std::to_string(draw(4));
        const std::string request = "request mroute intf E" + std::to_string(draw(3)) + " vrf " + vrf +
                                    " vlan " + std::to_string(1 + draw(2)) + " source 10.0.0." + host +
                                    " group 239.1.1." + std::to_string(1 + draw(3));
        const std::string route = "route " + vrf + (draw(2) == 0 ? " static" : " sparse") + " 10.0.0." +
                                  host + "/32 239.1.1." + host + "/32";
        const std::string lines[] = {request,
                                     "no " + request,
                                     route + " oifs E1",
                                     "no " + route,
                                     "vrf " + vrf + " id " + std::to_string(3 + number) + " multicast on",
                                     "no vrf " + vrf};
        const unsigned kind = draw(24);
        try {
            told(lines[kind < 18 ? kind % 4 : kind < 23 ? 4 : 5]);
        } catch (const Agent::Refusal&) {
        }
    }

    InProcessAgent agent;
    Agent::Language language{agent.operations, [] {}};
    const std::uint32_t seed = testSeed();
    std::mt19937 random{seed};
};

TEST_F(PagesTest, ARowThatIsThereThroughoutIsShownOnce) {
    SCOPED_TRACE(seedText(seed));
    for (int vrf = 0; vrf < 3; ++vrf)
        told("vrf v" + std::to_string(vrf) + " id " + std::to_string(3 + vrf) + " multicast on");
    for (int i = 0; i < 150; ++i)
        changeSomething();
    std::size_t rowsShown = 0;
    for (int round = 0; round < 100; ++round) {
        const char* tables[] = {"mroute", "requests", "routes", "vrfs"};
        const std::string show = std::string("show ") + tables[round % 4];
        const auto whole = [&] { return told(show).at("rows").elements(); };
        const bool isStill = draw(4) == 0;
        Rows shown;
        Rows before = whole();
        std::sort(before.begin(), before.end());
        Rows throughout = before;
        std::set<Json> ever(before.begin(), before.end());
        for (Json page = told(show + " limit 3");;
             page = told(show + " limit 3 after \"" + page.at("more").text() + "\"")) {
            const Rows rows = page.at("rows").elements();
            EXPECT_LE(rows.size(), 3U);
            shown.insert(shown.end(), rows.begin(), rows.end());
            if (!page.contains("more"))
                break;
            for (unsigned i = isStill ? 0 : draw(4); i > 0; --i) {
                changeSomething();
                Rows now = whole();
                std::sort(now.begin(), now.end());
                ever.insert(now.begin(), now.end());
                Rows both;
                std::set_intersection(throughout.begin(), throughout.end(), now.begin(), now.end(),
                                      std::back_inserter(both));
                throughout = both;
            }
        }
        for (const Json& row : throughout)
            EXPECT_EQ(std::ranges::count(shown, row), 1) << show << ": " << row;
        for (const Json& row : shown)
            EXPECT_TRUE(ever.contains(row)) << show << ": " << row;
        EXPECT_TRUE(!isStill || shown == whole()) << show;
        rowsShown += shown.size();
    }
    EXPECT_GT(rowsShown, 200U) << "too little was there";
}

} // namespace
} // namespace AgentTest
