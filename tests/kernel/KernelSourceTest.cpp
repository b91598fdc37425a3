// The kernel source on a loop, with the agent's own stores, guards and plug-in, in a network namespace of its own.
#include "agent/kernel/KernelSource.h"
#include "agent/changes/Operations.h"
#include "records/RouteStatus.h"
#include "tests/kernel/MfcFeeder.h"
#include "tests/kernel/NetNamespace.h"
#include "text/JsonWriter.h"

#include <gtest/gtest.h>

#include <asio/io_context.hpp>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <set>

namespace Agent::Kernel::Test {
namespace {

using namespace std::chrono_literals;

constexpr MfcKey flow{.source = 0x0a090102, .group = 0xef010101};

class KernelSourceTest : public testing::Test {
  protected:
    KernelSourceTest() { host.load(KESTREL_LIB_DIR "/libKestrelNatMulticastMounter.so"); }
    ~KernelSourceTest() override { std::remove(file.c_str()); }

    void configure(const std::string& vrfs) { std::ofstream(file) << R"({"vrfs": [)" << vrfs << "]}"; }
    std::string status() const {
        std::string text;
        Text::JsonWriter writer(text);
        source->status(writer);
        return text;
    }
    bool shows(const std::string& part) const { return status().find(part) != std::string::npos; }

    // Runs the loop until the condition holds, at most 5 s.
    template <class Condition>
    bool until(Condition condition) {
        const auto deadline = std::chrono::steady_clock::now() + 5s;
        while (!condition() && std::chrono::steady_clock::now() < deadline)
            loop.run_one_for(20ms);
        return condition();
    }
    // The names of the route's interfaces in the tables; "absent" where there is no row.
    std::string row(const std::string& vrf) const {
        std::string text = "absent";
        host.routes().eachRoute(vrf, RouteType::sparse, nullptr, [&](const ShownRoute& route) {
            text.clear();
            for (const std::string_view name : route.oifs)
                text += std::string(name) + " ";
            return false;
        });
        return text;
    }
    std::string verified() {
        std::string text;
        source->verify([&](const Text::Tell& tell) {
            Text::JsonWriter writer(text);
            tell(writer);
        });
        EXPECT_TRUE(until([&] { return !text.empty(); }));
        return text;
    }

