// What a plug-in sees of the stores: mounts of the state database, which the agent performs, and mounts of
// the shared-memory stores.
#include "state/EntityManager.h"
#include "state/Attribute.h"
#include "state/Collection.h"
#include "state/Errors.h"
#include "state/MounterBase.h"
#include "state/ShmEntityManager.h"
#include "state/ShmTable.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <utility>
#include <vector>

namespace EntityManagerTests {

using State::Handle;

class Box final : public State::Entity {
  public:
    static const State::EntityType& type() {
        static const State::EntityType made("EntityManagerTests::Box", &State::createEntity<Box>, {});
        return made;
    }
    const State::EntityType& entityType() const override { return type(); }
};
STATE_ENTITY_TYPE(Box);

class Sheet final : public State::ShmTable {
  public:
    explicit Sheet(std::string_view name)
        : ShmTable(name, "rows") {}
    static const State::EntityType& type() {
        static const State::EntityType made("EntityManagerTests::Sheet", &State::createEntity<Sheet>, {});
        return made;
    }
    const State::EntityType& entityType() const override { return type(); }
    STATE_SET(0, rows, std::string, 1U)
};
STATE_ENTITY_TYPE(Sheet);

struct Mounter final : KestrelLib::MounterBase {
    Mounter()
        : MounterBase("mounter") {}
    void doInit() override {}
    void doMountsComplete(const State::MountStatus&, const Handle<State::EntityManager>&) override {}
};

const std::string boxType = "EntityManagerTests::Box";
const std::string sheetType = "EntityManagerTests::Sheet";

class EntityManagerTest : public ::testing::Test {
  protected:
    Handle<State::Store> database = State::makeHandle<State::Store>("the state database");
    Handle<State::EntityManager> manager = State::makeHandle<State::EntityManager>(database);
    Handle<Mounter> mounter = State::makeHandle<Mounter>();
};

TEST_F(EntityManagerTest, AClosedMountGroupTakesNoMoreMounts) {
    State::MountGroup& group = manager->getMountGroup(*mounter);
    group.doMount({"a/b", boxType, State::mountFlags("r")});
    group.doClose(true, "text", std::chrono::seconds(5));
    EXPECT_THROW(group.doMount({"late", boxType, {}}), State::CreationError);
    EXPECT_THROW(State::mountFlags("rw"), State::ParseError);
    EXPECT_EQ(manager->getMountGroup(*mounter).mounts().size(), 1U);
    EXPECT_TRUE(manager->getMountGroup(*State::makeHandle<Mounter>()).mounts().empty());
}

TEST_F(EntityManagerTest, DeclaredPathsAreSeenOnceTheirMountsArePerformed) {
    const auto present = database->entityIs("present", boxType);
    const auto own = database->entityIs("own", boxType); // the agent's, which nobody mounts
    State::MountGroup& group = manager->getMountGroup(*mounter);
    for (const char* path : {"absent", "present", "other"})
        group.doMount({path, boxType, State::MountFlags::readOnly});
    database->entityIs("other", sheetType);
    EXPECT_EQ(manager->getEntity("present"), nullptr);

    const State::MountStatus status = manager->performMounts(*mounter);
    EXPECT_FALSE(status.ok());
    ASSERT_EQ(status.failures.size(), 2U);
    EXPECT_EQ(status.failures[0].path + ": " + status.failures[0].reason, "absent: nothing is there");
    EXPECT_EQ(status.failures[1].path + ": " + status.failures[1].reason,
              "other: a EntityManagerTests::Sheet is there, not a EntityManagerTests::Box");
    EXPECT_EQ(manager->entity<Box>("present"), present);
    EXPECT_EQ(manager->entity<Sheet>("present"), nullptr); // a wrong type reads as null
    EXPECT_EQ(manager->getEntity("own"), own);
    for (const char* path : {"absent", "other", "nowhere"})
        EXPECT_EQ(manager->getEntity(path), nullptr) << path;
}

TEST_F(EntityManagerTest, AStoreMakesAnEntityOnceAndRefusesAnotherTypeAtItsPath) {
    const auto box = database->entityIs("a/box", boxType);
    EXPECT_EQ(database->entityIs("a/box", boxType), box);
    EXPECT_EQ(State::handleCast<Sheet>(database->entityIs("a/sheet", sheetType))->tableName(), "sheet");
    try {
        database->entityIs("a/box", sheetType);
        FAIL();
    } catch (const State::CreationError& error) {
        EXPECT_STREQ(error.what(), "the state database holds a EntityManagerTests::Box at a/box, not a "
                                   "EntityManagerTests::Sheet");
    }
    EXPECT_THROW(database->entityIs("a/new", "EntityManagerTests::Nothing"), State::UnknownTypeError);
    std::vector<std::string> paths;
    for (const auto& item : database->entities())
        paths.push_back(item.key);
    EXPECT_EQ(paths, (std::vector<std::string>{"a/box", "a/sheet"}));
    database->entityIs("a/box", Handle<State::Entity>());
    EXPECT_EQ(database->entity("a/box"), nullptr);
}

class ShmEntityManagerTest : public ::testing::Test {
  protected:
    static State::TableMount table(std::uint32_t mode, std::uint32_t capacity) {
        return {.mode = mode, .collections = {{.name = "rows", .capacity = capacity, .reserve = 0}}};
    }

