// The table of interface names: full, swept, and full again. In a child, because all tests of a process share it.
#include "records/IntfSet.h"
#include "records/NatMrouteOifSet.h"
#include "state/Errors.h"
#include "state/TraceValue.h"

#include <gtest/gtest.h>

#include <array>
#include <string>
#include <vector>

namespace {

using L3::IntfId;

// Names interfaces until the table refuses one more.
std::vector<IntfId> fill(const std::string& prefix) {
    std::vector<IntfId> named;
    while (IntfId::names() < IntfId::maxNames)
        named.emplace_back(prefix + std::to_string(named.size()));
    const std::uint64_t refusals = IntfId::refusals();
    EXPECT_THROW(IntfId("onemore"), State::RangeError);
    EXPECT_EQ(IntfId::refusals(), refusals + 1);
    return named;
}

std::string traced(const KestrelNat::NatMrouteOifSet& set) {
    std::array<std::byte, 64> record{};
    State::TraceWriter writer(record.data(), record.data() + record.size());
    writer.value(set);
    State::TraceReader reader(record.data(), writer.position());
    std::string text;
    reader.value<KestrelNat::NatMrouteOifSet>(text);
    return text;
}

void sweepAndFill() {
    const std::vector<IntfId> first = fill("first");
    L3::IntfUnion carried;
    std::vector<IntfId> kept;
    for (std::size_t i = 0; i < first.size(); i += 1000) {
        carried.add(first[i]);
        kept.push_back(first[i]);
    }
    const std::size_t swept = IntfId::names() - kept.size();
    EXPECT_EQ(IntfId::sweep([inUse = carried.take()](IntfId intf) { return inUse.has(intf); }), swept);
    EXPECT_EQ(IntfId::names(), kept.size());
    EXPECT_EQ(IntfId::find("first1000"), first[1000]);
    EXPECT_EQ(IntfId("first1000"), first[1000]);
    EXPECT_EQ(IntfId::find("first1001"), std::nullopt);
    EXPECT_EQ(traced({first[1000], first[1001]}), "NatMrouteOifSet {first1000, ?, }");

    const std::uint64_t last = first.back().number();
    EXPECT_EQ(IntfId("first1001").number(), last + 1);
    const std::vector<IntfId> second = fill("second");
    EXPECT_EQ(IntfId::lastNumber(), last + swept);
    EXPECT_EQ(first[1001].stringValue(), "?");
    EXPECT_EQ(second[1001].stringValue(), "second1001");
    for (const std::size_t at : {std::size_t{0}, std::size_t{5000}, second.size() - 1})
        kept.push_back(second[at]);
    for (std::size_t i = kept.size(); i-- > 0;)
        carried.add(kept[i]);
    const L3::IntfSet all = carried.take(); // of numbers far apart
    EXPECT_TRUE(std::equal(all.begin(), all.end(), kept.begin(), kept.end()));
    EXPECT_EQ(IntfId::sweep([](IntfId) { return false; }), IntfId::maxNames);
    EXPECT_EQ(IntfId("").stringValue(), "");
    std::exit(::testing::Test::HasFailure() ? 1 : 0);
}

TEST(InterfaceNames, AreSweptAndTheirNumbersNotGivenAgain) {
    EXPECT_EXIT(sweepAndFill(), ::testing::ExitedWithCode(0), "");
}

} // namespace
