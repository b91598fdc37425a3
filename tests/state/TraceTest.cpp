// The trace log as its users see it: what a statement leaves in the text trace and in the ring, which levels
// are written, and how long values are cut. TraceRingTest.cpp is about the ring alone.
#include "tests/state/TraceFixture.h"

#include "state/Errors.h"
#include "state/Value.h"

TRACE_FACILITY("TraceTest");

// A facility whose module comes and goes.
namespace Module {
constinit State::TraceFacility traceFacilityOfThisFile{"TraceTestModule"};
void work(int value) {
    TRACE(8, "module works on ", value);
}
} // namespace Module

namespace {

// Traced before main, when no ring has been handed in: the framework's own takes it.
const std::vector<State::TraceRecord> early = [] {
    TRACE_AS(9, "early", "early");
    return State::traceRecordsSince(0);
}();

TEST_F(TraceTest, StatementLeavesTheSameInTextAndRing) {
    const std::string vrfName = "red";
    State::traceTimeIs(1700000000123456789U);
    TRACE(8, "NatVrfDirSm::", "handleVrf", " adding vrfName=", vrfName);
    const unsigned line = __LINE__ - 1;

    ASSERT_EQ(lines_.size(), 1U);
    const auto records = State::traceRecordsLast(1);
    ASSERT_EQ(records.size(), 1U);
    for (const State::TraceRecord& record : {lines_[0], records[0]}) {
        EXPECT_EQ(record.n, State::traceNext() - 1);
        EXPECT_EQ(record.time, 1700000000123456789U);
        EXPECT_EQ(record.level, 8);
        EXPECT_EQ(record.facility, "TraceTest");
        EXPECT_EQ(record.file, __FILE__);
        EXPECT_EQ(record.line, line);
        EXPECT_EQ(record.function, "TestBody");
        EXPECT_EQ(record.message, "NatVrfDirSm::handleVrf adding vrfName=red");
    }
    EXPECT_EQ(State::traceRecordsSince(State::traceNext()).size(), 0U);
}

TEST_F(TraceTest, LiteralsAndValuesOfEveryPlainKind) {
    // Only a literal is the statement's own text; other character arrays may differ from call to call.
    for (const bool isAdded : {true, false}) {
        const char name[] = {isAdded ? 'a' : 'b', '\0'};
        TRACE(8, isAdded ? " yes" : " not", ", (\"",
              "two "
              "halves",
              '"', name, (1 + 1), "\\", "", ")");
        expectLast(isAdded ? " yes, (\"two halves\"a2\\)" : " not, (\"two halves\"b2\\)");
    }
    const std::string string("with\0zero", 9);
    const char* const none = nullptr;
    TRACE(8, std::uint8_t{200}, ' ', std::int8_t{-100}, ' ', std::uint64_t{0} - 1, ' ', INT64_MIN, ' ', true,
          ' ', false);
    expectLast("200 -100 18446744073709551615 -9223372036854775808 true false");
    TRACE(8, string, '|', std::string_view(), '|', none, '|', static_cast<const char*>("text"));
    expectLast(std::string("with\0zero||(null)|text", 22));
}

TEST_F(TraceTest, TracesBeforeMainGoToTheRingOfItsOwn) {
    ASSERT_EQ(early.size(), 1U);
    EXPECT_EQ(early[0].n, 0U);
    EXPECT_EQ(early[0].message, "early");
    EXPECT_NE(early[0].time, 0U);
}

struct Counted {
    int value;
};
int timesPrinted = 0;
void appendText(std::string& out, const Counted& counted) {
    ++timesPrinted;
    State::appendText(out, counted.value);
}

TEST_F(TraceTest, NothingIsFormattedUntilSomeoneReads) {
    State::traceLevelIs("TraceTest", 0);
    timesPrinted = 0;
    TRACE(8, "value=", Counted{5});
    EXPECT_EQ(timesPrinted, 0);
    EXPECT_EQ(lines_.size(), 0U);
    EXPECT_EQ(lastRecord(), "value=5");
    EXPECT_EQ(timesPrinted, 1);
    State::traceLevelIs("TraceTest", 8);
    TRACE(8, "value=", Counted{6});
    EXPECT_EQ(timesPrinted, 2);
    EXPECT_EQ(lastLine(), "value=6");
}

TEST_F(TraceTest, LinesUpToTheFacilitysLevelAreWritten) {
    const auto linesAt = [&](int level) {
        State::traceLevelIs("TraceTest", level);
        lines_.clear();
        TRACE_AS(0, "linesAt", "0");
        TRACE_AS(6, "linesAt", "6");
        TRACE_AS(8, "linesAt", "8");
        TRACE_AS(9, "linesAt", "9");
        Module::work(1);
        return messages(lines_);
    };
    EXPECT_EQ(linesAt(0), Texts({"0"}));
    EXPECT_EQ(linesAt(8), Texts({"0", "6", "8"}));
    EXPECT_EQ(linesAt(9), Texts({"0", "6", "8", "9"}));
    EXPECT_EQ(messages(State::traceRecordsLast(5)), Texts({"0", "6", "8", "9", "module works on 1"}));
    EXPECT_THROW(State::traceLevelIs("TraceTest", 10), State::RangeError);
    EXPECT_THROW(State::traceLevelIs("TraceTest", -1), State::RangeError);
}

// "level loaded?" of a facility; nothing where it is unknown.
std::string levelOf(std::string_view facility) {
    for (const auto& [name, level, isLoaded] : State::traceLevels())
        if (name == facility)
            return std::to_string(level) + (isLoaded ? " loaded" : "");
    return "";
}

// A level is remembered for a module that is not there yet, and for its next time; records of a module that
// has gone say so.
TEST_F(TraceTest, FacilitiesComeAndGoWithTheirModules) {
    EXPECT_EQ(levelOf("TraceTestModule"), "");
    State::traceLevelIs("TraceTestModule", 8);
    EXPECT_EQ(levelOf("TraceTestModule"), "8");
    {
        const State::TraceFacilityEntry loaded(Module::traceFacilityOfThisFile);
        EXPECT_EQ(levelOf("TraceTestModule"), "8 loaded");
        Module::work(2);
        expectLast("module works on 2");
    }
    EXPECT_EQ(lastRecord(), "(its module is not loaded any more)");
    EXPECT_EQ(levelOf("TraceTestModule"), "8");
    EXPECT_EQ(levelOf("TraceTest"), "9 loaded");
}

TEST_F(TraceTest, LongStringsAreCutInTheRingAlone) {
    const std::string fits(100, 'x');
    const std::string tooLong(101, 'y');
    TRACE(8, fits, "|", tooLong, "|");
    expectLast(fits + "|" + tooLong + "|", fits + "|" + std::string(100, 'y') + "...|");

    // Never within a character, whichever of its bytes comes 101st.
    const std::string characters[] = {"\xc3\xa9", "\xe2\x82\xac", "\xf0\x9f\x98\x80"};
    for (const std::string& character : characters) {
        for (std::size_t begin = 100 - character.size(); begin <= 100; ++begin) {
            const std::string text = std::string(begin, 'z') + character + "end";
            TRACE(8, text);
            const bool isKept = begin + character.size() <= 100;
            expectLast(text, std::string(begin, 'z') + (isKept ? character : "") + "...");
        }
    }
}

struct NumberSet {
    using Element = std::uint32_t;
    static constexpr std::string_view typeName = "NumberSet";
    std::vector<Element> numbers;
    void insert(Element number) { numbers.push_back(number); }
    auto begin() const { return numbers.begin(); }
    auto end() const { return numbers.end(); }
};

struct Key {
    std::uint32_t vrfId = 0;
    std::string routeName;
    static constexpr auto describe() {
        return State::describe("Key", State::field("vrfId", &Key::vrfId),
                               State::field("routeName", &Key::routeName));
    }
};

// A value that does its own coding: of a range, the ring keeps the ends.
struct Range {
    std::vector<int> values;
    void traceEncode(State::TraceWriter& writer) const {
        writer.value(values.front());
        writer.value(values.back());
    }
    static void traceDecode(State::TraceReader& reader, std::string& out) {
        reader.value<int>(out);
        out += "..";
        reader.value<int>(out);
    }
};
void appendText(std::string& out, const Range& range) {
    for (const int value : range.values)
        out += "<" + std::to_string(value) + ">";
}

TEST_F(TraceTest, SetsDescribedValuesAndOwnCodingsComeBack) {
    const NumberSet eight{{1, 2, 3, 4, 5, 6, 7, 8}};
    const NumberSet nine{{1, 2, 3, 4, 5, 6, 7, 8, 9}};
    TRACE(8, "key=", (Key{3, "static"}), " ", NumberSet(), eight, "!");
    expectLast("key=Key(vrfId=3, routeName=\"static\") NumberSet{}NumberSet{1, 2, 3, 4, 5, 6, 7, 8}!");
    TRACE(8, nine, (Range{{1, 5, 9}}), "!");
    expectLast("NumberSet{1, 2, 3, 4, 5, 6, 7, 8, 9}<1><5><9>!",
               "NumberSet{1, 2, 3, 4, 5, 6, 7, 8} (8 of 9)1..9!");
}

TEST_F(TraceTest, ARecordIsCutAtItsLargestSize) {
    const std::string text(100, 'x');
    TRACE(8, text, text, text, text, text, text, text, text, text, text, "|", 1, "|", 2, "|", text, "end");
    // 1024 bytes: the head, nine strings of 102; the tenth does not fit, and nothing follows.
    expectLast(std::string(1000, 'x') + "|1|2|" + text + "end", std::string(900, 'x') + "...|...|...|...end");
}

TEST_F(TraceTest, LinesOnStandardErrorAndInDumps) {
    State::traceSinkIs(nullptr, nullptr);
    State::traceTimeIs(1700000000123456789U); // 2023-11-14 22:13:20 UTC
    testing::internal::CaptureStderr();
    TRACE(8, "one\ntwo\x7f ", std::string(300, 'x'));
    const std::string line = std::string("2023-11-14T22:13:20.123456Z 8 TraceTest ") + __FILE__ + ":" +
                             std::to_string(__LINE__ - 2) + " TestBody: one\\x0atwo\\x7f ";
    EXPECT_EQ(testing::internal::GetCapturedStderr(), line + std::string(300, 'x') + "\n");

    State::traceLevelIs("TraceTest", 0);
    TRACE(8, "three");
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::tmpfile(), std::fclose);
    State::traceDumpLast(2, file.get());
    std::rewind(file.get());
    std::string dumped(2000, '\0');
    dumped.resize(std::fread(dumped.data(), 1, dumped.size(), file.get()));
    EXPECT_EQ(dumped.substr(0, line.size() + 104), line + std::string(100, 'x') + "...\n");
    EXPECT_EQ(dumped.substr(dumped.size() - 16), "TestBody: three\n");
}

} // namespace
