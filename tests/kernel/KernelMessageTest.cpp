// The reader of kernel messages: recorded ones read right, damaged ones are counted and harm nothing.
#include "agent/kernel/Mirror.h"
#include "tests/kernel/RecordingSink.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace Agent::Kernel::Test {
namespace {

using Bytes = std::vector<unsigned char>;

// The messages of messages.txt, by name.
const std::map<std::string, Bytes>& recorded() {
    static const std::map<std::string, Bytes> messages = [] {
        std::map<std::string, Bytes> read;
        std::ifstream file(KESTREL_SOURCE_DIR "/tests/kernel/messages.txt");
        std::string name;
        for (std::string line; std::getline(file, line);) {
            if (!line.empty() && line[0] != '#' && line[0] != ' ')
                name = line;
            for (std::size_t i = 4; line.starts_with(' ') && i < line.size(); i += 2)
                read[name].push_back(static_cast<unsigned char>(std::stoi(line.substr(i, 2), nullptr, 16)));
        }
        return read;
    }();
    return messages;
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
    KernelMessage added = readOne(recorded().at("routeAdded"));
    EXPECT_EQ(added.kind, MessageKind::route);
    EXPECT_EQ(added.route.table, 253u);
    EXPECT_EQ(mfcKeyText(added.route.key), "(10.9.1.2, 239.1.1.1)");
    EXPECT_EQ(added.route.iif, 3);
    EXPECT_EQ(added.route.oifs, (std::vector<int>{5, 7}));
    EXPECT_EQ(added.route.protocol, 17);
    EXPECT_FALSE(added.route.unresolved);
    EXPECT_FALSE(added.isPart);

    KernelMessage unresolved = readOne(recorded().at("routeUnresolved"));
    EXPECT_TRUE(unresolved.route.unresolved);
    EXPECT_EQ(unresolved.route.iif, 0);

    KernelMessage without = readOne(recorded().at("routeWithoutOifs"));
    EXPECT_EQ(without.route.iif, 3);
    EXPECT_TRUE(without.route.oifs.empty());

    KernelMessage removed = readOne(recorded().at("routeRemoved"));
    EXPECT_EQ(removed.kind, MessageKind::routeGone);
    EXPECT_EQ(removed.route.key, added.route.key);
    EXPECT_FALSE(removed.route.unresolved);

    KernelMessage any = readOne(recorded().at("routeOfAnySource"));
    EXPECT_EQ(mfcKeyText(any.route.key), "(*, 239.3.3.3)");
    EXPECT_EQ(any.route.table, 1000u); // more than fits the header's byte
    EXPECT_TRUE(any.isPart);
}

TEST(KernelMessage, RecordedLinksVifsAndEnds) {
    KernelMessage removed = readOne(recorded().at("linkRemoved"));
    EXPECT_EQ(removed.kind, MessageKind::linkGone);
    EXPECT_EQ(removed.link.ifindex, 6);
    EXPECT_EQ(removed.link.name, "p3");
    EXPECT_FALSE(removed.link.internal);

    KernelMessage pimreg = readOne(recorded().at("linkRegister"));
    EXPECT_EQ(pimreg.kind, MessageKind::link);
    EXPECT_EQ(pimreg.link.name, "pimreg1000");
    EXPECT_TRUE(pimreg.link.internal);

    KernelMessage vifs = readOne(recorded().at("vifTable"));
    EXPECT_EQ(vifs.kind, MessageKind::vifTable);
    EXPECT_EQ(vifs.vifTable.table, 1000u);
    ASSERT_EQ(vifs.vifTable.vifs.size(), 2u);
    EXPECT_EQ(vifs.vifTable.vifs[0], (Vif{.index = 0, .ifindex = 3, .isRegister = false}));
    EXPECT_EQ(vifs.vifTable.vifs[1], (Vif{.index = 1, .ifindex = 10, .isRegister = true}));

    KernelMessage added = readOne(recorded().at("vifAdded"));
    EXPECT_EQ(added.kind, MessageKind::mcForwarding);
    EXPECT_EQ(added.mcForwarding.ifindex, 3);
    EXPECT_EQ(added.mcForwarding.tables, 1);
    EXPECT_EQ(readOne(recorded().at("forwardingOfAll")).kind, MessageKind::other);
    EXPECT_EQ(readOne(recorded().at("settingsTold")).kind, MessageKind::other);

    EXPECT_EQ(readOne(recorded().at("dumpDone")).kind, MessageKind::done);
    KernelMessage none = readOne(recorded().at("noSuchRoute"));
    EXPECT_EQ(none.kind, MessageKind::error);
    EXPECT_EQ(none.error, ENOENT);
    EXPECT_EQ(none.sequence, 9u);
}

TEST(KernelMessage, SeveralMessagesInADatagram) {
    Bytes all;
    for (const auto& [name, one] : recorded())
        all.insert(all.end(), one.begin(), one.end());
    std::size_t count = 0;
    readAll(all, [&](const KernelMessage& message) {
        EXPECT_NE(message.kind, MessageKind::malformed);
        ++count;
    });
    EXPECT_EQ(count, recorded().size());
}

TEST(KernelMessage, WhatIsUnknownIsSkippedAndWhatIsOfAnotherKindIsNotTaken) {
    Bytes longer = recorded().at("routeAdded");
    longer.insert(longer.end(), {9, 0, 0x77, 0x40, 1, 2, 3, 4, 5, 0, 0, 0});
    lengthIs(longer, longer.size());
    EXPECT_EQ(readOne(longer).route.oifs, (std::vector<int>{5, 7}));

    Bytes bridge = recorded().at("linkRemoved");
    bridge[16] = 7; // AF_BRIDGE: a port left its bridge
    EXPECT_EQ(readOne(bridge).kind, MessageKind::other);
    Bytes unicast = recorded().at("routeAdded");
    unicast[16] = 2; // AF_INET
    EXPECT_EQ(readOne(unicast).kind, MessageKind::other);
    Bytes address = recorded().at("routeAdded");
    address[4] = 20; // RTM_NEWADDR
    EXPECT_EQ(readOne(address).kind, MessageKind::other);
}

TEST(KernelMessage, DamageIsToldFromTheRest) {
    struct Case {
        const char* what;
        const char* message;
        std::size_t at;
        unsigned char value;
    } cases[] = {
        {"a prefix length of 24", "routeAdded", 17, 24},
        {"an attribute length of 3", "routeAdded", 28, 3},
        {"an attribute that reaches beyond the end", "routeAdded", 108, 60},
        {"an address of 3 bytes", "routeAdded", 36, 7},
        {"an IIF of 0", "routeAdded", 56, 0},
        {"a next hop of 4 bytes", "routeAdded", 64, 4},
        {"a next hop beyond its attribute", "routeAdded", 72, 12},
        {"no group", "routeAdded", 46, 99},
        {"a link without an index", "linkRemoved", 20, 0},
        {"a link with an empty name", "linkRemoved", 36, 0},
        {"a VIF table without its number", "vifTable", 38, 99},
        {"a VIF attribute too long for its nest", "vifTable", 92, 200},
        {"a forwarding state of 2 bytes", "vifAdded", 28, 6},
    };
    for (const Case& one : cases) {
        Bytes bytes = recorded().at(one.message);
        bytes[one.at] = one.value;
        KernelMessage message = readOne(bytes);
        EXPECT_EQ(message.kind, MessageKind::malformed) << one.what;
        EXPECT_FALSE(message.problem.empty()) << one.what;
    }
}

TEST(KernelMessage, CutShortAnywhere) {
    for (const auto& [name, whole] : recorded()) {
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
            const Bytes& one =
                std::next(recorded().begin(), std::ptrdiff_t(below(recorded().size())))->second;
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
