// The mroute service as stories: tables, routes and requests come and go; what is answered, and who hears of
// it. All run with either source of routes but those that say so.
#include "tests/nat/NatFixture.h"

namespace NatTest {

namespace {

constexpr const char* any = "0.0.0.0";

using Mroute = NatFixture;

TEST_F(Mroute, AnExactRequestFollowsItsRoute) {
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
    EXPECT_EQ(answer(), "{Ethernet1, Ethernet2}");
    routeDel(3, plain, "10.0.0.1", "239.1.1.1");
    EXPECT_EQ(answer(), "none") << "a route update that leaves nothing deletes the answer";
    tableIs(3, sparse);
    EXPECT_EQ(answer(), "{}") << "and a pass over the requests publishes the empty set again";
    requests->mrouteReqDel(request());
    EXPECT_EQ(answer(), "none");

    const std::string flow = "Ethernet9 10.0.0.1 239.1.1.1 ";
    EXPECT_EQ(listener.heard, (Lines{flow + "{}", flow + "{Ethernet1}", flow + "{Ethernet1, Ethernet2}",
                                     flow + "gone", flow + "{}", flow + "gone"}));
    EXPECT_EQ(requesters(), 0U);
    EXPECT_EQ(machine->watchedMroutesCollection().size(), 0U);
}

TEST_F(Mroute, AWildcardRequestCollectsEveryRouteThatMatches) {
    start();
    routeIs(3, plain, "10.0.0.1", "239.1.1.1", {"Ethernet2", "Ethernet1"});
    routeIs(3, plain, "10.0.0.2", "239.1.1.1", {"Ethernet3"});
    routeIs(3, plain, "10.0.0.1", "239.2.2.2", {"Ethernet4"});
    requests->mrouteReqIs(request({.source = any}));
    requests->mrouteReqIs(request({.group = any}));
    EXPECT_EQ(answer({.source = any}), "{Ethernet1, Ethernet2, Ethernet3}");
    EXPECT_EQ(answer({.group = any}), "{Ethernet1, Ethernet2, Ethernet4}");

    // A (*,G) route counts for its group, whatever its prefix length, and refreshes the (*,G) requests alone.
    routeIs(3, plain, "0.0.0.0/0", "239.1.1.1", {"Ethernet4"});
    EXPECT_EQ(answer({.source = any}), "{Ethernet1, Ethernet2, Ethernet3, Ethernet4}");
    AnswerListener listener(answers);
    routeIs(3, plain, "10.0.0.1", "239.1.1.1", {"Ethernet2"});
    EXPECT_EQ(listener.heard, (Lines{"Ethernet9 0.0.0.0 239.1.1.1 {Ethernet2, Ethernet3, Ethernet4}",
                                     "Ethernet9 10.0.0.1 0.0.0.0 {Ethernet2, Ethernet4}"}));
}

TEST_F(Mroute, AnExactRequestTakesTheFirstRowInTableOrderAlone) {
    start();
    requests->mrouteReqIs(request());
    routeIs(3, plain, "0.0.0.0/0", "239.1.1.1", {"Ethernet3"});
    routeIs(3, plain, any, "239.1.1.1", {"Ethernet4"});
    routeIs(3, plain, "10.0.0.1/24", "239.1.1.1", {"Ethernet2"});
    // The row with a prefix is no exact match; it makes the request be looked at, and the first (*,G) row
    // answers.
    EXPECT_EQ(answer(), "{Ethernet3}");
    routeIs(3, plain, "10.0.0.1", "239.1.1.1", {"Ethernet1"});
    EXPECT_EQ(answer(), "{Ethernet1}") << "rows with a source come first, and nothing is merged";
    routeDel(3, plain, "10.0.0.1", "239.1.1.1");
    EXPECT_EQ(answer(), "{Ethernet3}");
    routeDel(3, plain, "0.0.0.0/0", "239.1.1.1");
    EXPECT_EQ(answer(), "{Ethernet3}") << "a (*,G) route refreshes no (S,G) request";
    machine->handleMrouteReq();
    EXPECT_EQ(answer(), "{Ethernet4}");
}

TEST_F(Mroute, OneRouteServesExactThenAnySourceThenAnyGroupRequests) {
    start();
    tableIs(3, plain);
    for (const Ask& ask : {Ask{.group = any}, Ask{.source = any}, Ask{}, Ask{.vrf = 4}}) {
        requests->mrouteReqIs(request(ask));
    }
    AnswerListener listener(answers);
    routeIs(3, plain, "10.0.0.1", "239.1.1.1", {"Ethernet1"});
    EXPECT_EQ(listener.heard,
              (Lines{"Ethernet9 10.0.0.1 239.1.1.1 {Ethernet1}", "Ethernet9 0.0.0.0 239.1.1.1 {Ethernet1}",
                     "Ethernet9 10.0.0.1 0.0.0.0 {Ethernet1}"}));
}

TEST_F(Mroute, BothRouteTypesMakeOneAnswer) {
    start();
    requests->mrouteReqIs(request());
    routeIs(3, plain, "10.0.0.1", "239.1.1.1", {"Ethernet1"});
    routeIs(3, sparse, "10.0.0.1", "239.1.1.1", {"Ethernet2"});
    EXPECT_EQ(answer(), "{Ethernet1, Ethernet2}");
    EXPECT_EQ(answerOf(plain) + answerOf(sparse), "{Ethernet1}{Ethernet2}");

    AnswerListener listener(answers);
    routeDel(3, plain, "10.0.0.1", "239.1.1.1");
    EXPECT_EQ(answer(), "{Ethernet2}");
    EXPECT_EQ(answerOf(plain), "none");
    routeIs(3, sparse, "10.0.0.1", "239.1.1.1", {"Ethernet3"});
    EXPECT_EQ(answer(), "{Ethernet3}") << "what the type yielded before does not linger";
    routeIs(3, sparse, "10.0.0.1", "239.1.1.1", {});
    EXPECT_EQ(answer(), "none");
    machine->handleMrouteReq();
    EXPECT_EQ(answer(), "{}");
    EXPECT_EQ(answerOf(plain) + answerOf(sparse), "nonenone");
    EXPECT_EQ(listener.heard.size(), 4U);
}

TEST_F(Mroute, ATableThatGoesTakesAllAnswersOfItsVrf) {
    start();
    for (const std::uint32_t vrf : {3U, 4U}) {
        routeIs(vrf, plain, "10.0.0.1", "239.1.1.1", {"Ethernet1"});
        routeIs(vrf, sparse, "10.0.0.1", "239.1.1.1", {"Ethernet2"});
        requests->mrouteReqIs(request({.vrf = vrf}));
    }
    tableDel(3, plain);
    EXPECT_FALSE(isWatched(3, plain));
    EXPECT_EQ(answer() + answerOf(plain) + answerOf(sparse), "nonenonenone")
        << "though the sparse table is there";
    EXPECT_EQ(answer({.vrf = 4}), "{Ethernet1, Ethernet2}");

    routeIs(3, sparse, "10.0.0.1", "239.1.1.1", {"Ethernet3"});
    EXPECT_EQ(answer(), "{Ethernet3}");
    requests->mrouteReqDel(request());
    EXPECT_EQ(answer(), "none");
    requests->mrouteReqIs(request());
    tableIs(3, plain);
    EXPECT_EQ(answer(), "{Ethernet3}") << "a table that comes has every request answered";
    tableDel(3, sparse);
    tableDel(3, plain);
    requests->mrouteReqDel(request());
    EXPECT_EQ(requesters(), 0U);
}

TEST_F(Mroute, EverythingThatIsThereAtTheStartIsAnswered) {
    routeIs(3, plain, "10.0.0.1", "239.1.1.1", {"Ethernet1"});
    routeIs(3, plain, "10.0.0.2", "239.1.1.1", {"Ethernet2"});
    routeIs(4, sparse, "10.0.0.1", "239.1.1.1", {"Ethernet3"});
    requests->mrouteReqIs(request());
    requests->mrouteReqIs(request({.vrf = 4}));
    requests->mrouteReqIs(request({.vrf = 5}));
    start();
    EXPECT_TRUE(status->mrouteSmReady());
    EXPECT_EQ(answer(), "{Ethernet1}");
    EXPECT_EQ(answer({.vrf = 4}), "{Ethernet3}");
    EXPECT_EQ(answer({.vrf = 5}), "none");
    EXPECT_TRUE(isWatched(3, plain) && isWatched(4, sparse));

    // A new table's routes are handled once, those of a Quill table once more with its interfaces.
    EXPECT_EQ(countOf(traced(), "handling update for mroute (S=10.0.0.2/32 G=239.1.1.1/32)"),
              lumen ? 1U : 2U);
    routeIs(3, plain, "10.0.0.1", "239.1.1.1", {"Ethernet1", "Ethernet4"});
    EXPECT_EQ(answer(), "{Ethernet1, Ethernet4}");
}

TEST_F(Mroute, ManyRequestersShareOneFlow) {
    start();
    routeIs(3, plain, "10.0.0.1", "239.1.1.1", {"Ethernet1"});
    const auto asker = [](int n) {
        return Ask{.intf = n % 2 == 0 ? "Ethernet8" : "Ethernet9",
                   .vlan = static_cast<std::uint16_t>(n / 2 + 1)};
    };
    constexpr int many = 3000;
    for (int n = 0; n < many; ++n) {
        requests->mrouteReqIs(request(asker(n)));
    }
    requests->mrouteReqIs(request(asker(0)));
    EXPECT_EQ(requesters(), many);
    routeIs(3, plain, "10.0.0.1", "239.1.1.1", {"Ethernet2"});
    EXPECT_EQ(answer(asker(0)) + answer(asker(many - 1)), "{Ethernet2}{Ethernet2}");
    for (int n = 0; n < many - 1; ++n) {
        requests->mrouteReqDel(request(asker(n)));
    }
    EXPECT_EQ(answer(asker(0)), "none");
    EXPECT_EQ(answer(asker(many - 1)), "{Ethernet2}");
    machine->handleMrouteReq(request(asker(0))); // withdrawn already: nothing to take away
    EXPECT_EQ(requesters(), 1U);
}

TEST_F(Mroute, AnswersGatherFromAllVrfsWhereTheConfigurationSaysSo) {
    start();
    for (const std::uint32_t vrf : {3U, 4U}) {
        routeMap->vrfNameToIdIs("vrf" + std::to_string(vrf), vrf);
        tableIs(vrf, plain);
        tableIs(vrf, sparse);
    }
    routeIs(3, plain, "10.0.0.1", "239.1.1.1", {"Ethernet1"});
    routeIs(4, sparse, any, "239.1.1.1", {"Ethernet2"});
    requests->mrouteReqIs(request());
    EXPECT_EQ(answer(), "{Ethernet1}");
    capability->egressFromAllVrfsIs(true);
    EXPECT_EQ(answer(), "{Ethernet1}") << "the flag itself is watched by nobody";
    machine->handleMrouteReq();
    EXPECT_EQ(answer(), "{Ethernet1, Ethernet2}");
    EXPECT_EQ(answerOf(sparse), "{Ethernet1, Ethernet2}") << "each type gathers from all tables";
    routeIs(4, sparse, any, "239.1.1.1", {"Ethernet3"});
    EXPECT_EQ(answer(), "{Ethernet1, Ethernet2}") << "a route of another VRF refreshes nothing";
}

TEST_F(Mroute, ARouteUpdateAnswersUnderTypeZero) {
    start();
    tableIs(3, plain);
    const Ask typed{.type = NatRequestType::mgroupRequest};
    requests->mrouteReqIs(request(typed));
    routeIs(3, plain, "10.0.0.1", "239.1.1.1", {"Ethernet1"});
    EXPECT_EQ(answer(), "{Ethernet1}");
    EXPECT_EQ(answer(typed), "{}");
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

TEST_F(Mroute, ARouteThatIsNotReadyIsLeftAlone) {
    if (!lumen) {
        GTEST_SKIP() << "Lumen routes alone have a readiness";
    }
    start();
    requests->mrouteReqIs(request());
    routeIs(3, plain, "10.0.0.1", "239.1.1.1", {"Ethernet1"});
    LumenFib& fib = *lumenFibs[tableKey(3, plain)];
    const auto route = fib.route(routeKey("10.0.0.1", "239.1.1.1"));
    route->readyIs(0);
    route->intfIs({L3::IntfId("Ethernet2")});
    EXPECT_EQ(answer(), "{Ethernet1}") << "readers wait for the version";
    route->versionAdvance();
    EXPECT_EQ(answer(), "{Ethernet1}");
    EXPECT_EQ(traced().back(),
              "8 handleMcastRouteUpdate skipping mroute (S=10.0.0.1/32 G=239.1.1.1/32) - route not ready");
    route->readyIs(LumenRoute::isReady);
    route->versionAdvance();
    EXPECT_EQ(answer(), "{Ethernet2}");
    fib.routeDel(route->key());
    EXPECT_EQ(answer(), "none") << "a route that is gone is not one that is not ready";
    EXPECT_FALSE(route->hasSubscribers());

    // Another object under the same key is handled as a change, and watched from then on.
    const auto made = State::makeHandle<LumenRoute>(route->key());
    made->intfIs({L3::IntfId(), L3::IntfId("Ethernet3")});
    fib.routeIs(route);
    fib.routeIs(made);
    EXPECT_EQ(answer(), "{Ethernet3}") << "the empty interface is in no answer";
    EXPECT_FALSE(route->hasSubscribers());
    made->intfIs({L3::IntfId("Ethernet4")});
    made->versionAdvance();
    EXPECT_EQ(answer(), "{Ethernet4}");
}

TEST_F(Mroute, AnInterfaceRowChangesEveryRouteThatNamesIt) {
    if (lumen) {
        GTEST_SKIP() << "Quill tables alone name interfaces by index";
    }
    start();
    requests->mrouteReqIs(request());
    requests->mrouteReqIs(request({.group = "239.2.2.2"}));
    tableIs(3, plain);
    QuillTable& table = *quillTables[tableKey(3, plain)];
    table.routeIs(routeKey("10.0.0.1", "239.1.1.1"), {{7, 8, 0}});
    table.routeIs(routeKey("10.0.0.1", "239.2.2.2"), {{8, 512, 7}}); // the null index ends the list
    EXPECT_EQ(answer(), "none") << "an index without a row stands for no interface";
    table.oifIndexIntfIs(7, L3::IntfId("Ethernet1"));
    table.oifIndexIntfIs(8, L3::IntfId("Ethernet2"));
    table.oifIndexIntfIs(0, L3::IntfId("Ethernet1"));
    EXPECT_EQ(answer(), "{Ethernet1, Ethernet2}");
    EXPECT_EQ(answer({.group = "239.2.2.2"}), "{Ethernet2}");

    traced();
    table.oifIndexIntfIs(7, L3::IntfId());
    table.oifIndexIntfDel(0);
    EXPECT_EQ(answer(), "{Ethernet2}");
    const Lines lines = traced();
    EXPECT_EQ(countOf(lines, "8 handleMcastOifUpdate handling update for oif (id="), 2U);
    EXPECT_EQ(countOf(lines, "handling update for mroute"), 4U) << "each change looks at every route";
}

} // namespace

} // namespace NatTest
