// Stories of the mirror: what happens in the kernel, what the tables hear of it, and what the kernel is
// asked.
#include "tests/kernel/FakeKernel.h"
#include "tests/kernel/RecordingSink.h"
#include "text/JsonWriter.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>

namespace Agent::Kernel::Test {
namespace {

constexpr std::uint32_t table = 253;
constexpr MfcKey flow{.source = 0x0a090102, .group = 0xef010101};

MfcKey numbered(std::uint32_t number) {
    return {.source = 0x0a090102, .group = 0xef020000 + number};
}

// lo is 1, e2..e8 are VIFs 0..6 of the default table, pimreg (9) is VIF 7.
class MirrorTest : public testing::Test {
  protected:
    MirrorTest() {
        kernel.linkIs(1, "lo", true);
        kernel.linkIs(9, "pimreg", true);
        for (int ifindex = 2; ifindex <= 8; ++ifindex) {
            kernel.linkIs(ifindex, "e" + std::to_string(ifindex));
            kernel.vifIs(table, ifindex - 2, ifindex);
        }
        kernel.vifIs(table, 7, 9, true);
        sink.heard = [this](const std::string& call) { calls.push_back(call); };
    }

    void start(const KernelConfig& config = {{{.name = "default", .id = 0, .table = table}}}) {
        mirror.reconfigure(config);
        settle();
    }
    // Lets everything settle and forgets what was heard and asked on the way.
    void settle() {
        reader.settle();
        calls.clear();
        reader.asked.clear();
    }
    // One wake-up: all events, then all that the tables are to hear.
    void wake() {
        reader.drain();
        mirror.publish(1000);
    }
    void route(const MfcKey& key, int parentVif, const std::vector<int>& vifs,
               std::uint8_t protocol = FakeKernel::byDaemon) {
        std::uint32_t outputs = 0;
        for (int vif : vifs)
            outputs |= 1u << vif;
        kernel.routeIs(table, {.key = key, .parent = parentVif, .outputs = outputs, .protocol = protocol});
    }
    std::string row(const MfcKey& key = flow, RouteType type = RouteType::sparse) const {
        return sink.row("default", key, type);
    }
    std::size_t dumpsAsked() const {
        return static_cast<std::size_t>(
            std::count_if(reader.asked.begin(), reader.asked.end(),
                          [](const KernelQuery& query) { return query.kind == KernelQuery::Kind::routes; }));
    }

