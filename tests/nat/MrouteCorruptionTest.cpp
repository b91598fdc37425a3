// Damaged rows of a Quill table. Each read is made to fail in turn: the table's handler hears of it once, the
// row reads as the default item, and a pass over rows ends where a step of it fails.
#include "tests/nat/NatFixture.h"

namespace NatTest {

namespace {

class MrouteCorruption : public NatFixture {
  protected:
    void SetUp() override {
        if (lumen)
            GTEST_SKIP() << "only the table store reports corruption";
        requests->mrouteReqIs(request());
        requests->mrouteReqIs(request({.source = "10.0.0.2"}));
        tableIs();
        routesAre("Ethernet1", "Ethernet2");
    }
    // One route for each request, index 7 and 8.
    void routesAre(std::string_view first, std::string_view second) {
        table()->routeIs(routeKey(), {{7}});
        table()->routeIs(routeKey("10.0.0.2"), {{8}});
        table()->oifIndexIntfIs(7, L3::IntfId(first));
        table()->oifIndexIntfIs(8, L3::IntfId(second));
    }
    Handle<QuillTable> table() { return quillTables[tableKey()]; }
    std::string bothAnswers() { return answer() + answer({.source = "10.0.0.2"}); }
    // Corruptions that the handler heard of since the last call.
    std::uint64_t corruptions() {
        return table()->corruptions() - std::exchange(before_, table()->corruptions());
    }

  private:
    std::uint64_t before_ = 0;
};

TEST_F(MrouteCorruption, AReadThatFailsInARequestLeavesTheRest) {
    start();
    table()->routeIs(routeKey(), {{7, 8}});
    std::uint64_t reads = 0; // before the one that fails: of the row, the first index, the second, none
    for (const char* outcome : {"{}", "{Ethernet2}", "{Ethernet1}", "{Ethernet1, Ethernet2}"}) {
        table()->failReadAfter(reads);
        machine->handleMrouteReq(request());
        EXPECT_EQ(answer(), outcome) << reads;
        EXPECT_EQ(corruptions(), reads++ < 3 ? 1U : 0U) << outcome;
    }
    machine->handleMrouteReq(request());
    EXPECT_EQ(table()->lastCorruption(), "table static: a row is damaged");

    const Ask anySource{.source = "0.0.0.0"};
    requests->mrouteReqIs(request(anySource));
    table()->failReadAfter(0);
    machine->handleMrouteReq(request(anySource));
    EXPECT_EQ(answer(anySource), "{Ethernet2}") << "one damaged row hides no other";
}

TEST_F(MrouteCorruption, AReadThatFailsInAnInterfaceUpdateEndsThePassOrDefaults) {
    start();
    // By the read that fails: the interface; then for each of the two routes the step to it, its row, its index.
    // With the number of routes that were looked at.
    std::uint64_t reads = 0;
    for (const auto& [outcome, updates] : {std::pair("{Ethernet1}{Ethernet2}", 0U),
                                           {"{Ethernet1}{Ethernet2}", 0U},
                                           {"none{Ethernet4}", 2U},
                                           {"none{Ethernet4}", 2U},
                                           {"{Ethernet3}{Ethernet2}", 1U},
                                           {"{Ethernet3}none", 2U},
                                           {"{Ethernet3}none", 2U},
                                           {"{Ethernet3}{Ethernet4}", 2U}}) {
        routesAre("Ethernet1", "Ethernet2");
        machine->handleMrouteReq();
        machine->hasNotificationActiveIs(false);
        routesAre("Ethernet3", "Ethernet4");
        machine->hasNotificationActiveIs(true);
        traced();
        table()->failReadAfter(reads);
        table()->oifIndexIntfIs(static_cast<std::uint16_t>(20 + reads), L3::IntfId("Ethernet1"));
        table()->failReadAfter(1'000'000);
        EXPECT_EQ(bothAnswers(), outcome) << reads;
        EXPECT_EQ(traced("handling update for mroute"), updates) << reads;
        EXPECT_EQ(corruptions(), reads++ < 7 ? 1U : 0U) << outcome;
    }
}

TEST_F(MrouteCorruption, AReadThatFailsWhileATableComesIsHealedByTheSecondPass) {
    // The requests read 0 to 3, and 4 to 7 again with the table; the pass over the table reads 8 to 13, that
    // over its interfaces 14 to 19: for each route the step to it, its row, its index.
    for (std::uint64_t reads = 0; reads <= 20; ++reads) {
        answers = makeHandle<KestrelNat::NatMrouteResponseMap>("answers");
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
