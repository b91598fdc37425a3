// A subscriber of the answers that changes requests, routes and tables from inside the delivery. Each outcome
// is the service's contract: handlers hold what they walk and check nothing again.
#include "tests/nat/NatFixture.h"

namespace NatTest {

namespace {

class MrouteReentrancy : public NatFixture {
  protected:
    // Has the listener do `action` once, at the next change of the answers.
    void atNextAnswer(std::function<void()> action) {
        listener.reaction = [this, action = std::move(action)](const NatMrouteKey&) {
            const auto once = std::exchange(listener.reaction, nullptr);
            action();
        };
    }
    AnswerListener listener{answers};
};

using MrouteReentrancyDeathTest = MrouteReentrancy;

TEST_F(MrouteReentrancy, ARequestWithdrawnBetweenTheRouteTypesIsAnsweredAgain) {
    start();
    routeIs(3, plain, "10.0.0.1", "239.1.1.1", {"Ethernet1"});
    routeIs(3, sparse, "10.0.0.1", "239.1.1.1", {"Ethernet2"});
    atNextAnswer([&] { requests->mrouteReqDel(request()); });
    requests->mrouteReqIs(request());
    EXPECT_EQ(answer(), "{Ethernet2}");
    EXPECT_EQ(requesters(), 0U);
    EXPECT_EQ(machine->watchedMroutes(3), nullptr);
    const std::string flow = "Ethernet9 10.0.0.1 239.1.1.1 ";
    EXPECT_EQ(listener.heard, (Lines{flow + "{Ethernet1}", flow + "gone", flow + "{Ethernet2}"}));

    // The same in a pass over all requests.
    requests->mrouteReqIs(request());
    routeMap->mfibDel(tableKey(3, plain));
    routeMap->mrouteRouteDel(tableKey(3, plain));
    atNextAnswer([&] { requests->mrouteReqDel(request()); });
    machine->handleMrouteReq();
    EXPECT_EQ(answer(), "none") << "no type follows the sparse one";
}

TEST_F(MrouteReentrancy, ARequesterWithdrawnWhileItsFlowIsAnsweredIsAnsweredAgain) {
    start();
    tableIs(3, plain);
    requests->mrouteReqIs(request());
    requests->mrouteReqIs(request({.vlan = 11}));
    atNextAnswer([&] {
        requests->mrouteReqDel(request({.vlan = 11}));
        requests->mrouteReqIs(request({.vlan = 12}));
    });
    routeIs(3, plain, "10.0.0.1", "239.1.1.1", {"Ethernet1"});
    EXPECT_EQ(answer() + answer({.vlan = 11}) + answer({.vlan = 12}), "{Ethernet1}{Ethernet1}{Ethernet1}");
    EXPECT_EQ(requesters(), 2U);
}

TEST_F(MrouteReentrancy, RequestsAddedInAFullPassAreAnsweredOnceEach) {
    start();
    for (std::uint16_t vlan = 1; vlan <= 5; ++vlan)
        requests->mrouteReqIs(request({.vlan = vlan}));
    listener.reaction = [&](const NatMrouteKey& key) {
        if (key.vlanId < 100) {
            NatMrouteKey more = key;
            more.vlanId = static_cast<std::uint16_t>(key.vlanId + 100);
            requests->mrouteReqIs(more);
        }
    };
    traced();
    tableIs(3, plain);
    EXPECT_EQ(countOf(traced(), "adding request"), 10U);
    listener.reaction = nullptr;
    routeIs(3, plain, "10.0.0.1", "239.1.1.1", {"Ethernet1"});
    for (std::uint16_t vlan = 1; vlan <= 5; ++vlan) {
        const auto more = static_cast<std::uint16_t>(vlan + 100);
        EXPECT_EQ(answer({.vlan = vlan}) + answer({.vlan = more}), "{Ethernet1}{Ethernet1}");
    }
}

TEST_F(MrouteReentrancy, RoutesMayChangeUnderAPassOverTheirTable) {
    for (const char* source : {"10.0.0.1", "10.0.0.2", "10.0.0.3"})
        routeIs(3, plain, source, "239.1.1.1", {"Ethernet1"});
    requests->mrouteReqIs(request({.source = "0.0.0.0"}));
    int changes = 0;
    listener.reaction = [&](const NatMrouteKey& key) {
        ++changes;
        if (changes == 1) {
            answers->mrouteRespDel(key); // so that the pass over the table has an answer to publish
        } else if (changes == 3) {
            routeDel(3, plain, "10.0.0.1", "239.1.1.1"); // the current row
            routeDel(3, plain, "10.0.0.2", "239.1.1.1");
            routeIs(3, plain, "10.0.0.4", "239.1.1.1", {"Ethernet2"});
        }
    };
    start();
    EXPECT_GE(changes, 3);
    EXPECT_EQ(answer({.source = "0.0.0.0"}), "{Ethernet1, Ethernet2}");
    routeDel(3, plain, "10.0.0.3", "239.1.1.1");
    EXPECT_EQ(answer({.source = "0.0.0.0"}), "{Ethernet2}");
}

TEST_F(MrouteReentrancy, TheServiceMayEndInsideADelivery) {
    const auto endsWith = [&](auto change) {
        start();
        requests->mrouteReqIs(request());
        atNextAnswer([&] { machine.reset(); });
        change();
        EXPECT_EQ(answer(), "none");
        EXPECT_FALSE(requests->hasSubscribers() || routeMap->publisher().hasSubscribers());
    };
    endsWith([&] { routeIs(3, plain, "10.0.0.1", "239.1.1.1", {"Ethernet1"}); });
    endsWith([&] { routeIs(3, plain, "10.0.0.1", "239.1.1.1", {"Ethernet2"}); });
    endsWith([&] { requests->mrouteReqIs(request({.vlan = 11})); });
    endsWith([&] { tableDel(3, plain); });
}

TEST_F(MrouteReentrancy, ATableMayGoWhileARouteOfItIsHandled) {
    start();
    requests->mrouteReqIs(request());
    requests->mrouteReqIs(request({.vlan = 11}));
    routeIs(3, plain, "10.0.0.1", "239.1.1.1", {"Ethernet1"});
    atNextAnswer([&] { tableDel(3, plain); });
    routeIs(3, plain, "10.0.0.1", "239.1.1.1", {"Ethernet2"});
    EXPECT_EQ(answer() + answer({.vlan = 11}), "none{Ethernet2}") << "the update goes on with what it holds";
    EXPECT_FALSE(isWatched(3, plain));
}

TEST_F(MrouteReentrancyDeathTest, AVrfDisabledInsideThePassOverItsTableIsFatal) {
    const auto disable = [&] {
        routeMap->mfibDel(tableKey(3, plain));
        routeMap->mrouteRouteDel(tableKey(3, plain));
    };
    start();
    routeIs(3, plain, "10.0.0.1", "239.1.1.1", {"Ethernet1"});
    disable();
    requests->mrouteReqIs(request());
    atNextAnswer(disable);
    const auto enable = [&] {
        if (lumen)
            routeMap->mfibIs(tableKey(3, plain), lumenFibs[tableKey(3, plain)]);
        else
            routeMap->mrouteRouteIs(tableKey(3, plain), quillTables[tableKey(3, plain)]);
    };
    EXPECT_DEATH(enable(), "handleMcastRouteUpdate\\(.*Only one mfib must be True");
}

TEST_F(MrouteReentrancyDeathTest, APendingFlowWhoseLastRequestIsWithdrawnIsFatal) {
    start();
    tableIs(3, plain);
    requests->mrouteReqIs(request());
    requests->mrouteReqIs(request({.source = "0.0.0.0"}));
    atNextAnswer([&] { requests->mrouteReqDel(request({.source = "0.0.0.0"})); });
    EXPECT_DEATH(routeIs(3, plain, "10.0.0.1", "239.1.1.1", {"Ethernet1"}),
                 "vrfIdSourceAndGroupToIntfHas\\( vsg \\) && \"sourceAndGroupToIntf does not have the "
                 "requested entry");
}

} // namespace

} // namespace NatTest