    std::string file = testing::TempDir() + "kernel-source-test.json";
    Host host;
    Operations operations{host};
    asio::io_context loop;
    std::unique_ptr<KernelSource> source;
};

TEST_F(KernelSourceTest, WritesTheTablesAndSaysWhatItDoes) {
    ENTER_NET_NAMESPACE();
    makeInterfaces();
    MfcFeeder feeder;
    for (int i = 1; i <= 4; ++i)
        feeder.vifIs(i - 1, "e" + std::to_string(i));
    feeder.routeIs(flow, 0, {1, 2});
    configure(R"({"name": "default"})");
    source = std::make_unique<KernelSource>(loop, operations, file);
    EXPECT_TRUE(until([&] { return row("default") == "e2 e3 "; })) << row("default");
    EXPECT_TRUE(until([&] { return shows(R"("multicast":true,"synced":true,"resyncWanted":false)"); }))
        << status();
    EXPECT_TRUE(shows(R"("routes":1,"rows":1,"vifs":["e1","e2","e3","e4"],"pendingCount":0,"pending":[])"));
    EXPECT_TRUE(shows(R"("lastError":null)"));

    shell("ip link set e3 down && ip link set e3 name up3 && ip link set up3 up");
    EXPECT_TRUE(until([&] { return row("default") == "e2 up3 "; })) << row("default");
    shell("ip link del e2");
    EXPECT_TRUE(until([&] { return row("default") == "up3 "; })) << row("default");
    EXPECT_EQ(
        verified().find(R"({"complete":true,"routes":1,"rows":1,"differenceCount":0,"differences":[],)"), 0U);

    // A row that nobody wrote from the kernel.
    host.routes().table("default", RouteType::staticRoutes)->put(RouteKey(), {});
    EXPECT_NE(
        verified().find(
            R"_("differences":[{"vrf":"default","what":"extra","route":"static (*, *)","tables":"none"}])_"),
        std::string::npos);
    feeder.routeDel(flow);
    EXPECT_TRUE(until([&] { return row("default") == "absent"; }));
}

TEST_F(KernelSourceTest, TriesAgainWhatWasRefusedWhenTheTablesChange) {
    ENTER_NET_NAMESPACE();
    makeInterfaces();
    MfcFeeder feeder(100);
    feeder.vifIs(0, "e1");
    feeder.routeIs(flow, 0, {});
    const auto vrfs = [](std::optional<State::Datum> value) {
        return Change{.op = value ? Change::Op::set : Change::Op::del,
                      .path = Routing::Hardware::RouteStatus::path,
                      .attribute = "vrfStatus",
                      .key = State::Datum("taken"),
                      .value = std::move(value)};
    };
    operations.change(vrfs(State::Datum::Record{{"vrfId", std::uint64_t{3}}}));
    configure(R"({"name": "red", "id": 3, "table": 100})");
    source = std::make_unique<KernelSource>(loop, operations, file);
    EXPECT_TRUE(until([&] { return shows(R"("pendingCount":1,"pending":[{"what":"VRF","why":")"); }))
        << status();
    EXPECT_EQ(row("red"), "absent");
    operations.change(vrfs(std::nullopt));
    source->tablesMayHaveChanged();
    EXPECT_TRUE(until([&] { return row("red").empty(); })) << status();

    // A faulty configuration leaves the one in force.
    configure(R"({"name": "red", "id": 16777216, "table": 100})");
    EXPECT_THROW(source->reconfigure(), KernelConfigError);
    feeder.routeDel(flow);
    EXPECT_TRUE(until([&] { return row("red") == "absent"; }));
    configure(R"({"name": "blue", "id": 3, "table": 100})");
    feeder.routeIs(flow, 0, {});
    source->reconfigure();
    EXPECT_TRUE(until([&] { return row("blue").empty(); })) << status();
    EXPECT_FALSE(shows(R"("vrf":"red")"));
    for (const RouteType type : routeTypes)
        EXPECT_FALSE(host.routes().find("red", type));

    // Going takes nothing from the loop's other users, and leaves nothing that is called later.
    feeder.vifDel(0);
    source.reset();
    loop.restart();
    loop.run_for(50ms);
}

// Whatever becomes of the row at which the walk stands, it meets those that stay.
TEST_F(KernelSourceTest, AWalkOverRowsMeetsThoseThatStay) {
    const auto rowOf = [](Ipv4 group) { return rowKey({.source = 1, .group = group}); };
    const VrfConfig vrf{.name = "default", .table = 253};
    const auto sink = agentTables(operations);
    const auto table = host.routes().table("default", RouteType::sparse);
    const std::function<void()> happenings[] = {
        [] {},
        [&] { table->erase(rowOf(2)); },
        [&] {
            table->erase(rowOf(2));
            table->put(rowOf(2), {});
        },
    };
    for (const auto& happen : happenings) {
        for (const Ipv4 group : {1, 2, 3, 4, 5})
            table->put(rowOf(group), {});
        const auto walk = sink->rows(vrf, RouteType::sparse);
        std::set<RouteKey> met;
        const auto meet = [&](const RouteKey& key) { met.insert(key); };
        EXPECT_TRUE(walk->next(2, meet));
        happen();
        while (walk->next(2, meet)) {
        }
        EXPECT_EQ(met, (std::set{rowOf(1), rowOf(2), rowOf(3), rowOf(4), rowOf(5)}));
    }
    EXPECT_EQ(kernelKey(RouteKey{}), std::nullopt);
}

} // namespace
} // namespace Agent::Kernel::Test
