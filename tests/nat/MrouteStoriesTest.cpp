// The mroute service as stories: tables, routes and requests come and go; what is answered, and who hears of
// it. All run with either source of routes but those that say so.
#include "tests/nat/NatFixture.h"

namespace NatTest {

namespace {

constexpr const char* any = "0.0.0.0";

using Mroute = NatFixture;

TEST_F(Mroute, AnExactRequestFollowsItsRouteAndEachChangeIsHeardOnce) {
    start();
    EXPECT_TRUE(status->mrouteSmReady());
    AnswerListener listener(answers);
    requests->mrouteReqIs(request());
    EXPECT_EQ(answer(), "none") << "no table, no answer";

    tableIs(3, plain);
    EXPECT_EQ(answer(), "{}") << "a table without a route: there is an answer, and it is empty";
    routeIs(3, plain, "10.0.0.1", "239.1.1.1", {"Ethernet1"});
    routeIs(3, plain, "10.0.0.1", "239.1.1.1", {"Ethernet1", "Ethernet2"});
    routeIs(3, plain, "10.0.0.2", "239.1.1.1", {"Ethernet3"});
    routeDel(3, plain, "10.0.0.1", "239.1.1.1");
    EXPECT_EQ(answer(), "none") << "a route update that leaves nothing deletes the answer";
    tableIs(3, sparse);
    EXPECT_EQ(answer(), "{}") << "and a pass over the requests publishes the empty set again";
    requests->mrouteReqDel(request());
    const std::string flow = "Ethernet9 10.0.0.1 239.1.1.1 ";
    EXPECT_EQ(listener.heard, (Lines{flow + "{}", flow + "{Ethernet1}", flow + "{Ethernet1, Ethernet2}",
                                     flow + "gone", flow + "{}", flow + "gone"}));
}

TEST_F(Mroute, OneRouteServesExactThenAnySourceThenAnyGroupRequests) {
    start();
    tableIs(3, plain);
    for (const Ask& ask : {Ask{.group = any}, Ask{.source = any}, Ask{}, Ask{.vrf = 4}})
        requests->mrouteReqIs(request(ask));
    AnswerListener listener(answers);
    routeIs(3, plain, "10.0.0.1", "239.1.1.1", {"Ethernet1"});
    routeIs(3, plain, "0.0.0.0/0", "239.1.1.1", {"Ethernet2"}); // refreshes the (*,G) requests alone
    EXPECT_EQ(listener.heard,
              (Lines{"Ethernet9 10.0.0.1 239.1.1.1 {Ethernet1}", "Ethernet9 0.0.0.0 239.1.1.1 {Ethernet1}",
                     "Ethernet9 10.0.0.1 0.0.0.0 {Ethernet1}",
                     "Ethernet9 0.0.0.0 239.1.1.1 {Ethernet1, Ethernet2}"}));
}

TEST_F(Mroute, ATableThatGoesTakesAllAnswersOfItsVrf) {
    start();
    for (const std::uint32_t vrf : {3U, 4U}) {
        routeIs(vrf, plain, "10.0.0.1", "239.1.1.1", {"Ethernet1"});
        routeIs(vrf, sparse, "10.0.0.1", "239.1.1.1", {"Ethernet2"});
        requests->mrouteReqIs(request({.vrf = vrf}));
    }
    tableDel(3, plain);
    EXPECT_EQ(answer() + answerOf(plain) + answerOf(sparse), "nonenonenone")
        << "though the sparse table is there";
    EXPECT_EQ(answer({.vrf = 4}), "{Ethernet1, Ethernet2}");
}

TEST_F(Mroute, ATableNamedOtherThanItsTypeIsNoRouteType) {
    start();
    tableIs(3, sparse, "red");
    requests->mrouteReqIs(request());
    traced();
    routeIs(3, sparse, "10.0.0.1", "239.1.1.1", {"Ethernet1"});
    EXPECT_EQ(countOf(traced(), "0 updateResponseMap no response map for routeType=red"), 1U);
    EXPECT_EQ(answer() + answerOf(plain) + answerOf(sparse), "{Ethernet1}nonenone");

    routeIs(3, plain, "10.0.0.1", "239.1.1.1", {"Ethernet2"}); // the pass of the new table knows the type
    EXPECT_EQ(answer() + answerOf(sparse), "{Ethernet1, Ethernet2}{Ethernet1}");
    routeDel(3, sparse, "10.0.0.1", "239.1.1.1");
    EXPECT_EQ(answer() + answerOf(sparse), "{Ethernet2}{Ethernet1}") << "the other type is the static one";
}

} // namespace

} // namespace NatTest
