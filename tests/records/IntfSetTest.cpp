// Sets of interfaces and lists of indexes, held against standard containers under random operations.
#include "records/IntfSet.h"
#include "records/OifIndex.h"

#include "tests/SetModel.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <set>
#include <string>
#include <vector>

namespace {

using L3::IntfId;
using L3::IntfSet;
using Quill::Multicast::Fib::OifIndexList;

IntfId interface(unsigned number) {
    while (IntfId::names() <= number)
        IntfId{"Set" + std::to_string(IntfId::names())};
    return IntfId::fromNumber(number + 1);
}

TEST(IntfSet, BehavesAsASortedSetThatIsCopied) {
    SetModel<IntfSet, IntfId>(&interface, true, false).holdAgainstModel();
}

TEST(OifIndexList, BehavesAsAListWithoutDuplicates) {
    SetModel<OifIndexList, std::uint16_t>([](unsigned number) { return static_cast<std::uint16_t>(number); },
                                          false, false)
        .holdAgainstModel();
    OifIndexList list{3, 4};
    EXPECT_TRUE(list.at(1) == 4 && list.at(2) == 512); // the null index ends it
}

TEST(IntfUnion, IsThatOfAllThatWasAdded) { // few and many
    const std::uint32_t seed = testSeed();
    SCOPED_TRACE(seedText(seed));
    std::mt19937 random(seed);
    const auto pick = [&](unsigned below) { return std::uniform_int_distribution(0U, below - 1)(random); };
    L3::IntfUnion collected;
    for (int round = 0; round < 2000; ++round) {
        std::set<IntfId> model;
        std::vector<IntfSet> added(1);
        for (unsigned parts = pick(12); parts > 0; --parts) {
            const IntfId one = interface(pick(200));
            if (pick(3) == 0) {
                collected.add(one);
                model.insert(one);
                continue;
            }
            IntfSet set = pick(3) == 0 ? added.back() : IntfSet();
            for (unsigned count = pick(4); count > 0; --count)
                set.insert(interface(pick(200)));
            collected.add(set);
            model.insert(set.begin(), set.end());
            added.push_back(set);
        }
        const IntfSet taken = collected.take(); // taken, it begins again
        ASSERT_TRUE(std::equal(taken.begin(), taken.end(), model.begin(), model.end())) << "round " << round;
    }
    EXPECT_TRUE(collected.take().empty());
}

} // namespace
