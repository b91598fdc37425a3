// Damaged rows of a Quill table. Each read is made to fail in turn: the table's handler hears of it once, the
// row reads as the default item, and a pass over rows ends where a step of it fails.
#include "tests/nat/NatFixture.h"

#include <array>

namespace NatTest {

namespace {

class MrouteCorruption : public NatFixture {
  protected:
    void SetUp() override {
        if (lumen)
            GTEST_SKIP() << "only the table store reports corruption";
        requests->mrouteReqIs(request());
        requests->mrouteReqIs(request({.group = "239.2.2.2"}));
        routesAre("Ethernet1", "Ethernet2");
    }
    // One route for each request, index 7 and 8.
    void routesAre(std::string_view first, std::string_view second) {
        if (quillTables.empty())
            tableIs(3, plain);
        table()->routeIs(routeKey("10.0.0.1", "239.1.1.1"), {{7}});
        table()->routeIs(routeKey("10.0.0.1", "239.2.2.2"), {{8}});
        table()->oifIndexIntfIs(7, L3::IntfId(first));
        table()->oifIndexIntfIs(8, L3::IntfId(second));
    }
    Handle<QuillTable> table() { return quillTables[tableKey(3, plain)]; }
    std::string bothAnswers() { return answer() + answer({.group = "239.2.2.2"}); }
    // Corruptions that the handler heard of since the last call.
    std::uint64_t corruptions() {
        return table()->corruptions() - std::exchange(before_, table()->corruptions());
    }

  private:
    std::uint64_t before_ = 0;
};

TEST_F(MrouteCorruption, AReadThatFailsInARequestLeavesTheRest) {
    start();
    table()->routeIs(routeKey("10.0.0.1", "239.1.1.1"), {{7, 8}});
    const std::array<const char*, 4> outcomes{"{}", "{Ethernet2}", "{Ethernet1}", "{Ethernet1, Ethernet2}"};
    for (std::size_t reads = 0; reads < outcomes.size();
         ++reads) { // the row, the first index, the second, none
        table()->failReadAfter(reads);
        machine->handleMrouteReq(request());
        EXPECT_EQ(answer(), outcomes.at(reads)) << reads;
        EXPECT_EQ(corruptions(), reads < 3 ? 1U : 0U) << reads;
    }
    machine->handleMrouteReq(request());
    EXPECT_EQ(table()->lastCorruption(), "table static: a row is damaged");

    requests->mrouteReqIs(request({.group = "0.0.0.0"}));
    table()->failReadAfter(0);
    machine->handleMrouteReq(request({.group = "0.0.0.0"}));
    EXPECT_EQ(answer({.group = "0.0.0.0"}), "{Ethernet2}") << "one damaged row hides no other";
}

TEST_F(MrouteCorruption, AReadThatFailsInAnInterfaceUpdateEndsThePassOrDefaults) {
    start();
    struct Outcome {
        const char* answers;
        std::size_t updates; // how many routes were looked at
    };
    // By the read that fails: the interface; then for each of the two routes the step to it, its row, its
    // index.
    const std::array<Outcome, 8> outcomes{{{"{Ethernet1}{Ethernet2}", 0},
                                           {"{Ethernet1}{Ethernet2}", 0},
                                           {"none{Ethernet4}", 2},
                                           {"none{Ethernet4}", 2},
                                           {"{Ethernet3}{Ethernet2}", 1},
                                           {"{Ethernet3}none", 2},
                                           {"{Ethernet3}none", 2},
                                           {"{Ethernet3}{Ethernet4}", 2}}};
    std::uint16_t otherIndex = 20;
    for (std::size_t reads = 0; reads < outcomes.size(); ++reads) {
        routesAre("Ethernet1", "Ethernet2");
        machine->handleMrouteReq();
        machine->hasNotificationActiveIs(false);
        routesAre("Ethernet3", "Ethernet4");
        machine->hasNotificationActiveIs(true);
        traced();
        table()->failReadAfter(reads);
        table()->oifIndexIntfIs(otherIndex++, L3::IntfId("Ethernet1"));
        table()->failReadAfter(1000000);
        EXPECT_EQ(bothAnswers(), outcomes.at(reads).answers) << reads;
        EXPECT_EQ(corruptions(), reads < 7 ? 1U : 0U) << reads;
        const Lines lines = traced();
        EXPECT_EQ(countOf(lines, "handling update for mroute"), outcomes.at(reads).updates) << reads;
        EXPECT_EQ(countOf(lines, "handling update for oif"), reads == 0 ? 0U : 1U) << reads;
    }
}

TEST_F(MrouteCorruption, AReadThatFailsWhileATableComesIsHealedByTheSecondPass) {
    // The requests read 0 to 3, and 4 to 7 again with the table; the pass over the table reads 8 to 13, that
    // over its interfaces 14 to 19: for each route the step to it, its row, its index.
    for (std::size_t reads = 0; reads <= 20; ++reads) {
        answers = State::makeHandle<KestrelNat::NatMrouteResponseMap>("answers");
        table()->failReadAfter(reads);
        start();
        const std::string first = reads == 15 || reads == 16 ? "none" : "{Ethernet1}";
        const std::string second = reads == 18 || reads == 19 ? "none" : "{Ethernet2}";
        EXPECT_EQ(bothAnswers(), first + second) << reads;
        EXPECT_EQ(corruptions(), reads < 20 ? 1U : 0U) << reads;
    }
}

} // namespace

} // namespace NatTest
