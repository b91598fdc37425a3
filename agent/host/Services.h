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
#include "state/Store.h"

#include <cstdint>
#include <functional>
#include <span>
#include <string_view>
#include <variant>

namespace Agent {

using RequestKey = KestrelNat::NatMrouteKey;
using RequestSet = State::SetAttribute<RequestKey>;
struct RequestKeyHash {
    std::size_t operator()(const RequestKey& key) const { return key.hash(0); }
};

/// An answer as it is kept: cheap to copy. The first alternative: there is none.
using Answer = std::variant<std::monostate, KestrelNat::NatMrouteOifSet, std::uint32_t>;
/// Null where there is none.
State::Datum toDatum(const Answer& answer);

using KeyVisitor = std::function<void(const RequestKey&)>;

struct Service {
    std::string_view name;         // in lines and tables: "mroute"
    std::string_view answerColumn; // of `show`: "oifs"
    std::string_view requestAttribute;
    std::string_view answerAttribute;
    std::string_view readyAttribute; // of KestrelNat::MulticastSmStatus
    KestrelNat::NatRequestType requestType = {};
    bool readsRoutes = false; // its answers are gathered from route tables

    // What follows from the types of the entities at both ends.
    bool answersInterfaces = false; // else with a number
    const char* requestPath = nullptr;
    const State::EntityType& (*requestEntity)() = nullptr;
    const RequestSet& (*requests)(const State::Store& database) = nullptr;
    const char* answerPath = nullptr;
    const State::EntityType& (*answerEntity)() = nullptr;
    Answer (*answer)(const State::Store& database, const RequestKey& key) = nullptr;
    /// The keys of all answers, in iteration order.
    void (*eachAnswered)(const State::Store& database, const KeyVisitor& visit) = nullptr;

    /// Its place in the table.
    std::size_t index() const;
};

/// The table.
std::span<const Service> services();

} // namespace Agent
