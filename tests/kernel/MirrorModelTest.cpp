// Anything that can happen in a kernel, at any moment of the reader's work: once it has settled, the tables
// are what the kernel has. A comparison that goes on meanwhile tells each fault of the tables, and nothing else.
#include "agent/kernel/Verification.h"
#include "tests/kernel/FakeKernel.h"
#include "tests/kernel/RecordingSink.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <random>
#include <set>

namespace Agent::Kernel::Test {
namespace {

constexpr std::uint32_t tableOf[] = {253, 10, 20};

class Churn {
  public:
    Churn(std::uint32_t seed, bool rowsHoldNames)
        : random_(seed)
        , rowsHoldNames_(rowsHoldNames)
        , sink_(rowsHoldNames)
        , mirror_(sink_)
        , reader_(kernel_, mirror_) {
        sink_.refuseRoute = [this](const MfcKey& key) {
            return refusing_ && key.group % 3 == 0 ? "refused for the test" : "";
        };
        kernel_.linkIs(1, "lo", true);
        for (int ifindex = 2; ifindex < 10; ++ifindex)
            kernel_.linkIs(ifindex, "e" + std::to_string(ifindex), ifindex == 9);
        for (std::uint32_t number : tableOf)
            for (int vif = 0; vif < 5; ++vif)
                kernel_.vifIs(number, vif, 2 + (vif + static_cast<int>(number)) % 8);
        kernel_.capacity = below(2) == 0 ? 8 : 1'000'000;
        twoVifsAnInterface_ = below(3) == 0;
        configure();
        mirror_.reconfigure(config_);
    }

    void run(int steps) {
        for (int i = 0; i < steps && !testing::Test::HasFailure(); ++i) {
            for (std::size_t n = below(4); n > 0; --n)
                change();
            read();
        }
        refusing_ = false;
        mirror_.retry();
        reader_.settle();
    }

    void compare() {
        for (const VrfConfig& vrf : config_.vrfs) {
            ASSERT_TRUE(sink_.vrfs.contains(vrf.name)) << vrf.name;
            RecordingSink::VrfRows& rows = sink_.vrfs[vrf.name];
            FakeKernel::Table& table = kernel_.tables[vrf.table];
            EXPECT_EQ(rows.multicast,
                      std::any_of(table.vifs.begin(), table.vifs.end(), [](int i) { return i; }));
            std::map<MfcKey, RecordingSink::Row> expected[2];
            std::map<MfcKey, bool> forwards;
            for (const FakeKernel::Entry& entry : table.routes)
                expect(vrf, entry, expected, forwards);
            for (std::size_t type : {0, 1}) {
                // Entries that lost their IIF may have kept a row, which then is empty.
                std::erase_if(rows.rows[type], [&](const auto& row) {
                    auto at = forwards.find(row.first);
                    return at != forwards.end() && !at->second && row.second.empty();
                });
                if (!rowsHoldNames_)
                    for (auto& [key, row] : rows.rows[type])
                        for (auto& [ifindex, name] : row)
                            name = sink_.names.at(ifindex);
                EXPECT_EQ(rows.rows[type], expected[type]) << "VRF " << vrf.name << " type " << type;
            }
        }
        EXPECT_EQ(sink_.vrfs.size(), config_.vrfs.size());
        for (const auto& vrf : mirror_.vrfs()) {
            std::set<MfcKey> keys;
            for (const FakeKernel::Entry& entry : kernel_.tables[vrf->config().table].routes)
                keys.insert(entry.key);
            EXPECT_LE(vrf->kernel().routes().size(), keys.size()) << "something is kept that is gone";
        }
    }

