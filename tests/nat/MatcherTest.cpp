// The matcher: which routes concern a request, by the zeros in its flow.
#include "KestrelNat/KestrelNatMulticastSm/NatMrouteMatcher.h"
#include "state/TypeRegistry.h"
#include "tests/nat/NatFixture.h"

namespace NatTest {

namespace {

using KestrelNat::MrouteSourceAndGroup;
using KestrelNat::NatMrouteMatcher;
using KeySet = NatMrouteMatcher::MrouteKeySet;

constexpr const char* any = "0.0.0.0";

MrouteSourceAndGroup flow(const char* source, const char* group) {
    return {L3::IpAddr(source), L3::IpAddr(group)};
}

class Matcher : public testing::Test {
  protected:
    void add(const NatMrouteKey& key) { matcher->add(MrouteSourceAndGroup::of(key), key); }
    void remove(const NatMrouteKey& key) { matcher->remove(MrouteSourceAndGroup::of(key), key); }

    Handle<NatMrouteMatcher> matcher = KestrelNat::natMrouteMatcherFactory();
};

TEST_F(Matcher, FilesARequestByTheZerosInItsFlowAndMatchesAccordingly) {
    const NatMrouteKey exact = request();
    const NatMrouteKey starG = request({.source = any, .group = "239.2.2.2"});
    const NatMrouteKey anyGroup = request({.source = "10.0.0.3", .group = any});
    for (const NatMrouteKey& key : {exact, starG, anyGroup}) {
        add(key);
    }
    EXPECT_TRUE(matcher->sourceGroups(MrouteSourceAndGroup::of(exact)).mrouteKeyHas(exact));
    EXPECT_TRUE(matcher->groupsWithAnySource(starG.groupIp).mrouteKeyHas(starG));
    EXPECT_TRUE(matcher->sourcesWithAnyGroup(anyGroup.sourceIp).mrouteKeyHas(anyGroup));

    EXPECT_TRUE(matcher->matches(flow("10.0.0.1", "239.1.1.1")));
    EXPECT_FALSE(matcher->matches(flow("10.0.0.2", "239.1.1.1")));
    EXPECT_FALSE(matcher->matches(flow(any, "239.1.1.1"))) << "a (*,G) route concerns (*,G) requests alone";
    EXPECT_TRUE(matcher->matches(flow("10.0.0.2", "239.2.2.2")));
    EXPECT_TRUE(matcher->matches(flow(any, "239.2.2.2")));
    EXPECT_TRUE(matcher->matches(flow("10.0.0.3", "239.9.9.9")));
    EXPECT_FALSE(matcher->matches(flow("10.0.0.4", "239.9.9.9")));
}

TEST_F(Matcher, FilesARequestForEverythingUnderGroupZero) {
    add(request({.source = any, .group = any}));
    EXPECT_TRUE(matcher->groupsWithAnySourceHas(L3::IpAddr()));
    EXPECT_EQ(matcher->sourcesWithAnyGroupCollection().size(), 0U);
    EXPECT_TRUE(matcher->matches(flow("10.0.0.1", any)));
    EXPECT_FALSE(matcher->matches(flow("10.0.0.1", "239.1.1.1")));
}

TEST_F(Matcher, KeepsNoEmptySetWhateverIsAddedTwiceSharedOrRemovedInVain) {
    for (const Ask& shape : {Ask{}, Ask{.source = any}, Ask{.group = any}}) {
        Ask other = shape;
        other.intf = "Ethernet8";
        const NatMrouteKey first = request(shape);
        const NatMrouteKey second = request(other);
        remove(first);
        EXPECT_TRUE(matcher->empty());

        add(first);
        add(first);
        add(second);
        remove(request({.source = shape.source, .group = shape.group, .intf = "Ethernet7"}));
        EXPECT_TRUE(matcher->matches(MrouteSourceAndGroup::of(first)));
        remove(first);
        EXPECT_TRUE(matcher->matches(MrouteSourceAndGroup::of(first))) << "the other waits still";
        remove(second);
        EXPECT_FALSE(matcher->matches(MrouteSourceAndGroup::of(first)));
        EXPECT_TRUE(matcher->empty());
    }
}

TEST_F(Matcher, OperationsReplaceWholeSetsAndHandOutCopies) {
    const NatMrouteKey key = request();
    const auto sg = MrouteSourceAndGroup::of(key);
    KeySet set;
    EXPECT_FALSE(set);
    set.mrouteKeyIs(key);
    matcher->sourceGroupsIs(sg, set);
    KeySet copy = matcher->sourceGroups(sg);
    copy.mrouteKeyDelAll();
    EXPECT_FALSE(copy);
    EXPECT_EQ(matcher->sourceGroups(sg), set);
    matcher->sourceGroupsDel(sg);
    EXPECT_EQ(matcher->sourceGroups(sg), KeySet());
}

TEST(MatcherType, IsCreatedByNameAndItsSetsAreNotBuiltFromText) {
    const auto made = State::createByTypeName("KestrelNat::NatMrouteMatcher", {});
    ASSERT_TRUE(State::handleCast<NatMrouteMatcher>(made));
    EXPECT_DEATH(KeySet("{}"),
                 "MrouteKeySet::MrouteKeySet\\(std::string_view\\): Assertion `No String constructor for "
                 "MrouteKeySet - has collection' failed");
}

} // namespace

} // namespace NatTest
