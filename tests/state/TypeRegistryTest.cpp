// Creation by type name: arguments are held against the factory's own parameters.
#include "state/TypeRegistry.h"

#include "state/Entity.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

namespace {

using State::Argument;
using State::Handle;
using Arguments = std::vector<Argument>;
using Object = Handle<const State::RefCounted>;

struct Input : State::RefCounted {};
struct Other : State::RefCounted {};

struct Thing : State::RefCounted {
    std::string name;
    Handle<const Input> readOnly;
    Handle<Input> writable;
};

Handle<Thing> thingFactory(std::string_view name, Handle<const Input> read, Handle<Input> written) {
    if (name.empty())
        throw State::RangeError("a thing needs a name");
    auto thing = State::makeHandle<Thing>();
    thing->name = name;
    thing->readOnly = std::move(read);
    thing->writable = std::move(written);
    return thing;
}

Handle<Other> otherFactory() {
    return State::makeHandle<Other>();
}

STATE_FACTORY("TypeRegistryTest::Thing", &otherFactory);
STATE_FACTORY("TypeRegistryTest::Other", &otherFactory);

TEST(TypeRegistry, MakesWhatTheLatestFactoryOfTheNameMakes) {
    State::registerFactory("TypeRegistryTest::Thing", &thingFactory);
    const auto types = State::creatableTypes();
    EXPECT_EQ(std::count(types.begin(), types.end(), "TypeRegistryTest::Thing"), 1);
    for (const Handle<Input>& input : {State::makeHandle<Input>(), Handle<Input>()}) {
        const auto made = State::handleCast<Thing>(State::createByTypeName(
            "TypeRegistryTest::Thing", Arguments{"one", Object(input), Object(input)}));
        ASSERT_TRUE(made);
        EXPECT_EQ(made->references(), 1U);
        EXPECT_TRUE(made->name == "one" && made->readOnly == input && made->writable == input);
    }
}

TEST(TypeRegistry, RefusesUnknownNamesAndArgumentsThatDoNotFit) {
    State::registerFactory("TypeRegistryTest::Thing", &thingFactory);
    const Argument input = Object(State::makeHandle<Input>());
    const Argument other = Object(State::makeHandle<Other>());
    const std::string wrongType = "TypeRegistryTest::Thing: argument ";
    struct Case {
        std::string type;
        Arguments arguments;
        std::string text;
    };
    const Case cases[] = {
        {"Nothing", {}, "no type \"TypeRegistryTest::Nothing\" is registered"},
        {"Other", {"a", "b"}, "TypeRegistryTest::Other takes 0 arguments, not 2: \"a\", \"b\""},
        {"Thing", {}, "TypeRegistryTest::Thing takes 3 arguments, not 0"},
        {"Thing", {"one", input}, "TypeRegistryTest::Thing takes 3 arguments, not 2: \"one\", \"an object\""},
        {"Thing", {input, input, input}, wrongType + "1 is of the wrong type"},
        {"Thing", {"one", other, input}, wrongType + "2 is of the wrong type"},
        {"Thing", {"one", input, "three"}, wrongType + "3 is of the wrong type"},
        {"Thing", {"", input, input}, "a thing needs a name"}, // the type's own
    };
    for (const auto& [type, arguments, text] : cases) {
        try {
            State::createByTypeName("TypeRegistryTest::" + type, arguments);
            ADD_FAILURE() << text;
        } catch (const State::Error& error) {
            EXPECT_EQ(error.what(), text);
        }
    }
}

} // namespace
