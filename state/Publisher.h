// Change notification. A Publisher tells its subscribers, synchronously and in order of subscription, which
// attribute changed and for which key. Entities (state/Entity.h) are publishers; so is every other shared
// object that announces changes. Reactors (state/StateMachine.h) are the subscribers.
#pragma once

#include "state/Handle.h"
#include "state/OneThread.h"
#include "state/Trailing.h"

#include <cstddef>
#include <cstdint>

namespace State {

/// Number of an attribute within its type, from 0 in declaration order; at most 31.
using AttributeId = std::uint32_t;

class Publisher;

/// One change, as a subscriber hears it. `key` points to the member's key (null for a plain value attribute)
/// and is valid during the call alone; its type is the attribute's key type, so only the attribute's
/// subscribers read it.
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

/// Set of attributes a subscriber wants to hear of.
using AttributeMask = std::uint32_t;
constexpr AttributeMask allAttributes = ~AttributeMask{0};
constexpr AttributeMask maskOf(AttributeId attribute) {
    return AttributeMask{1} << attribute;
}

class Publisher : public RefCounted {
  public:
    /// Adds a subscriber; it hears changes after this one, in order of subscription. A (subscriber, dispatch)
    /// pair is added once at most. Subscribing does not change what the publisher holds, so it is open to
    /// readers.
    void subscribe(void* subscriber, Dispatch dispatch, AttributeMask attributes = allAttributes) const;
    /// Removes it; it is not called any more, not even by a delivery that is under way. Absent is no error.
    void unsubscribe(const void* subscriber, Dispatch dispatch) const;
    bool hasSubscribers() const {
        return storage_ == Storage::one ? one_.dispatch != nullptr
                                        : storage_ == Storage::many && many_->live != 0;
    }

    /// Announces a change that has been made already. Each subscriber that was there when the delivery began
    /// and is still there when its turn comes is called once; this object outlives the delivery. An exception
    /// that leaves a subscriber ends the process here, with its message.
    void publish(AttributeId attribute, const void* key = nullptr) const {
        assertOneThread();
        if (hasSubscribers())
            deliver(Notification{*this, attribute, key});
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
    struct ManyHeader {
        std::uint32_t capacity;
        std::uint32_t count; // gone ones included
        std::uint32_t live;  // without them
    };
    using Many = Trailing<ManyHeader, Subscriber>;
    // Most publishers have one subscriber, which stands in the object. Once there were two, all stand in an
    // array, until the last is gone.
    enum class Storage : std::uint8_t { none, one, many };
    struct One {
        Dispatch dispatch;
        void* object;
    };

    std::uint32_t count() const;
    Subscriber subscriber(std::uint32_t position) const;
    std::uint32_t positionOf(const void* subscriber, Dispatch dispatch) const;
    void append(const Subscriber& subscriber) const;
    static void tell(Dispatch dispatch, void* subscriber, AttributeMask attributes,
                     const Notification& notification);
    void deliver(const Notification& notification) const;
    void sweep() const;

    mutable AttributeMask oneAttributes_ = 0;
    union {
        mutable One one_ = {};
        mutable Many* many_;
    };
    mutable std::uint32_t depth_ = 0; // deliveries under way
    mutable Storage storage_ = Storage::none;
};

} // namespace State
