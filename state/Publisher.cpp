#include "state/Publisher.h"

#include "state/Fatal.h"

#include <algorithm>
#include <exception>

namespace State {

Publisher::~Publisher() {
    delete[] subscribers_;
}

void Publisher::subscribe(void* subscriber, Dispatch dispatch, AttributeMask attributes) const {
    for (std::uint32_t i = 0; i < count_; ++i) {
        if (subscribers_[i].object == subscriber && subscribers_[i].dispatch == dispatch) {
            return;
        }
    }
    if (count_ == capacity_) {
        const std::uint32_t grown = capacity_ == 0 ? 1 : capacity_ * 2;
        auto* moved = new Subscriber[grown];
        std::copy_n(subscribers_, count_, moved);
        delete[] subscribers_;
        subscribers_ = moved;
        capacity_ = grown;
    }
    subscribers_[count_++] = Subscriber{dispatch, subscriber, attributes};
    ++live_;
}

void Publisher::unsubscribe(const void* subscriber, Dispatch dispatch) const {
    for (std::uint32_t i = 0; i < count_; ++i) {
        if (subscribers_[i].object == subscriber && subscribers_[i].dispatch == dispatch) {
            subscribers_[i].dispatch = nullptr;
            subscribers_[i].object = nullptr;
            --live_;
            if (depth_ == 0) {
                sweep();
            }
            return;
        }
    }
}

void Publisher::deliver(const Notification& notification) const {
    const Handle<const Publisher> keepAlive(this);
    const std::uint32_t end = count_;
    ++depth_;
    for (std::uint32_t i = 0; i < end; ++i) {
        // By value: a subscriber that comes may move the array.
        const Subscriber subscriber = subscribers_[i];
        if (subscriber.dispatch == nullptr || (subscriber.attributes & maskOf(notification.attribute)) == 0) {
            continue;
        }
        try {
            subscriber.dispatch(subscriber.object, notification);
        } catch (const std::exception& exception) {
            fatalException(exception.what());
        } catch (...) {
            fatalException("an exception that is no std::exception");
        }
    }
    if (--depth_ == 0 && live_ != count_) {
        sweep();
    }
}

void Publisher::sweep() const {
    auto* end = std::remove_if(subscribers_, subscribers_ + count_,
                               [](const Subscriber& subscriber) { return subscriber.dispatch == nullptr; });
    count_ = static_cast<std::uint32_t>(end - subscribers_);
    if (count_ == 0) {
        delete[] subscribers_;
        subscribers_ = nullptr;
        capacity_ = 0;
    }
}

} // namespace State
