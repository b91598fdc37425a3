// The plug-in's own types: creation by name, what is derived from the fields of keys, sets that have no text
// form, the seeds of collections, and the matcher.
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
Handle<T> made(std::string_view type, std::size_t inputs) {
    const std::vector<State::Argument> none(inputs, Handle<const State::RefCounted>());
    return State::handleCast<T>(State::createByTypeName(type, none));
}

// Values of the type that each differ from its default in one thing, the thing that is compared first coming
// first.
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
using AllKeys = testing::Types<NatMrouteKey, KestrelL3::IpMcastKey, IpGenRouteKey, NatMcastRouteKey,
                               MrouteSourceAndGroup, VrfIdMrouteSourceAndGroup, MrouteIntfAndVlan>;
TYPED_TEST_SUITE(KeyTypes, AllKeys);

TYPED_TEST(KeyTypes, EveryMemberIsComparedHashedAndPrinted) {
    const TypeParam unchanged{};
    std::vector<TypeParam> descending = others<TypeParam>();
    for (const TypeParam& changed : descending) {
        SCOPED_TRACE(State::valueText(changed));
        EXPECT_NE(changed.hash(1), unchanged.hash(1));
        EXPECT_NE(State::valueText(changed), State::valueText(unchanged));
        EXPECT_EQ(State::fromDatum<TypeParam>(State::toDatum(changed)), changed);
    }
    descending.push_back(unchanged);
    for (std::size_t i = 1; i < descending.size(); ++i)
        EXPECT_TRUE(descending[i] < descending[i - 1] && !(descending[i - 1] <= descending[i])) << i;
}

template <class T>
void expectForm(const T& value, std::string text, const std::string& part, const std::string& refusal) {
    EXPECT_EQ(State::valueText(value), text);
    EXPECT_EQ(State::parseValue<T>(text), value);
    try {
        State::parseValue<T>(text.replace(text.find(part), part.size(), "wrong"));
        ADD_FAILURE() << "parsed: " << text;
    } catch (const State::Error& error) {
        EXPECT_TRUE(std::string(error.what()).starts_with(refusal)) << error.what();
    }
}

TEST(Types, KeysPrintInTheValueFormAndParseBackOrNameTheAttributeThatIsWrong) {
    const std::string scope = "KestrelNat::";
    expectForm(NatMcastRouteKey{.vrfId = 3, .routeName = "sta\"tic"},
               scope + "NatMcastRouteKey(vrfId=3, routeName=\"sta\\\"tic\")", "\"sta\\\"tic\"",
               scope + "NatMcastRouteKey, attribute routeName: ");
    const auto sg = MrouteSourceAndGroup::of(request());
    const std::string sgText = scope + "MrouteSourceAndGroup(sourceIp=10.0.0.1, groupIp=239.1.1.1)";
    expectForm(VrfIdMrouteSourceAndGroup{.vrfId = 7, .sg = sg},
               scope + "VrfIdMrouteSourceAndGroup(vrfId=7, sg=" + sgText + ")", "10.0.0.1",
               scope + "VrfIdMrouteSourceAndGroup, attribute sg: " + scope +
                   "MrouteSourceAndGroup, attribute sourceIp: L3::IpAddr: 'wrong' is none");
    expectForm(MrouteIntfAndVlan::of(request()), scope + "MrouteIntfAndVlan(intf=Ethernet9, vlanId=10)", "10",
               scope + "MrouteIntfAndVlan, attribute vlanId: ");
}

TEST(TypesDeathTest, SetsAreNotBuiltFromText) {
    EXPECT_DEATH(MrouteIntfAndVlanSet("x"),
                 "MrouteIntfAndVlanSet::MrouteIntfAndVlanSet\\(std::string_view\\): Assertion `No String "
                 "constructor for MrouteIntfAndVlanSet - has collection' failed");
    EXPECT_DEATH(NatMrouteMatcher::MrouteKeySet("{}"),
                 "MrouteKeySet::MrouteKeySet\\(std::string_view\\): Assertion `No String constructor for "
                 "MrouteKeySet - has collection' failed");
}

