// Delivery of changes: to whom, in which order, and what subscribers may do to the publisher from inside it.
#include "state/Publisher.h"

#include "tests/TestSeed.h"

#include <gtest/gtest.h>

#include <array>
#include <functional>
#include <map>
#include <random>
#include <stdexcept>
#include <string>
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

class PublisherTest : public ::testing::Test {
  protected:
    Subscriber named(const std::string& name, const std::function<void()>& then = {}) {
        return {[this, name, then](const Notification& change) {
            heard.push_back(name + std::to_string(change.attribute));
            if (then)
                then();
        }};
    }
    void subscribe(Subscriber& subscriber) { source->subscribe(&subscriber, &Subscriber::dispatch); }

    Handle<Source> source = State::makeHandle<Source>();
    std::vector<std::string> heard;
    using Heard = std::vector<std::string>;
};

TEST_F(PublisherTest, TellsWhatChangedToThoseWhoWantToHear) {
    Subscriber a = named("a");
    Subscriber b = named("b");
    source->publish(0); // nobody listens
    source->subscribe(&a, &Subscriber::dispatch, State::maskOf(1) | State::maskOf(31));
    const std::string key = "key";
    b.body = [&](const Notification& change) {
        EXPECT_EQ(&change.publisher, source.get());
        EXPECT_EQ(change.key == nullptr ? "none" : change.keyAs<std::string>(),
                  change.attribute == 0 ? "none" : "key");
    };
    subscribe(b);
    source->subscribe(&b, &Subscriber::dispatch, State::maskOf(5)); // is there already
    source->publish(0);
    source->publish(1, &key);
    source->unsubscribe(&a, &Subscriber::other);
    source->publish(31, &key);
    EXPECT_EQ(heard, (Heard{"a1", "a31"}));
    source->unsubscribe(&a, &Subscriber::dispatch);
    source->unsubscribe(&a, &Subscriber::dispatch); // absent
    source->unsubscribe(&b, &Subscriber::dispatch);
    EXPECT_FALSE(source->hasSubscribers());
}

TEST_F(PublisherTest, LivesUntilItsOwnDeliveryIsOver) {
    Subscriber second = named("second", [&] { EXPECT_EQ(Source::alive, 1); });
    Subscriber first = named("first", [&] { source.reset(); });
    subscribe(first);
    subscribe(second);
    const Source* held = source.get();
    held->publish(0);
    EXPECT_EQ(heard, (Heard{"first0", "second0"}));
    EXPECT_EQ(Source::alive, 0);
}

// Random subscribers that come, go and publish from inside delivery. Each subscription has a serial number; a
// delivery must reach, in ascending order, exactly those that were there when it began and are still there
// when it reaches them.
class RandomDelivery {
  public:
    explicit RandomDelivery(std::uint32_t seed)
        : random_(seed) {
        for (Subscriber& subscriber : subscribers_)
            subscriber.body = [this, &subscriber](const Notification&) { heard(subscriber); };
    }

    void round() {
        act(0);
        publish(0);
    }

  private:
    struct Delivery {
        unsigned newest; // subscription when it began
        unsigned last;   // that it reached
        unsigned depth;
    };

    unsigned pick(unsigned below) { return std::uniform_int_distribution(0U, below - 1)(random_); }

    void act(unsigned depth) {
        for (unsigned actions = pick(4); actions > 0; --actions) {
            Subscriber& subscriber = subscribers_[pick(9)];
            if (pick(5) == 0 && depth < 3) {
                publish(depth + 1);
            } else if (serials_.erase(&subscriber) != 0) {
                source_->unsubscribe(&subscriber, &Subscriber::dispatch);
            } else {
                serials_[&subscriber] = ++lastSerial_;
                source_->subscribe(&subscriber, &Subscriber::dispatch);
            }
        }
    }
    // Whom the innermost delivery reaches next; 0 for nobody.
    unsigned next() const {
        const Delivery& delivery = deliveries_.back();
        unsigned least = 0;
        for (const auto& [subscriber, serial] : serials_)
            if (serial > delivery.last && serial <= delivery.newest && (least == 0 || serial < least))
                least = serial;
        return least;
    }
    void publish(unsigned depth) {
        deliveries_.push_back({lastSerial_, 0, depth});
        source_->publish(0);
        EXPECT_EQ(next(), 0U);
        deliveries_.pop_back();
    }
    void heard(Subscriber& subscriber) {
        const auto serial = serials_.find(&subscriber);
        ASSERT_NE(serial, serials_.end());
        ASSERT_EQ(serial->second, next());
        deliveries_.back().last = serial->second;
        act(deliveries_.back().depth);
    }

    std::mt19937 random_;
    Handle<Source> source_ = State::makeHandle<Source>();
    std::array<Subscriber, 9> subscribers_;
    std::map<Subscriber*, unsigned> serials_; // of those that are subscribed
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

TEST_F(PublisherTest, AnExceptionThatLeavesASubscriberEndsTheProcess) {
    Subscriber thrower{
        [](const Notification&) { throw std::runtime_error("VrfId::value > 0x00ffffff not allowed"); }};
    subscribe(thrower);
    EXPECT_DEATH(source->publish(0), "exception left a reactor: VrfId::value > 0x00ffffff not allowed");
    thrower.body = [](const Notification&) { throw 7; };
    EXPECT_DEATH(source->publish(0), "exception left a reactor: an exception that is no std::exception");
}

TEST_F(PublisherTest, AnotherThreadEndsTheProcess) {
    source->publish(0);
    EXPECT_DEATH(std::thread([&] { source->publish(0); }).join(),
                 "publishing and tracing are for one thread");
}

} // namespace
