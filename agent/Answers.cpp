#include "agent/Answers.h"

#include "state/Value.h"

namespace Agent {

using KestrelNat::NatMrouteKey;

AnswerChange RawAnswer::change() const {
    const bool isMroute = service == NatService::mroute;
    AnswerChange made{.path = isMroute ? "api/mroute/resp" : "api/mgroup/resp",
                      .attribute = isMroute ? "mrouteResp" : "mgroupId",
                      .key = State::toDatum(key),
                      .value = {}};
    if (isPresent)
        made.value = isMroute ? State::toDatum(oifs) : State::toDatum(groupId);
    return made;
}

AnswerMaps::AnswerMaps(const Host& host)
    : mroute_(host.inDatabase<KestrelNat::NatMrouteResponseMap>("api/mroute/resp"))
    , mgroup_(host.inDatabase<KestrelNat::NatMgroupResponseMap>("api/mgroup/resp")) {}

RawAnswer AnswerMaps::answer(NatService service, const NatMrouteKey& key) const {
    RawAnswer answer{.key = key, .oifs = {}, .service = service};
    if (service == NatService::mroute) {
        if (const auto* oifs = mroute_->mrouteRespCollection().find(key)) {
            answer.oifs = *oifs;
            answer.isPresent = true;
        }
    } else if (const auto* groupId = mgroup_->mgroupIdCollection().find(key)) {
        answer.groupId = *groupId;
        answer.isPresent = true;
    }
    return answer;
}

std::vector<RawAnswer> AnswerMaps::all() const {
    std::vector<RawAnswer> answers;
    answers.reserve(mroute_->mrouteRespCollection().size() + mgroup_->mgroupIdCollection().size());
    for (const auto& [key, oifs] : mroute_->mrouteResp())
        answers.push_back({.key = key, .oifs = oifs, .service = NatService::mroute, .isPresent = true});
    for (const auto& [key, groupId] : mgroup_->mgroupId()) {
        answers.push_back(
            {.key = key, .oifs = {}, .groupId = groupId, .service = NatService::mgroup, .isPresent = true});
    }
    return answers;
}

void AnswerMaps::subscribe(void* subscriber, State::Dispatch mroute, State::Dispatch mgroup) const {
    mroute_->subscribe(subscriber, mroute);
    mgroup_->subscribe(subscriber, mgroup);
}

void AnswerMaps::unsubscribe(const void* subscriber, State::Dispatch mroute, State::Dispatch mgroup) const {
    mroute_->unsubscribe(subscriber, mroute);
    mgroup_->unsubscribe(subscriber, mgroup);
}

AnswerCollector::AnswerCollector(const Host& host)
    : maps_(host) {
    maps_.subscribe(this, &heard<NatService::mroute>, &heard<NatService::mgroup>);
}

AnswerCollector::~AnswerCollector() {
    maps_.unsubscribe(this, &heard<NatService::mroute>, &heard<NatService::mgroup>);
}

template <NatService service>
void AnswerCollector::heard(void* self, const State::Notification& change) {
    auto& collector = *static_cast<AnswerCollector*>(self);
    const Name name{service, change.keyAs<NatMrouteKey>()};
    if (collector.seen_.insert(name).second)
        collector.order_.push_back(name);
}

std::vector<AnswerChange> AnswerCollector::changes() const {
    std::vector<AnswerChange> changes;
    changes.reserve(order_.size());
    for (const Name& name : order_)
        changes.push_back(maps_.answer(name.service, name.key).change());
    return changes;
}

} // namespace Agent
