// The reader of kernel messages: recorded ones read right, damaged ones are counted and harm nothing.
#include "agent/kernel/Mirror.h"
#include "tests/kernel/RecordedMessages.h"
#include "tests/kernel/RecordingSink.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>

namespace Agent::Kernel::Test {
namespace {

using Bytes = std::vector<unsigned char>;

Bytes bytesOf(std::string_view hex) {
    auto digit = [](char c) { return static_cast<unsigned char>(c <= '9' ? c - '0' : c - 'a' + 10); };
    Bytes bytes;
    for (std::size_t i = 0; i + 1 < hex.size(); i += 2)
        bytes.push_back(static_cast<unsigned char>(digit(hex[i]) << 4 | digit(hex[i + 1])));
    return bytes;
}

// Reads a datagram from memory of exactly its size, so that a sanitizer sees any step beyond.
template <class Visit>
void readAll(const Bytes& bytes, Visit visit) {
    std::unique_ptr<void, decltype(&std::free)> exact(std::malloc(bytes.size()), &std::free);
    if (!bytes.empty())
        std::memcpy(exact.get(), bytes.data(), bytes.size());
    MessageReader reader(exact.get(), bytes.size());
    KernelMessage message;
    while (reader.next(message))
        visit(message);
    EXPECT_EQ(message.kind, MessageKind::end);
}

KernelMessage readOne(const Bytes& bytes) {
    KernelMessage last;
    int count = 0;
    readAll(bytes, [&](const KernelMessage& message) {
        last = message;
        ++count;
    });
    EXPECT_EQ(count, 1);
    return last;
}

void lengthIs(Bytes& bytes, std::size_t length) {
    auto raw = static_cast<std::uint32_t>(length);
    std::memcpy(bytes.data(), &raw, sizeof raw);
}

TEST(KernelMessage, RecordedRoutes) {
    KernelMessage added = readOne(bytesOf(Recorded::routeAdded));
    EXPECT_EQ(added.kind, MessageKind::route);
    EXPECT_EQ(added.route.table, 253u);
    EXPECT_EQ(mfcKeyText(added.route.key), "(10.9.1.2, 239.1.1.1)");
    EXPECT_EQ(added.route.iif, 3);
    EXPECT_EQ(added.route.oifs, (std::vector<int>{5, 7}));
    EXPECT_EQ(added.route.protocol, 17);
    EXPECT_FALSE(added.route.unresolved);
    EXPECT_FALSE(added.isPart);

    KernelMessage unresolved = readOne(bytesOf(Recorded::routeUnresolved));
    EXPECT_TRUE(unresolved.route.unresolved);
    EXPECT_EQ(unresolved.route.iif, 0);

    KernelMessage without = readOne(bytesOf(Recorded::routeWithoutOifs));
    EXPECT_EQ(without.route.iif, 3);
    EXPECT_TRUE(without.route.oifs.empty());

    KernelMessage removed = readOne(bytesOf(Recorded::routeRemoved));
    EXPECT_EQ(removed.kind, MessageKind::routeGone);
    EXPECT_EQ(removed.route.key, added.route.key);
    EXPECT_FALSE(removed.route.unresolved);

    KernelMessage any = readOne(bytesOf(Recorded::routeOfAnySource));
    EXPECT_EQ(mfcKeyText(any.route.key), "(*, 239.3.3.3)");
    EXPECT_EQ(any.route.table, 1000u); // more than fits the header's byte
    EXPECT_TRUE(any.isPart);
}

TEST(KernelMessage, RecordedLinksVifsAndEnds) {
    KernelMessage removed = readOne(bytesOf(Recorded::linkRemoved));
    EXPECT_EQ(removed.kind, MessageKind::linkGone);
    EXPECT_EQ(removed.link.ifindex, 6);
    EXPECT_EQ(removed.link.name, "p3");
    EXPECT_FALSE(removed.link.internal);

    KernelMessage pimreg = readOne(bytesOf(Recorded::linkRegister));
    EXPECT_EQ(pimreg.kind, MessageKind::link);
    EXPECT_EQ(pimreg.link.name, "pimreg1000");
    EXPECT_TRUE(pimreg.link.internal);

    KernelMessage vifs = readOne(bytesOf(Recorded::vifTable));
    EXPECT_EQ(vifs.kind, MessageKind::vifTable);
    EXPECT_EQ(vifs.vifTable.table, 1000u);
    ASSERT_EQ(vifs.vifTable.vifs.size(), 2u);
    EXPECT_EQ(vifs.vifTable.vifs[0], (Vif{.index = 0, .ifindex = 3, .isRegister = false}));
    EXPECT_EQ(vifs.vifTable.vifs[1], (Vif{.index = 1, .ifindex = 10, .isRegister = true}));

    KernelMessage added = readOne(bytesOf(Recorded::vifAdded));
    EXPECT_EQ(added.kind, MessageKind::mcForwarding);
    EXPECT_EQ(added.mcForwarding.ifindex, 3);
    EXPECT_EQ(added.mcForwarding.tables, 1);
    EXPECT_EQ(readOne(bytesOf(Recorded::forwardingOfAll)).kind, MessageKind::other);
    EXPECT_EQ(readOne(bytesOf(Recorded::settingsTold)).kind, MessageKind::other);

    EXPECT_EQ(readOne(bytesOf(Recorded::dumpDone)).kind, MessageKind::done);
    KernelMessage none = readOne(bytesOf(Recorded::noSuchRoute));
    EXPECT_EQ(none.kind, MessageKind::error);
    EXPECT_EQ(none.error, ENOENT);
    EXPECT_EQ(none.sequence, 9u);
}

TEST(KernelMessage, SeveralMessagesInADatagram) {
    Bytes all;
    for (std::string_view hex : Recorded::all) {
        Bytes one = bytesOf(hex);
        all.insert(all.end(), one.begin(), one.end());
    }
    std::size_t count = 0;
    readAll(all, [&](const KernelMessage& message) {
        EXPECT_NE(message.kind, MessageKind::malformed);
        ++count;
    });
    EXPECT_EQ(count, std::size(Recorded::all));
}

TEST(KernelMessage, WhatIsUnknownIsSkippedAndWhatIsOfAnotherKindIsNotTaken) {
    Bytes longer = bytesOf(Recorded::routeAdded);
    longer.insert(longer.end(), {9, 0, 0x77, 0x40, 1, 2, 3, 4, 5, 0, 0, 0});
    lengthIs(longer, longer.size());
    EXPECT_EQ(readOne(longer).route.oifs, (std::vector<int>{5, 7}));

    Bytes bridge = bytesOf(Recorded::linkRemoved);
    bridge[16] = 7; // AF_BRIDGE: a port left its bridge
    EXPECT_EQ(readOne(bridge).kind, MessageKind::other);
    Bytes unicast = bytesOf(Recorded::routeAdded);
    unicast[16] = 2; // AF_INET
    EXPECT_EQ(readOne(unicast).kind, MessageKind::other);
    Bytes address = bytesOf(Recorded::routeAdded);
    address[4] = 20; // RTM_NEWADDR
    EXPECT_EQ(readOne(address).kind, MessageKind::other);
}

TEST(KernelMessage, DamageIsToldFromTheRest) {
    struct Case {
        const char* what;
        std::string_view message;
        std::size_t at;
        unsigned char value;
    } cases[] = {
        {"a prefix length of 24", Recorded::routeAdded, 17, 24},
        {"an attribute length of 3", Recorded::routeAdded, 28, 3},
        {"an attribute that reaches beyond the end", Recorded::routeAdded, 108, 60},
        {"an address of 3 bytes", Recorded::routeAdded, 36, 7},
        {"an IIF of 0", Recorded::routeAdded, 56, 0},
        {"a next hop of 4 bytes", Recorded::routeAdded, 64, 4},
        {"a next hop beyond its attribute", Recorded::routeAdded, 72, 12},
        {"no group", Recorded::routeAdded, 46, 99},
        {"a link without an index", Recorded::linkRemoved, 20, 0},
        {"a link with an empty name", Recorded::linkRemoved, 36, 0},
        {"a VIF table without its number", Recorded::vifTable, 38, 99},
        {"a VIF attribute too long for its nest", Recorded::vifTable, 92, 200},
        {"a forwarding state of 2 bytes", Recorded::vifAdded, 28, 6},
    };
    for (const Case& one : cases) {
        Bytes bytes = bytesOf(one.message);
        bytes[one.at] = one.value;
        KernelMessage message = readOne(bytes);
        EXPECT_EQ(message.kind, MessageKind::malformed) << one.what;
        EXPECT_FALSE(message.problem.empty()) << one.what;
    }
}

TEST(KernelMessage, CutShortAnywhere) {
    for (std::string_view hex : Recorded::all) {
        Bytes whole = bytesOf(hex);
        for (std::size_t length = 0; length < whole.size(); ++length) {
            Bytes cut(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length));
            readAll(cut,
                    [&](const KernelMessage& message) { EXPECT_EQ(message.kind, MessageKind::malformed); });
            if (length < 16)
                continue;
            // Now the message itself claims to be so short: it may end after a complete attribute, but no
            // less.
            lengthIs(cut, length);
            readAll(cut, [&](const KernelMessage& message) {
                EXPECT_TRUE(length % 4 == 0 || message.kind != MessageKind::route) << length;
            });
        }
    }
}

TEST(KernelMessage, RandomDamageCrashesNothing) {
    const char* given = std::getenv("KESTREL_TEST_SEED");
    auto seed = static_cast<std::uint32_t>(given ? std::strtoul(given, nullptr, 10) : std::random_device{}());
    SCOPED_TRACE("KESTREL_TEST_SEED=" + std::to_string(seed));
    std::mt19937 random(seed);
    auto below = [&](std::size_t limit) {
        return std::uniform_int_distribution<std::size_t>(0, limit - 1)(random);
    };

    RecordingSink sink;
    Mirror mirror(sink);
    mirror.reconfigure(
        {{{.name = "default", .id = 0, .table = 253}, {.name = "red", .id = 1, .table = 1000}}});
    std::size_t messages = 0;
    std::size_t malformed = 0;
    for (int i = 0; i < 20'000; ++i) {
        Bytes bytes;
        for (std::size_t n = 1 + below(3); n > 0; --n) {
            Bytes one = bytesOf(Recorded::all[below(std::size(Recorded::all))]);
            bytes.insert(bytes.end(), one.begin(), one.end());
        }
        for (std::size_t n = below(6); n > 0; --n) {
            std::size_t at = below(bytes.size());
            switch (below(4)) {
            case 0:
                bytes[at] = static_cast<unsigned char>(random());
                break;
            case 1:
                bytes[at] = static_cast<unsigned char>(bytes[at] ^ 1u << below(8));
                break;
            case 2:
                bytes[at & ~std::size_t{3}] = static_cast<unsigned char>(below(40)); // where lengths are
                break;
            default:
                bytes.resize(at + 1);
                break;
            }
        }
        readAll(bytes, [&](const KernelMessage& message) {
            ++messages;
            malformed += message.kind == MessageKind::malformed;
            for (int oif : message.kind == MessageKind::route ? message.route.oifs : std::vector<int>())
                ASSERT_GT(oif, 0);
            mirror.takeEvent(message);
        });
        mirror.publish(10);
    }
    EXPECT_EQ(mirror.counters().events, messages);
    EXPECT_EQ(mirror.counters().malformed, malformed);
    EXPECT_GT(malformed, 1000u);
    EXPECT_GT(messages, 20'000u);
}

} // namespace
} // namespace Agent::Kernel::Test
