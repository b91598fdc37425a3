// Handles: when an object goes, and what its use count says meanwhile.
#include "state/Handle.h"
#include "state/ShmObject.h"

#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>
#include <utility>

namespace {

using State::Handle;

struct Base : State::RefCounted {};

// Counts how many there are, and runs what a test wants done while it goes.
struct Object : Base {
    static inline int alive = 0;
    std::function<void(Object&)> onEnd;

    Object() { ++alive; }
    ~Object() override {
        if (onEnd)
            onEnd(*this);
        --alive;
    }
};

struct Unfinished : Object {
    Unfinished() { throw std::runtime_error("no"); }
};

struct HandsItselfOut : Object {
    HandsItselfOut() {
        const Handle<const Object> copy(this);
        EXPECT_EQ(references(), 2U);
    }
};

struct Fib : Base, State::ShmObject {};

TEST(Handle, TheObjectGoesWithItsLastHandle) {
    auto first = State::makeHandle<Object>();
    EXPECT_EQ(first->references(), 1U);
    Handle<const Base> second = first; // to a base, and to read-only
    EXPECT_EQ(first->references(), 2U);
    Handle<Object> third = std::move(first);
    EXPECT_TRUE(first == nullptr); // NOLINT(bugprone-use-after-move): a handle moved from holds nothing
    EXPECT_EQ(third->references(), 2U);
    EXPECT_TRUE(second == third);
    const Handle<Object>& same = third;
    third = same;
    EXPECT_EQ(third->references(), 2U);
    third.reset();
    EXPECT_EQ(Object::alive, 1);
    second = Handle<const Base>();
    EXPECT_EQ(Object::alive, 0);
}

TEST(Handle, AConstructorMayHandOutHandlesAndFailAndADestructorMayMakeThem) {
    EXPECT_EQ(State::makeHandle<HandsItselfOut>()->references(), 1U);
    EXPECT_THROW(State::makeHandle<Unfinished>(), std::runtime_error);
    EXPECT_EQ(Object::alive, 0);
    auto object = State::makeHandle<Object>();
    int ends = 0;
    object->onEnd = [&](Object& self) {
        ++ends;
        const Handle<Object> first(&self);
        const Handle<Base> second = first;
    };
    object.reset();
    EXPECT_EQ(ends, 1);
    EXPECT_EQ(Object::alive, 0);
}

TEST(Handle, TypedHandlesToAnEntityOfTheEntityStoreAreUses) {
    const Handle<Base> store = State::makeHandle<Fib>(); // the store's own is none
    auto user = State::handleCast<Fib>(store);
    EXPECT_EQ(user->useCount(), 1U);
    {
        const Handle<const Fib> reader = user;
        Handle<Fib> moved = std::move(user);
        EXPECT_EQ(reader->useCount(), 2U);
        user = std::move(moved);
    }
    EXPECT_EQ(user->useCount(), 1U);
    Fib& fib = *user;
    user.reset();
    EXPECT_EQ(fib.useCount(), 0U);
}

} // namespace
