#include "agent/changes/Answers.h"

#include <array>
#include <cstdio>
#include <random>
#include <utility>

namespace Agent {

namespace {

std::string randomName() {
    std::random_device random;
    std::array<char, 17> name{};
    std::snprintf(name.data(), name.size(), "%08x%08x", random(), random());
    return name.data();
}

} // namespace

AnswerListener::AnswerListener(const Stores& stores, Hear hear)
    : stores_(stores)
    , hear_(std::move(hear)) {
    for (const Service& service : services())
        subscribers_.push_back({this, &service});
    for (OfService& subscriber : subscribers_)
        stores_.database->entity(subscriber.service->answerPath)->subscribe(&subscriber, &notified);
}

AnswerListener::~AnswerListener() {
    for (const OfService& subscriber : subscribers_)
        stores_.database->entity(subscriber.service->answerPath)->unsubscribe(&subscriber, &notified);
}

void AnswerListener::notified(void* self, const State::Notification& change) {
    const auto& [listener, service] = *static_cast<const OfService*>(self);
    const auto& key = change.keyAs<RequestKey>();
    listener->hear_(
        {.service = service, .key = key, .answer = service->answer(*listener->stores_.database, key)});
}

AnswerLog::AnswerLog(const Stores& stores, NameSweep& names)
    : instance_(randomName()) {
    names.add([this](L3::IntfUnion& carried) { addInterfaces(carried); });
    listener_.emplace(stores, [this](AnswerChange change) { append(std::move(change)); });
}

void AnswerLog::append(AnswerChange change) {
    if (changes_.size() < heldChanges)
        changes_.push_back(std::move(change));
    else
        changes_[last_ % heldChanges] = std::move(change);
    ++last_;
    grown_();
}

void AnswerLog::addInterfaces(L3::IntfUnion& carried) const {
    for (const AnswerChange& change : changes_) {
        carried.add(change.key.intf);
        if (const auto* oifs = std::get_if<KestrelNat::NatMrouteOifSet>(&change.answer))
            carried.add(oifs->oif());
    }
}

} // namespace Agent
