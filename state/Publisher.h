// Change notification. A Publisher tells its subscribers, synchronously and in order of subscription, which
// attribute changed and for which key. Entities (state/Entity.h) are publishers; so is every other shared
// object that announces changes. Reactors (state/StateMachine.h) are the subscribers.
#pragma once

#include "state/Handle.h"

#include <cstddef>
#include <cstdint>

namespace State {

// Number of an attribute within its type, from 0 in declaration order; at most 31.
using AttributeId = std::uint32_t;

class Publisher;

// One change, as a subscriber hears it. `key` points to the member's key (null for a plain value attribute)
// and is valid during the call alone; its type is the attribute's key type, so only the attribute's
// subscribers read it.
struct Notification {
    const Publisher& publisher;
    AttributeId attribute;
    const void* key;

    template <class Key>
    const Key& keyAs() const {
        return *static_cast<const Key*>(key);
    }
};

using Dispatch = void (*)(void* subscriber, const Notification& notification);

// Set of attributes a subscriber wants to hear of.
using AttributeMask = std::uint32_t;
constexpr AttributeMask allAttributes = ~AttributeMask{0};
constexpr AttributeMask maskOf(AttributeId attribute) {
    return AttributeMask{1} << attribute;
}

class Publisher : public RefCounted {
  public:
    // Adds a subscriber; it hears changes after this one, in order of subscription. A (subscriber, dispatch)
    // pair is added once at most. Subscribing does not change what the publisher holds, so it is open to
    // readers.
    void subscribe(void* subscriber, Dispatch dispatch, AttributeMask attributes = allAttributes) const;
    // Removes it; it is not called any more, not even by a delivery that is under way. Absent is no error.
    void unsubscribe(const void* subscriber, Dispatch dispatch) const;
    bool hasSubscribers() const { return live_ != 0; }

    // Announces a change that has been made already. Each subscriber that was there when the delivery began
    // and is still there when its turn comes is called once; this object outlives the delivery. An exception
    // that leaves a subscriber ends the process here, with its message.
    void publish(AttributeId attribute, const void* key = nullptr) const {
        if (live_ != 0) {
            deliver(Notification{*this, attribute, key});
        }
    }

  protected:
    Publisher() = default;
    ~Publisher() override;

  private:
    struct Subscriber {
        Dispatch dispatch; // null: gone, swept when no delivery is under way
        void* object;
        AttributeMask attributes;
    };

    void deliver(const Notification& notification) const;
    void sweep() const;

    mutable Subscriber* subscribers_ = nullptr;
    mutable std::uint32_t capacity_ = 0;
    mutable std::uint32_t count_ = 0; // entries in use, gone ones included
    mutable std::uint32_t live_ = 0;  // subscribers that are still there
    mutable std::uint32_t depth_ = 0; // deliveries under way
};

} // namespace State
