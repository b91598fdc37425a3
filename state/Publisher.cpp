#include "state/Publisher.h"

#include "state/Fatal.h"

#include <algorithm>
#include <exception>
#include <new>

namespace State {

Publisher::~Publisher() {
    if (storage_ == Storage::many)
        Many::free(many_);
}

std::uint32_t Publisher::count() const {
    return storage_ == Storage::many ? many_->count : storage_ == Storage::one ? 1 : 0;
}

Publisher::Subscriber Publisher::subscriber(std::uint32_t position) const {
    return storage_ == Storage::many ? many_->items()[position]
                                     : Subscriber{one_.dispatch, one_.object, oneAttributes_};
}

// count() if it is not there.
std::uint32_t Publisher::positionOf(const void* subscriber, Dispatch dispatch) const {
    std::uint32_t at = 0;
    for (; at < count(); ++at) {
        const Subscriber each = this->subscriber(at);
        if (each.object == subscriber && each.dispatch == dispatch)
            break;
    }
    return at;
}

void Publisher::append(const Subscriber& subscriber) const {
    const std::uint32_t before = count();
    if (before == 0) {
        one_ = {.dispatch = subscriber.dispatch, .object = subscriber.object};
        oneAttributes_ = subscriber.attributes;
        storage_ = Storage::one;
        return;
    }
    if (storage_ == Storage::one || before == many_->capacity) {
        const std::uint32_t capacity = before * 2;
        Many* grown = Many::make(capacity, {.capacity = capacity, .count = before, .live = 0});
        for (std::uint32_t at = 0; at < before; ++at) {
            grown->items()[at] = this->subscriber(at);
            grown->live += grown->items()[at].dispatch != nullptr ? 1U : 0U;
        }
        if (storage_ == Storage::many)
            Many::free(many_);
        many_ = grown;
        storage_ = Storage::many;
    }
    many_->items()[many_->count++] = subscriber;
    ++many_->live;
}

void Publisher::subscribe(void* subscriber, Dispatch dispatch, AttributeMask attributes) const {
    if (positionOf(subscriber, dispatch) == count())
        append({.dispatch = dispatch, .object = subscriber, .attributes = attributes});
}

void Publisher::unsubscribe(const void* subscriber, Dispatch dispatch) const {
    const std::uint32_t at = positionOf(subscriber, dispatch);
    if (at == count())
        return;
    if (storage_ == Storage::one) {
        one_ = {};
    } else {
        many_->items()[at] = {};
        --many_->live;
    }
    if (depth_ == 0)
        sweep();
}

inline void Publisher::tell(Dispatch dispatch, void* subscriber, AttributeMask attributes,
                            const Notification& notification) {
    if (dispatch == nullptr || (attributes & maskOf(notification.attribute)) == 0)
        return;
    try {
        dispatch(subscriber, notification);
    } catch (const std::exception& exception) {
        fatalException(exception.what());
    } catch (...) {
        fatalException("an exception that is no std::exception");
    }
}

void Publisher::deliver(const Notification& notification) const {
    const Handle<const Publisher> keepAlive(this);
    ++depth_;
    if (storage_ == Storage::one) {
        tell(one_.dispatch, one_.object, oneAttributes_, notification);
    } else {
        const std::uint32_t end = many_->count;
        for (std::uint32_t i = 0; i < end; ++i) {
            const Subscriber& each = many_->items()[i]; // until one that comes moves them
            tell(each.dispatch, each.object, each.attributes, notification);
        }
    }
    if (--depth_ == 0)
        sweep();
}

void Publisher::sweep() const {
    if (storage_ == Storage::one) {
        storage_ = one_.dispatch == nullptr ? Storage::none : Storage::one;
        return;
    }
    if (storage_ == Storage::none || many_->live == many_->count)
        return;
    Subscriber* begin = many_->items();
    static_cast<void>(std::remove_if(begin, begin + many_->count, [](const Subscriber& subscriber) {
        return subscriber.dispatch == nullptr;
    }));
    many_->count = many_->live;
    if (many_->count == 0) {
        Many::free(many_);
        storage_ = Storage::none;
    }
}

} // namespace State