    Handle<State::Store> tables = State::makeHandle<State::Store>("the table store");
    Handle<State::Store> entities = State::makeHandle<State::Store>("the entity store");
    Handle<State::ShmEntityManager> manager = State::makeHandle<State::ShmEntityManager>(tables, entities);
};

TEST_F(ShmEntityManagerTest, OnlyAMountThatWritesMakesItsTable) {
    tables->entityIs("box", boxType);
    for (const auto& [path, mode] : {std::pair("written", 0U), {"read", 1}, {"family", 3}, {"box", 0}})
        manager->doMount(path, sheetType, table(mode, 2));
    manager->doMount("entity", boxType, State::EntityMount{});
    for (const char* path : {"read", "family", "entity", "box"}) { // at box is another
        EXPECT_EQ(manager->getEntity(path), nullptr) << path;
        EXPECT_TRUE(manager->mounted(path)) << path;
    }
    ASSERT_TRUE(manager->entity<Sheet>("written"));
    EXPECT_EQ(manager->entity<Sheet>("written")->capacity(), 2U);

    // Made by others later, they are seen: each in its own store, if it is of the mount's type.
    for (const char* path : {"read", "entity"})
        entities->entityIs(path, sheetType);
    EXPECT_EQ(manager->getEntity("read"), nullptr);
    EXPECT_EQ(manager->getEntity("entity"), nullptr);
    const auto read = tables->entityIs("read", sheetType);
    EXPECT_EQ(manager->getEntity("read"), read);
    tables->entityIs("not mounted", sheetType);
    EXPECT_EQ(manager->getEntity("not mounted"), nullptr);
}

TEST_F(ShmEntityManagerTest, UnmountingIsAbsoluteAndTakesNothingFromTheStore) {
    manager->doMount("sheet", sheetType, table(0, 1));
    manager->doMount("sheet", sheetType, table(3, 2)); // again: accepted, and the sizing stays
    const auto sheet = manager->entity<Sheet>("sheet");
    EXPECT_EQ(sheet->capacity(), 1U);
    sheet->rowsIs("row");

    manager->doUnmount("sheet");
    EXPECT_EQ(manager->getEntity("sheet"), nullptr);
    manager->doUnmount("sheet");
    manager->doUnmount("never mounted");

    manager->doMount("sheet", sheetType, table(1, 3));
    EXPECT_EQ(manager->entity<Sheet>("sheet"), sheet);
    EXPECT_TRUE(sheet->rowsHas("row"));
}

TEST_F(ShmEntityManagerTest, ReadingWhatIsNotMountedEndsTheProcess) {
    const auto box = entities->entityIs("box", boxType);
    const auto stranger = State::makeHandle<Box>();
    EXPECT_DEATH(manager->assertSafeToAccess(box.get(), "box"),
                 "unsafe access to EntityManagerTests::Box at \"box\": the path is not mounted");
    manager->doMount("box", boxType, State::EntityMount{});
    manager->assertSafeToAccess(box.get(), "box");
    EXPECT_DEATH(manager->assertSafeToAccess(stranger.get(), "box"),
                 "unsafe access to EntityManagerTests::Box at \"box\": another entity is mounted there");
    EXPECT_DEATH(manager->assertSafeToAccess(nullptr, "box"),
                 "unsafe access to entity at \"box\": there is no entity");
}

} // namespace EntityManagerTests
