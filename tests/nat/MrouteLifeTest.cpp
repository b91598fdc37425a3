// The life of the mroute state machine and of its watchers: missing inputs, switching, re-pointing, retiring,
// construction that fails, teardown.
#include "KestrelNat/KestrelNatMulticastSm/McastMfibSm.h"
#include "KestrelNat/KestrelNatMulticastSm/McastRouteSm.h"
#include "state/Errors.h"
#include "tests/nat/FailingAllocation.h"
#include "tests/nat/NatFixture.h"

#include <new>

namespace NatTest {

namespace {

class MrouteLife : public NatFixture {
  protected:
    // A table with a route to Ethernet1, and a request for it.
    void oneOfEach() {
        requests->mrouteReqIs(request());
        routeIs(3, plain, "10.0.0.1", "239.1.1.1", {"Ethernet1"});
    }
    bool isAnythingRegistered() const {
        bool registered = requests->hasSubscribers() || routeMap->publisher().hasSubscribers();
        for (const auto& [key, table] : quillTables)
            registered = registered || table->hasSubscribers();
        for (const auto& [key, fib] : lumenFibs) {
            registered = registered || fib->hasSubscribers();
            fib->routes([&](const auto& route) {
                registered = registered || route->hasSubscribers();
                return true;
            });
        }
        return registered;
    }
};

TEST_F(MrouteLife, EachInputMayBeMissing) {
    capability.reset();
    status.reset();
    oneOfEach();
    start();
    EXPECT_EQ(answer(), "{Ethernet1}");

    const auto present = std::exchange(requests, nullptr);
    status = State::makeHandle<KestrelNat::MulticastSmStatus>();
    start();
    EXPECT_TRUE(status->mrouteSmReady());
    machine->handleMrouteReq(request()); // reads as withdrawn, in a VRF without a matcher
    EXPECT_EQ(answer(), "none");

    requests = present;
    const auto written = std::exchange(answers, nullptr);
    start();
    EXPECT_EQ(answerOf(plain), "{Ethernet1}");
    routeDel(3, plain, "10.0.0.1", "239.1.1.1");
    EXPECT_EQ(answerOf(plain), "none");
}

TEST_F(MrouteLife, WithoutARouteMapRequestsAreRecordedAndNothingIsReady) {
    const auto present = std::exchange(routeMap, nullptr);
    requests->mrouteReqIs(request());
    start();
    EXPECT_FALSE(status->mrouteSmReady());
    EXPECT_EQ(traced(), Lines{"8 handleMrouteReq not handling since NatMrouteSm hasn't been initialized"});
    requests->mrouteReqIs(request({.vlan = 11}));
    EXPECT_EQ(requesters(), 1U);
    capability->egressFromAllVrfsIs(true);
    EXPECT_TRUE(machine->getEgressIntfsFromAllVrfs(request()).empty());
    requests->mrouteReqDel(request({.vlan = 11}));
    EXPECT_EQ(requesters(), 0U);
    routeMap = present;
}

TEST_F(MrouteLife, WhatChangesWhileNotificationIsOffIsLost) {
    start();
    oneOfEach();
    machine->hasNotificationActiveIs(false);
    requests->mrouteReqIs(request({.vlan = 11}));
    routeIs(3, plain, "10.0.0.1", "239.1.1.1", {"Ethernet2"});
    tableIs(4, plain);
    machine->hasNotificationActiveIs(true);
    machine->hasNotificationActiveIs(true);
    EXPECT_EQ(answer() + answer({.vlan = 11}), "{Ethernet1}none") << "nothing is replayed";
    EXPECT_FALSE(isWatched(4, plain));
    traced();
    requests->mrouteReqIs(request({.vlan = 12}));
    EXPECT_EQ(countOf(traced(), "adding request"), 1U);
    routeIs(3, plain, "10.0.0.1", "239.1.1.1", {"Ethernet3"});
    EXPECT_EQ(answer() + answer({.vlan = 12}), "{Ethernet3}{Ethernet3}");
}

TEST_F(MrouteLife, TheEndDeletesTheAnswersOfWatchedVrfsAndLeavesNothingRegistered) {
    start();
    oneOfEach();
    routeIs(4, sparse, "10.0.0.1", "239.1.1.1", {"Ethernet2"});
    requests->mrouteReqIs(request({.vrf = 4}));
    answers->mrouteRespIs(request({.vrf = 5}), {L3::IntfId("Ethernet3")});
    AnswerListener listener(answers);
    listener.reaction = [&](const NatMrouteKey&) { requests->mrouteReqDel(request({.vrf = 4})); };
    machine.reset();
    EXPECT_EQ(listener.heard.size(), 2U);
    EXPECT_EQ(answer() + answer({.vrf = 4}) + answer({.vrf = 5}), "nonenone{Ethernet3}");
    EXPECT_FALSE(isAnythingRegistered());
}

TEST_F(MrouteLife, AConstructionThatFailsAnywhereLeavesNothingRegistered) {
    oneOfEach();
    requests->mrouteReqIs(request({.source = "0.0.0.0"}));
    routeIs(4, sparse, "10.0.0.1", "239.1.1.1", {"Ethernet2"});
    std::size_t failures = 0;
    for (bool failed = true; failed; ++failures) {
        FailingAllocation::failAfter(failures);
        try {
            start();
        } catch (const std::bad_alloc&) {
        }
        failed = FailingAllocation::stop();
        ASSERT_EQ(isAnythingRegistered(), !failed) << "allocation " << failures;
    }
    EXPECT_GT(failures, 20U);
    EXPECT_EQ(answer(), "{Ethernet1}");
}

TEST_F(MrouteLife, AWatcherIsRetiredByItsFlagAndLeftSilentlyByItsTable) {
    start();
    oneOfEach();
    const auto retire = [&](bool retired) {
        if (lumen)
            machine->mfibApp(tableKey(3, plain))->retiredIs(retired);
        else
            machine->mcastRoute(tableKey(3, plain))->retiredIs(retired);
    };
    retire(true);
    EXPECT_EQ(answer(), "none");
    routeIs(3, plain, "10.0.0.1", "239.1.1.1", {"Ethernet2"});
    EXPECT_EQ(answer(), "none") << "a retired watcher is silent";
    machine->handleMrouteReq();
    EXPECT_EQ(answer(), "{Ethernet2}");
    retire(false);
    retire(false);
    EXPECT_EQ(answer(), "none");
    EXPECT_EQ(countOf(traced(), "handleDeletion key="), 2U) << "reviving deletes the answers as well";
    routeIs(3, plain, "10.0.0.1", "239.1.1.1", {"Ethernet3"});
    if (lumen)
        machine->mfibAppIs(tableKey(3, plain), nullptr);
    else
        machine->mcastRouteIs(tableKey(3, plain), nullptr);
    EXPECT_FALSE(isWatched(3, plain));
    EXPECT_EQ(answer(), "{Ethernet3}") << "a null table removes the watcher and keeps the answers";
    EXPECT_EQ(countOf(traced(), "handleDeletion"), 0U);
}

TEST_F(MrouteLife, AWatcherFollowsItsMemberToAnotherTable) {
    start();
    oneOfEach();
    routeIs(3, plain, "10.0.0.2", "239.1.1.1", {"Ethernet1"});
    const auto oldTable = quillTables[tableKey(3, plain)];
    const auto oldFib = lumenFibs[tableKey(3, plain)];
    machine->hasNotificationActiveIs(false);
    tableIs(3, plain); // prepared in silence
    routeIs(3, plain, "10.0.0.1", "239.1.1.1", {"Ethernet2"});
    machine->hasNotificationActiveIs(true);
    traced();
    if (lumen) {
        machine->mfibAppIs(tableKey(3, plain), lumenFibs[tableKey(3, plain)]);
        EXPECT_EQ(answer(), "{Ethernet2}") << "a route under a known key is handled at once";
        EXPECT_FALSE(oldFib->hasSubscribers());
        const auto watcher = machine->mfibApp(tableKey(3, plain));
        EXPECT_FALSE(watcher->lumenRoute(routeKey("10.0.0.2", "239.1.1.1")));
        EXPECT_THROW(watcher->lumenRouteIs(nullptr), State::NullArgumentError);
        EXPECT_TRUE(machine->mfibAppDel(tableKey(3, plain)));
    } else {
        machine->mcastRouteIs(tableKey(3, plain), quillTables[tableKey(3, plain)]);
        EXPECT_EQ(traced(), Lines()) << "a change of table looks at no route";
        EXPECT_FALSE(oldTable->hasSubscribers());
        routeIs(3, plain, "10.0.0.1", "239.1.1.1", {"Ethernet3"});
        EXPECT_EQ(answer(), "{Ethernet3}");
        EXPECT_TRUE(machine->mcastRouteDel(tableKey(3, plain)));
    }
    EXPECT_EQ(answer(), "none");
    EXPECT_FALSE(isWatched(3, plain));
}

TEST_F(MrouteLife, RouteAndAnswersShareOneArrayOfInterfaces) {
    if (!lumen)
        GTEST_SKIP() << "a Quill row names its interfaces by index";
    start();
    oneOfEach();
    const auto route = lumenFibs[tableKey(3, plain)]->route(routeKey("10.0.0.1", "239.1.1.1"));
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
