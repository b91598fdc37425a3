// Table order and candidate chains of both route tables, held against a plain list of rows: after random
// changes, what candidates() yields for a request is, filtered by the matching rule and order included, what
// a walk of the whole table would.
#include "records/LumenFib.h"
#include "records/QuillFib.h"

#include "tests/TestSeed.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <utility>
#include <vector>

namespace {

using L3::IpAddr;
using L3::IpGenPrefix;
using Routing::Multicast::Fib::IpGenRouteKey;
using State::Handle;

struct QuillSource {
    Handle<Quill::Multicast::Fib::Status> table = State::makeHandle<Quill::Multicast::Fib::Status>("static");
    void write(const IpGenRouteKey& key, std::uint16_t mark) const { table->routeIs(key, {{mark}}); }
    static std::uint64_t markOf(const Quill::Multicast::Fib::Route& route) { return route.oifs.at(0); }
};
struct LumenSource {
    Handle<Lumen::Multicast::Fib::Status> table = State::makeHandle<Lumen::Multicast::Fib::Status>("user");
    void write(const IpGenRouteKey& key, std::uint16_t mark) const {
        const auto route = State::makeHandle<Lumen::Multicast::Fib::Route>(key);
        route->versionIs(mark);
        table->routeIs(route);
    }
    static std::uint64_t markOf(const Handle<Lumen::Multicast::Fib::Route>& route) {
        return route->version();
    }
};

struct Row {
    IpGenRouteKey key;
    std::uint64_t mark;
    std::uint64_t serial = 0; // counts the rows that came
    bool operator==(const Row& other) const { return key == other.key && mark == other.mark; }
    // Table order: rows with a source first, each kind in order of arrival.
    std::pair<bool, std::uint64_t> place() const { return {!key.hasSource(), serial}; }
};
using Rows = std::vector<Row>;

// The matching rule for a request: zero stands for any address, prefix lengths count for exact equality
// alone.
bool matches(const IpGenRouteKey& route, IpAddr source, IpAddr group) {
    const bool exact = route == IpGenRouteKey::host(source, group);
    const bool starG = route.source.ipv4().isZero() && route.group.ipv4() == group;
    if (group.isZero())
        return starG || exact || route.source.ipv4() == source;
    if (source.isZero())
        return route.group.ipv4() == group || starG || exact;
    return starG || exact;
}

template <class Source>
class RandomTable {
  public:
    explicit RandomTable(std::uint32_t seed)
        : random_(seed) {}

    void change() {
        const unsigned action = pick(20);
        if (action < 9 || rows_.empty())
            write({prefix(0x0a000000), prefix(0xef010100)});
        else if (action < 13)
            write(any().key);
        else
            remove(any().key);
    }

    // A walk whose body changes the table: each row that was there when it began and stayed, once, in order.
    void changingWalk() {
        const std::uint64_t newest = lastSerial_;
        std::pair<bool, std::uint64_t> last;
        const auto next = [&] {
            return std::ranges::find_if(
                rows_, [&](const Row& row) { return row.place() > last && row.serial <= newest; });
        };
        source_.table->routeCollection().visit(nullptr, [&](const IpGenRouteKey& key, const auto& value) {
            const auto row = next();
            EXPECT_TRUE(row != rows_.end() && *row == (Row{key, Source::markOf(value)}));
            if (row == rows_.end())
                return false;
            last = row->place();
            if (pick(3) == 0)
                remove(IpGenRouteKey(key));
            for (unsigned changes = pick(3); changes > 0; --changes)
                change();
            return true;
        });
        ASSERT_EQ(next(), rows_.end());
    }

