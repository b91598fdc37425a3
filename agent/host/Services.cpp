#include "agent/host/Services.h"

#include "records/NatMgroup.h"
#include "records/NatMroute.h"
#include "state/Value.h"

#include <algorithm>

namespace Agent {

namespace {

using namespace KestrelNat;

// Completes a row by what the types of its two ends tell: where they stand and how they are read.
// `RequestsOf` and `AnswersOf`, captureless lambdas, yield their collections.
template <class Requests, class Answers, class RequestsOf, class AnswersOf>
Service row(Service row, RequestsOf, AnswersOf) {
    row.requestPath = Requests::path;
    row.requestEntity = &Requests::type;
    row.requests = [](const State::Entity& entity) -> const RequestSet& {
        return RequestsOf{}(static_cast<const Requests&>(entity));
    };
    row.answerPath = Answers::path;
    row.answerEntity = &Answers::type;
    using Value = std::remove_cvref_t<decltype(*AnswersOf{}(std::declval<const Answers&>()).find({}))>;
    row.answersInterfaces = std::is_same_v<Value, NatMrouteOifSet>;
    row.answer = [](const State::Entity& entity, const RequestKey& key) {
        const auto* answer = AnswersOf{}(static_cast<const Answers&>(entity)).find(key);
        return answer == nullptr ? Answer() : Answer(*answer);
    };
    row.eachAnswer = [](const State::Entity& entity, const AnswerVisitor& visit) {
        for (const auto& [key, answer] : AnswersOf{}(static_cast<const Answers&>(entity)).walk())
            visit(key, Answer(answer));
    };
    return row;
}

} // namespace

std::span<const Service> services() {
    static const Service table[] = {
        row<NatMrouteRequestSet, NatMrouteResponseMap>(
            {.name = "mroute",
             .answerColumn = "oifs",
             .requestAttribute = "mrouteReq",
             .answerAttribute = "mrouteResp",
             .readyAttribute = "mrouteSmReady",
             .requestType = NatRequestType::mrouteRequest,
             .readsRoutes = true},
            [](auto& entity) -> auto& { return entity.mrouteReqCollection(); },
            [](auto& entity) -> auto& { return entity.mrouteRespCollection(); }),
        row<NatMgroupRequestSet, NatMgroupResponseMap>(
            {.name = "mgroup",
             .answerColumn = "id",
             .requestAttribute = "mgroupReq",
             .answerAttribute = "mgroupId",
             .readyAttribute = "mgroupSmReady",
             .requestType = NatRequestType::mgroupRequest},
            [](auto& entity) -> auto& { return entity.mgroupReqCollection(); },
            [](auto& entity) -> auto& { return entity.mgroupIdCollection(); }),
    };
    return table;
}

std::size_t Service::index() const {
    return static_cast<std::size_t>(this - services().data());
}

const Service* serviceNamed(std::string_view name) {
    const auto table = services();
    const auto found = std::ranges::find(table, name, &Service::name);
    return found == table.end() ? nullptr : &*found;
}

State::Datum toDatum(const Answer& answer) {
    if (const auto* oifs = std::get_if<NatMrouteOifSet>(&answer))
        return State::toDatum(*oifs);
    if (const auto* number = std::get_if<std::uint32_t>(&answer))
        return State::toDatum(*number);
    return {};
}

} // namespace Agent
