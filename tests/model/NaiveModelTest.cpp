// Stories worked out by hand, by which the naive model itself is believed, and proof that the driver notices
// a system that breaks a rule. ModelTest.cpp holds the product against the model.
#include "tests/model/NaiveModel.h"
#include "tests/model/ModelDriver.h"
#include "tests/model/OperationSource.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <stdexcept>

namespace Model {
namespace {

constexpr Address s1 = 0x0a010000;
constexpr Address s2 = 0x0a020000;
constexpr Address g1 = 0xef010000;
constexpr Address g2 = 0xef020000;

const TableName plain = {"default", RouteType::plain};
const TableName sparse = {"default", RouteType::sparse};

RouteKey routeTo(Address source, Address group) {
    return {{source, 32}, {group, 32}};
}

RequestKey request(Address source, Address group, std::uint8_t type = 0) {
    return {.intf = "Ethernet7", .vrfId = 0, .vlan = 10, .source = source, .group = group, .type = type};
}

/// A started model of the Quill source: the VRF "default" on, indexes 1 to 3 lead to Ethernet1 to Ethernet3.
class QuillStory : public testing::Test {
  protected:
    QuillStory() {
        for (const TableName& table : {plain, sparse}) {
            for (std::uint16_t index = 1; index <= 3; ++index) {
                model.oifIndexIntfIs(table, index, "Ethernet" + std::to_string(index));
            }
        }
        model.vrfStatusIs("default", 0);
        model.vrfEnabledIs("default", true);
        model.start();
    }

    const Names* answer(const RequestKey& key) { return model.observe().mrouteAnswers.find(key); }

