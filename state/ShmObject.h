// Use counts of objects in the shared-memory entity store: mixed into an entity type, it makes every typed
// handle to that entity (Handle<T>, Handle<const T>) stand for one use, released with the handle. Handles to a
// base (Handle<Entity>), as the store's own, keep the object but count for no use. The store shows the counts to
// operators; it never takes an entity away under a user.
#pragma once

#include <cstdint>

namespace State {

class ShmObject {
  public:
    /// Typed handles that hold the object now.
    std::uint32_t useCount() const { return uses_; }

    /// Called by handles only.
    void useTaken() const { ++uses_; }
    void useReleased() const { --uses_; }

  protected:
    ~ShmObject() = default;

  private:
    mutable std::uint32_t uses_ = 0;
};

} // namespace State
