#include "agent/control/Snapshot.h"

#include "agent/json/Json.h"
#include "agent/language/Least.h"

#include <utility>

namespace Agent {

namespace {

struct Answered {
    const Service* service;
    RequestKey key;
};

AnswerPlace placeOf(std::uint64_t service, const RequestKey& key) {
    return {service << 32U | key.vrfId.value(),
            std::uint64_t{key.groupIp.value()} << 32U | key.sourceIp.value(), key.intf.number(),
            std::uint64_t{key.vlanId} << 8U | static_cast<std::uint64_t>(key.type)};
}

} // namespace

SnapshotPage snapshotPage(const Stores& stores, const std::optional<AnswerPlace>& after) {
    constexpr std::size_t lengthOfKey = 200; // as JSON, about
    Least<AnswerPlace, Answered> picker(SnapshotPage::pageAnswers + 1, after);
    for (const Service& service : services())
        service.eachAnswered(*stores.database, [&, index = service.index()](const RequestKey& key) {
            picker.offer(placeOf(index, key), {.service = &service, .key = key});
        });
    SnapshotPage page;
    std::size_t bytes = 0;
    AnswerPlace last{};
    for (const auto& [place, answered] : std::move(picker).take()) {
        if (page.answers.size() == SnapshotPage::pageAnswers || bytes >= Json::pageBytes) {
            page.last = last;
            break;
        }
        last = place;
        const auto& [service, key] = answered;
        page.answers.push_back(
            {.service = service, .key = key, .answer = service->answer(*stores.database, key)});
        bytes += lengthOfKey + Json::lengthOf(toDatum(page.answers.back().answer));
    }
    return page;
}

} // namespace Agent
