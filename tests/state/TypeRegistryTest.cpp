// Creation by type name: arguments are held against the factory's own parameters.
#include "state/TypeRegistry.h"

#include "state/Entity.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

namespace {

using State::Argument;
using State::Handle;
using Arguments = std::vector<Argument>;

struct Input : State::RefCounted {
    int writes = 0;
};
struct Other : State::RefCounted {};

struct Thing : State::RefCounted {
    Thing(std::string_view given, Handle<const Input> read, Handle<Input> written)
        : name(given)
        , readOnly(std::move(read))
        , writable(std::move(written)) {}
    std::string name;
    Handle<const Input> readOnly;
    Handle<Input> writable;
};

Handle<Thing> thingFactory(std::string_view name, Handle<const Input> read, Handle<Input> written) {
    if (name.empty()) {
        throw State::RangeError("a thing needs a name");
    }
    return State::makeHandle<Thing>(name, std::move(read), std::move(written));
}

Handle<Other> otherFactory() {
    return State::makeHandle<Other>();
}

STATE_FACTORY("TypeRegistryTest::Thing", &thingFactory);
STATE_FACTORY("TypeRegistryTest::Other", &otherFactory);

Argument object(const Handle<const State::RefCounted>& handle) {
    return handle;
}

std::string refusal(std::string_view typeName, const Arguments& arguments) {
    try {
        State::createByTypeName(typeName, arguments);
    } catch (const State::Error& error) {
        return error.what();
    }
    return "";
}

TEST(TypeRegistry, MakesWhatItsFactoryMakes) {
    const auto input = State::makeHandle<Input>();
    const auto made = State::handleCast<Thing>(
        State::createByTypeName("TypeRegistryTest::Thing", Arguments{"one", object(input), object(input)}));
    ASSERT_TRUE(made);
    EXPECT_EQ(made->references(), 1U);
    EXPECT_EQ(made->name, "one");
    EXPECT_TRUE(made->readOnly == input && made->writable == input);

    const auto bare = State::handleCast<Thing>(
        State::createByTypeName("TypeRegistryTest::Thing", Arguments{"two", object({}), object({})}));
    EXPECT_TRUE(bare && !bare->readOnly && !bare->writable);
    EXPECT_TRUE(State::handleCast<Other>(State::createByTypeName("TypeRegistryTest::Other", {})));
}

TEST(TypeRegistry, RefusesArgumentsThatAreTooManyTooFewOrOfAnotherType) {
    const Argument input = object(State::makeHandle<Input>());
    const Argument other = object(State::makeHandle<Other>());
    EXPECT_EQ(refusal("TypeRegistryTest::Other", {"a", "b"}),
              "TypeRegistryTest::Other takes 0 arguments, not 2: \"a\", \"b\"");
    EXPECT_EQ(refusal("TypeRegistryTest::Thing", {"one", input}),
              "TypeRegistryTest::Thing takes 3 arguments, not 2: \"one\", \"an object\"");
    EXPECT_EQ(refusal("TypeRegistryTest::Thing", {input, input, input}),
              "TypeRegistryTest::Thing: argument 1 is of the wrong type");
    EXPECT_EQ(refusal("TypeRegistryTest::Thing", {"one", other, input}),
              "TypeRegistryTest::Thing: argument 2 is of the wrong type");
    EXPECT_EQ(refusal("TypeRegistryTest::Thing", {"one", input, "three"}),
              "TypeRegistryTest::Thing: argument 3 is of the wrong type");
    EXPECT_EQ(refusal("TypeRegistryTest::Thing", {"", input, input}),
              "a thing needs a name"); // the type's own
}

TEST(TypeRegistry, RefusesNamesThatNobodyRegistered) {
    EXPECT_THROW(State::createByTypeName("TypeRegistryTest::Nothing", {}), State::UnknownTypeError);
    EXPECT_EQ(refusal("TypeRegistryTest::Nothing", {}),
              "no type \"TypeRegistryTest::Nothing\" is registered");
    const auto types = State::creatableTypes();
    EXPECT_EQ(std::count(types.begin(), types.end(), "TypeRegistryTest::Thing"), 1);
}

TEST(TypeRegistry, ASecondRegistrationOfANameReplacesTheFirst) {
    State::registerFactory("TypeRegistryTest::Replaced", &otherFactory);
    State::registerFactory("TypeRegistryTest::Replaced", &thingFactory);
    EXPECT_TRUE(State::handleCast<Thing>(
        State::createByTypeName("TypeRegistryTest::Replaced", Arguments{"one", object({}), object({})})));
    const auto types = State::creatableTypes();
    EXPECT_EQ(std::count(types.begin(), types.end(), "TypeRegistryTest::Replaced"), 1);
}

} // namespace
