// The ring keeps the latest records, whatever sizes come and whatever happens to its memory.
#include "tests/state/TraceFixture.h"

#include "state/Errors.h"

#include <algorithm>
#include <cstring>
#include <random>
#include <utility>

TRACE_FACILITY("TraceTest");

namespace {

using TraceRingTest = TraceTest;

// Whatever sizes come, the ring holds the latest records, unbroken and with their times, down to two slices
// and the rest of a lap less than its size.
TEST_F(TraceRingTest, RingKeepsTheLatestRecords) {
    State::traceLevelIs("TraceTest", 0);
    std::mt19937 random(20240501);
    const auto upTo = [&](std::size_t most) { return random() % (most + 1); };
    for (const auto& [bytes, misaligned] :
         {std::pair{8192U, 0U}, {8193, 1}, {9001, 7}, {30000, 4}, {200000, 0}}) {
        ringIs(bytes, misaligned);
        std::uint64_t time = 0;
        std::vector<std::pair<std::string, std::uint64_t>> all; // message and time
        const std::uint64_t first = State::traceNext();
        for (int step = 0; step < 6000; ++step) {
            // Any number of events that trace nothing take the room of one time record.
            for (auto events = step == 0 ? 1 : step % 50 == 0 ? 500 : upTo(1) * upTo(1); events > 0; --events)
                State::traceTimeIs(++time);
            const std::string text(upTo(step % 50 == 0 ? 150 : 20), static_cast<char>('a' + upTo(25)));
            const std::string kept = text.size() <= 100 ? text : text.substr(0, 100) + "...";
            if (const auto kind = upTo(3); kind == 0) {
                TRACE(8, "plain");
                all.emplace_back("plain", time);
            } else if (kind == 1) {
                TRACE(8, "n=", step, 'x', time);
                all.emplace_back("n=" + std::to_string(step) + "x" + std::to_string(time), time);
            } else if (kind == 2) {
                TRACE(8, text);
                all.emplace_back(kept, time);
            } else {
                TRACE(8, text, text, text, text, text);
                all.emplace_back("", time);
                for (int i = 0; i < 5; ++i)
                    all.back().first += kept;
            }
            if (step % 97 != 0 && step < 5990)
                continue;
            const auto records = State::traceRecordsSince(0);
            ASSERT_EQ(State::traceNext(), first + all.size());
            ASSERT_EQ(State::traceOldest(), State::traceNext() - records.size());
            std::size_t held = 0;
            for (std::size_t i = 0; i < records.size(); ++i) {
                ASSERT_EQ(records[i].n, State::traceOldest() + i);
                ASSERT_EQ(std::pair(records[i].message, records[i].time),
                          all[all.size() - records.size() + i]);
                held += 48 + records[i].message.size(); // at least what it took
            }
            ASSERT_TRUE(records.size() == all.size() ||
                        held + 2 * std::max<std::size_t>(bytes / 64, 2048) + 1024 + 64 >= bytes);
        }
    }
}

// Records of one size fill a lap, those of another the first slice of the next: the end of the space, the
// slices and the time records come to stand against each other in every way, and no record is written over
// another.
TEST_F(TraceRingTest, RecordsMeetInEveryWay) {
    State::traceLevelIs("TraceTest", 0);
    struct Kind {
        void (*trace)();
        std::size_t size;
        std::string message;
    };
    const Kind kinds[] = {{[] { TRACE_AS(8, "trace", "end"); }, 8, "end"},
                          {[] { TRACE_AS(8, "trace", "end", 1, 2); }, 16, "end12"},
                          {[] { TRACE_AS(8, "trace", "end", 1, 2, 3, 4); }, 24, "end1234"},
                          {[] { TRACE_AS(8, "trace", "end", 1, 2, 3, 4, 5, 6); }, 32, "end123456"}};
    for (std::size_t pair = 0; pair < std::size(kinds) * std::size(kinds); ++pair) {
        const Kind& before = kinds[pair / std::size(kinds)];
        const Kind& after = kinds[pair % std::size(kinds)];
        for (std::size_t count = 8192 / before.size - 10; count < 8192 / before.size + 3; ++count) {
            for (std::size_t more = 2048 / after.size - 3; more < 2048 / after.size + 2; ++more) {
                ringIs(8192);
                State::traceTimeIs(1);
                const std::uint64_t change = State::traceNext() + count;
                for (std::size_t i = 0; i < count; ++i)
                    before.trace();
                State::traceTimeIs(2);
                for (std::size_t i = 0; i < more; ++i)
                    after.trace();
                const auto records = State::traceRecordsSince(0);
                ASSERT_EQ(records.size(), State::traceNext() - State::traceOldest());
                for (const State::TraceRecord& record : records) {
                    ASSERT_EQ(record.message, record.n < change ? before.message : after.message);
                    ASSERT_EQ(record.time, record.n < change ? 1U : 2U);
                }
            }
        }
    }
}

TEST_F(TraceRingTest, RingCanBeSwitchedOffAndReplaced) {
    TRACE(8, "one");
    const std::uint64_t next = State::traceNext();
    State::traceRingIs({});
    TRACE(8, "unseen");
    State::traceTimeIs(5);
    EXPECT_EQ(State::traceNext(), next);
    EXPECT_EQ(State::traceRecordsLast(10).size(), 0U);
    EXPECT_EQ(messages(lines_), Texts({"one", "unseen"})); // the text trace does not depend on it

    ringIs(8192);
    TRACE(8, "two");
    const auto records = State::traceRecordsLast(10);
    ASSERT_EQ(messages(records), Texts({"two"}));
    EXPECT_EQ(records[0].n, next); // numbers go on
    EXPECT_EQ(records[0].time, 5U);

    std::byte small[8191];
    EXPECT_THROW(State::traceRingIs(small), State::RangeError);
    EXPECT_EQ(lastRecord(), "two");
}

// Whatever is in the ring's memory, reading stays inside it and ends, writing goes on, and the damage is gone
// once it is overwritten.
TEST_F(TraceRingTest, DamagedRingIsReadAsFarAsItMakesSense) {
    State::traceLevelIs("TraceTest", 0);
    std::mt19937 random(7);
    const auto fill = [](int count) {
        for (int i = 0; i < count; ++i)
            TRACE_AS(8, "fill", "i=", i, " ", std::string(static_cast<std::size_t>(i % 120), 't'),
                     std::string_view("x"), i % 2 == 0);
    };
    const auto read = [&] {
        State::TraceRingWalk walk(State::traceRing);
        while (walk.next()) {
            EXPECT_GE(walk.values().data(), ring_.data());
            EXPECT_LE(walk.values().data() + walk.values().size(), ring_.data() + ring_.size());
        }
        return State::traceRecordsSince(0);
    };
    for (int round = 0; round < 300; ++round) {
        ringIs(8192 + static_cast<std::size_t>(round % 16));
        fill(300);
        const std::uint64_t next = State::traceNext();
        for (std::size_t flaws = 1 + random() % 200; flaws != 0; --flaws) {
            ring_[random() % ring_.size()] = static_cast<std::byte>(random());
            const std::uint32_t size = random() % 64 * 8; // where a record's head may be
            std::memcpy(&ring_[random() % (ring_.size() / 8) * 8 + 4], &size, sizeof size);
        }
        const auto records = read();
        for (std::size_t i = 0; i < records.size(); ++i) {
            ASSERT_EQ(records[i].n, records[0].n + i);
            ASSERT_LT(records[i].n,
                      next + (records[i].message == "(the trace ring is damaged here)" ? 1 : 0));
        }
        EXPECT_EQ(State::traceNext(), next);
        fill(300);
        EXPECT_EQ(lastRecord().substr(0, 6), "i=299 ");
        EXPECT_EQ(State::traceRecordsSince(0).size(), State::traceNext() - State::traceOldest());
    }

    // All the same: nothing, as after a crash of the machine; more records than there were; records that do
    // not fill the space. One record says so, where no other can be.
    for (const std::uint32_t size : {0U, 8U, 1000U}) {
        const State::TraceRecordHead head{1000000, size};
        for (std::size_t at = sizeof(State::TraceRingHeader); at + sizeof head <= ring_.size();
             at += sizeof head)
            std::memcpy(&ring_[at], &head, sizeof head);
        const auto records = read();
        EXPECT_EQ(records.back().message, "(the trace ring is damaged here)");
        EXPECT_EQ(records.back().n - State::traceOldest(), records.size() - 1);
        EXPECT_EQ(records.back().n == State::traceOldest(), size == 0);
        EXPECT_EQ(records.back().n == State::traceNext(), size == 8);
    }
}

TEST_F(TraceRingTest, UnknownEventsAndMissingBytesAreMarked) {
    ringIs(8192);
    const std::string text(16, 'x');
    TRACE(8, "text=", text, " number=", 7);
    const std::size_t begin = sizeof(State::TraceRingHeader);
    State::TraceRecordHead head{};
    std::memcpy(&head, &ring_[begin], sizeof head);

    ring_[begin + sizeof head] = std::byte{200}; // the string claims more than the record holds
    EXPECT_EQ(lastRecord(), "text=... number=...");
    head.event = 0x7fffffff;
    std::memcpy(&ring_[begin], &head, sizeof head);
    EXPECT_EQ(lastRecord(), "(unknown event 2147483647)");
}

} // namespace
