// Reactors and nested state machines: what happens to them while they react.
#include "state/StateMachine.h"

#include <gtest/gtest.h>

#include <functional>
#include <utility>

namespace {

using State::Handle;

struct Input : State::Publisher {};

// What a test wants done within a reaction, and whether its machine is still there behind it.
struct Reaction {
    void operator()() const {
        if (body)
            body();
        EXPECT_EQ(ended, 0);
        ++finished;
    }
    static inline int ended = 0;
    static inline int finished = 0;
    std::function<void()> body;
};

// A machine with one reactor, as the top-level ones are built.
class Machine final : public State::StateMachine {
  public:
    Machine(const Handle<Input>& input, void* /*owner*/)
        : reactor(State::Reactor::of<&Machine::inputDispatch>(this, input, State::maskOf(1))) {}
    ~Machine() override { ++Reaction::ended; }
    void activeIs(bool active) { reactor.registeredIs(active); }
    void inputDispatch(const State::Notification& /*change*/) const { reaction(); }

    Reaction reaction;
    State::Reactor reactor;
};

class Nested final : public State::NestedStateMachine<Nested, Input, void, State::maskOf(1)> {
  public:
    Nested(Handle<const Input> input, void* owner)
        : NestedStateMachine(std::move(input), owner) {
        attach();
    }
    ~Nested() override { ++Reaction::ended; }
    void activeIs(bool active) { notificationActive_ = active; }
    void onAttribute(const State::Notification& /*change*/) const { reaction(); }

    Reaction reaction;
};

template <class M>
class Machines : public ::testing::Test {};
using Kinds = ::testing::Types<Machine, Nested>;
TYPED_TEST_SUITE(Machines, Kinds);

TYPED_TEST(Machines, ReactWhileActiveAndStayUntilTheReactionIsOver) {
    Reaction::ended = Reaction::finished = 0;
    const auto input = State::makeHandle<Input>();
    auto machine = State::makeHandle<TypeParam>(input, &Reaction::ended);
    input->publish(1);
    EXPECT_EQ(Reaction::finished, 0);
    machine->activeIs(true);
    input->publish(2); // not watched
    input->publish(1);
    EXPECT_EQ(Reaction::finished, 1);
    machine->reaction.body = [&] { machine.reset(); };
    input->publish(1);
    EXPECT_EQ(Reaction::finished, 2);
    EXPECT_EQ(Reaction::ended, 1);
    EXPECT_FALSE(input->hasSubscribers());
}

} // namespace
