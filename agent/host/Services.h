// The table of services that the plug-in offers: where each takes its requests, where it puts its answers, which
// flag says that it is ready. Everything that treats services alike walks this table; a third service is one more
// row in Services.cpp, and its state machine.
//
// All services are asked by the same key. An answer is one of the alternatives of Answer.
#pragma once

#include "records/NatMrouteKey.h"
#include "records/NatMrouteOifSet.h"
#include "state/Collection.h"
#include "state/Datum.h"
#include "state/Entity.h"

#include <cstdint>
#include <functional>
#include <span>
#include <string_view>
#include <variant>

namespace Agent {

using RequestKey = KestrelNat::NatMrouteKey;
using RequestSet = State::SetAttribute<RequestKey>;

/// An answer as it is kept: cheap to copy. The first alternative: there is none.
using Answer = std::variant<std::monostate, KestrelNat::NatMrouteOifSet, std::uint32_t>;
/// Null where there is none.
State::Datum toDatum(const Answer& answer);

struct Service {
    std::string_view name;         // in lines and tables: "mroute"
    std::string_view answerColumn; // of `show`: "oifs"
    KestrelNat::NatRequestType requestType;
    const char* requestPath;
    std::string_view requestAttribute;
    const char* answerPath;
    std::string_view answerAttribute;
    std::string_view readyAttribute; // of KestrelNat::MulticastSmStatus

    std::string_view requestEntity; // type names
    std::string_view answerEntity;
    const RequestSet& (*requests)(const State::Entity& requestEntity);
    Answer (*answer)(const State::Entity& answerEntity, const RequestKey& key);
    void (*eachAnswer)(const State::Entity& answerEntity,
                       const std::function<void(const RequestKey&, Answer)>& visit);

    /// Its place in the table.
    std::size_t index() const;
};

/// The table.
std::span<const Service> services();
constexpr std::size_t serviceCount = 2;
/// Null for a name that none has.
const Service* serviceNamed(std::string_view name);

} // namespace Agent
