// The named operations of collections: what each changes, announces and hands back.
#include "state/Collection.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

namespace {

using State::Edited;
using State::Handle;

struct Object : State::RefCounted {};

// FNV-1a's published values.
static_assert(State::seedConstant("") == 0x811c9dc5U && State::seedConstant("foobar") == 0xbf9cf968U);

class Owner final : public State::Publisher {
  public:
    STATE_MAP(0, colour, std::string, unsigned, 1U)
    STATE_MAP(1, object, std::string, Handle<Object>, 2U)
    STATE_SET(2, name, std::string, 3U)
};

class CollectionTest : public ::testing::Test {
  protected:
    // "colour red", in the state after the change, for each notification.
    void listen() { owner->subscribe(this, &hear); }
    std::vector<std::string> colours() const {
        std::vector<std::string> list;
        for (const auto& [key, value] : owner->colour())
            list.push_back(key + "=" + std::to_string(value));
        return list;
    }
    std::vector<std::string> names() const {
        std::vector<std::string> list;
        for (const std::string& name : owner->name())
            list.push_back(name);
        return list;
    }

    Handle<Owner> owner = State::makeHandle<Owner>();
    std::vector<std::string> heard;
    std::function<void(const std::string&)> reaction;

  private:
    static void hear(void* self, const State::Notification& change) {
        auto& test = *static_cast<CollectionTest*>(self);
        const auto& key = change.keyAs<std::string>();
        const unsigned* value = test.owner->colourCollection().find(key);
        const bool isThere[] = {value != nullptr, test.owner->objectHas(key), test.owner->nameHas(key)};
        const std::string names[] = {"", "object ", "name "};
        std::string line = names[change.attribute] + key + (isThere[change.attribute] ? "" : " gone");
        if (change.attribute == Owner::colourAttribute && value != nullptr)
            line += "=" + std::to_string(*value);
        test.heard.push_back(line);
        if (test.reaction)
            test.reaction(line);
    }
};

using Lines = std::vector<std::string>;

TEST_F(CollectionTest, AMapAnnouncesWhatChangedAndNothingElse) {
    listen();
    owner->colourIs("red", 1);
    owner->colourIs("red", 1);
    owner->colourIs("blue", 2);
    owner->colourIs("red", 3); // keeps its place
    EXPECT_EQ(colours(), (Lines{"red=3", "blue=2"}));
    EXPECT_TRUE(owner->colourHas("blue") && !owner->colourHas("green"));
    EXPECT_EQ(owner->colour("red"), 3U);
    EXPECT_EQ(owner->colour("green"), 0U);

    EXPECT_EQ(owner->colourDel("green"), 0U);
    EXPECT_EQ(owner->colourDel("red"), 3U);
    owner->colourIs("red", 0); // a default is a value; added again, it stands last
    EXPECT_EQ(colours(), (Lines{"blue=2", "red=0"}));
    EXPECT_EQ(heard, (Lines{"red=1", "blue=2", "red=3", "red gone", "red=0"}));
}

TEST_F(CollectionTest, ANullHandleRemovesAndTheOldOneIsHandedBack) {
    const auto first = State::makeHandle<Object>();
    listen();
    for (const Handle<Object>& object : {Handle<Object>(), first, first, State::makeHandle<Object>(), first})
        owner->objectIs("o", object);
    EXPECT_EQ(owner->objectDel("o"), first);
    EXPECT_EQ(owner->objectDel("o"), nullptr);
    owner->objectIs("o", first);
    owner->objectIs("o", nullptr);
    EXPECT_EQ(heard,
              (Lines{"object o", "object o", "object o", "object o gone", "object o", "object o gone"}));
    EXPECT_EQ(first->references(), 1U);
}

TEST_F(CollectionTest, ASetAnnouncesMembersThatComeAndGo) {
    listen();
    owner->nameIs("a");
    owner->nameIs("a");
    owner->nameIs("b");
    EXPECT_TRUE(owner->nameDel("a"));
    EXPECT_FALSE(owner->nameDel("a"));
    owner->nameIs("a");
    EXPECT_EQ(names(), (Lines{"b", "a"}));
    EXPECT_EQ(heard, (Lines{"name a", "name b", "name a gone", "name a"}));
}

TEST_F(CollectionTest, DelAllIsQuietWithoutSubscribersAndElseTellsOfEachMember) {
    const auto fill = [&] {
        for (const char* each : {"a", "b", "c"}) {
            owner->nameIs(each);
            owner->colourIs(each, 7);
        }
    };
    fill();
    owner->nameDelAll();
    owner->colourDelAll();
    EXPECT_TRUE(colours().empty() && names().empty());
    fill();
    listen();
    reaction = [&](const std::string& line) {
        if (line == "name b gone") {
            EXPECT_EQ(names(), Lines{"c"});
            owner->nameIs("d"); // what comes during it stays
        }
    };
    owner->nameDelAll();
    owner->colourDelAll();
    EXPECT_EQ(heard,
              (Lines{"name a gone", "name b gone", "name d", "name c gone", "a gone", "b gone", "c gone"}));
    EXPECT_EQ(names(), Lines{"d"});
    EXPECT_TRUE(colours().empty());
}

TEST_F(CollectionTest, EditChangesInPlaceAndSaysWhatBecameOfTheValue) {
    auto& collection = owner->colourCollection();
    const auto edit = [&](const char* key, unsigned value, Edited edited) {
        collection.edit(key, [&](unsigned& in) {
            in = value;
            return edited;
        });
    };
    listen();
    edit("red", 0, Edited::remove); // absent before and after
    edit("red", 1, Edited::changed);
    edit("red", 1, Edited::unchanged);
    edit("red", 2, Edited::changed);
    edit("blue", 0, Edited::unchanged); // inserted with its default
    edit("red", 0, Edited::remove);
    EXPECT_EQ(heard, (Lines{"red=1", "red=2", "blue=0", "red gone"}));
    EXPECT_EQ(colours(), Lines{"blue=0"});
}

// A key may be the member's own, and a reaction may change the collection again.
TEST_F(CollectionTest, AWalkMayRemoveByTheMembersOwnKeyWhileReadersReact) {
    for (const char* each : {"a", "b", "c", "d"}) {
        owner->colourIs(each, 1);
        owner->nameIs(each);
    }
    reaction = [&](const std::string& line) {
        if (line == "a gone") {
            owner->colourDel("c");
            owner->colourIs("e", 1);
        }
    };
    listen();
    Lines visited;
    for (const auto& [key, value] : owner->colour()) {
        visited.push_back(key);
        owner->colourDel(key);
    }
    for (const std::string& key : owner->name())
        owner->nameDel(key);
    EXPECT_EQ(visited, (Lines{"a", "b", "d"}));
    EXPECT_EQ(colours(), Lines{"e=1"});
    EXPECT_TRUE(names().empty());
    EXPECT_EQ(heard, (Lines{"a gone", "c gone", "e=1", "b gone", "d gone", "name a gone", "name b gone",
                            "name c gone", "name d gone"}));

    const std::string far(40, 'f'); // outside a walk the member goes at once, and its key with it
    const std::string* own = nullptr;
    heard.clear();
    owner->colourIs(far, 1);
    for (const auto& entry : owner->colour())
        own = &entry.key;
    owner->colourDel(*own);
    owner->nameIs(far);
    for (const std::string& key : owner->name())
        own = &key;
    owner->nameDel(*own);
    EXPECT_EQ(heard, (Lines{far + "=1", far + " gone", "name " + far, "name " + far + " gone"}));
}

} // namespace
