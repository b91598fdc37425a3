// The route map announces each change once and nothing else; the plug-in's own keys compare, print and parse.
#include "KestrelNat/KestrelNatMulticastSm/NatMrouteRouteMap.h"
#include "state/Errors.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using namespace KestrelNat;
using Quill::Multicast::Fib::Status;
using State::makeHandle;

struct Heard {
    std::vector<State::AttributeId> attributes;
    static void hear(void* self, const State::Notification& change) {
        static_cast<Heard*>(self)->attributes.push_back(change.attribute);
    }
};

TEST(RouteMap, AnnouncesChangesOnceAndEqualValuesNever) {
    const auto map = makeHandle<NatMrouteRouteMap>();
    Heard heard;
    map->publisher().subscribe(&heard, &Heard::hear);
    map->vrfNameToIdIs("red", 3);
    map->vrfNameToIdIs("red", 3);
    EXPECT_EQ(heard.attributes.size(), 1U);
    map->vrfNameToIdIs("red", 4);
    EXPECT_EQ(heard.attributes.size(), 2U);
    EXPECT_EQ(map->vrfNameToIdDel("red"), L3::VrfId(4));
    EXPECT_EQ(map->vrfNameToIdDel("red"), L3::VrfId(0));
    EXPECT_EQ(heard.attributes,
              (std::vector<State::AttributeId>(3, NatMrouteRouteMap::vrfNameToIdAttribute)));

    heard.attributes.clear();
    const NatMcastRouteKey key{.vrfId = 3, .routeName = "static"};
    const auto table = makeHandle<Status>("static");
    map->mrouteRouteIs(key, nullptr);
    EXPECT_TRUE(heard.attributes.empty());
    map->mrouteRouteIs(key, table);
    map->mrouteRouteIs(key, table);
    map->mrouteRouteIs(key, makeHandle<Status>("static"));
    map->mrouteRouteIs(key, nullptr);
    EXPECT_FALSE(map->mrouteRouteHas(key));
    EXPECT_EQ(map->mrouteRouteDel(key), nullptr);
    EXPECT_EQ(heard.attributes,
              (std::vector<State::AttributeId>(3, NatMrouteRouteMap::mrouteRouteAttribute)));

    for (const char* type : {"user", "sparsemode"}) {
        map->mfibIs({.vrfId = 3, .routeName = type}, makeHandle<Lumen::Multicast::Fib::Status>(type));
    }
    heard.attributes.clear();
    map->mfibDelAll();
    EXPECT_EQ(heard.attributes, (std::vector<State::AttributeId>(2, NatMrouteRouteMap::mfibAttribute)));
    map->publisher().unsubscribe(&heard, &Heard::hear);
}

TEST(Keys, OrderByVrfThenByRouteType) {
    const auto key = [](std::uint32_t vrfId, const char* name) {
        return NatMcastRouteKey{.vrfId = vrfId, .routeName = name};
    };
    EXPECT_LT(key(3, "user"), key(4, "sparsemode"));
    EXPECT_LT(key(3, "sparsemode"), key(3, "static"));
    EXPECT_LT(key(3, "static"), key(3, "user"));
    EXPECT_NE(key(3, "static").hash(1), key(4, "static").hash(1));
    EXPECT_NE(key(3, "static").hash(1), key(3, "static").hash(2));
}

TEST(Keys, PrintInTheValueFormAndParseBack) {
    const NatMcastRouteKey route{.vrfId = 3, .routeName = "sta\"tic"};
    EXPECT_EQ(State::valueText(route), "KestrelNat::NatMcastRouteKey(vrfId=3, routeName=\"sta\\\"tic\")");
    EXPECT_EQ(State::parseValue<NatMcastRouteKey>(State::valueText(route)), route);

    const VrfIdMrouteSourceAndGroup vsg{
        .vrfId = 7, .sg = {.sourceIp = L3::IpAddr("10.0.0.1"), .groupIp = L3::IpAddr("239.1.1.1")}};
    EXPECT_EQ(State::valueText(vsg),
              "KestrelNat::VrfIdMrouteSourceAndGroup(vrfId=7, "
              "sg=KestrelNat::MrouteSourceAndGroup(sourceIp=10.0.0.1, groupIp=239.1.1.1))");
    EXPECT_EQ(State::parseValue<VrfIdMrouteSourceAndGroup>(State::valueText(vsg)), vsg);

    const MrouteIntfAndVlan pair{.intf = L3::IntfId("Ethernet1"), .vlanId = 10};
    EXPECT_EQ(State::parseValue<MrouteIntfAndVlan>(State::valueText(pair)), pair);
}

TEST(Keys, ParsingNamesTheAttributeThatIsWrong) {
    const auto messageOf = [](const char* text) {
        try {
            State::parseValue<VrfIdMrouteSourceAndGroup>(text);
        } catch (const State::Error& error) {
            return std::string(error.what());
        }
        return std::string();
    };
    const auto nested = messageOf("KestrelNat::VrfIdMrouteSourceAndGroup(vrfId=7, "
                                  "sg=KestrelNat::MrouteSourceAndGroup(sourceIp=10.0.0, groupIp=239.1.1.1))");
    EXPECT_NE(nested.find("VrfIdMrouteSourceAndGroup"), std::string::npos) << nested;
    EXPECT_NE(nested.find("sg"), std::string::npos) << nested;
    EXPECT_NE(nested.find("10.0.0"), std::string::npos) << nested;
    EXPECT_NE(messageOf("KestrelNat::VrfIdMrouteSourceAndGroup(vrfId=16777216, sg=x)").find("vrfId"),
              std::string::npos);
}

TEST(Keys, SetsOfRequestersAreValuesWithoutAStringForm) {
    MrouteIntfAndVlanSet set;
    EXPECT_FALSE(set);
    const MrouteIntfAndVlan one{.intf = L3::IntfId("Ethernet1"), .vlanId = 10};
    set.ivIs(one);
    set.ivIs(one);
    EXPECT_TRUE(set);
    EXPECT_EQ(set.iv().size(), 1U);
    const MrouteIntfAndVlanSet copy = set;
    set.ivDel(one);
    EXPECT_FALSE(set);
    EXPECT_TRUE(copy.ivHas(one));
    EXPECT_DEATH(MrouteIntfAndVlanSet("x"),
                 "No String constructor for MrouteIntfAndVlanSet - has collection");
}

} // namespace