    NaiveModel model{Source::quill};
};

TEST_F(QuillStory, exactRouteComesFirstAndIsNotMerged) {
    model.quillRouteIs(plain, routeTo(0, g1), {2});
    model.mrouteRequestIs(request(s1, g1));
    EXPECT_EQ(*answer(request(s1, g1)), Names({"Ethernet2"}));

    model.quillRouteIs(plain, routeTo(s1, g1), {1, 3});
    EXPECT_EQ(*answer(request(s1, g1)), Names({"Ethernet1", "Ethernet3"}));
    EXPECT_EQ(model.observe().answersByType.at("static").size(), 1U);
    EXPECT_TRUE(model.observe().answersByType.at("sparsemode").empty());

    model.quillRouteIs(sparse, {{s1, 16}, {g1, 32}}, {2}); // not exact, so it answers nothing
    EXPECT_EQ(*answer(request(s1, g1)), Names({"Ethernet1", "Ethernet3"}));
    model.quillRouteIs(sparse, routeTo(s1, g1), {2});
    EXPECT_EQ(*answer(request(s1, g1)), Names({"Ethernet1", "Ethernet2", "Ethernet3"}));
}

TEST_F(QuillStory, aStarRouteRefreshesStarRequestsAlone) {
    model.mrouteRequestIs(request(s1, g1));
    model.mrouteRequestIs(request(0, g1));
    EXPECT_EQ(*answer(request(s1, g1)), Names()); // asked for, no route
    model.quillRouteIs(plain, routeTo(0, g1), {1});
    EXPECT_EQ(*answer(request(0, g1)), Names({"Ethernet1"}));
    EXPECT_EQ(*answer(request(s1, g1)), Names()); // stale, by the rules

    model.oifIndexIntfIs(plain, 1, "Vlan10"); // looks at every route, which still is a (*,G) route
    EXPECT_EQ(*answer(request(0, g1)), Names({"Vlan10"}));
    EXPECT_EQ(*answer(request(s1, g1)), Names());

    model.routeDel(plain, routeTo(0, g1));
    EXPECT_EQ(answer(request(0, g1)), nullptr); // an update that leaves nothing deletes the answer
}

TEST_F(QuillStory, wildcardRequestsGatherEveryMatchingRow) {
    model.quillRouteIs(plain, routeTo(s1, g1), {1});
    model.quillRouteIs(plain, {{s2, 16}, {g1, 16}}, {2});
    model.quillRouteIs(plain, routeTo(s1, g2), {3});
    model.mrouteRequestIs(request(0, g1));
    model.mrouteRequestIs(request(s1, 0));
    EXPECT_EQ(*answer(request(0, g1)), Names({"Ethernet1", "Ethernet2"}));
    EXPECT_EQ(*answer(request(s1, 0)), Names({"Ethernet1", "Ethernet3"}));

    model.quillRouteIs(plain, routeTo(0, 0), {2}); // seen by (S,*) requests, and tells none of them
    EXPECT_EQ(*answer(request(s1, 0)), Names({"Ethernet1", "Ethernet3"}));
    model.quillRouteIs(plain, routeTo(s1, g2), {});
    EXPECT_EQ(*answer(request(s1, 0)), Names({"Ethernet1", "Ethernet2"}));
}

TEST_F(QuillStory, rebuiltKeysHaveTypeZeroAndOutliveTheRequest) {
    model.mrouteRequestIs(request(s1, g1, 1));
    model.quillRouteIs(plain, routeTo(s1, g1), {1});
    EXPECT_EQ(*answer(request(s1, g1, 1)), Names());
    EXPECT_EQ(*answer(request(s1, g1, 0)), Names({"Ethernet1"}));
    model.mrouteRequestDel(request(s1, g1, 1));
    EXPECT_EQ(answer(request(s1, g1, 1)), nullptr);
    EXPECT_EQ(*answer(request(s1, g1, 0)), Names({"Ethernet1"}));
    EXPECT_TRUE(model.observe().mrouteRequesters.empty());
    EXPECT_TRUE(model.observe().watched.empty());

    model.quillRouteIs(plain, routeTo(s1, g1), {2}); // leaves an empty matcher and the stale answer
    EXPECT_EQ(model.observe().watched.at(0), Watched());
    EXPECT_EQ(*answer(request(s1, g1, 0)), Names({"Ethernet1"}));
}

TEST_F(QuillStory, aVrfThatGoesTakesItsAnswersAndAnyNewTableAsksAgain) {
    model.quillRouteIs(plain, routeTo(s1, g1), {1});
    model.mrouteRequestIs(request(s1, g1));
    model.mrouteRequestIs(request(s2, g2));
    model.vrfEnabledIs("default", false);
    EXPECT_TRUE(model.observe().mrouteAnswers.empty());
    EXPECT_TRUE(model.observe().routeMap.empty());
    EXPECT_FALSE(model.observe().mounted.contains("routing/multicast/routestatus/default/static"));
    EXPECT_EQ(model.observe().mrouteRequesters.size(), 2U);

    model.quillRouteIs(plain, routeTo(s2, g2), {}); // nobody watches
    model.vrfEnabledIs("default", true);
    EXPECT_EQ(*answer(request(s1, g1)), Names({"Ethernet1"}));
    EXPECT_EQ(*answer(request(s2, g2)),
              Names()); // the empty row deleted it, the sparse table's pass asked again

    model.quillRouteIs(plain, routeTo(s2, g2), {2});
    model.quillRouteIs(plain, routeTo(s2, g2), {});
    EXPECT_EQ(answer(request(s2, g2)), nullptr);
    model.tableIs({"red", RouteType::plain});
    model.tableIs({"red", RouteType::sparse});
    model.vrfStatusIs("red", 0);
    model.vrfEnabledIs("red", true); // waits for an identifier
    EXPECT_FALSE(model.observe().vrfIds.has("red"));
    model.vrfStatusIs("red", 5); // a full pass over all requests follows
    EXPECT_EQ(model.observe().vrfIds.at("red"), 5U);
    EXPECT_EQ(*answer(request(s2, g2)), Names());
}

TEST_F(QuillStory, answersFromAllVrfs) {
    model.tableIs({"red", RouteType::plain});
    model.tableIs({"red", RouteType::sparse});
    model.vrfStatusIs("red", 5);
    model.vrfEnabledIs("red", true);
    model.oifIndexIntfIs({"red", RouteType::sparse}, 1, "Vlan10");
    model.quillRouteIs({"red", RouteType::sparse}, routeTo(s1, g1), {1});
    model.quillRouteIs(plain, routeTo(s1, g1), {2});
    model.mrouteRequestIs(request(s1, g1));
    EXPECT_EQ(*answer(request(s1, g1)), Names({"Ethernet2"}));
    model.egressFromAllVrfsIs(true);
    EXPECT_EQ(*answer(request(s1, g1)), Names({"Ethernet2"})); // nobody asked again
    model.quillRouteIs(sparse, routeTo(s1, g1), {});
    EXPECT_EQ(*answer(request(s1, g1)), Names({"Ethernet2", "Vlan10"}));
    EXPECT_EQ(model.observe().answersByType.at("static").at(request(s1, g1)), Names({"Ethernet2"}));
}

TEST_F(QuillStory, droppingThePlugInDeletesTheAnswersOfItsTables) {
    model.quillRouteIs(plain, routeTo(s1, g1), {1});
    model.mrouteRequestIs(request(s1, g1));
    model.mgroupRequestIs(request(s1, g1));
    model.stop();
    EXPECT_TRUE(model.observe().mrouteAnswers.empty());
    EXPECT_TRUE(model.observe().groupConfig.has({0, s1, g1, 10}));
    model.mgroupRequestDel(request(s1, g1));
    model.start();
    EXPECT_EQ(*answer(request(s1, g1)), Names({"Ethernet1"}));
    EXPECT_TRUE(model.observe().groupConfig.has({0, s1, g1, 10})); // nobody saw the request go
}

TEST(LumenStory, routesThatAreNotReadyAreSkippedByUpdatesButSeenByRequests) {
    NaiveModel model(Source::lumen);
    for (const TableName& table : {plain, sparse}) {
        model.tableIs(table);
    }
    model.vrfStatusIs("default", 0);
    model.vrfEnabledIs("default", true);
    model.start();
    const auto answer = [&model](const RequestKey& key) { return model.observe().mrouteAnswers.find(key); };

    model.mrouteRequestIs(request(s1, g1));
    model.lumenRouteIs(plain, routeTo(s1, g1), {"Ethernet1", ""}, 0);
    EXPECT_EQ(*answer(request(s1, g1)), Names());
    EXPECT_TRUE(model.observe().watchers.at({0, "user"}).contains(routeTo(s1, g1)));
    model.lumenRouteIs(plain, routeTo(s1, g1), {"Ethernet1", ""}, 1);
    EXPECT_EQ(*answer(request(s1, g1)), Names({"Ethernet1"}));

    model.lumenRouteUntold(plain, routeTo(s1, g1), {"Ethernet2"}, 1); // without a version, nobody looks
    EXPECT_EQ(*answer(request(s1, g1)), Names({"Ethernet1"}));
    model.lumenRouteIs(plain, routeTo(s1, g1), {"Ethernet2"}, 1); // nothing differs, so the version stays
    EXPECT_EQ(*answer(request(s1, g1)), Names({"Ethernet1"}));
    model.lumenRouteIs(plain, routeTo(s1, g1), {"Ethernet3"}, 2);
    EXPECT_EQ(*answer(request(s1, g1)), Names({"Ethernet1"}));
    model.mrouteRequestIs(request(0, g1)); // a request doesn't ask whether a route is ready
    EXPECT_EQ(*answer(request(0, g1)), Names({"Ethernet3"}));

    model.routeDel(plain, routeTo(s1, g1));
    EXPECT_EQ(answer(request(s1, g1)), nullptr);
    EXPECT_EQ(answer(request(0, g1)), nullptr);
    EXPECT_TRUE(model.observe().watchers.at({0, "user"}).empty());

    model.tableIs({"red", RouteType::plain});
    model.tableIs({"red", RouteType::sparse});
    model.vrfStatusIs("red", 5);
    model.vrfEnabledIs("red", true);
    model.vrfEnabledIs("red", false); // one VRF's end unmounts what all share; the rest goes on
    EXPECT_FALSE(model.observe().mounted.contains("lumen/multicast/fib/ipv4/user"));
    model.lumenRouteIs(sparse, routeTo(s2, g1), {"Ethernet1"}, 1);
    EXPECT_EQ(*answer(request(0, g1)), Names({"Ethernet1"}));
}

TEST_F(QuillStory, groupIdsWithTheirOddities) {
    RequestKey first = request(s1, g1, 1);
    RequestKey second = first;
    second.intf = "Ethernet8";
    RequestKey otherVlan = first;
    otherVlan.vlan = 20;
    const GroupKey group = {0, s1, g1, 10};
    const auto groupId = [this](const RequestKey& key) { return model.observe().groupIds.find(key); };

    model.mgroupRequestIs(first);
    model.mgroupRequestIs(second);
    model.mgroupRequestIs(otherVlan);
    EXPECT_EQ(model.observe().groupConfig.size(), 2U);
    model.groupStatusIs(group, 17);
    for (const RequestKey& key : {first, second, otherVlan}) { // whatever their VLAN
        EXPECT_EQ(*groupId(key), 17U);
    }
    model.groupStatusDel(group); // one response goes, the first
    EXPECT_EQ(groupId(first), nullptr);
    EXPECT_EQ(*groupId(second), 17U);
    EXPECT_EQ(*groupId(otherVlan), 17U);

    model.mgroupRequestDel(second); // takes the row that the first still needs
    EXPECT_FALSE(model.observe().groupConfig.has(group));
    EXPECT_EQ(model.observe().mgroupRequesters.at({0, s1, g1}).size(), 2U);
}

TEST_F(QuillStory, groupKeysHoldSixteenBitsOfTheVrf) {
    RequestKey wide = request(s1, g1, 0);
    wide.vrfId = 0x10001;
    const GroupKey group = {1, s1, g1, 10};
    model.groupStatusIs(group, 17);
    model.mgroupRequestIs(wide);
    EXPECT_EQ(model.observe().groupIds.at(wide),
              17U);                 // found by the cut identifier, under the request's own type
    model.groupStatusIs(group, 18); // there is no way back to the wide one
    EXPECT_EQ(model.observe().groupIds.at(wide), 17U);

    RequestKey narrow = request(s1, g1, 0);
    narrow.vrfId = 1;
    model.mgroupRequestIs(narrow);
    model.groupStatusIs(group, 19);
    EXPECT_EQ(model.observe().groupIds.at(narrow), 18U);
    narrow.type = 1; // changes of status answer under type 1, whatever was asked
    EXPECT_EQ(model.observe().groupIds.at(narrow), 19U);
}

/// A model that forgets to remove (*,G) routes.
class KeepsStarRoutes : public NaiveModel {
  public:
    using NaiveModel::NaiveModel;
    void routeDel(const TableName& table, const RouteKey& key) override {
        if (key.source.address != 0) {
            NaiveModel::routeDel(table, key);
        }
    }
};

/// A model that keeps a group configuration row for as long as anyone asks for it.
class KeepsSharedRows : public NaiveModel {
  public:
    using NaiveModel::NaiveModel;
    const Observation& observe() override {
        seen_ = NaiveModel::observe();
        for (const RequestKey& key : stores().mgroupRequests) {
            if (started()) {
                seen_.groupConfig.put(
                    {static_cast<std::uint16_t>(key.vrfId & 0xffffU), key.source, key.group, key.vlan});
            }
        }
        return seen_;
    }

