// The assertions of the mroute service that end the process, each with its text, file and function.
#include "state/Errors.h"
#include "tests/nat/NatFixture.h"

namespace NatTest {

namespace {

using MrouteDeathTest = NatFixture;

// Patterns for the one line that an assertion prints.
std::string assertion(const std::string& file, const std::string& function, const std::string& text) {
    return "KestrelNat/KestrelNatMulticastSm/" + file + ":[0-9]+: .*KestrelNat::" + function +
           "\\(.*: Assertion `" + text + "' failed";
}
const std::string oneMfib = "\\( !!lumenMfib \\^ !!quillRoutes \\) && \"Only one mfib must be True\"";

TEST_F(MrouteDeathTest, ARequestNamesAnInterfaceAndAVlan) {
    start();
    const std::string text = assertion("NatMrouteRequests.cpp", "NatMrouteSm::handleMrouteReq",
                                       "req.intf\\(\\).stringValue\\(\\) != \"\" && req.vlanId\\(\\) != 0");
    EXPECT_DEATH(requests->mrouteReqIs(request({.intf = ""})), text);
    EXPECT_DEATH(requests->mrouteReqIs(request({.vlan = 0})), text);
}

TEST_F(MrouteDeathTest, ResolutionTakesExactlyOneTableAndAFlow) {
    start();
    tableIs();
    const char* const file = "NatMrouteEgress.cpp";
    for (const bool allVrfs : {true, false}) {
        capability->egressFromAllVrfsIs(allVrfs);
        EXPECT_DEATH(machine->getEgressIntfsForMrouteKey(request(), nullptr, nullptr),
                     assertion(file, "NatMrouteSm::getEgressIntfsForMrouteKey", oneMfib));
    }
    const char* const function = "getEgressIntfsFromCurrentVrf";
    const auto both = [&] {
        KestrelNat::NatMrouteOifSet egress;
        getEgressIntfsFromCurrentVrf(request(), makeHandle<QuillTable>("static"),
                                     makeHandle<LumenFib>("user"), egress);
    };
    EXPECT_DEATH(both(), assertion(file, function, oneMfib));
    EXPECT_DEATH(requests->mrouteReqIs(request({.source = "0.0.0.0", .group = "0.0.0.0"})),
                 assertion(file, function,
                           "!\\( isDNAT && isSNAT \\) && \"reqKey is \\(\\*, \\*\\) in response map\""));

    // All VRFs that have an identifier must have both tables then.
    routeMap->vrfNameToIdIs("red", 3);
    capability->egressFromAllVrfsIs(true);
    EXPECT_DEATH(requests->mrouteReqIs(request()), assertion(file, function, oneMfib));
}

TEST_F(MrouteDeathTest, ARouteUpdateNeedsItsTableAndTheRequestersOfItsFlows) {
    start();
    tableIs();
    const char* const file = "NatMrouteUpdates.cpp";
    const char* const update = "NatMrouteSm::handleMcastRouteUpdate";
    EXPECT_DEATH(machine->handleMcastRouteUpdate(routeKey(), tableKey(4)), assertion(file, update, oneMfib));
    EXPECT_DEATH(machine->handleMcastRouteUpdateAll(tableKey(4)),
                 assertion(file, "NatMrouteSm::handleMcastRouteUpdateAll", oneMfib));

    const std::string noEntry = "\"sourceAndGroupToIntf does not have the requested entry\"";
    const auto watch = [&](const NatMrouteKey& key) {
        machine->watchedMroutesWrap(3)->add(KestrelNat::MrouteSourceAndGroup::of(key), key);
    };
    watch(request());
    EXPECT_DEATH(routeIs({}), assertion(file, update, "!sgs.empty\\(\\) && " + noEntry));
    watch(request({.source = "0.0.0.0"}));
    EXPECT_DEATH(routeIs({}, "0.0.0.0"),
                 assertion(file, update, "vrfIdSourceAndGroupToIntfHas\\( vsg \\) && " + noEntry));
}

TEST_F(MrouteDeathTest, AnInvalidInterfaceIndexEndsAReactorAndAbandonsAConstruction) {
    if (lumen)
        GTEST_SKIP() << "Quill rows alone name interfaces by index";
    tableIs();
    start();
    requests->mrouteReqIs(request());
    const auto spoil = [&] { quillTables[tableKey()]->routeIs(routeKey(), {{513}}); };
    EXPECT_DEATH(spoil(), "exception left a reactor: Quill::Multicast::Fib::OifIndex::value < "
                          "Quill::Multicast::Fib::OifIndex::min or > .* not allowed");
    machine.reset();
    spoil();
    EXPECT_THROW(start(), State::RangeError);
    EXPECT_FALSE(requests->hasSubscribers() || routeMap->hasSubscribers());
}

} // namespace

} // namespace NatTest
