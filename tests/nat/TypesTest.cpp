// The plug-in's own types: creation by name, text forms, and sets that have none.
#include "KestrelNat/KestrelNatMulticastSm/NatMgroupSm.h"
#include "KestrelNat/KestrelNatMulticastSm/NatMrouteMatcher.h"
#include "KestrelNat/KestrelNatMulticastSm/NatMrouteRouteMap.h"
#include "records/IpGenRouteKey.h"
#include "records/IpMcastKey.h"
#include "state/Errors.h"
#include "state/TypeRegistry.h"
#include "tests/nat/NatFixture.h"

namespace NatTest {

namespace {

using namespace KestrelNat;

template <class T>
Handle<T> made(std::string_view type, const std::vector<State::Argument>& arguments) {
    return State::handleCast<T>(State::createByTypeName(type, arguments));
}

TEST(Types, AreCreatedByNameAndReady) {
    const State::Handle<const State::RefCounted> none;
    EXPECT_TRUE(made<NatMrouteMatcher>("KestrelNat::NatMrouteMatcher", {}));
    const auto mroute = made<NatMrouteSm>("KestrelNat::NatMrouteSm", {none, none, none, none, none});
    const auto mgroup = made<NatMgroupSm>("KestrelNat::NatMgroupSm", {none, none, none, none, none});
    EXPECT_TRUE(mroute && mroute->notificationActive() && mgroup && mgroup->notificationActive());
}

// Values of the type that each differ from its default in one thing.
template <class T>
std::vector<T> others() {
    if constexpr (std::is_same_v<T, L3::IntfId>) {
        return {L3::IntfId("Ethernet9")};
    } else if constexpr (std::is_same_v<T, L3::IpGenAddr>) {
        return {L3::IpAddr(7), L3::IpGenAddr::fromString("::")};
    } else if constexpr (std::is_same_v<T, L3::IpGenPrefix>) {
        return {L3::IpGenPrefix(L3::IpAddr(7), 0), L3::IpGenPrefix(L3::IpAddr(), 32)};
    } else if constexpr (std::is_same_v<T, std::string>) {
        return {"other"};
    } else if constexpr (State::Described<T>) {
        std::vector<T> values;
        State::ValueTraits<T>::eachField([&](const auto& field) {
            using Member = std::remove_cvref_t<decltype(T().*(field.member))>;
            for (const Member& other : others<Member>())
                values.emplace_back().*(field.member) = other;
        });
        return values;
    } else {
        return {static_cast<T>(7)};
    }
}

template <class T>
class KeyTypes : public testing::Test {};
using AllKeys =
    testing::Types<NatMrouteKey, KestrelL3::IpMcastKey, Routing::Multicast::Fib::IpGenRouteKey,
                   NatMcastRouteKey, MrouteSourceAndGroup, VrfIdMrouteSourceAndGroup, MrouteIntfAndVlan>;
TYPED_TEST_SUITE(KeyTypes, AllKeys);

TYPED_TEST(KeyTypes, EveryMemberIsComparedHashedAndPrinted) {
    const TypeParam plain{};
    for (const TypeParam& changed : others<TypeParam>()) {
        SCOPED_TRACE(State::valueText(changed));
        EXPECT_NE(changed, plain);
        EXPECT_NE(changed < plain, plain < changed);
        EXPECT_NE(changed.hash(1), plain.hash(1));
        EXPECT_NE(State::valueText(changed), State::valueText(plain));
        EXPECT_EQ(State::fromDatum<TypeParam>(State::toDatum(changed)), changed);
    }
}

TEST(Types, KeysPrintInTheValueFormAndParseBackOrNameTheAttributeThatIsWrong) {
    const NatMcastRouteKey route{.vrfId = 3, .routeName = "sta\"tic"};
    EXPECT_EQ(State::valueText(route), "KestrelNat::NatMcastRouteKey(vrfId=3, routeName=\"sta\\\"tic\")");
    EXPECT_EQ(State::parseValue<NatMcastRouteKey>(State::valueText(route)), route);
    const VrfIdMrouteSourceAndGroup flow{
        .vrfId = 7, .sg = {.sourceIp = L3::IpAddr("10.0.0.1"), .groupIp = L3::IpAddr("239.1.1.1")}};
    std::string text = "KestrelNat::VrfIdMrouteSourceAndGroup(vrfId=7, "
                       "sg=KestrelNat::MrouteSourceAndGroup(sourceIp=10.0.0.1, groupIp=239.1.1.1))";
    EXPECT_EQ(State::valueText(flow), text);
    EXPECT_EQ(State::parseValue<VrfIdMrouteSourceAndGroup>(text), flow);
    try {
        State::parseValue<VrfIdMrouteSourceAndGroup>(text.replace(text.find("10.0.0.1"), 8, "10.0.0"));
        FAIL();
    } catch (const State::Error& error) {
        EXPECT_NE(std::string(error.what()).find("sg"), std::string::npos) << error.what();
        EXPECT_NE(std::string(error.what()).find("'10.0.0' is none"), std::string::npos) << error.what();
    }
}

TEST(TypesDeathTest, SetsAreNotBuiltFromText) {
    EXPECT_DEATH(MrouteIntfAndVlanSet("x"),
                 "No String constructor for MrouteIntfAndVlanSet - has collection");
    EXPECT_DEATH(NatMrouteMatcher::MrouteKeySet("{}"),
                 "MrouteKeySet::MrouteKeySet\\(std::string_view\\): Assertion `No String constructor for "
                 "MrouteKeySet - has collection' failed");
}

TEST(Matcher, TellsByTheZerosOfItsRequestsWhichRoutesConcernThem) {
    const auto matcher = natMrouteMatcherFactory();
    const auto flow = [](const char* source, const char* group) {
        return MrouteSourceAndGroup{L3::IpAddr(source), L3::IpAddr(group)};
    };
    const char* const any = "0.0.0.0";
    const std::vector<NatMrouteKey> keys{request(), request({.source = any, .group = "239.2.2.2"}),
                                         request({.source = "10.0.0.3", .group = any})};
    for (const NatMrouteKey& key : keys) {
        matcher->remove(MrouteSourceAndGroup::of(key), key); // in vain
        matcher->add(MrouteSourceAndGroup::of(key), key);
    }
    for (const auto& [source, group, concerns] : {std::tuple{"10.0.0.1", "239.1.1.1", true},
                                                  {"10.0.0.2", "239.1.1.1", false},
                                                  {any, "239.1.1.1", false},
                                                  {"10.0.0.2", "239.2.2.2", true},
                                                  {any, "239.2.2.2", true},
                                                  {"10.0.0.3", "239.9.9.9", true},
                                                  {"10.0.0.4", "239.9.9.9", false}})
        EXPECT_EQ(matcher->matches(flow(source, group)), concerns) << source << " " << group;
    for (const NatMrouteKey& key : keys)
        matcher->remove(MrouteSourceAndGroup::of(key), key);
    EXPECT_TRUE(matcher->empty());

    const NatMrouteKey everything = request({.source = any, .group = any}); // is filed under group zero
    matcher->add(MrouteSourceAndGroup::of(everything), everything);
    EXPECT_TRUE(matcher->matches(flow("10.0.0.1", any)));
    EXPECT_FALSE(matcher->matches(flow("10.0.0.1", "239.1.1.1")));
}

} // namespace

} // namespace NatTest
