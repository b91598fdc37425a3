// Reactors and state machines: objects that watch publishers and run a handler on each change.
//
// A StateMachine is a top-level one: it watches its inputs through Reactors, can be switched off
// (notification-active) and is retired once its destruction has begun. A NestedStateMachine is held in a
// collection of its owner, one per watched member, and watches one notifier. What a class does on re-pointing
// (`notifierIs`) and retiring (`retiredIs`) is written in the class, because the classes differ on purpose.
#pragma once

#include "state/Publisher.h"

namespace State {

/// One input of a state machine: registered, it calls `method` of the machine for the input's changes.
/// Detaches itself when it goes. A null input can't be registered and is skipped.
class Reactor {
  public:
    /// For changes of `attributes` of `input`: (machine->*method)(notification). The machine owns the reactor.
    template <auto method, class Machine>
    static Reactor of(Machine* machine, Handle<const Publisher> input, AttributeMask attributes) {
        return Reactor(std::move(input), machine, attributes,
                       [](void* subscriber, const Notification& change) {
                           const Handle<Machine> keepAlive(static_cast<Machine*>(subscriber));
                           (keepAlive.get()->*method)(change);
                       });
    }
    Reactor(const Reactor&) = delete;
    Reactor& operator=(const Reactor&) = delete;
    ~Reactor() { registeredIs(false); }

    bool registered() const { return registered_; }
    /// Attaches to or detaches from the input; an equal value does nothing.
    void registeredIs(bool registered);

  private:
    Reactor(Handle<const Publisher> input, void* machine, AttributeMask attributes, Dispatch dispatch)
        : input_(std::move(input))
        , machine_(machine)
        , dispatch_(dispatch)
        , attributes_(attributes) {}

    Handle<const Publisher> input_;
    void* machine_;
    Dispatch dispatch_;
    AttributeMask attributes_;
    bool registered_ = false;
};

/// Base of the top-level state machines. It is a publisher, because its collections announce changes as any
/// do.
class StateMachine : public Publisher {
  public:
    bool notificationActive() const { return notificationActive_; }
    /// True once the destruction has begun: dispatches do nothing from then on.
    bool retired() const { return retired_; }

  protected:
    bool notificationActive_ = false;
    bool retired_ = false;
};

/// Base of a nested state machine that watches a `Notifier` for `Owner` and is itself a `Machine`. The owner
/// pointer is plain; the owner clears it (`ownerDel`) before it goes. Changes reach Machine::onAttribute while
/// the machine is registered and notification-active; those missed meanwhile are lost.
template <class Machine, class Notifier, class Owner, AttributeMask watched>
class NestedStateMachine : public RefCounted {
  public:
    const Handle<const Notifier>& notifier() const { return notifier_; }
    Owner* owner() const { return owner_; }
    void ownerDel() { owner_ = nullptr; }

    bool notificationActive() const { return notificationActive_; }
    bool retired() const { return retired_; }

  protected:
    NestedStateMachine(Handle<const Notifier> notifier, Owner* owner)
        : notifier_(std::move(notifier))
        , owner_(owner) {}
    ~NestedStateMachine() override { detach(); }

    /// Registers with the notifier, if there is one.
    void attach() {
        if (notifier_)
            notifier_->subscribe(this, &dispatch, watched);
    }
    void detach() {
        if (notifier_)
            notifier_->unsubscribe(this, &dispatch);
    }
    /// Makes `notifier` the watched one, without registering yet.
    void repoint(Handle<const Notifier> notifier) {
        detach();
        notifier_ = std::move(notifier);
    }

    bool notificationActive_ = false;
    bool retired_ = false;

  private:
    static void dispatch(void* subscriber, const Notification& change) {
        const Handle<Machine> keepAlive(static_cast<Machine*>(static_cast<NestedStateMachine*>(subscriber)));
        if (keepAlive->notificationActive())
            keepAlive->onAttribute(change);
    }

    Handle<const Notifier> notifier_;
    Owner* owner_;
};

} // namespace State
