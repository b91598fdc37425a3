// A subscriber of the answers that changes requests, routes and tables from inside the delivery. Each outcome
// is the service's contract: handlers hold what they walk and check nothing again.
#include "tests/nat/NatFixture.h"

namespace NatTest {

namespace {

class MrouteReentrancy : public NatFixture {
  protected:
    // Does `action` once, at the next change of the answers.
    void atNextAnswer(std::function<void()> action) {
        onAnswer.reaction = [this, action = std::move(action)](const Notification&) {
            onAnswer.reaction = nullptr;
            action();
        };
    }
    OnChange onAnswer{*answers};
};

TEST_F(MrouteReentrancy, ARequestWithdrawnBetweenTheRouteTypesIsAnsweredAgain) {
    start();
    routeIs({"Ethernet1"});
    routeIs({"Ethernet2"}, "10.0.0.1", tableKey(3, sparse));
    Lines heard;
    onAnswer.reaction = [&](const Notification&) {
        heard.push_back(answer());
        if (heard.size() == 1)
            requests->mrouteReqDel(request());
    };
    requests->mrouteReqIs(request());
    EXPECT_EQ(heard, (Lines{"{Ethernet1}", "none", "{Ethernet2}"}));
    EXPECT_EQ(requesters(), 0U);
    EXPECT_EQ(machine->watchedMroutes(3), nullptr);

    // The same in a pass over all requests.
    requests->mrouteReqIs(request());
    routeMap->mfibDel(tableKey());
    routeMap->mrouteRouteDel(tableKey());
    atNextAnswer([&] { requests->mrouteReqDel(request()); });
    machine->handleMrouteReq();
    EXPECT_EQ(answer(), "none") << "no type follows the sparse one";
}

TEST_F(MrouteReentrancy, AnUpdateGoesOnWithTheRequestersAndTheTableThatItHolds) {
    start();
    tableIs();
    requests->mrouteReqIs(request());
    requests->mrouteReqIs(request({.vlan = 11}));
    atNextAnswer([&] {
        requests->mrouteReqDel(request({.vlan = 11}));
        requests->mrouteReqIs(request({.vlan = 12}));
    });
    routeIs({"Ethernet1"});
    EXPECT_EQ(answer() + answer({.vlan = 11}) + answer({.vlan = 12}), "{Ethernet1}{Ethernet1}{Ethernet1}");
    EXPECT_EQ(requesters(), 2U);

    atNextAnswer([&] { tableDel(); });
    routeIs({"Ethernet2"});
    EXPECT_EQ(answer() + answer({.vlan = 12}), "none{Ethernet2}");
    EXPECT_FALSE(isWatched());
}

TEST_F(MrouteReentrancy, RequestsAddedInAFullPassAreAnsweredOnceEach) {
    start();
    for (const std::uint16_t vlan : {std::uint16_t{1}, std::uint16_t{2}})
        requests->mrouteReqIs(request({.vlan = vlan}));
    onAnswer.reaction = [&](const Notification& change) {
        auto more = change.keyAs<NatMrouteKey>();
        more.vlanId = static_cast<std::uint16_t>(more.vlanId % 100 + 100);
        requests->mrouteReqIs(more);
    };
    traced();
    tableIs();
    EXPECT_EQ(traced("adding request"), 4U);
    onAnswer.reaction = nullptr;
    routeIs({"Ethernet1"});
    EXPECT_EQ(answer({.vlan = 1}) + answer({.vlan = 101}) + answer({.vlan = 102}),
              "{Ethernet1}{Ethernet1}{Ethernet1}");
}

TEST_F(MrouteReentrancy, RoutesMayChangeUnderAPassOverTheirTable) {
    const Ask anySource{.source = "0.0.0.0"};
    for (const char* source : {"10.0.0.1", "10.0.0.2", "10.0.0.3"})
        routeIs({"Ethernet1"}, source);
    requests->mrouteReqIs(request(anySource));
    int changes = 0;
    onAnswer.reaction = [&](const Notification&) {
        ++changes;
        if (changes == 1) {
            answers->mrouteRespDel(request(anySource)); // so that the pass over the table has one to publish
        } else if (changes == 3) {
            routeDel("10.0.0.1"); // the current row
            routeDel("10.0.0.2");
            routeIs({"Ethernet2"}, "10.0.0.4");
        }
    };
    start();
    EXPECT_GE(changes, 3);
    EXPECT_EQ(answer(anySource), "{Ethernet1, Ethernet2}");
    routeDel("10.0.0.3");
    EXPECT_EQ(answer(anySource), "{Ethernet2}");
}

TEST_F(MrouteReentrancy, TheServiceMayEndInsideADelivery) {
    const std::function<void()> changes[] = {[&] { routeIs({"Ethernet1"}); }, [&] { routeIs({"Ethernet2"}); },
                                             [&] { requests->mrouteReqIs(request({.vlan = 11})); },
                                             [&] { tableDel(); }};
    for (const auto& change : changes) {
        start();
        requests->mrouteReqIs(request());
        atNextAnswer([&] { machine.reset(); });
        change();
        EXPECT_EQ(answer(), "none");
        EXPECT_FALSE(requests->hasSubscribers() || routeMap->publisher().hasSubscribers());
    }
}

using MrouteReentrancyDeathTest = MrouteReentrancy;

TEST_F(MrouteReentrancyDeathTest, AVrfDisabledInsideThePassOverItsTableIsFatal) {
    start();
    routeIs({"Ethernet1"});
    const auto table = quillTables[tableKey()];
    const auto fib = lumenFibs[tableKey()];
    tableDel();
    requests->mrouteReqIs(request());
    atNextAnswer([&] { tableDel(); });
    const auto enable = [&] {
        routeMap->mfibIs(tableKey(), fib);
        routeMap->mrouteRouteIs(tableKey(), table);
    };
    EXPECT_DEATH(enable(), "handleMcastRouteUpdate\\(.*Only one mfib must be True");
}

TEST_F(MrouteReentrancyDeathTest, APendingFlowWhoseLastRequestIsWithdrawnIsFatal) {
    start();
    tableIs();
    requests->mrouteReqIs(request());
    requests->mrouteReqIs(request({.source = "0.0.0.0"}));
    atNextAnswer([&] { requests->mrouteReqDel(request({.source = "0.0.0.0"})); });
    EXPECT_DEATH(routeIs({"Ethernet1"}), "vrfIdSourceAndGroupToIntfHas\\( vsg \\) && "
                                         "\"sourceAndGroupToIntf does not have the requested entry");
}

} // namespace

} // namespace NatTest