    // Compares while everything goes on. One more VRF, whose interfaces stay, has rows that are not the mirror's work.
    void verify() {
        const VrfConfig still{.name = "still", .id = 77, .table = 77, .routeType = RouteType::sparse};
        for (int vif = 0; vif < 3; ++vif) {
            kernel_.linkIs(20 + vif, "s" + std::to_string(vif));
            kernel_.vifIs(still.table, vif, 20 + vif);
        }
        for (Ipv4 group = 100; group < 120; ++group)
            kernel_.routeIs(still.table, {.key = {.source = 1, .group = group}, .outputs = 6});
        config_.vrfs.push_back(still);
        mirror_.reconfigure(config_);
        reader_.settle();
        auto& rows = sink_.vrfs["still"].rows[static_cast<std::size_t>(RouteType::sparse)];
        std::set<std::string> wrong;
        for (const char* what : {"missing", "different", "extra"}) {
            const MfcKey key{.source = 1, .group = static_cast<Ipv4>((*what == 'e' ? 120 : 100) + below(20))};
            if (*what == 'm')
                rows.erase(key);
            else if (*what == 'e' || rows.contains(key))
                rows[key] = {};
            else
                continue;
            wrong.insert(what + (" sparse " + mfcKeyText(key)));
        }

        Verification verification(config_, mirror_, sink_, 3);
        FakeReader fresh(kernel_, verification.fresh());
        fresh.other = &mirror_;
        reader_.other = &verification.fresh();
        configStays_ = true;
        std::size_t told = 0;
        bool isDone = false;
        for (int steps = 0; !isDone; ++steps) {
            ASSERT_LT(steps, 100'000);
            for (std::size_t n = below(3); n > 0 && steps < 200; --n) {
                change();
                kernel_.routeIs(still.table,
                                {.key = {.source = 1, .group = 10 + static_cast<Ipv4>(below(9))}});
                kernel_.routeDel(still.table, MfcKey{.source = 1, .group = 10 + static_cast<Ipv4>(below(9))});
            }
            fresh.now = reader_.now += std::chrono::milliseconds(below(2));
            reader_.drain(below(8));
            if (mirror_.publishDue())
                mirror_.publish(1 + below(5));
            else if (!reader_.step(1 + below(4)) && !fresh.step(1 + below(4)))
                isDone = verification.step([&](bool) { return reader_.drain(below(8)); });
            const VerifyResult& result = verification.result();
            for (told = std::min(told, result.differences.size()); told < result.differences.size(); ++told) {
                const Difference& one = result.differences[told];
                if (one.vrf == "still")
                    wrong.erase(one.what + " " + one.route);
                EXPECT_TRUE(!kernel_.isQuiet() || holds(one))
                    << one.vrf << " " << one.what << " " << one.route << ": " << one.kernel << ", tables "
                    << one.tables;
            }
        }
        EXPECT_TRUE(wrong.empty()) << *wrong.begin() << " was not found";
    }

  private:
    // Whether the difference is one between the tables and the kernel as both are now.
    bool holds(const Difference& difference) {
        const VrfConfig& vrf = *std::ranges::find(config_.vrfs, difference.vrf, &VrfConfig::name);
        const RecordingSink::VrfRows& rows = sink_.vrfs[vrf.name];
        std::map<MfcKey, RecordingSink::Row> expected[2];
        std::map<MfcKey, bool> forwards;
        for (const FakeKernel::Entry& entry : kernel_.tables[vrf.table].routes)
            expect(vrf, entry, expected, forwards);
        if (difference.route.empty())
            return rows.multicast != std::ranges::any_of(kernel_.tables[vrf.table].vifs, std::identity());
        for (const RouteType type : routeTypes)
            for (const auto& [key, isForwarding] : forwards) {
                const std::size_t at = static_cast<std::size_t>(type);
                if (std::string(routeTypeText(type)) + " " + mfcKeyText(key) != difference.route)
                    continue;
                const auto row = rows.rows[at].find(key);
                const auto wanted = expected[at].find(key);
                if (row == rows.rows[at].end() || wanted == expected[at].end())
                    return row != rows.rows[at].end() || wanted != expected[at].end();
                return sink_.row(vrf.name, key, type) != textOf(wanted->second);
            }
        return difference.what == "extra";
    }
    static std::string textOf(const RecordingSink::Row& row) {
        std::string text;
        for (const auto& [ifindex, name] : row)
            text += (text.empty() ? "" : " ") + name;
        return text.empty() ? "none" : text;
    }

    std::size_t below(std::size_t limit) {
        return std::uniform_int_distribution<std::size_t>(0, limit - 1)(random_);
    }
    std::uint32_t table() { return tableOf[below(3)]; }
    int vif() { return static_cast<int>(below(5)); }
    int ifindex() { return static_cast<int>(below(9)) + 1; }
    MfcKey key() {
        return {.source = static_cast<Ipv4>(below(3) * 0x0a000001), .group = static_cast<Ipv4>(below(8))};
    }

    void configure() {
        config_.vrfs.clear();
        std::uint32_t turn = static_cast<std::uint32_t>(below(3));
        const char* names[] = {"default", "red", "blue"};
        const std::optional<RouteType> types[] = {RouteType::staticRoutes, RouteType::sparse, std::nullopt};
        for (std::uint32_t i = 0; i < 3; ++i)
            if (i == 0 || below(4) > 0)
                config_.vrfs.push_back({.name = names[i],
                                        .id = i == 0 ? 0 : (i + turn) % 2 + 1,
                                        .table = tableOf[(i + turn) % 3],
                                        .routeType = types[below(3)]});
    }

    void change() {
        FakeKernel::Entry entry{.key = key(),
                                .parent = vif(),
                                .outputs = static_cast<std::uint32_t>(below(32)),
                                .protocol = below(4) ? FakeKernel::byDaemon : FakeKernel::byNetlink};
        if (entry.key.source == 0)
            entry.protocol = FakeKernel::byDaemon; // entries of one key are one row, of one type
        std::uint32_t number = table();
        FakeKernel::Table& chosen = kernel_.tables[number];
        switch (below(16)) {
        case 0:
            if (int index = ifindex(); index != 1 && kernel_.links.contains(index))
                kernel_.linkDel(index);
            break;
        case 1:
            if (int index = ifindex(); !kernel_.links.contains(index))
                kernel_.linkIs(index, "e" + std::to_string(index), index == 9);
            else if (index != 1)
                kernel_.linkIs(index, "n" + std::to_string(below(1000)), index == 9);
            break;
        case 2:
        case 3:
            if (int index = ifindex(), slot = vif();
                kernel_.links.contains(index) && chosen.vifs[static_cast<std::size_t>(slot)] == 0 &&
                (twoVifsAnInterface_ || std::count(chosen.vifs.begin(), chosen.vifs.end(), index) == 0))
                kernel_.vifIs(number, slot, index, index == 9);
            break;
        case 4:
            kernel_.vifDel(number, vif());
            break;
        case 5:
            if (!chosen.routes.empty())
                kernel_.routeDel(number, below(chosen.routes.size()));
            break;
        case 6:
            kernel_.unresolvedIs(number, key());
            break;
        case 7:
            kernel_.unresolvedExpire(number);
            break;
        case 8:
        case 12:
        case 13:
            kernel_.routeIs(number, entry, entry.key.source == 0 && !twoVifsAnInterface_);
            break;
        case 9:
            if (below(20) == 0)
                kernel_.daemonStop(number);
            break;
        case 10:
            if (below(10) == 0 && !configStays_) {
                configure();
                mirror_.reconfigure(config_);
            }
            break;
        case 11:
            refusing_ = below(2) == 0;
            break;
        default:
            kernel_.routeIs(number, entry);
            break;
        }
    }

    void read() {
        switch (below(6)) {
        case 0:
            reader_.drain();
            break;
        case 1:
            reader_.drain(below(5));
            break;
        case 2:
            mirror_.publish(below(5));
            break;
        case 3:
            reader_.now += std::chrono::milliseconds(below(100));
            break;
        default:
            reader_.step(1 + below(3));
            break;
        }
    }

    void expect(const VrfConfig& vrf, const FakeKernel::Entry& entry,
                std::map<MfcKey, RecordingSink::Row>* expected, std::map<MfcKey, bool>& forwards) {
        MfcRoute route = kernel_.routeOf(vrf.table, entry);
        if (route.key.group == 0)
            return;
        bool& forwarding = forwards[route.key];
        if (route.iif == 0)
            return;
        forwarding = true;
        bool isStatic = vrf.routeType == RouteType::staticRoutes ||
                        (!vrf.routeType && route.protocol == FakeKernel::byNetlink);
        RecordingSink::Row& row = expected[isStatic ? 0 : 1][route.key];
        for (int oif : route.oifs)
            if (oif != route.iif && !kernel_.links[oif].internal)
                row[oif] = kernel_.links[oif].name;
    }

    std::mt19937 random_;
    bool rowsHoldNames_;
    FakeKernel kernel_;
    RecordingSink sink_;
    Mirror mirror_;
    FakeReader reader_;
    KernelConfig config_;
    bool refusing_ = false;
    bool configStays_ = false;
    // Then entries that differ in their VIF alone look the same: such are not made.
    bool twoVifsAnInterface_ = false;
};

void runAndCompare(std::uint32_t seed) {
    SCOPED_TRACE("KESTREL_TEST_SEED=" + std::to_string(seed));
    Churn churn(seed, seed % 2 == 0);
    churn.run(20 + static_cast<int>(seed % 80));
    churn.compare();
    Churn verified(seed, seed % 2 == 0);
    verified.run(20);
    verified.verify();
}

TEST(MirrorModel, TablesEqualTheKernelAfterAnyHistory) {
    // Histories that once ended with a wrong row, and that chance meets once in a million.
    for (std::uint32_t seed : {4199020448u, 189002237u, 567001498u, 3332002850u, 3570002030u, 4074002284u})
        runAndCompare(seed);
    const char* given = std::getenv("KESTREL_TEST_SEED");
    auto first =
        static_cast<std::uint32_t>(given ? std::strtoul(given, nullptr, 10) : std::random_device{}());
    for (std::uint32_t seed = first; seed < first + 3000 && !HasFailure(); ++seed)
        runAndCompare(seed);
}

} // namespace
} // namespace Agent::Kernel::Test
