// What shared-memory tables do when they are full and when their memory is damaged.
#include "records/MrouteGroup.h"
#include "state/Attribute.h"
#include "state/Errors.h"
#include "state/Mount.h"
#include "state/Trace.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using KestrelCommon::MrouteGroup::MgroupColl;
using KestrelCommon::MrouteGroup::MrouteColl;
using KestrelCommon::MrouteGroup::MrouteItem;
using KestrelL3::IpMcastKey;

IpMcastKey row(std::uint16_t vlan) {
    return {3, L3::IpAddr("10.0.0.1"), L3::IpAddr("239.1.1.1"), vlan};
}
std::string lastTrace() {
    return State::traceRecordsLast(1).back().message;
}
State::TableMount sized(const std::string& collection, std::uint32_t capacity) {
    return {.mode = 0, .collections = {{.name = collection, .capacity = capacity, .reserve = 0}}};
}

TEST(ShmTables, AFullOneRefusesNewRowsAndKeepsTheOthers) {
    const auto config = State::makeHandle<MrouteColl>("config");
    config->mroutesIs(MrouteItem(row(1)));
    config->sizingIs(sized("mroutes", 3));
    config->sizingIs(sized("others", 1)); // not its collection
    for (const std::uint16_t vlan : std::vector<std::uint16_t>{2, 3, 4, 4, 1, 2})
        config->mroutesIs(MrouteItem(row(vlan)));
    EXPECT_EQ(config->mroutesCollection().size(), 3U);
    EXPECT_FALSE(config->mroutesCollection().has(row(4)));
    EXPECT_EQ(config->refused(), 2U); // rewriting a row that is there is none
    EXPECT_EQ(lastTrace(), "refuse table=config is full, capacity=3 refused=2");

    // Who writes by reflection is held to it too, and sees that nothing changed.
    const State::Attribute& mroutes = *config->entityType().attribute("mroutes");
    const State::Datum fourth = State::toDatum(row(4));
    EXPECT_FALSE(mroutes.set(*config, &fourth, nullptr));
    EXPECT_EQ(config->refused(), 3U);
    config->mroutesDel(row(1));
    EXPECT_TRUE(mroutes.set(*config, &fourth, nullptr));

    const auto unlimited = State::makeHandle<MrouteColl>("config");
    for (std::uint16_t vlan = 0; vlan < 4095; ++vlan)
        unlimited->mroutesIs(MrouteItem(row(vlan)));
    EXPECT_EQ(unlimited->mroutesCollection().size(), 4095U);
}

TEST(ShmTables, ADamagedRowRaisesAtTheReadThatMeetsIt) {
    const auto status = State::makeHandle<MgroupColl>("status");
    status->mgroupsIs(row(1), {.groupId = 17});
    status->failReadAfter(2);
    EXPECT_EQ(status->mgroup(row(1))->groupId(), 17U);
    EXPECT_FALSE(status->mgroup(row(2)));
    try {
        status->mgroup(row(1));
        FAIL();
    } catch (const State::CorruptionError& error) {
        EXPECT_STREQ(error.what(), "table status: a row is damaged");
        EXPECT_EQ(status->corruptions(), 0U); // the reader tells the handler
        status->doCorruptionDetected(error.what());
    }
    EXPECT_EQ(status->mgroup(row(1))->key(), row(1));
    EXPECT_EQ(status->mgroup(row(1))->groupId(), 17U);
    EXPECT_EQ(status->corruptions(), 1U);
    EXPECT_EQ(status->lastCorruption(), "table status: a row is damaged");
    EXPECT_EQ(lastTrace(), "doCorruptionDetected table=status table status: a row is damaged");
    EXPECT_EQ(KestrelCommon::MrouteGroup::MgroupItem().groupId(), 0U); // what stands in for it
}

} // namespace