// Whether a collection's seed is the process's with `constant`: a key that it has hashed keeps its hash under
// that seed, whatever becomes of the key, and is hashed anew under any other.
template <class Collection>
bool isSeededBy(const Collection& collection, std::uint32_t constant) {
    using Key = typename Collection::Key;
    const std::uint32_t seed = State::processHashSeed() ^ constant;
    Key key{};
    const auto hashed = collection.hashed(key);
    key = others<Key>().front();
    return hashed.hash(seed) == State::HashOf<Key>{}(Key{}, seed);
}

TEST(Types, AreCreatedByNameAndSeedTheirCollections) {
    EXPECT_TRUE(made<NatMrouteRouteMap>("KestrelNat::NatMrouteRouteMap", 0));
    const auto mroute = made<NatMrouteSm>("KestrelNat::NatMrouteSm", 5);
    EXPECT_TRUE(mroute->notificationActive());
    EXPECT_TRUE(isSeededBy(mroute->mcastRouteCollection(), 129833230));
    EXPECT_TRUE(isSeededBy(mroute->mfibAppCollection(), 2483000224));
    EXPECT_TRUE(isSeededBy(mroute->vrfIdSourceAndGroupToIntfCollection(), 550284661));
    EXPECT_TRUE(isSeededBy(mroute->watchedMroutesCollection(), 1273791958));
    const auto mgroup = made<NatMgroupSm>("KestrelNat::NatMgroupSm", 5);
    EXPECT_TRUE(mgroup->notificationActive());
    EXPECT_TRUE(isSeededBy(mgroup->vrfIdSourceAndGroupToIntfCollection(), 517662159));
    const auto matcher = made<NatMrouteMatcher>("KestrelNat::NatMrouteMatcher", 0);
    EXPECT_TRUE(isSeededBy(matcher->sourcesWithAnyGroupCollection(), 1476880217));
    EXPECT_TRUE(isSeededBy(matcher->groupsWithAnySourceCollection(), 1004865696));
    EXPECT_TRUE(isSeededBy(matcher->sourceGroupsCollection(), 1741118936));
    using Keys = State::ValueSet<NatMrouteKey, 1905715306>;
    using Requesters = State::ValueSet<MrouteIntfAndVlan, 3452798434>;
    EXPECT_TRUE((std::is_same_v<decltype(NatMrouteMatcher::MrouteKeySet().mrouteKey()), const Keys&>));
    EXPECT_TRUE((std::is_same_v<decltype(MrouteIntfAndVlanSet().iv()), const Requesters&>));
}

TEST(Types, AMatcherTellsByTheZerosOfItsRequestsWhichRoutesConcernThem) {
    const auto matcher = natMrouteMatcherFactory();
    const char* const any = "0.0.0.0";
    for (const Ask& ask :
         {Ask{}, Ask{.source = any, .group = "239.2.2.2"}, Ask{.source = "10.0.0.3", .group = any}})
        matcher->add(MrouteSourceAndGroup::of(request(ask)), request(ask));
    const auto matches = [&](const char* source, const char* group) {
        return matcher->matches({L3::IpAddr(source), L3::IpAddr(group)});
    };
    EXPECT_TRUE(matches("10.0.0.1", "239.1.1.1") && matches("10.0.0.2", "239.2.2.2") &&
                matches(any, "239.2.2.2") && matches("10.0.0.3", "239.9.9.9"));
    EXPECT_FALSE(matches("10.0.0.2", "239.1.1.1") || matches(any, "239.1.1.1") ||
                 matches("10.0.0.4", "239.9.9.9") || matches("10.0.0.1", any));
    const NatMrouteKey everything = request({.source = any, .group = any});
    matcher->add(MrouteSourceAndGroup::of(everything), everything);
    EXPECT_TRUE(matches("10.0.0.1", any) && !matches("10.0.0.4", "239.9.9.9")) << "is filed under group zero";
}

} // namespace

} // namespace NatTest