    void expectTableOrder() const {
        const auto& routes = std::as_const(*source_.table).routeCollection();
        ASSERT_EQ(collect([&](auto visit) { routes.visit(nullptr, visit); }), rows_);
        ASSERT_EQ(routes.size(), rows_.size());
        if (!rows_.empty()) {
            const std::size_t at = rows_.size() / 2;
            ASSERT_EQ(collect([&](auto visit) { routes.visit(&rows_[at].key, visit); }),
                      Rows(rows_.begin() + static_cast<long>(at) + 1, rows_.end()));
            ASSERT_EQ(Source::markOf(*routes.find(rows_[at].key)), rows_[at].mark);
        }
    }
    void expectCandidates(IpAddr source, IpAddr group) const {
        Rows literal;
        for (const Row& row : rows_)
            if (matches(row.key, source, group))
                literal.push_back(row);
        const auto& routes = source_.table->routeCollection();
        Rows found = collect([&](auto visit) { routes.storage().candidates(source, group, visit); });
        std::erase_if(found, [&](const Row& row) { return !matches(row.key, source, group); });
        ASSERT_EQ(found, literal) << source.stringValue() << " " << group.stringValue();
        if (!literal.empty()) { // and it stops when told to
            std::size_t visited = 0;
            routes.storage().candidates(source, group,
                                        [&](const IpGenRouteKey&, const auto&) { return ++visited < 1; });
            ASSERT_EQ(visited, 1U);
        }
    }
    void expectAllCandidates() const {
        for (std::uint32_t s = 0; s <= addresses; ++s) {
            for (std::uint32_t g = 0; g <= addresses; ++g) {
                if (s != 0 || g != 0) { // no request has neither
                    expectCandidates(s == 0 ? IpAddr() : IpAddr(0x0a000000 + s),
                                     g == 0 ? IpAddr() : IpAddr(0xef010100 + g));
                }
            }
        }
    }
    void removeAll() {
        source_.table->routeCollection().delAll();
        rows_.clear();
    }
    std::size_t size() const { return rows_.size(); }

  private:
    static constexpr std::uint32_t addresses = 5; // of each kind, and zero

    unsigned pick(unsigned below) { return std::uniform_int_distribution(0U, below - 1)(random_); }
    const Row& any() { return rows_[pick(static_cast<unsigned>(rows_.size()))]; }
    IpGenPrefix prefix(std::uint32_t base) {
        const std::uint32_t number = pick(addresses + 1);
        const std::uint8_t lengths[] = {32, 32, 32, 24, 0};
        return {IpAddr(number == 0 ? 0 : base + number), lengths[pick(5)]};
    }

    void write(const IpGenRouteKey& key) {
        const auto mark = static_cast<std::uint16_t>(pick(400));
        source_.write(key, mark);
        const auto found = find(key);
        if (found != rows_.end()) {
            found->mark = mark; // keeps its place
        } else {
            rows_.push_back({key, mark, ++lastSerial_});
            std::ranges::sort(rows_, {}, &Row::place);
        }
    }
    void remove(const IpGenRouteKey& key) {
        source_.table->routeDel(IpGenRouteKey(key));
        rows_.erase(find(key));
    }
    Rows::iterator find(const IpGenRouteKey& key) {
        return std::find_if(rows_.begin(), rows_.end(), [&](const Row& row) { return row.key == key; });
    }
    template <class Walk>
    static Rows collect(Walk walk) {
        Rows rows;
        walk([&](const IpGenRouteKey& key, const auto& value) {
            rows.push_back({key, Source::markOf(value)});
            return true;
        });
        return rows;
    }

    std::mt19937 random_;
    Source source_;
    Rows rows_; // in table order
    std::uint64_t lastSerial_ = 0;
};

template <class Source>
class CandidateChains : public ::testing::Test {};
using Sources = ::testing::Types<QuillSource, LumenSource>;
TYPED_TEST_SUITE(CandidateChains, Sources);

TYPED_TEST(CandidateChains, YieldWhatAWalkOfTheWholeTableWould) {
    const std::uint32_t seed = testSeed();
    SCOPED_TRACE(seedText(seed));
    RandomTable<TypeParam> table(seed);
    std::size_t largest = 0;
    for (int step = 0; step < 3000; ++step) {
        if (step % 50 == 49)
            table.changingWalk();
        else if (step % 1000 == 500)
            table.removeAll();
        else
            table.change();
        largest = std::max(largest, table.size());
        table.expectTableOrder();
        table.expectAllCandidates();
        if (this->HasFailure())
            FAIL() << "at step " << step;
    }
    EXPECT_GT(largest, 20U);
}

} // namespace
