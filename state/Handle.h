// Reference-counted objects and the handles that own them.
//
// RefCounted is the root of everything that is shared: publishers, entities, state machines. A handle owns
// one reference; the object goes with its last handle. Counts are plain integers: the system has one thread.
// An object of the shared-memory entity store (state/ShmObject.h) counts, beside its references, the uses
// that its typed handles stand for. Read on with state/Publisher.h.
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>
#include <utility>

namespace State {

template <class T>
class Handle;

/// Root of shared objects. A new object carries one reference, which belongs to whoever made it
/// (makeHandle adopts it), so that a constructor may hand out handles to the object under construction.
class RefCounted {
  public:
    RefCounted(const RefCounted&) = delete;
    RefCounted& operator=(const RefCounted&) = delete;

    /// How many handles (and guards) hold the object now.
    std::uint32_t references() const { return references_; }

  protected:
    RefCounted() = default;
    virtual ~RefCounted() = default;

  private:
    template <class T>
    friend class Handle;

    void reference() const { ++references_; }
    void unreference() const {
        if (--references_ == 0) {
            references_ = 1; // the destruction's own: a handle made meanwhile does not end the object again
            delete this;
        }
    }

    mutable std::uint32_t references_ = 1;
};

/// An owning pointer to a RefCounted; null by default. Handle<const T> reads only. Converts to handles of
/// bases and from T to const T; handleCast goes the other way.
template <class T>
class Handle {
  public:
    constexpr Handle() noexcept = default;
    constexpr Handle(std::nullptr_t) noexcept {}
    /// Shares `object` (may be null).
    explicit Handle(T* object) noexcept
        : object_(object) {
        take();
    }
    Handle(const Handle& other) noexcept
        : object_(other.object_) {
        take();
    }
    Handle(Handle&& other) noexcept
        : object_(std::exchange(other.object_, nullptr)) {}
    template <class U>
    requires(std::is_convertible_v<U*, T*> && !std::is_same_v<U, T>) Handle(const Handle<U>& other)
    noexcept
        : object_(other.get()) {
        take();
    }
    ~Handle() { drop(); }

    /// Right for itself too: the copy holds the object while the names are swapped.
    Handle& operator=(const Handle& other) noexcept { // NOLINT(bugprone-unhandled-self-assignment)
        Handle(other).swap(*this);
        return *this;
    }
    Handle& operator=(Handle&& other) noexcept {
        Handle(std::move(other)).swap(*this);
        return *this;
    }

    /// Takes over the reference that a new object was born with.
    static Handle adopt(T* object) noexcept {
        Handle handle(object);
        object->unreference();
        return handle;
    }

    void swap(Handle& other) noexcept { std::swap(object_, other.object_); }
    void reset() noexcept { Handle().swap(*this); }

    T* get() const noexcept { return object_; }
    T* operator->() const noexcept { return object_; }
    T& operator*() const noexcept { return *object_; }
    explicit operator bool() const noexcept { return object_ != nullptr; }

    template <class U>
    friend bool operator==(const Handle& a, const Handle<U>& b) noexcept {
        return a.get() == b.get(); // NOLINT(clang-analyzer-cplusplus.Move): a moved-from handle is null
    }
    friend bool operator==(const Handle& a, std::nullptr_t) noexcept { return a.object_ == nullptr; }

  private:
    void take() const noexcept {
        if (object_ != nullptr) {
            object_->reference();
            if constexpr (requires { object_->useTaken(); })
                object_->useTaken();
        }
    }
    void drop() const noexcept {
        if (object_ != nullptr) {
            if constexpr (requires { object_->useReleased(); })
                object_->useReleased();
            object_->unreference();
        }
    }

    T* object_ = nullptr;
};

/// Makes a T and hands its first reference to the handle. Exceptions of the constructor pass through.
template <class T, class... Args>
Handle<T> makeHandle(Args&&... args) {
    return Handle<T>::adopt(new T(std::forward<Args>(args)...));
}

/// The same object as a T, or null when it is none (or `handle` is null).
template <class T, class U>
Handle<T> handleCast(const Handle<U>& handle) {
    return Handle<T>(dynamic_cast<T*>(handle.get()));
}

} // namespace State
