// Reactors and nested state machines: what happens to them while they react.
#include "state/StateMachine.h"

#include <gtest/gtest.h>

#include <functional>
#include <vector>

namespace {

using State::Handle;

struct Input : State::Publisher {};

// A machine with one reactor, as the top-level ones are built.
class Machine final : public State::StateMachine {
  public:
    explicit Machine(const Handle<Input>& input)
        : reactor(State::Reactor::of<&Machine::inputDispatch>(this, input, State::maskOf(1))) {}
    ~Machine() override { ++ended; }

    void inputDispatch(const State::Notification& /*change*/) const {
        reaction();
        ++finished; // a machine that its reaction let go is still there
    }

    static inline int ended = 0;
    static inline int finished = 0;
    std::function<void()> reaction;
    State::Reactor reactor;
};

TEST(Reactor, KeepsItsMachineWhileItReacts) {
    const auto input = State::makeHandle<Input>();
    auto machine = State::makeHandle<Machine>(input);
    machine->reactor.registeredIs(true);
    machine->reaction = [&] { machine.reset(); };
    Machine::ended = Machine::finished = 0;
    input->publish(1);
    EXPECT_EQ(Machine::finished, 1);
    EXPECT_EQ(Machine::ended, 1);
}

struct Owner {
    std::vector<State::AttributeId> heard;
};

class Nested final : public State::NestedStateMachine<Nested, Input, Owner, State::maskOf(1)> {
  public:
    Nested(Handle<const Input> input, Owner* owner)
        : NestedStateMachine(std::move(input), owner) {
        attach();
    }
    void hasNotificationActiveIs(bool active) { notificationActive_ = active; }
    void onAttribute(const State::Notification& change) {
        if (reaction)
            reaction();
        if (owner() != nullptr)
            owner()->heard.push_back(change.attribute);
    }
    std::function<void()> reaction;
};

TEST(NestedStateMachine, OutlivesItsOwnerAndItsLastHandleWhileItReacts) {
    Owner owner;
    const auto input = State::makeHandle<Input>();
    auto nested = State::makeHandle<Nested>(input, &owner);
    nested->hasNotificationActiveIs(true);
    nested->reaction = [&] { nested.reset(); };
    input->publish(1);
    EXPECT_EQ(owner.heard, std::vector<State::AttributeId>{1});
    EXPECT_FALSE(input->hasSubscribers());

    nested = State::makeHandle<Nested>(input, &owner);
    nested->hasNotificationActiveIs(true);
    nested->ownerDel();
    input->publish(1);
    EXPECT_EQ(owner.heard, std::vector<State::AttributeId>{1});
}

} // namespace
