// Delivery of changes: to whom, in which order, and what subscribers may do to the publisher from inside it.
#include "state/Publisher.h"

#include "tests/TestSeed.h"

#include <gtest/gtest.h>

#include <array>
#include <functional>
#include <map>
#include <random>
#include <stdexcept>
#include <thread>
#include <vector>

namespace {

using State::Handle;
using State::Notification;

struct Source : State::Publisher {
    static inline int alive = 0;
    Source() { ++alive; }
    ~Source() override { --alive; }
};

struct Subscriber {
    std::function<void(const Notification&)> body;
    static void dispatch(void* self, const Notification& change) {
        static_cast<Subscriber*>(self)->body(change);
    }
    static void other(void*, const Notification&) {}
};

TEST(Publisher, LivesUntilItsOwnDeliveryIsOver) {
    auto source = State::makeHandle<Source>();
    unsigned heard = 0;
    Subscriber first{[&](const Notification&) { source.reset(); }};
    Subscriber second{[&](const Notification&) { heard += Source::alive == 1 ? 1 : 0; }};
    source->subscribe(&first, &Subscriber::dispatch);
    source->subscribe(&second, &Subscriber::dispatch);
    const Source* held = source.get();
    held->publish(0);
    EXPECT_EQ(heard, 1U);
    EXPECT_EQ(Source::alive, 0);
}

// Random subscribers that come, go and publish from inside delivery. Each subscription has a serial number; a
// delivery must reach, in ascending order, exactly those that want to hear of the attribute, were there when it
// began and are still there when it reaches them.
class RandomDelivery {
  public:
    explicit RandomDelivery(std::uint32_t seed)
        : random_(seed) {
        for (Subscriber& subscriber : subscribers_)
            subscriber.body = [this, &subscriber](const Notification& change) { heard(subscriber, change); };
    }

    void round() {
        act(0);
        publish(0);
        EXPECT_EQ(source_->hasSubscribers(), !subscribed_.empty());
    }

  private:
    struct Subscription {
        unsigned serial;
        State::AttributeMask mask;
    };
    struct Delivery {
        State::AttributeId attribute;
        unsigned depth;
        unsigned newest;   // subscription when it began
        unsigned last = 0; // that it reached
    };

    unsigned pick(unsigned below) { return std::uniform_int_distribution(0U, below - 1)(random_); }

    void act(unsigned depth) {
        for (unsigned actions = pick(4); actions > 0; --actions) {
            Subscriber& subscriber = subscribers_[pick(9)];
            const State::AttributeMask mask = std::array{State::allAttributes, State::maskOf(31)}.at(pick(2));
            const unsigned action = pick(10);
            if (action < 2 && depth < 3) {
                publish(depth + 1);
            } else if (action == 2) {
                source_->unsubscribe(&subscriber, &Subscriber::other); // which nobody is
            } else if (subscribed_.contains(&subscriber) ? action == 3 : action > 3) {
                subscribed_.try_emplace(&subscriber,
                                        Subscription{++lastSerial_, mask}); // once more: as it is
                source_->subscribe(&subscriber, &Subscriber::dispatch, mask);
            } else {
                subscribed_.erase(&subscriber);
                source_->unsubscribe(&subscriber, &Subscriber::dispatch);
            }
        }
    }
    // Whom the innermost delivery reaches next; 0 for nobody.
    unsigned next() const {
        const Delivery& delivery = deliveries_.back();
        unsigned least = 0;
        for (const auto& [subscriber, subscription] : subscribed_) {
            const unsigned serial = subscription.serial;
            if ((subscription.mask & State::maskOf(delivery.attribute)) != 0 && serial > delivery.last &&
                serial <= delivery.newest && (least == 0 || serial < least))
                least = serial;
        }
        return least;
    }
    void publish(unsigned depth) {
        const State::AttributeId attribute = std::array<State::AttributeId, 2>{0, 31}.at(pick(2));
        deliveries_.push_back({attribute, depth, lastSerial_});
        source_->publish(attribute, attribute == 0 ? nullptr : &depth);
        EXPECT_EQ(next(), 0U);
        deliveries_.pop_back();
    }
    void heard(Subscriber& subscriber, const Notification& change) {
        Delivery& delivery = deliveries_.back();
        const auto found = subscribed_.find(&subscriber);
        ASSERT_NE(found, subscribed_.end());
        ASSERT_EQ(found->second.serial, next());
        ASSERT_EQ(&change.publisher, source_.get());
        ASSERT_EQ(change.attribute, delivery.attribute);
        ASSERT_TRUE(change.attribute == 0 ? change.key == nullptr
                                          : change.keyAs<unsigned>() == delivery.depth);
        delivery.last = found->second.serial;
        act(delivery.depth);
    }

    std::mt19937 random_;
    Handle<Source> source_ = State::makeHandle<Source>();
    std::array<Subscriber, 9> subscribers_;
    std::map<Subscriber*, Subscription> subscribed_;
    unsigned lastSerial_ = 0;
    std::vector<Delivery> deliveries_; // under way, innermost last
};

TEST(Publisher, DeliversToThoseWhoStayedWhateverSubscribersDo) {
    const std::uint32_t seed = testSeed();
    SCOPED_TRACE(seedText(seed));
    RandomDelivery delivery(seed);
    for (int round = 0; round < 10000 && !testing::Test::HasFailure(); ++round)
        delivery.round();
}

TEST(Publisher, AnExceptionThatLeavesASubscriberEndsTheProcess) {
    const auto source = State::makeHandle<Source>();
    Subscriber thrower{
        [](const Notification&) { throw std::runtime_error("VrfId::value > 0x00ffffff not allowed"); }};
    source->subscribe(&thrower, &Subscriber::dispatch);
    EXPECT_DEATH(source->publish(0), "exception left a reactor: VrfId::value > 0x00ffffff not allowed");
    thrower.body = [](const Notification&) { throw 7; };
    EXPECT_DEATH(source->publish(0), "exception left a reactor: an exception that is no std::exception");
}

TEST(Publisher, AnotherThreadEndsTheProcess) {
    const auto source = State::makeHandle<Source>();
    source->publish(0);
    EXPECT_DEATH(std::thread([&] { source->publish(0); }).join(),
                 "publishing and tracing are for one thread");
}

} // namespace
