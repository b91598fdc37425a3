// Messages of the kernel, a datagram an input, read and taken by a mirror of two tables.
#include "agent/kernel/KernelMessage.h"
#include "agent/kernel/Mirror.h"
#include "tests/kernel/RecordingSink.h"

#include <cstdlib>

// NOLINTNEXTLINE(readability-identifier-naming): the fuzzer's name
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace Agent::Kernel;
    Test::RecordingSink sink;
    Mirror mirror(sink);
    mirror.reconfigure(
        {{{.name = "default", .id = 0, .table = 253}, {.name = "red", .id = 1, .table = 1000}}});
    MessageReader reader(data, size);
    KernelMessage message;
    while (reader.next(message)) {
        if (message.kind == MessageKind::route)
            for (const int oif : message.route.oifs)
                if (oif <= 0)
                    std::abort();
        mirror.takeEvent(message);
    }
    mirror.publish(1000);
    return 0;
}
