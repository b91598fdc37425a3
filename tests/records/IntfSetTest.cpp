// Sets of interfaces and lists of indexes, held against standard containers under random operations.
#include "records/IntfSet.h"
#include "records/OifIndex.h"

#include "tests/TestSeed.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <random>
#include <set>
#include <vector>

namespace {

using L3::IntfId;
using L3::IntfSet;
using Model = std::set<std::uint64_t>;
using Quill::Multicast::Fib::OifIndexList;

// Interfaces number 1 to `count`.
IntfId interface(std::uint64_t number) {
    while (IntfId::names() < number)
        IntfId{"Set" + std::to_string(IntfId::names())};
    return IntfId::fromNumber(number);
}

std::vector<std::uint64_t> numbers(const IntfSet& set) {
    std::vector<std::uint64_t> list;
    for (const IntfId member : set)
        list.push_back(member.number());
    return list;
}

class IntfSetTest : public ::testing::Test {
  protected:
    unsigned pick(unsigned below) { return std::uniform_int_distribution(0U, below - 1)(random); }

    const std::uint32_t seed = testSeed();
    const ::testing::ScopedTrace trace{__FILE__, __LINE__, seedText(seed)};
    std::mt19937 random{seed};
};

TEST_F(IntfSetTest, BehavesAsASortedSetThatIsCopied) {
    std::array<IntfSet, 4> sets;
    std::array<Model, 4> models;
    for (int step = 0; step < 30000; ++step) {
        const unsigned at = pick(4);
        const unsigned from = pick(4);
        const std::uint64_t number = 1 + pick(step % 6000 < 3000 ? 6 : 150);
        const IntfId member = interface(number);
        switch (pick(12)) {
        case 0:
            sets[at] = sets[from];
            models[at] = Model(models[from]);
            break;
        case 1:
            sets[at].insertAll(sets[from]);
            for (const std::uint64_t each : Model(models[from]))
                models[at].insert(each);
            break;
        case 2:
            if (pick(10) == 0) {
                sets[at] = IntfSet();
                models[at].clear();
            }
            break;
        case 3:
        case 4:
        case 5:
            ASSERT_EQ(sets[at].erase(member), models[at].erase(number) == 1);
            break;
        default:
            ASSERT_EQ(sets[at].insert(member), models[at].insert(number).second);
        }
        for (std::size_t i = 0; i < sets.size(); ++i) { // all of them: a copy must not have changed
            const auto members = numbers(sets[i]);
            ASSERT_TRUE(std::equal(members.begin(), members.end(), models[i].begin(), models[i].end()))
                << step;
            ASSERT_EQ(sets[i].size(), models[i].size());
            ASSERT_EQ(sets[i].empty(), models[i].empty());
        }
        ASSERT_EQ(sets[at].has(member), models[at].count(number) == 1);
        ASSERT_EQ(sets[at] == sets[from], models[at] == models[from]);
        ASSERT_EQ(sets[at] <=> sets[from], models[at] <=> models[from]);
    }
}

TEST_F(IntfSetTest, AUnionIsThatOfAllThatWasAdded) { // few and many
    for (int round = 0; round < 2000; ++round) {
        L3::IntfUnion collected;
        Model model;
        std::vector<IntfSet> added;
        for (unsigned parts = pick(12); parts > 0; --parts) {
            if (pick(3) == 0) {
                const std::uint64_t number = 1 + pick(200);
                collected.add(interface(number));
                model.insert(number);
                continue;
            }
            IntfSet set = !added.empty() && pick(3) == 0 ? added.back() : IntfSet();
            for (unsigned count = pick(4); count > 0; --count)
                set.insert(interface(1 + pick(200)));
            collected.add(set);
            for (const std::uint64_t number : numbers(set))
                model.insert(number);
            added.push_back(set);
        }
        const auto members = numbers(collected.take());
        ASSERT_TRUE(std::equal(members.begin(), members.end(), model.begin(), model.end()))
            << "round " << round;
        ASSERT_TRUE(collected.take().empty()); // taken, it begins again
    }
}

TEST_F(IntfSetTest, AnIndexListBehavesAsAListWithoutDuplicates) {
    std::array<OifIndexList, 3> lists;
    std::array<std::vector<std::uint16_t>, 3> models;
    for (int step = 0; step < 30000; ++step) {
        const unsigned at = pick(3);
        const unsigned from = pick(3);
        const auto index = static_cast<std::uint16_t>(pick(step % 2000 < 1000 ? 12 : 300));
        switch (pick(40)) {
        case 0:
            lists[at] = lists[from];
            models[at] = std::vector(models[from]);
            break;
        case 1:
            lists[at] = OifIndexList(std::move(lists[from]));
            models[at] = std::exchange(models[from], {});
            break;
        case 2:
            lists[at] = {};
            models[at].clear();
            break;
        default:
            lists[at].insert(index);
            if (std::find(models[at].begin(), models[at].end(), index) == models[at].end())
                models[at].push_back(index);
        }
        for (std::size_t i = 0; i < lists.size(); ++i) {
            ASSERT_TRUE(std::equal(lists[i].begin(), lists[i].end(), models[i].begin(), models[i].end()))
                << step;
            ASSERT_EQ(lists[i].at(lists[i].size()), 512); // the null index ends it
        }
        ASSERT_EQ(lists[at] == lists[from], models[at] == models[from]);
        ASSERT_EQ(lists[at] <=> lists[from], models[at] <=> models[from]);
    }
}

} // namespace
