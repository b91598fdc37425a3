#include "agent/changes/Answers.h"

namespace Agent {

AnswerMaps::AnswerMaps(const Stores& stores) {
    for (const Service& service : services())
        maps_.emplace_back(stores.database->entity(service.answerPath));
}

AnswerChange AnswerMaps::answer(const Service& service, const RequestKey& key) const {
    return {.service = &service, .key = key, .answer = service.answer(*maps_[service.index()], key)};
}

std::vector<AnswerChange> AnswerMaps::all() const {
    std::vector<AnswerChange> answers;
    for (const Service& service : services())
        service.eachAnswer(*maps_[service.index()], [&](const RequestKey& key, const Answer& answer) {
            answers.push_back({.service = &service, .key = key, .answer = answer});
        });
    return answers;
}

AnswerListener::AnswerListener(const AnswerMaps& maps, Notify notify)
    : maps_(maps)
    , notify_(std::move(notify)) {
    subscribers_.reserve(services().size()); // they stay where they are
    for (const Service& service : services()) {
        subscribers_.push_back({this, &service});
        maps_.maps_[service.index()]->subscribe(&subscribers_.back(), &notified);
    }
}

AnswerListener::~AnswerListener() {
    for (const OfService& subscriber : subscribers_)
        maps_.maps_[subscriber.service->index()]->unsubscribe(&subscriber, &notified);
}

void AnswerListener::notified(void* self, const State::Notification& change) {
    const auto& subscriber = *static_cast<const OfService*>(self);
    subscriber.listener->notify_(*subscriber.service, change.keyAs<RequestKey>());
}

AnswerCollector::AnswerCollector(const Stores& stores)
    : maps_(stores)
    , listener_(maps_, [this](const Service& service, const RequestKey& key) {
        if (seen_.insert({&service, key}).second)
            order_.push_back({&service, key});
    }) {}

std::vector<AnswerChange> AnswerCollector::changes() const {
    std::vector<AnswerChange> changes;
    changes.reserve(order_.size());
    for (const Name& name : order_)
        changes.push_back(maps_.answer(*name.service, name.key));
    return changes;
}

} // namespace Agent
