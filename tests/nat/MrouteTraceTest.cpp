// What the mroute service writes: the trace lines of one road per handler, exactly, and the assertions that
// end the process, each with its text, file and function.
#include "state/Trace.h"
#include "tests/nat/NatFixture.h"

#include <string>
#include <string_view>

namespace NatTest {

namespace {

class MrouteTrace : public NatFixture {
  protected:
    const std::string type = KestrelNat::staticRouteType();
    const std::string key =
        "NatMrouteKey (I=Ethernet9, vrfId=3, V=10, S=10.0.0.1, G=239.1.1.1), type=mrouteRequest";
    const std::string prefixes = "(S=10.0.0.1/32 G=239.1.1.1/32)";
    const std::string row = "Routing::Multicast::Fib::IpGenRouteKey(source=10.0.0.1/32, group=239.1.1.1/32)";

    // The lines of resolving the request in a table, with its interfaces, if it has a route there.
    Lines resolving(const Names& intfs) const {
        Lines lines{"8 getEgressIntfsForMrouteKey reqKey=" + key,
                    "8 getEgressIntfsFromCurrentVrf reqKey=" + key};
        if (intfs.size() != 0)
            lines.push_back("8 Iterating oifs for routeKey=" + row);
        for (const std::string_view intf : intfs) {
            const std::string name(intf);
            const std::string index = std::to_string(100 + L3::IntfId(intf).number());
            std::string line = lumen ? "9 oif intf: " : "9 oifIndex: " + index + ", oifIndexIntf: ";
            lines.push_back(line.append(name));
        }
        return lines;
    }
    static Lines joined(const std::vector<Lines>& parts) {
        Lines all;
        for (const Lines& part : parts)
            all.insert(all.end(), part.begin(), part.end());
        return all;
    }
};

TEST_F(MrouteTrace, ARequestFromFirstToLast) {
    start();
    traced();
    requests->mrouteReqIs(request());
    EXPECT_EQ(traced(),
              (Lines{"8 handleMrouteReq adding request " + key,
                     "8 updateMrouteResponseMap route not found for vrfId=3 route type=" + type,
                     "8 updateMrouteResponseMap route not found for vrfId=3 route type=sparsemode"}));

    const std::string noRoute = "8 updateMrouteResponseMap route not found for vrfId=3 route type=sparsemode";
    const Lines assigned{"8 updateMrouteResponseMap assigning NatMrouteOifSet {} to key " + key,
                         "8 updateResponseMap responseMapKey=" + key + " routeType=" + type};
    tableIs(3, plain);
    Lines expected =
        joined({{"8 handleMcastRouteUpdateAll", "8 handleMrouteReq checking all mroutes being watched",
                 "8 handleMrouteReq adding request " + key},
                resolving({}),
                assigned,
                {noRoute, "8 handleMcastRouteUpdateAll handling all known mroutes of type " + type}});
    if (!lumen)
        expected.push_back("8 handleMcastOifUpdate handling all known oifs of type static");
    EXPECT_EQ(traced(), expected);

    requests->mrouteReqDel(request());
    EXPECT_EQ(traced(), (Lines{"8 handleMrouteReq deleting request " + key,
                               "8 updateResponseMap responseMapKey=" + key + " routeType=" + type, noRoute}));
}

TEST_F(MrouteTrace, ARouteAndAnInterfaceAndTheEndOfTheirTable) {
    start();
    tableIs(3, plain);
    requests->mrouteReqIs(request());
    if (!lumen) {
        oifIndex(*quillTables[tableKey(3, plain)], "Ethernet1");
        oifIndex(*quillTables[tableKey(3, plain)], "Ethernet2");
    }
    traced();
    routeIs(3, plain, "10.0.0.1", "239.1.1.1", {"Ethernet1", "Ethernet2"});
    const Lines update =
        joined({{"8 handleMcastRouteUpdate handling update for mroute " + prefixes + " of type " + type,
                 "8 found sg=(10.0.0.1, 239.1.1.1)"},
                resolving({"Ethernet1", "Ethernet2"}),
                {"8 updateResponseMap responseMapKey=" + key + " routeType=" + type,
                 "8 setting " + key + " to key NatMrouteOifSet {Ethernet1, Ethernet2, }"}});
    EXPECT_EQ(traced(), update);

    if (!lumen) {
        quillTables[tableKey(3, plain)]->oifIndexIntfIs(7, L3::IntfId("Ethernet3"));
        EXPECT_EQ(
            traced(),
            joined({{"8 handleMcastOifUpdate handling update for oif (id=7 intf=Ethernet3) of type static"},
                    update}));
    }

    routeIs(3, plain, "10.0.0.2", "239.1.1.1", {"Ethernet1"});
    const std::string other = "(S=10.0.0.2/32 G=239.1.1.1/32) of type " + type;
    EXPECT_EQ(traced(), (Lines{"8 handleMcastRouteUpdate handling update for mroute " + other,
                               "9 handleMcastRouteUpdate skipping mroute= " + other}));

    tableDel(3, plain);
    EXPECT_EQ(
        traced(),
        (Lines{"8 handleDeletion key=KestrelNat::NatMcastRouteKey(vrfId=3, routeName=\"" + type + "\")",
               "8 handleDeletion deleting mrouteResponseMap",
               "8 deleteMrouteResponsesWithVrfId removing resp=NatMrouteOifSet {Ethernet1, Ethernet2, }",
               "8 handleDeletion deleting mrouteResponseMapByRoute[ " + type + " ]",
               "8 deleteMrouteResponsesWithVrfId removing resp=NatMrouteOifSet {Ethernet1, Ethernet2, }",
               "8 handleDeletion deleting mrouteResponseMapByRoute[ sparsemode ]"}));
}

class MrouteDeathTest : public NatFixture {
  protected:
    // A pattern for the one line that the assertion prints.
    static std::string assertion(std::string_view file, std::string_view function, std::string_view text) {
        const auto quoted = [](std::string_view plainText) {
            std::string pattern;
            for (const char c : plainText) {
                pattern += std::string_view("\\^$.|?*+()[]{}").find(c) == std::string_view::npos ? "" : "\\";
                pattern += c;
            }
            return pattern;
        };
        return "KestrelNat/KestrelNatMulticastSm/" + quoted(file) + ":[0-9]+: " + quoted(function) +
               ": Assertion `" + quoted(text) + "' failed";
    }
    static constexpr std::string_view oneMfib =
        "( !!lumenMfib ^ !!quillRoutes ) && \"Only one mfib must be True\"";
    static constexpr std::string_view noEntry = "\"sourceAndGroupToIntf does not have the requested entry\"";
};

TEST_F(MrouteDeathTest, ARequestNamesAnInterfaceAndAVlan) {
    start();
    const std::string text =
        assertion("NatMrouteRequests.cpp",
                  "void KestrelNat::NatMrouteSm::handleMrouteReq(const KestrelNat::NatMrouteKey&)",
                  "req.intf().stringValue() != \"\" && req.vlanId() != 0");
    EXPECT_DEATH(requests->mrouteReqIs(request({.intf = ""})), text);
    EXPECT_DEATH(requests->mrouteReqIs(request({.vlan = 0})), text);
}

TEST_F(MrouteDeathTest, ResolutionTakesExactlyOneTableAndAFlow) {
    start();
    tableIs(3, plain);
    const std::string signature =
        "(const KestrelNat::NatMrouteKey&, const QuillRoutes&, const LumenMfib&) const";
    EXPECT_DEATH(machine->getEgressIntfsForMrouteKey(request(), nullptr, nullptr),
                 assertion("NatMrouteEgress.cpp",
                           "KestrelNat::NatMrouteOifSet KestrelNat::NatMrouteSm::getEgressIntfsForMrouteKey" +
                               signature,
                           oneMfib));

    const std::string function =
        "void KestrelNat::getEgressIntfsFromCurrentVrf(const NatMrouteKey&, const NatMrouteSm::QuillRoutes&, "
        "const NatMrouteSm::LumenMfib&, NatMrouteOifSet&)";
    const auto both = [&] {
        KestrelNat::NatMrouteOifSet egress;
        getEgressIntfsFromCurrentVrf(request(), State::makeHandle<QuillTable>("static"),
                                     State::makeHandle<LumenFib>("user"), egress);
    };
    EXPECT_DEATH(both(), assertion("NatMrouteEgress.cpp", function, oneMfib));
    EXPECT_DEATH(requests->mrouteReqIs(request({.source = "0.0.0.0", .group = "0.0.0.0"})),
                 assertion("NatMrouteEgress.cpp", function,
                           "!( isDNAT && isSNAT ) && \"reqKey is (*, *) in response map\""));

    // All VRFs that have an identifier must have both tables then.
    routeMap->vrfNameToIdIs("red", 3);
    capability->egressFromAllVrfsIs(true);
    EXPECT_DEATH(requests->mrouteReqIs(request()), assertion("NatMrouteEgress.cpp", function, oneMfib));
}

TEST_F(MrouteDeathTest, ARouteUpdateNeedsItsTableAndTheRequestersOfItsFlows) {
    start();
    tableIs(3, plain);
    const std::string scope = "void KestrelNat::NatMrouteSm::";
    const std::string update =
        scope + "handleMcastRouteUpdate(const IpGenRouteKey&, const KestrelNat::NatMcastRouteKey&)";
    EXPECT_DEATH(machine->handleMcastRouteUpdate(routeKey("10.0.0.1", "239.1.1.1"), tableKey(4, plain)),
                 assertion("NatMrouteUpdates.cpp", update, oneMfib));
    EXPECT_DEATH(machine->handleMcastRouteUpdateAll(tableKey(4, plain)),
                 assertion("NatMrouteUpdates.cpp",
                           scope + "handleMcastRouteUpdateAll(const KestrelNat::NatMcastRouteKey&)",
                           oneMfib));

    const auto watch = [&](const NatMrouteKey& key) {
        machine->watchedMroutesWrap(3)->add(KestrelNat::MrouteSourceAndGroup::of(key), key);
    };
    watch(request());
    EXPECT_DEATH(routeIs(3, plain, "10.0.0.1", "239.1.1.1", {}),
                 assertion("NatMrouteUpdates.cpp", update, "!sgs.empty() && " + std::string(noEntry)));
    watch(request({.source = "0.0.0.0"}));
    EXPECT_DEATH(routeIs(3, plain, "0.0.0.0", "239.1.1.1", {}),
                 assertion("NatMrouteUpdates.cpp", update,
                           "vrfIdSourceAndGroupToIntfHas( vsg ) && " + std::string(noEntry)));
}

TEST_F(MrouteDeathTest, AnInvalidInterfaceIndexEndsAReactorAndAConstruction) {
    if (lumen)
        GTEST_SKIP() << "Quill rows alone name interfaces by index";
    const char* text = "Quill::Multicast::Fib::OifIndex::value < Quill::Multicast::Fib::OifIndex::min or > "
                       "Quill::Multicast::Fib::OifIndex::null not allowed";
    tableIs(3, plain);
    start();
    requests->mrouteReqIs(request());
    const auto spoil = [&] {
        quillTables[tableKey(3, plain)]->routeIs(routeKey("10.0.0.1", "239.1.1.1"), {{513}});
    };
    EXPECT_DEATH(spoil(), std::string("exception left a reactor: ") + text);

    machine.reset();
    spoil();
    try {
        start();
        FAIL() << "the row was accepted";
    } catch (const State::RangeError& error) {
        EXPECT_STREQ(error.what(), text);
    }
    EXPECT_FALSE(requests->hasSubscribers() || routeMap->publisher().hasSubscribers());
}

} // namespace

} // namespace NatTest