  private:
    Observation seen_;
};

/// A model that throws where a route has two interfaces or more.
class Throws : public NaiveModel {
  public:
    using NaiveModel::NaiveModel;
    void quillRouteIs(const TableName& table, const RouteKey& key,
                      const std::vector<std::uint16_t>& oifs) override {
        if (oifs.size() > 1) {
            throw std::runtime_error("two are too many");
        }
        NaiveModel::quillRouteIs(table, key, oifs);
    }
};

/// A model that ends the process when a request is withdrawn.
class Aborts : public NaiveModel {
  public:
    using NaiveModel::NaiveModel;
    void mrouteRequestDel(const RequestKey&) override { std::abort(); }
};

template <class System>
std::optional<std::string> compareWith(Source source, std::size_t operations) {
    ModelDriver driver(source, [source] { return std::make_unique<System>(source); });
    return driver.run({.seed = 1, .operations = operations});
}

TEST(ModelDriverTest, agreesWithItselfAndFindsBrokenRules) {
    for (const Source source : {Source::quill, Source::lumen}) {
        EXPECT_EQ(compareWith<NaiveModel>(source, 5'000), std::nullopt);
        const auto forgotten = compareWith<KeepsStarRoutes>(source, 20'000);
        ASSERT_TRUE(forgotten.has_value());
        EXPECT_NE(forgotten->find("repeat with KESTREL_TEST_SEED="), std::string::npos);
        EXPECT_NE(forgotten->find("no route"), std::string::npos) << *forgotten;
        EXPECT_NE(forgotten->find("what differs:\n  "), std::string::npos) << *forgotten;
        EXPECT_LT(forgotten->size(), 2'000U) << *forgotten; // thinned out to the few that matter
        const auto kept = compareWith<KeepsSharedRows>(source, 20'000);
        ASSERT_TRUE(kept.has_value());
        EXPECT_NE(kept->find("group configuration"), std::string::npos) << *kept;
        EXPECT_LT(kept->size(), 1'500U) << *kept;
    }
    const auto thrown = compareWith<Throws>(Source::quill, 1'000);
    ASSERT_TRUE(thrown.has_value());
    EXPECT_NE(thrown->find("two are too many"), std::string::npos) << *thrown;
    EXPECT_DEATH(compareWith<Aborts>(Source::quill, 1'000), "repeat with KESTREL_TEST_SEED=1");
}

TEST(ModelDriverTest, operationsReachTheSituationsThatMatter) {
    for (const Source source : {Source::quill, Source::lumen}) {
        NaiveModel model(source);
        OperationSource operations(7);
        std::size_t full = 0, bothTypes = 0, outlived = 0, emptyMatcher = 0, allVrfs = 0, sharedGroup = 0;
        for (int count = 0; count < 20'000; ++count) {
            apply(operations.draw(model), model);
            const Observation& seen = model.observe();
            for (const auto& [key, names] : seen.mrouteAnswers) {
                full += names.empty() ? 0 : 1;
                outlived += model.stores().mrouteRequests.has(key) ? 0 : 1;
                bothTypes += model.started() && seen.answersByType.begin()->second.has(key) &&
                                     (seen.answersByType.begin() + 1)->second.has(key)
                                 ? 1
                                 : 0;
            }
            for (const auto& [vrfId, watched] : seen.watched) {
                emptyMatcher += watched == Watched() ? 1 : 0;
            }
            allVrfs +=
                model.stores().egressFromAllVrfs && seen.vrfIds.size() > 1 && !seen.mrouteAnswers.empty();
            for (const auto& [flow, requesters] : seen.mgroupRequesters) {
                sharedGroup += requesters.size() > 1 ? 1 : 0;
            }
        }
        for (const std::size_t times : {full, bothTypes, outlived, emptyMatcher, allVrfs, sharedGroup}) {
            EXPECT_GT(times, 500U);
        }
    }
}

} // namespace
} // namespace Model
