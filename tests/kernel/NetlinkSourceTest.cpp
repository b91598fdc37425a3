// The source against the real kernel, each test in a network namespace of its own.
#include "agent/kernel/NetlinkSource.h"
#include "tests/kernel/MfcFeeder.h"
#include "tests/kernel/NetNamespace.h"
#include "tests/kernel/RecordingSink.h"

#include <algorithm>
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <linux/capability.h>
#include <net/if.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <thread>

namespace Agent::Kernel::Test {
namespace {

using namespace std::chrono_literals;

constexpr MfcKey flow{.source = 0x0a090102, .group = 0xef010101};

MfcKey numbered(std::uint32_t number) {
    return {.source = 0x0a090102 + (number >> 16), .group = 0xef020000 + (number & 0xffff)};
}

const VrfConfig defaultVrf{.name = "default", .id = 0, .table = 253};
const VrfConfig redVrf{.name = "red", .id = 3, .table = 100};

// What an event loop does with a source.
class Loop {
  public:
    explicit Loop(const KernelConfig& config, std::size_t receiveBuffer = NetlinkSource::defaultReceiveBuffer)
        : source(config, sink, receiveBuffer) {}

    // One turn; sleeps up to the timeout where there is no work.
    void turn(std::chrono::milliseconds timeout) {
        if (const auto due = source.waitsUntil())
            timeout = std::clamp(std::chrono::ceil<std::chrono::milliseconds>(*due - Mirror::Clock::now()),
                                 0ms, timeout);
        pollfd events{source.fd(), POLLIN, 0};
        poll(&events, 1, source.hasWork() ? 0 : static_cast<int>(timeout.count()));
        if (events.revents != 0)
            source.onReadable();
        if (source.hasWork())
            source.doSlice();
    }

    // Turns until the condition holds, at most 5 s.
    template <class Condition>
    bool until(Condition condition) {
        auto deadline = std::chrono::steady_clock::now() + 5s;
        while (!condition()) {
            if (std::chrono::steady_clock::now() > deadline)
                return false;
            turn(20ms);
        }
        return true;
    }

    // Turns until the row reads so.
    testing::AssertionResult shows(const std::string& expected, const MfcKey& key = flow,
                                   const std::string& vrf = "default") {
        auto row = [&] { return sink.row(vrf, key); };
        if (until([&] { return row() == expected; }))
            return testing::AssertionSuccess();
        return testing::AssertionFailure() << mfcKeyText(key) << " has " << row() << ", not " << expected;
    }

    void settle() {
        EXPECT_TRUE(until([&] { return source.synced() && !source.hasWork() && quiet(); }));
    }

    // The tables are what the kernel has.
    void verify() {
        settle();
        const VerifyResult result = compared();
        EXPECT_TRUE(result.complete);
        EXPECT_EQ(result.differenceCount, 0u);
        for (std::size_t i = 0; i < std::min<std::size_t>(result.differences.size(), 5); ++i) {
            const Difference& one = result.differences[i];
            ADD_FAILURE() << one.vrf << " " << one.what << " " << one.route << ": " << one.kernel
                          << ", tables " << one.tables;
        }
    }

    // The result of a comparison, which may take seconds with many routes.
    VerifyResult compared() {
        std::optional<VerifyResult> result;
        source.verify([&](const VerifyResult& found) { result = found; });
        while (!result)
            source.doSlice();
        return *result;
    }

    RecordingSink sink;
    NetlinkSource source;

  private:
    // Nothing comes any more, and no resynchronisation waits.
    bool quiet() const {
        pollfd fd{source.fd(), POLLIN, 0};
        return poll(&fd, 1, 0) == 0 &&
               std::none_of(source.mirror().vrfs().begin(), source.mirror().vrfs().end(),
                            [](const auto& vrf) { return vrf->kernel().resyncPending(); });
    }
};

class Daemon {
  public:
    explicit Daemon(const std::string& name, std::uint32_t table = 253, const std::string& rules = "")
        : folder_(std::filesystem::temp_directory_path() / ("kestrel-" + std::to_string(getpid()) + name))
        , socket_(folder_ / "socket") {
        std::filesystem::create_directories(folder_);
        std::ofstream config(folder_ / "conf");
        for (int i = 1; i <= 4; ++i)
            config << "phyint e" << i << " enable\n";
        config << rules;
        config.close();
        program_ = std::make_unique<Program>(std::vector<std::string>{
            "smcrouted", "-n", "-N", "-i", name, "-f", folder_ / "conf", "-c", "-P", folder_ / "pid", "-t",
            std::to_string(table == 253 ? 0 : table), "-u", socket_});
    }
    ~Daemon() {
        stop();
        std::filesystem::remove_all(folder_);
    }
    bool isUp() const { return std::filesystem::exists(socket_); }
    void control(const std::string& command) { shell("smcroutectl -u " + socket_ + " " + command); }
    void stop() { program_->stop(); }

