#include "agent/host/Services.h"

#include "records/NatMgroup.h"
#include "records/NatMroute.h"
#include "state/Value.h"

namespace Agent {

namespace {

using namespace KestrelNat;

// The entity of type T in the database, which holds it from the beginning to the end.
template <class T>
const T& in(const State::Store& database) {
    return static_cast<const T&>(*database.entity(T::path));
}

// Completes a row by what the types of its two ends tell: where they stand and how they are read.
// `RequestsOf` and `AnswersOf`, captureless lambdas, yield their collections.
template <class Requests, class Answers, class RequestsOf, class AnswersOf>
Service row(Service row, RequestsOf, AnswersOf) {
    row.requestPath = Requests::path;
    row.requestEntity = &Requests::type;
    row.requests = [](const State::Store& database) -> const RequestSet& {
        return RequestsOf{}(in<Requests>(database));
    };
    row.answerPath = Answers::path;
    row.answerEntity = &Answers::type;
    using Value = std::remove_cvref_t<decltype(*AnswersOf{}(std::declval<const Answers&>()).find({}))>;
    row.answersInterfaces = std::is_same_v<Value, NatMrouteOifSet>;
    row.answer = [](const State::Store& database, const RequestKey& key) {
        const auto* answer = AnswersOf{}(in<Answers>(database)).find(key);
        return answer == nullptr ? Answer() : Answer(*answer);
    };
    row.eachAnswered = [](const State::Store& database, const KeyVisitor& visit) {
        for (const auto& [key, answer] : AnswersOf{}(in<Answers>(database)).walk())
            visit(key);
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

State::Datum toDatum(const Answer& answer) {
    if (const auto* oifs = std::get_if<NatMrouteOifSet>(&answer))
        return State::toDatum(*oifs);
    if (const auto* number = std::get_if<std::uint32_t>(&answer))
        return State::toDatum(*number);
    return {};
}

} // namespace Agent