    FakeKernel kernel;
    RecordingSink sink;
    Mirror mirror{sink};
    FakeReader reader{kernel, mirror};
    std::vector<std::string> calls;
};

TEST_F(MirrorTest, ABurstIsOneChangeAndAnUnchangedRouteIsSilent) {
    start();
    route(flow, 0, {1});
    route(flow, 0, {1, 2});
    route(flow, 0, {2, 3});
    wake();
    EXPECT_EQ(row(), "e4 e5");
    EXPECT_EQ(calls, std::vector<std::string>{"route (10.9.1.2, 239.1.1.1)"});
    EXPECT_EQ(mirror.counters().coalesced, 2u);

    route(flow, 0, {2, 3});
    wake();
    route(numbered(1), 0, {1});
    kernel.routeDel(table, numbered(1));
    wake();
    EXPECT_EQ(calls.size(), 1u);
    EXPECT_EQ(mirror.counters().unchanged, 1u);
    EXPECT_TRUE(reader.asked.empty());
}

TEST_F(MirrorTest, MapsEntriesToRows) {
    start();
    route({.source = 0, .group = flow.group}, 0, {0, 1, 7}); // the IIF and the register VIF among the OIFs
    route({.source = 0, .group = 0}, 0, {1});
    route({.source = flow.source, .group = 0}, 0, {1});
    route(flow, 0, {});
    kernel.unresolvedIs(table, numbered(1));
    kernel.unresolvedIs(table, flow); // packets that came before the route; they expire after it came
    kernel.unresolvedExpire(table);
    kernel.tables[77].vifs[0] = 2;
    kernel.routeIs(77, {.key = numbered(2)});
    wake();
    EXPECT_EQ(row({.source = 0, .group = flow.group}), "e3");
    EXPECT_EQ(row(flow), "none");
    EXPECT_EQ(sink.rowCount("default"), 2u);
    EXPECT_EQ(mirror.counters().skippedGroupZero, 2u);
    EXPECT_EQ(mirror.counters().skippedUnresolved, 4u);
    EXPECT_EQ(mirror.counters().skippedOtherTable, 1u);
}

TEST_F(MirrorTest, RouteTypeFollowsTheConfigurationOrTheProtocol) {
    start();
    route(numbered(1), 0, {1}, FakeKernel::byDaemon);
    route(numbered(2), 0, {1}, FakeKernel::byNetlink);
    wake();
    EXPECT_EQ(row(numbered(1), RouteType::sparse), "e3");
    EXPECT_EQ(row(numbered(2), RouteType::staticRoutes), "e3");

    // The row of the new type is there before the old one goes.
    calls.clear();
    route(numbered(2), 0, {1}, FakeKernel::byDaemon);
    wake();
    EXPECT_EQ(calls,
              (std::vector<std::string>{"route (10.9.1.2, 239.2.0.2)", "no route (10.9.1.2, 239.2.0.2)"}));

    start({{{.name = "default", .id = 0, .table = table, .routeType = RouteType::staticRoutes}}});
    EXPECT_EQ(row(numbered(1), RouteType::staticRoutes), "e3");
    EXPECT_EQ(row(numbered(1), RouteType::sparse), "absent");
}

TEST_F(MirrorTest, ARouteWithoutIifStaysWithoutOifsButNeverBegins) {
    start();
    route(flow, 0, {1});
    wake();
    kernel.vifDel(table, 0);
    settle();
    EXPECT_EQ(row(), "none");
    route(numbered(1), 0, {1});
    wake();
    EXPECT_EQ(row(numbered(1)), "absent");

    kernel.vifIs(table, 0, 8);
    settle();
    EXPECT_EQ(row(), "e3");
    EXPECT_EQ(row(numbered(1)), "e3");
}

TEST_F(MirrorTest, MulticastIsOnWhileTheTableHasVifs) {
    for (int vif = 0; vif < 8; ++vif)
        kernel.vifDel(table, vif);
    start();
    EXPECT_FALSE(sink.vrfs["default"].multicast);
    kernel.vifIs(table, 0, 2);
    settle();
    EXPECT_TRUE(sink.vrfs["default"].multicast);

    // Routes leave first, then multicast goes off.
    kernel.vifIs(table, 1, 3);
    route(flow, 0, {1});
    settle();
    kernel.daemonStop(table);
    reader.settle();
    EXPECT_EQ(calls, (std::vector<std::string>{"no route (10.9.1.2, 239.1.1.1)", "vrf default off"}));

    // The only VIF goes with its interface, while an answer is under way that still has it.
    kernel.vifIs(table, 0, 2);
    settle();
    kernel.vifIs(table, 1, 3);
    kernel.vifDel(table, 1);
    reader.drain();
    reader.step();
    kernel.linkDel(2);
    settle();
    EXPECT_FALSE(sink.vrfs["default"].multicast);
}

TEST_F(MirrorTest, AnOverrunIsHealedByADumpThatTellsOnlyDifferences) {
    start();
    for (std::uint32_t i = 0; i < 50; ++i)
        route(numbered(i), 0, {1});
    settle();
    kernel.capacity = 3;
    for (std::uint32_t i = 0; i < 10; ++i)
        kernel.routeDel(table, numbered(i));
    route(numbered(60), 0, {1});
    route(numbered(49), 0, {2});
    kernel.capacity = 1000;
    reader.settle();
    EXPECT_EQ(sink.rowCount("default"), 41u);
    EXPECT_EQ(row(numbered(49)), "e4");
    EXPECT_EQ(calls.size(), 12u);
    EXPECT_EQ(mirror.counters().overruns, 1u);
    EXPECT_EQ(mirror.counters().lookups, 7u); // 3 of 10 deletions were told
}

// A delete moves the entries behind it, and the dump goes on one too far.
TEST_F(MirrorTest, ARouteThatADumpMissesStays) {
    for (std::uint32_t i = 0; i < 12; ++i)
        route(numbered(i), 0, {1});
    start();
    mirror.overrun();
    while (dumpsAsked() == 0)
        reader.step(4);
    kernel.routeDel(table, std::size_t{0});
    reader.settle();
    EXPECT_EQ(calls, std::vector<std::string>{"no route (10.9.1.2, 239.2.0.0)"});
    EXPECT_EQ(mirror.counters().disturbed, 1u);
    EXPECT_EQ(dumpsAsked(), 2u);
    EXPECT_EQ(mirror.counters().lookups, 1u);
}

TEST_F(MirrorTest, LastingChurnIsFollowedWithDumpsAtADistance) {
    for (std::uint32_t i = 0; i < 30; ++i)
        route(numbered(i), 0, {1});
    start();
    kernel.lose();
    kernel.routeDel(table, numbered(3)); // without an event
    route(numbered(99), 0, {1});
    reader.drain();
    auto began = reader.now;
    std::uint32_t churned = 1000;
    while (reader.now < began + std::chrono::seconds(1)) {
        route(numbered(churned), 0, {1});
        if (churned > 1002)
            kernel.routeDel(table, numbered(churned - 2));
        ++churned;
        wake();
        reader.step(8);
        reader.now += std::chrono::microseconds(100);
    }
    EXPECT_EQ(row(numbered(3)), "absent");
    EXPECT_EQ(row(numbered(99)), "e3");
    EXPECT_GT(mirror.counters().disturbed, 3u);
    EXPECT_LT(dumpsAsked(), 30u); // 50 ms is the shortest pause
    settle();
    EXPECT_FALSE(mirror.vrfs()[0]->kernel().resyncPending());
    EXPECT_EQ(sink.rowCount("default"), kernel.tables[table].routes.size());
}

TEST_F(MirrorTest, WhatLinksTellNeedsNoDump) {
    start();
    route(flow, 0, {1, 2});
    route(numbered(1), 2, {1});
    settle();

    kernel.linkIs(3, "uplink");
    wake();
    EXPECT_EQ(row(), "uplink e4");
    EXPECT_EQ(calls, std::vector<std::string>{"name uplink"});

    calls.clear();
    kernel.linkIs(50, "new");
    kernel.linkDel(50);
    reader.settle();
    EXPECT_TRUE(calls.empty());
    EXPECT_TRUE(reader.asked.empty());

    kernel.linkDel(4); // an OIF of one route, the IIF of another
    reader.settle();
    EXPECT_EQ(row(), "uplink");
    EXPECT_EQ(row(numbered(1)), "none");
    EXPECT_EQ(dumpsAsked(), 0u);
    EXPECT_EQ(calls.back(), "no name 4");
}

TEST_F(MirrorTest, RowsThatHoldNamesAreToldAgainAfterARename) {
    RecordingSink named(true);
    Mirror second(named);
    FakeReader secondReader(kernel, second);
    second.reconfigure({{{.name = "default", .id = 0, .table = table}}});
    route(flow, 0, {1, 2});
    route(numbered(1), 0, {3});
    secondReader.settle();
    const std::size_t before = named.calls;
    kernel.linkIs(3, "uplink");
    secondReader.settle();
    EXPECT_EQ(named.row("default", flow), "uplink e4");
    EXPECT_EQ(named.calls, before + 2); // the name, and one row
}

// The kernel keeps a route's OIFs by VIF: another interface behind one changes routes without an event.
TEST_F(MirrorTest, AReusedVifIsDumpedInItsTableAlone) {
    kernel.linkIs(20, "other");
    kernel.vifIs(100, 0, 20);
    start({{{.name = "default", .id = 0, .table = table}, {.name = "red", .id = 3, .table = 100}}});
    route(flow, 0, {1, 2});
    kernel.routeIs(100, {.key = flow});
    settle();
    kernel.linkIs(21, "spare");
    kernel.vifDel(table, 1);
    settle();
    EXPECT_EQ(row(), "e4");
    kernel.vifIs(table, 1, 21);
    reader.settle();
    EXPECT_EQ(row(), "e4 spare");
    ASSERT_EQ(dumpsAsked(), 1u);
    EXPECT_EQ(reader.asked.back().table, table);
}

TEST_F(MirrorTest, AConfigurationReadAgainAppliesOnlyDifferences) {
    kernel.vifIs(100, 0, 2);
    kernel.vifIs(200, 0, 2);
    kernel.vifIs(200, 1, 3);
    kernel.routeIs(100, {.key = numbered(1)});
    kernel.routeIs(200, {.key = numbered(1)});
    kernel.routeIs(200, {.key = numbered(2), .outputs = 2});
    VrfConfig first{.name = "default", .id = 0, .table = table};
    VrfConfig red{.name = "red", .id = 3, .table = 100};
    start({{first, red}});
    route(flow, 0, {1});
    settle();

    mirror.reconfigure({{first, red}});
    reader.settle();
    EXPECT_TRUE(calls.empty());

    red.table = 200;
    mirror.reconfigure({{first, red}});
    reader.settle();
    EXPECT_EQ(calls, std::vector<std::string>{"route (10.9.1.2, 239.2.0.2)"});

    calls.clear();
    mirror.reconfigure({{first}});
    reader.settle();
    EXPECT_EQ(calls,
              (std::vector<std::string>{"no route (10.9.1.2, 239.2.0.1)", "no route (10.9.1.2, 239.2.0.2)",
                                        "vrf red off", "no vrf red"}));

    // Two VRFs exchange their identifiers: both leave before either returns.
    VrfConfig blue{.name = "blue", .id = 4, .table = 100};
    start({{first, red, blue}});
    std::swap(red.id, blue.id);
    start({{first, red, blue}});
    EXPECT_EQ(sink.vrfs["red"].config.id, 4u);
    EXPECT_EQ(sink.vrfs["blue"].config.id, 3u);
    EXPECT_EQ(sink.rowCount("red"), 2u);
    EXPECT_TRUE(sink.vrfs["red"].multicast);

    // Gone and back before anything was told: nothing is told.
    calls.clear();
    mirror.reconfigure({{first, red}});
    mirror.reconfigure({{first, red, blue}});
    reader.settle();
    EXPECT_TRUE(calls.empty());
}

TEST_F(MirrorTest, WhatIsRefusedStaysPendingAndIsTriedAgain) {
    kernel.vifIs(100, 0, 2);
    kernel.routeIs(100, {.key = flow});
    sink.refuseVrf = [](const VrfConfig& vrf, bool) { return vrf.name == "red" ? "not now" : ""; };
    sink.refuseRoute = [](const MfcKey& key) { return key == numbered(1) ? "too many" : ""; };
    start({{{.name = "default", .id = 0, .table = table}, {.name = "red", .id = 3, .table = 100}}});
    route(numbered(1), 0, {1});
    route(numbered(2), 0, {1});
    settle();
    std::string status;
    Text::JsonWriter writer(status);
    mirror.vrfStatus(writer);
    EXPECT_NE(status.find(R"_("pending":[{"what":"route (10.9.1.2, 239.2.0.1)","why":"too many"}])_"),
              std::string::npos)
        << status;
    EXPECT_NE(status.find(R"("pending":[{"what":"VRF","why":"not now"}])"), std::string::npos) << status;
    EXPECT_FALSE(mirror.vrfs()[1]->entered());
    EXPECT_FALSE(mirror.publishDue());

    // A row that goes may have been in the way of the refused one.
    sink.refuseRoute = nullptr;
    kernel.routeDel(table, numbered(2));
    settle();
    EXPECT_EQ(row(numbered(1)), "e3");

    sink.refuseVrf = nullptr;
    mirror.retry();
    settle();
    EXPECT_EQ(sink.row("red", flow), "none");
    EXPECT_EQ(mirror.vrfs()[1]->pendingCount(), 0u);
}

TEST_F(MirrorTest, AFailedQueryIsReportedAndRepeatedLater) {
    mirror.reconfigure({{{.name = "default", .id = 0, .table = table}}});
    route(flow, 0, {1});
    for (int failures = 0; failures < 3; ++failures) {
        std::optional<KernelQuery> query = mirror.nextQuery(reader.now);
        ASSERT_TRUE(query);
        mirror.endAnswer(EPERM, false, reader.now);
        EXPECT_FALSE(mirror.nextQuery(reader.now));
        reader.now = mirror.queryDueAt().value();
    }
    EXPECT_NE(mirror.lastError().find("interfaces can't be read"), std::string::npos);
    KernelMessage broken;
    broken.kind = MessageKind::malformed;
    broken.problem = "cut short";
    ASSERT_TRUE(mirror.nextQuery(reader.now));
    mirror.takeAnswer(broken);
    mirror.endAnswer(0, false, reader.now);
    EXPECT_EQ(mirror.counters().malformed, 1u);
    settle();
    EXPECT_EQ(row(), "e3");
}

} // namespace
} // namespace Agent::Kernel::Test