  private:
    std::filesystem::path folder_;
    std::string socket_;
    std::unique_ptr<Program> program_;
};

void sendTo(const char* group) {
    Fd fd(socket(AF_INET, SOCK_DGRAM, 0));
    sockaddr_in from{};
    from.sin_family = AF_INET;
    inet_pton(AF_INET, "10.9.1.2", &from.sin_addr);
    ASSERT_EQ(bind(fd.get(), reinterpret_cast<sockaddr*>(&from), sizeof from), 0);
    unsigned char hops = 8;
    setsockopt(fd.get(), IPPROTO_IP, IP_MULTICAST_IF, &from.sin_addr, sizeof from.sin_addr);
    setsockopt(fd.get(), IPPROTO_IP, IP_MULTICAST_TTL, &hops, sizeof hops);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(5000);
    inet_pton(AF_INET, group, &to.sin_addr);
    EXPECT_EQ(sendto(fd.get(), "x", 1, 0, reinterpret_cast<sockaddr*>(&to), sizeof to), 1);
}

TEST(NetlinkSourceTest, FollowsARoutingDaemonThroughItsLife) {
    ENTER_NET_NAMESPACE();
    makeInterfaces();
    Loop loop({{defaultVrf, redVrf}});
    loop.settle();
    EXPECT_FALSE(loop.sink.vrfs["default"].multicast);

    Daemon daemon("one", 253, "mroute from e1 group 239.2.0.0/16 to e2 e3\n");
    ASSERT_TRUE(loop.until([&] { return daemon.isUp() && loop.sink.vrfs["default"].multicast; }));
    EXPECT_FALSE(loop.sink.vrfs["red"].multicast);
    daemon.control("add e1 10.9.1.2 239.1.1.1 e2 e3");
    EXPECT_TRUE(loop.shows("e2 e3"));
    daemon.control("add e1 10.9.1.2 239.1.1.1 e4");
    EXPECT_TRUE(loop.shows("e2 e3 e4"));
    daemon.control("remove e1 10.9.1.2 239.1.1.1 e2");
    EXPECT_TRUE(loop.shows("e3 e4"));

    sendTo("239.2.0.5");
    EXPECT_TRUE(loop.shows("e2 e3", {.source = flow.source, .group = 0xef020005}));
    EXPECT_GT(loop.source.mirror().counters().skippedUnresolved, 0u);

    loop.settle();
    std::uint64_t resyncs = loop.source.mirror().counters().resyncs;
    shell("ip link set e4 down && ip link set e4 name up4 && ip link set up4 up");
    EXPECT_TRUE(loop.shows("e3 up4"));
    shell("ip link del e3");
    EXPECT_TRUE(loop.shows("up4"));
    loop.settle();
    EXPECT_EQ(loop.source.mirror().counters().resyncs, resyncs) << "what links tell needs no dump";

    Daemon second("two", 100);
    ASSERT_TRUE(loop.until([&] { return second.isUp() && loop.sink.vrfs["red"].multicast; }));
    second.control("add e1 10.9.1.2 239.1.1.1 e2");
    EXPECT_TRUE(loop.shows("e2", flow, "red"));
    EXPECT_TRUE(loop.shows("up4"));
    loop.verify();

    daemon.stop();
    EXPECT_TRUE(loop.until([&] { return loop.sink.rowCount("default") == 0; }));
    EXPECT_TRUE(loop.until([&] { return !loop.sink.vrfs["default"].multicast; }));
    EXPECT_EQ(loop.sink.rowCount("red"), 1u);
    loop.verify();
}

// Started beside routes that are there, among them what daemons of other kinds set; then VIFs change under
// them.
TEST(NetlinkSourceTest, FollowsVifsThatChangeUnderRoutes) {
    ENTER_NET_NAMESPACE();
    makeInterfaces();
    MfcFeeder feeder;
    for (int i = 1; i <= 4; ++i)
        feeder.vifIs(i - 1, "e" + std::to_string(i));
    feeder.registerVifIs(4);
    MfcKey any{.source = 0, .group = 0xef030303};
    feeder.routeIs(flow, 0, {1, 2, 4});
    feeder.proxyIs(any, 0, {0, 1, 4});
    feeder.proxyIs({}, 1, {1});
    Loop loop({{defaultVrf}});
    EXPECT_TRUE(loop.shows("e2 e3"));
    EXPECT_TRUE(loop.shows("e2", any));
    EXPECT_EQ(loop.sink.rowCount("default"), 2u);
    loop.verify();

    feeder.vifDel(2);
    EXPECT_TRUE(loop.shows("e2"));
    feeder.vifIs(2, "e4"); // e4 is VIF 2 and VIF 3 now
    EXPECT_TRUE(loop.shows("e2 e4"));
    feeder.vifDel(2);
    EXPECT_TRUE(loop.shows("e2"));
    feeder.vifDel(0);
    EXPECT_TRUE(loop.shows("none"));
    loop.verify();
    feeder.vifIs(0, "e1");
    EXPECT_TRUE(loop.shows("e2"));
    feeder.proxyIs(any, 3, {3, 1});
    feeder.proxyIs(any, 0, {0, 3});
    EXPECT_TRUE(loop.shows("e2 e4", any));
    loop.verify();
}

TEST(NetlinkSourceTest, ChurnBeyondTheReceiveBufferLeavesNoDifference) {
    ENTER_NET_NAMESPACE();
    makeInterfaces();
    constexpr std::uint32_t routes = 20'000;
    MfcFeeder feeder;
    for (int i = 1; i <= 4; ++i)
        feeder.vifIs(i - 1, "e" + std::to_string(i));
    Loop loop({{defaultVrf}}, std::size_t{16} * 1024);
    loop.settle();
    for (std::uint32_t i = 0; i < routes; ++i) {
        feeder.routeIs(numbered(i), 0, {1});
        if (i % 64 == 0)
            loop.turn(0ms);
    }
    // A quarter goes, a quarter changes and stays, a quarter changes and changes back.
    for (std::uint32_t i = 0; i < routes; ++i) {
        if (i % 4 == 0)
            feeder.routeDel(numbered(i));
        else if (i % 4 == 1)
            feeder.routeIs(numbered(i), 0, {2, 3});
        if (i % 4 == 2) {
            feeder.routeIs(numbered(i), 0, {3});
            feeder.routeIs(numbered(i), 0, {1});
        }
        if (i % 256 == 0)
            loop.turn(0ms);
    }
    EXPECT_TRUE(loop.until([&] { return loop.sink.rowCount("default") == routes * 3 / 4; }));
    loop.verify();
    EXPECT_EQ(loop.sink.row("default", numbered(1)), "e3 e4");
    EXPECT_EQ(loop.sink.row("default", numbered(2)), "e2");
    EXPECT_GT(loop.source.mirror().counters().overruns, 10u);

    // What is lost while nobody reads is found as well.
    for (std::uint32_t i = 0; i < routes; ++i)
        if (i % 4 != 0)
            feeder.routeDel(numbered(i));
    EXPECT_TRUE(loop.until([&] { return loop.sink.rowCount("default") == 0; }));
    loop.verify();
}

// Once events were lost, the kernel withholds all further ones, silently, until none waits any more.
TEST(NetlinkSourceTest, NothingIsLostUnseenAfterALoss) {
    ENTER_NET_NAMESPACE();
    makeInterfaces();
    constexpr std::uint32_t routes = 12'000; // more than the buffer holds
    MfcFeeder feeder;
    feeder.vifIs(0, "e1");
    feeder.vifIs(1, "e2");
    Loop loop({{defaultVrf}});
    loop.settle();
    for (std::uint32_t i = 0; i < routes; ++i)
        feeder.routeIs(numbered(i), 0, {});
    loop.source.onReadable();
    EXPECT_EQ(loop.source.mirror().counters().overruns, 1u);
    for (std::uint32_t next = 0; loop.source.hasWork(); next = (next + 1000) % routes) {
        loop.source.doSlice();
        feeder.routeIs(numbered(next), 0, {1});
    }
    loop.verify();
}

// Routes come and go all the time, so that hardly a dump is clean, while others stay: these must never leave.
TEST(NetlinkSourceTest, RoutesThatStayNeverLeaveUnderChurn) {
    ENTER_NET_NAMESPACE();
    makeInterfaces();
    MfcFeeder feeder;
    feeder.vifIs(0, "e1");
    feeder.vifIs(1, "e2");
    for (std::uint32_t i = 0; i < 2000; ++i)
        feeder.routeIs(numbered(i), 0, {1});
    Loop loop({{defaultVrf}}, std::size_t{16} * 1024);
    loop.settle();
    std::size_t left = 0;
    loop.sink.heard = [&](const std::string& call) { left += call.starts_with("no route (10.9.1.2"); };
    for (int round = 0; round < 100; ++round) {
        for (std::uint32_t i = 0; i < 40; ++i)
            feeder.routeIs({.source = 0x0a090202, .group = 0xef040000 + i}, 0, {1});
        loop.turn(0ms);
        for (std::uint32_t i = 0; i < 40; ++i)
            feeder.routeDel({.source = 0x0a090202, .group = 0xef040000 + i});
        loop.turn(0ms);
    }
    EXPECT_EQ(left, 0u);
    EXPECT_GT(loop.source.mirror().counters().overruns, 0u);
    loop.verify();
    EXPECT_EQ(loop.sink.rowCount("default"), 2000u);
}

TEST(NetlinkSourceTest, ClientsAreServedBetweenSlicesOfADumpAndOfAComparison) {
    ENTER_NET_NAMESPACE();
    makeInterfaces();
    MfcFeeder feeder;
    feeder.vifIs(0, "e1");
    for (std::uint32_t i = 0; i < 10'000; ++i)
        feeder.routeIs(numbered(i), 0, {});
    Loop loop({{defaultVrf}});
    int slices = 0;
    for (std::size_t told = 0; !loop.source.synced(); ++slices) {
        loop.source.doSlice(0ms);
        EXPECT_LT(loop.sink.calls - told, 100u);
        told = loop.sink.calls;
    }
    EXPECT_GT(slices, 300);
    EXPECT_EQ(loop.sink.rowCount("default"), 10'000u);
    EXPECT_TRUE(loop.sink.vrfs["default"].multicast);

    loop.settle();
    bool held = false;
    loop.source.verify([&](const VerifyResult& result) {
        held = result.complete && result.rows == 10'000 && result.differenceCount == 0;
    });
    for (slices = 0; loop.source.hasWork(); ++slices)
        loop.source.doSlice(0ms);
    EXPECT_TRUE(held);
    EXPECT_GT(slices, 300);
}

TEST(NetlinkSourceTest, VerifyListsWhatDiffers) {
    ENTER_NET_NAMESPACE();
    makeInterfaces();
    MfcFeeder feeder;
    feeder.vifIs(0, "e1");
    feeder.vifIs(1, "e2");
    for (std::uint32_t i = 0; i < 4; ++i)
        feeder.routeIs(numbered(i), 0, {1});
    Loop loop({{defaultVrf, redVrf}});
    loop.sink.refuseRoute = [](const MfcKey& key) { return key == numbered(3) ? "full" : ""; };
    loop.sink.refuseVrf = [](const VrfConfig& vrf, bool) { return vrf.name == "red" ? "not now" : ""; };
    loop.settle();
    auto& rows = loop.sink.vrfs["default"].rows[static_cast<int>(RouteType::sparse)];
    rows.erase(numbered(0));
    rows[numbered(1)].clear();
    rows[numbered(99)] = {};
    loop.sink.vrfs["default"].multicast = false;
    VerifyResult result = loop.compared();
    EXPECT_TRUE(result.complete);
    EXPECT_EQ(result.routes, 4u);
    EXPECT_EQ(result.rows, 3u);
    std::set<std::string> found;
    for (const Difference& one : result.differences)
        found.insert(one.vrf + "|" + one.what + "|" + one.route + "|" + one.kernel + "|" + one.tables + "|" +
                     one.pending);
    EXPECT_EQ(found, (std::set<std::string>{
                         "default|multicast||on|off|",
                         "default|missing|sparse (10.9.1.2, 239.2.0.0)|e2||",
                         "default|different|sparse (10.9.1.2, 239.2.0.1)|e2|none|",
                         "default|extra|sparse (10.9.1.2, 239.2.0.99)||none|",
                         "default|missing|sparse (10.9.1.2, 239.2.0.3)|e2||full",
                         "red|VRF missing||||not now",
                     }));
    EXPECT_EQ(result.differenceCount, found.size());
}

// Reading takes no privilege, but the larger buffer does: then it is what the system allows anyone.
TEST(NetlinkSourceTest, WorksWithoutPrivileges) {
    ENTER_NET_NAMESPACE();
    makeInterfaces();
    MfcFeeder feeder;
    feeder.vifIs(0, "e1");
    feeder.vifIs(1, "e2");
    feeder.routeIs(flow, 0, {1});
    constexpr std::size_t bufferAsked = std::size_t{64} << 20U;
    pid_t child = fork();
    if (child == 0) {
        __user_cap_header_struct header{.version = _LINUX_CAPABILITY_VERSION_3, .pid = 0};
        __user_cap_data_struct none[2] = {};
        bool dropped = syscall(SYS_capset, &header, none) == 0;
        Loop loop({{defaultVrf}}, bufferAsked);
        bool shown = static_cast<bool>(loop.shows("e2"));
        bool smaller = loop.source.receiveBuffer() < bufferAsked;
        _exit(dropped && shown && smaller ? 0 : 1);
    }
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
}

} // namespace
} // namespace Agent::Kernel::Test
