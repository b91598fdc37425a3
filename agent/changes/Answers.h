// The plug-in's answers as the agent sees them: the answer maps of all services, and a collector of what changes
// during an operation.
//
// Operations uses the collector for `apply`; AnswerLog.h keeps the changes for those who watch.
#pragma once

#include "agent/changes/Change.h"
#include "agent/host/Stores.h"

#include <functional>
#include <memory>
#include <unordered_set>
#include <vector>

namespace Agent {

/// The answer maps of all services.
class AnswerMaps {
  public:
    explicit AnswerMaps(const Stores& stores);

    /// The answer as it is now.
    AnswerChange answer(const Service& service, const RequestKey& key) const;
    /// All maps in iteration order, service by service.
    std::vector<AnswerChange> all() const;

  private:
    friend class AnswerListener;
    std::vector<State::Handle<const State::Entity>> maps_; // by Service::index()
};

/// Hears every change of an answer while it lives, in the order of subscription among others.
class AnswerListener {
  public:
    using Notify = std::function<void(const Service&, const RequestKey&)>;

    /// @param maps outlives it.
    AnswerListener(const AnswerMaps& maps, Notify notify);
    ~AnswerListener();
    AnswerListener(const AnswerListener&) = delete;
    AnswerListener& operator=(const AnswerListener&) = delete;

  private:
    struct OfService {
        const AnswerListener* listener;
        const Service* service;
    };
    static void notified(void* self, const State::Notification& change);

    const AnswerMaps& maps_;
    Notify notify_;
    std::vector<OfService> subscribers_; // by Service::index()
};

/// Notes which answers change while it lives.
class AnswerCollector {
  public:
    explicit AnswerCollector(const Stores& stores);

    /// The answers that changed, as they are now, in order of their first change.
    std::vector<AnswerChange> changes() const;

  private:
    struct Name {
        const Service* service;
        RequestKey key;
        bool operator==(const Name&) const = default;
    };
    struct NameHash {
        std::size_t operator()(const Name& name) const {
            return name.key.hash(static_cast<std::uint32_t>(name.service->index()));
        }
    };

    AnswerMaps maps_;
    std::vector<Name> order_;
    std::unordered_set<Name, NameHash> seen_;
    AnswerListener listener_;
};

} // namespace Agent
