// The life of the mroute state machine and of its watchers: missing inputs, switching, re-pointing, retiring,
// construction that fails, teardown.
#include "KestrelNat/KestrelNatMulticastSm/McastMfibSm.h"
#include "KestrelNat/KestrelNatMulticastSm/McastRouteSm.h"
#include "state/Errors.h"
#include "tests/nat/FailingAllocation.h"
#include "tests/nat/NatFixture.h"

namespace NatTest {

namespace {

class MrouteLife : public NatFixture {
  protected:
    // A table with a route to Ethernet1, and a request for it.
    void oneOfEach() {
        requests->mrouteReqIs(request());
        routeIs({"Ethernet1"});
    }
    // Points the watcher of a table, made where there is none, at another, or away.
    static void watch(NatMrouteSm& sm, const NatMcastRouteKey& key, const Handle<QuillTable>& table,
                      const Handle<LumenFib>& fib) {
        if (lumen)
            sm.mfibAppIs(key, fib);
        else
            sm.mcastRouteIs(key, table);
    }
    // What `action` says of the watcher of a table, whichever type of watcher it is.
    template <class Action>
    static auto ofWatcher(NatMrouteSm& sm, const NatMcastRouteKey& key, Action action) {
        return lumen ? action(*sm.mfibApp(key)) : action(*sm.mcastRoute(key));
    }
    void retire(bool retired) {
        ofWatcher(*machine, tableKey(), [&](auto& watcher) { watcher.retiredIs(retired); });
    }
    auto routeWatcher() const { return machine->mfibApp(tableKey())->lumenRoute(routeKey()); }
    bool isAnythingRegistered() const {
        int registered = requests->hasSubscribers() + routeMap->hasSubscribers();
        for (const auto& [key, table] : quillTables)
            registered += table->hasSubscribers();
        for (const auto& [key, fib] : lumenFibs)
            registered += fib->hasSubscribers() + fib->route(routeKey())->hasSubscribers();
        return registered != 0;
    }
};

TEST_F(MrouteLife, EachInputMayBeMissing) {
    capability.reset();
    status.reset();
    oneOfEach();
    start();
    EXPECT_EQ(answer(), "{Ethernet1}");

    const auto present = std::exchange(requests, nullptr);
    status = makeHandle<KestrelNat::MulticastSmStatus>();
    start();
    EXPECT_TRUE(status->mrouteSmReady());
    machine->handleMrouteReq(request()); // reads as withdrawn, in a VRF without a matcher
    EXPECT_EQ(answer(), "none");

    requests = present;
    answers.reset();
    start();
    EXPECT_EQ(answerOf(plain), "{Ethernet1}");
    routeDel();
    EXPECT_EQ(answerOf(plain), "none");

    routeMap.reset(); // requests are recorded, nothing is ready
    capability = makeHandle<KestrelNat::CapabilityConfig>();
    capability->egressFromAllVrfsIs(true);
    status->mrouteSmReadyIs(false);
    traced();
    start();
    EXPECT_FALSE(status->mrouteSmReady());
    EXPECT_EQ(traced("8 handleMrouteReq not handling since NatMrouteSm hasn't been initialized"), 1U);
    EXPECT_TRUE(machine->getEgressIntfsFromAllVrfs(request()).empty());
    requests->mrouteReqIs(request({.vlan = 11}));
    EXPECT_EQ(requesters(), 1U);
}

TEST_F(MrouteLife, WhatChangesWhileNotificationIsOffIsLost) {
    start();
    oneOfEach();
    machine->hasNotificationActiveIs(false);
    requests->mrouteReqIs(request({.vlan = 11}));
    routeIs({"Ethernet2"});
    tableIs(tableKey(4));
    machine->hasNotificationActiveIs(true);
    EXPECT_EQ(answer() + answer({.vlan = 11}), "{Ethernet1}none") << "nothing is replayed";
    EXPECT_FALSE(isWatched(tableKey(4)));
    requests->mrouteReqIs(request({.vlan = 12}));
    routeIs({"Ethernet3"});
    EXPECT_EQ(answer() + answer({.vlan = 12}), "{Ethernet3}{Ethernet3}");

    // Equal to what it was, it changes nothing: what was switched off by itself stays so.
    if (lumen) {
        routeWatcher()->hasNotificationActiveIs(false);
        machine->mfibApp(tableKey())->hasNotificationActiveIs(true);
        EXPECT_FALSE(routeWatcher()->notificationActive());
    }
    ofWatcher(*machine, tableKey(), [](auto& watcher) { watcher.hasNotificationActiveIs(false); });
    machine->hasNotificationActiveIs(true);
    EXPECT_FALSE(ofWatcher(*machine, tableKey(), [](auto& watcher) { return watcher.notificationActive(); }));
}

TEST_F(MrouteLife, TheEndEmptiesItsRecordsAndRetiresAlsoAWatcherThatComesMeanwhile) {
    start();
    oneOfEach();
    requests->mrouteReqIs(request({.vrf = 4}));
    answers->mrouteRespIs(request({.vrf = 5}), {L3::IntfId("Ethernet3")});
    machine->hasNotificationActiveIs(false);
    const NatMcastRouteKey late = tableKey(4);
    routeIs({"Ethernet2"}, "10.0.0.1", late);
    bool isRetired = false;
    OnChange onAnswer(*answers);
    onAnswer.reaction = [&, ending = machine.get()](const Notification&) {
        onAnswer.reaction = nullptr;
        watch(*ending, late, quillTables[late], lumenFibs[late]);
        isRetired = ofWatcher(*ending, late, [](const auto& watcher) { return watcher.retired(); });
        requests->mrouteReqDel(request({.vrf = 4})); // which nobody hears
    };
    std::vector<State::AttributeId> emptied;
    OnChange::Reaction onEnd = [&](const Notification& change) { emptied.push_back(change.attribute); };
    atEachChange(*machine, onEnd);
    machine.reset();
    EXPECT_TRUE(isRetired);
    const State::AttributeId watchers = lumen ? 6 : 5; // of which one came
    EXPECT_EQ(emptied, (std::vector<State::AttributeId>{watchers, 9, 9, 8, 8})) << "matchers, requesters";
    EXPECT_EQ(answer({.vrf = 4}) + answer({.vrf = 5}), "none{Ethernet3}");
}

TEST_F(MrouteLife, AConstructionThatFailsAnywhereAndTheEndLeaveNothingRegistered) {
    oneOfEach();
    requests->mrouteReqIs(request({.source = "0.0.0.0"}));
    routeIs({"Ethernet2"}, "10.0.0.1", tableKey(4, sparse));
    const auto failures =
        FailingAllocation::atEachStepOf([&] { start(); }, [&] { EXPECT_FALSE(isAnythingRegistered()); });
    EXPECT_GT(failures, 20U);
    EXPECT_EQ(answer(), "{Ethernet1}");
    EXPECT_TRUE(isAnythingRegistered());
    const OnChange onAnswer(*answers, [&](const Notification&) {
        routeIs({"Ethernet3"}, "10.0.0.1", tableKey(4, sparse)); // before its watcher is retired
    });
    traced();
    machine.reset();
    EXPECT_EQ(traced("handling update"), 0U) << "nothing is heard in the end";
    EXPECT_EQ(answer(), "none");
    EXPECT_FALSE(isAnythingRegistered());
}

TEST_F(MrouteLife, AWatcherIsRetiredByItsFlagAndLeftSilentlyByItsTable) {
    start();
    oneOfEach();
    OnChange onAnswer(*answers, [&](const Notification&) {
        EXPECT_TRUE(!lumen || !routeWatcher()->retired()) << "answers go first, then watchers of routes";
    });
    retire(true);
    onAnswer.reaction = nullptr;
    EXPECT_TRUE(!lumen || routeWatcher()->retired());
    EXPECT_EQ(answer(), "none");
    routeIs({"Ethernet2"});
    EXPECT_EQ(answer(), "none") << "a retired watcher is silent";
    machine->handleMrouteReq();
    EXPECT_EQ(answer(), "{Ethernet2}");
    retire(false);
    retire(false);
    EXPECT_EQ(answer(), "none");
    EXPECT_EQ(traced("handleDeletion key="), 2U) << "reviving deletes the answers as well";
    routeIs({"Ethernet3"});
    const auto ofTable = machine->mcastRoute(tableKey());
    const auto ofFib = machine->mfibApp(tableKey());
    watch(*machine, tableKey(), nullptr, nullptr);
    EXPECT_FALSE(isWatched());
    EXPECT_EQ(lumen ? ofFib->owner() : ofTable->owner(), nullptr);
    EXPECT_EQ(answer(), "{Ethernet3}") << "a null table removes the watcher and keeps the answers";
    EXPECT_EQ(traced("handleDeletion"), 0U);
}

TEST_F(MrouteLife, AWatcherFollowsItsMemberToAnotherTable) {
    start();
    oneOfEach();
    routeIs({"Ethernet1"}, "10.0.0.2");
    const auto oldTable = quillTables[tableKey()];
    const auto oldFib = lumenFibs[tableKey()];
    machine->hasNotificationActiveIs(false);
    tableIs(); // prepared in silence
    routeIs({"Ethernet2"});
    machine->hasNotificationActiveIs(true);
    const auto table = quillTables[tableKey()];
    const auto fib = lumenFibs[tableKey()];
    watch(*machine, tableKey(), table, fib);
    EXPECT_EQ(answer(), lumen ? "{Ethernet2}" : "{Ethernet1}") << "a known route of a FIB is looked at";
    if (lumen) {
        EXPECT_FALSE(oldFib->hasSubscribers());
        EXPECT_FALSE(machine->mfibApp(tableKey())->lumenRoute(routeKey("10.0.0.2")));
        EXPECT_THROW(machine->mfibApp(tableKey())->lumenRouteIs(nullptr), State::NullArgumentError);
    } else {
        EXPECT_FALSE(oldTable->hasSubscribers());
    }
    routeIs({"Ethernet3"});
    EXPECT_EQ(answer(), "{Ethernet3}");
    EXPECT_TRUE(lumen ? machine->mfibAppDel(tableKey()) == fib : machine->mcastRouteDel(tableKey()) == table);
    EXPECT_EQ(answer(), "none");
    EXPECT_FALSE(isWatched());
}

} // namespace

} // namespace NatTest
