// The plug-in's two answer maps as the agent sees them: where they are, how a changed answer is told, and a
// collector of what changes during an operation.
//
// Operations uses the collector for `apply`; AnswerLog.h keeps the changes for those who watch.
#pragma once

#include "agent/Host.h"
#include "agent/Operations.h"
#include "records/NatMgroup.h"
#include "records/NatMroute.h"

#include <cstdint>
#include <optional>
#include <unordered_set>
#include <utility>
#include <vector>

namespace Agent {

/// A changed answer as it is kept: cheap to make, turned into an AnswerChange when somebody wants to see it.
struct RawAnswer {
    KestrelNat::NatMrouteKey key;
    KestrelNat::NatMrouteOifSet oifs; // of an mroute answer
    std::uint32_t groupId = 0;        // of an mgroup answer
    NatService service = NatService::mroute;
    bool isPresent = false; // false: it went

    AnswerChange change() const;
};

/// Both answer maps.
class AnswerMaps {
  public:
    explicit AnswerMaps(const Host& host);

    /// The answer as it is now.
    RawAnswer answer(NatService service, const KestrelNat::NatMrouteKey& key) const;
    /// Both maps in iteration order, mroute answers first.
    std::vector<RawAnswer> all() const;

    /// Has `heard` called for every change from now on, in the order of subscription among others.
    void subscribe(void* subscriber, State::Dispatch mroute, State::Dispatch mgroup) const;
    void unsubscribe(const void* subscriber, State::Dispatch mroute, State::Dispatch mgroup) const;

  private:
    State::Handle<const KestrelNat::NatMrouteResponseMap> mroute_;
    State::Handle<const KestrelNat::NatMgroupResponseMap> mgroup_;
};

/// Notes which answers change while it lives.
class AnswerCollector {
  public:
    explicit AnswerCollector(const Host& host);
    ~AnswerCollector();
    AnswerCollector(const AnswerCollector&) = delete;
    AnswerCollector& operator=(const AnswerCollector&) = delete;

    /// The answers that changed, as they are now, in order of their first change.
    std::vector<AnswerChange> changes() const;

  private:
    struct Name {
        NatService service;
        KestrelNat::NatMrouteKey key;
        bool operator==(const Name&) const = default;
    };
    struct NameHash {
        std::size_t operator()(const Name& name) const {
            return name.key.hash(static_cast<std::uint32_t>(name.service));
        }
    };
    template <NatService service>
    static void heard(void* self, const State::Notification& change);

    AnswerMaps maps_;
    std::vector<Name> order_;
    std::unordered_set<Name, NameHash> seen_;
};

} // namespace Agent
