// Rules of the mroute service where the model in tests/model does not lead: collections emptied at once, tables
// and response maps that are not as the service itself makes them, memory shared with the routes.
#include "tests/nat/FailingAllocation.h"
#include "tests/nat/NatFixture.h"

namespace NatTest {

namespace {

using MrouteRules = NatFixture;

TEST_F(MrouteRules, AFibIsNotReadWhereTheToggleIsOff) {
    if (lumen)
        GTEST_SKIP() << "the toggle is on";
    const auto fib = makeHandle<LumenFib>("static");
    const auto route = makeHandle<LumenRoute>(routeKey());
    route->intfIs({L3::IntfId("Ethernet1")});
    route->readyIs(0);
    fib->routeIs(route);
    requests->mrouteReqIs(request());
    start();
    routeMap->mfibIs(tableKey(), fib);
    EXPECT_EQ(answer(), "none");
    traced();
    route->versionAdvance();
    EXPECT_EQ(traced("found sg=(10.0.0.1, 239.1.1.1)"), 1U) << "no route is skipped as not ready";
}

TEST_F(MrouteRules, ATableNamedOtherThanItsTypeIsNoRouteType) {
    start();
    tableIs(tableKey(3, sparse), "red");
    requests->mrouteReqIs(request());
    traced();
    routeIs({"Ethernet1"}, "10.0.0.1", tableKey(3, sparse));
    EXPECT_EQ(traced("0 updateResponseMap no response map for routeType=red"), 1U);
    EXPECT_EQ(answer() + answerOf(plain) + answerOf(sparse), "{Ethernet1}nonenone");

    routeIs({"Ethernet2"}); // the pass of the new table knows the type
    EXPECT_EQ(answer() + answerOf(sparse), "{Ethernet1, Ethernet2}{Ethernet1}");
    routeDel("10.0.0.1", tableKey(3, sparse));
    EXPECT_EQ(answer() + answerOf(sparse), "{Ethernet2}{Ethernet1}") << "the other type is the static one";
}

TEST_F(MrouteRules, WithoutTheOtherTypesMapAnEmptyResultLeavesTheAnswer) {
    start();
    machine->mrouteResponseMapByRouteDel(KestrelNat::sparseRouteType());
    const std::string& type = KestrelNat::staticRouteType();
    for (const bool removeEmpty : {true, false}) {
        machine->updateResponseMap({L3::IntfId("Ethernet1")}, request(), type, removeEmpty);
        EXPECT_EQ(answer() + answerOf(plain), "{Ethernet1}{Ethernet1}");
        machine->updateResponseMap({}, request(), type, removeEmpty);
        EXPECT_EQ(answer() + answerOf(plain), "{Ethernet1}none");
    }
}

TEST_F(MrouteRules, CollectionsAreEmptiedMemberByMember) {
    start();
    for (const std::uint32_t vrf : {3U, 4U}) {
        requests->mrouteReqIs(request({.vrf = vrf}));
        tableIs(tableKey(vrf));
    }
    std::vector<State::AttributeId> heard;
    const auto hear = [&](const Notification& change) { heard.push_back(change.attribute); };
    const OnChange onMachine(*machine, hear);
    machine->mcastRouteDelAll();
    machine->mfibAppDelAll();
    EXPECT_EQ(answer() + answer({.vrf = 4}), "nonenone") << "its watchers were retired";
    machine->watchedMroutesDelAll();
    machine->vrfIdSourceAndGroupToIntfDelAll();
    const State::AttributeId watchers = lumen ? 6 : 5;
    EXPECT_EQ(heard, (std::vector<State::AttributeId>{watchers, watchers, 9, 9, 8, 8}));

    const auto map = makeHandle<KestrelNat::NatMrouteRouteMap>();
    for (const std::uint32_t vrf : {3U, 4U}) {
        map->vrfNameToIdIs(L3::VrfName(std::to_string(vrf)), vrf);
        map->mrouteRouteIs(tableKey(vrf), makeHandle<QuillTable>("static"));
        map->mfibIs(tableKey(vrf), makeHandle<LumenFib>("user"));
    }
    heard.clear();
    const OnChange onMap(map->publisher(), hear);
    map->vrfNameToIdDelAll();
    map->mrouteRouteDelAll();
    map->mfibDelAll();
    EXPECT_EQ(heard, (std::vector<State::AttributeId>{0, 0, 1, 1, 2, 2}));
}

TEST_F(MrouteRules, RouteAndAnswersShareOneArrayOfInterfaces) {
    if (!lumen)
        GTEST_SKIP() << "a Quill row names its interfaces by index";
    start();
    requests->mrouteReqIs(request());
    routeIs({"Ethernet1"});
    const auto route = lumenFibs[tableKey()]->route(routeKey());
    L3::IntfSet changed{L3::IntfId("Ethernet2"), L3::IntfId("Ethernet3"), L3::IntfId("Ethernet4")};
    FailingAllocation::failAfter(0); // an allocation inside the reactor would end the process
    route->intfIs(std::move(changed));
    route->versionAdvance();
    EXPECT_FALSE(FailingAllocation::stop());
    EXPECT_EQ(answer() + answerOf(plain),
              "{Ethernet2, Ethernet3, Ethernet4}{Ethernet2, Ethernet3, Ethernet4}");
}

} // namespace

} // namespace NatTest
