// Messages of the kernel, true or not, taken as events and as answers by a mirror that is up to date. Whatever it was
// told: once it has read everything again, its tables are what they were.
#include "tests/fuzz/Require.h"
#include "tests/kernel/FakeKernel.h"
#include "tests/kernel/RecordingSink.h"

#include <gtest/gtest.h>

namespace {

using namespace Agent::Kernel;
using namespace Agent::Kernel::Test;

const KernelConfig config{
    {{.name = "default", .id = 0, .table = 253}, {.name = "red", .id = 1, .table = 1000}}};

// The interfaces that the recorded messages tell of.
constexpr int vifs[] = {3, 5, 6, 7};

// What the kernel has: in each table a route to three interfaces, and one to none.
FakeKernel quietKernel() {
    FakeKernel kernel;
    kernel.linkIs(1, "lo", true);
    for (const int ifindex : vifs)
        kernel.linkIs(ifindex, "e" + std::to_string(ifindex));
    for (const VrfConfig& vrf : config.vrfs) {
        for (int vif = 0; const int ifindex : vifs)
            kernel.vifIs(vrf.table, vif++, ifindex);
        kernel.routeIs(vrf.table, {.key = {.source = 0x0a090102, .group = 0xef010101}, .outputs = 0b1110});
        kernel.routeIs(vrf.table, {.key = {.source = 0x0a090102, .group = 0xef090005}});
    }
    return kernel;
}

// The tables, once the mirror has caught up with the kernel. A row's interfaces are told by their names.
std::string settled(FakeKernel& kernel, Mirror& mirror, RecordingSink& sink) {
    FakeReader(kernel, mirror).settle();
    std::string text;
    for (const auto& [name, vrf] : sink.vrfs) {
        text += name + (vrf.multicast ? " on\n" : " off\n");
        for (const Agent::RouteType type : Agent::routeTypes)
            for (const auto& [key, row] : vrf.rows[static_cast<std::size_t>(type)])
                text += mfcKeyText(key) + " " + sink.row(name, key, type) + "\n";
    }
    return text;
}

} // namespace

// NOLINTNEXTLINE(readability-identifier-naming): the fuzzer's name
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    testing::GTEST_FLAG(throw_on_failure) = true; // what breaks the sink's contract ends the process
    RecordingSink sink;
    Mirror mirror(sink);
    mirror.reconfigure(config);
    FakeKernel kernel = quietKernel(); // its own events are over after this
    const std::string expected = settled(kernel, mirror, sink);
    MessageReader reader(data, size);
    KernelMessage message;
    bool isAsked = false;
    Mirror::Clock::time_point now{};
    for (; reader.next(message); now += std::chrono::seconds(1)) {
        if (message.sequence == 0) {
            mirror.takeEvent(message);
        } else if (isAsked = isAsked || mirror.nextQuery(now); isAsked) {
            const bool isEnd = message.kind == MessageKind::done || message.kind == MessageKind::error;
            if (isEnd)
                mirror.endAnswer(message.error, message.interrupted, now);
            else
                mirror.takeAnswer(message);
            isAsked = !isEnd;
        }
        mirror.publish(2);
    }
    if (isAsked)
        mirror.endAnswer(0, false, now);
    mirror.overrun();
    const std::string tables = settled(kernel, mirror, sink);
    require(tables == expected, "after a resync the tables are the kernel's, but they are\n" + tables);
    return 0;
}
