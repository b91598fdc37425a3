// The agent's tables as the mirror of the kernel writes them: VRFs by way of Operations, so that the guards bind this
// source as they bind clients; what they refuse comes back as the reason. Routes, of which there are a hundred thousand,
// are written directly (RouteTable): nothing in their IPv4 keys and interfaces could be refused.
#include "agent/changes/Operations.h"
#include "agent/host/Refusal.h"
#include "agent/kernel/TableSink.h"
#include "records/RouteStatus.h"
#include "state/Errors.h"

#include <map>
#include <memory>

namespace Agent::Kernel {
namespace {

using Routing::Hardware::RouteStatus;
using Routing::Multicast::Fib::VrfEnabledStatus;

// Sets the VRF's entry, or removes it where there is no value.
Change entryOf(const VrfConfig& vrf, const char* path, const char* attribute,
               std::optional<State::Datum> value = {}) {
    return {.op = value ? Change::Op::set : Change::Op::del,
            .path = path,
            .attribute = attribute,
            .key = vrf.name,
            .value = std::move(value)};
}

// Goes on behind the row that it met last. Where that one went, or went and came back in another place, or the table
// itself did, it begins anew.
class AgentRows final : public RowWalk {
  public:
    AgentRows(const RouteSource& routes, std::string vrf, RouteType type)
        : routes_(routes)
        , vrf_(std::move(vrf))
        , type_(type) {}
    ~AgentRows() override { leave(); }
    AgentRows(const AgentRows&) = delete;
    AgentRows& operator=(const AgentRows&) = delete;

    bool next(std::size_t max, const std::function<void(const RouteKey&)>& visit) override {
        enter();
        std::size_t met = 0;
        const std::optional<RouteKey> after = last_;
        routes_.eachRoute(vrf_, type_, pointerTo(after), [&](const ShownRoute& route) {
            last_ = route.key;
            visit(route.key);
            return ++met < max;
        });
        return met == max;
    }
    std::size_t size() const override { return routes_.routes(vrf_, type_); }

  private:
    void enter() {
        State::Handle<State::Entity> table = routes_.find(vrf_, type_);
        if (table == table_)
            return;
        leave();
        last_.reset();
        table_ = std::move(table);
        if (table_)
            table_->subscribe(this, &changed, State::maskOf(table_->entityType().attribute("route")->id()));
    }
    void leave() {
        if (table_)
            table_->unsubscribe(this, &changed);
    }
    static void changed(void* self, const State::Notification& change) {
        auto& rows = *static_cast<AgentRows*>(self);
        if (rows.last_ == change.keyAs<RouteKey>())
            rows.last_.reset();
    }

    const RouteSource& routes_;
    std::string vrf_;
    RouteType type_;
    State::Handle<State::Entity> table_;
    std::optional<RouteKey> last_;
};

class AgentTables final : public TableSink {
  public:
    explicit AgentTables(Operations& operations)
        : operations_(operations) {}

    WhyNot putVrf(const VrfConfig& vrf, bool multicastEnabled) override {
        const State::Datum::Record entry{{"vrfId", std::uint64_t{vrf.id}}};
        std::vector<Change> changes{entryOf(vrf, RouteStatus::path, "vrfStatus", entry)};
        for (const RouteType type : routeTypes)
            changes.push_back({.path = operations_.host().routes().tablePath(vrf.name, type)});
        // Multicast goes on last, and off first.
        changes.insert(multicastEnabled ? changes.end() : changes.begin(),
                       entryOf(vrf, VrfEnabledStatus::path, "vrfEnabled", multicastEnabled));
        return apply(changes);
    }

    WhyNot removeVrf(const VrfConfig& vrf) override {
        std::vector<Change> changes{entryOf(vrf, VrfEnabledStatus::path, "vrfEnabled"),
                                    entryOf(vrf, RouteStatus::path, "vrfStatus")};
        for (const RouteType type : routeTypes)
            changes.push_back(
                {.op = Change::Op::del, .path = operations_.host().routes().tablePath(vrf.name, type)});
        WhyNot why = apply(changes);
        if (why.empty())
            std::erase_if(tables_, [&](const auto& table) { return table.first.first == vrf.name; });
        return why;
    }

    WhyNot putRoute(const VrfConfig& vrf, RouteType type, const MfcKey& key,
                    std::span<const Oif> oifs) override {
        try {
            std::unique_ptr<RouteTable>& table = tables_[{vrf.name, type}];
            if (!table)
                table = operations_.host().routes().table(vrf.name, type);
            const bool isChanged = operations_.names().roomFor([&] { return table->put(rowKey(key), oifs); });
            operations_.changedDirectly(isChanged);
        } catch (const Refusal& refusal) {
            return refusal.what();
        } catch (const State::Error& error) {
            return error.what();
        }
        return {};
    }

    void removeRoute(const VrfConfig& vrf, RouteType type, const MfcKey& key) override {
        if (const auto at = tables_.find({vrf.name, type}); at != tables_.end())
            operations_.changedDirectly(at->second->erase(rowKey(key)));
    }

    bool renameInterface(int ifindex, std::string_view name) override {
        bool rowsHoldNames = false;
        for (const auto& [place, table] : tables_) {
            const bool isRenamed = table->rename(ifindex, name);
            operations_.changedDirectly(isRenamed);
            rowsHoldNames = rowsHoldNames || !isRenamed;
        }
        return rowsHoldNames;
    }

    void forgetInterface(int ifindex) override {
        for (const auto& [place, table] : tables_)
            table->forget(ifindex);
    }

    std::optional<bool> multicastEnabled(const VrfConfig& vrf) const override {
        const State::Datum name(vrf.name);
        if (!operations_.value(RouteStatus::path, "vrfStatus", &name))
            return std::nullopt;
        const auto enabled = operations_.value(VrfEnabledStatus::path, "vrfEnabled", &name);
        return enabled && *enabled->boolean();
    }

    std::unique_ptr<RowWalk> rows(const VrfConfig& vrf, RouteType type) const override {
        return std::make_unique<AgentRows>(operations_.host().routes(), vrf.name, type);
    }

    bool row(const VrfConfig& vrf, RouteType type, const RouteKey& key,
             const RowVisitor& visit) const override {
        return operations_.host().routes().showRoute(vrf.name, type, key,
                                                     [&](const ShownRoute& route) { visit(route.oifs); });
    }

  private:
    WhyNot apply(std::span<const Change> changes) {
        try {
            operations_.apply(changes);
        } catch (const Refusal& refusal) {
            return refusal.what();
        }
        return {};
    }

    Operations& operations_;
    // By VRF and route type, those that have had a route.
    std::map<std::pair<std::string, RouteType>, std::unique_ptr<RouteTable>> tables_;
};

} // namespace

RouteKey rowKey(const MfcKey& key) {
    return {key.source == 0 ? L3::IpGenPrefix() : L3::IpGenPrefix::host(L3::IpAddr(key.source)),
            L3::IpGenPrefix::host(L3::IpAddr(key.group))};
}

std::optional<MfcKey> kernelKey(const RouteKey& key) {
    const MfcKey made{.source = key.source.ipv4().value(), .group = key.group.ipv4().value()};
    return rowKey(made) == key ? std::optional(made) : std::nullopt;
}

std::unique_ptr<TableSink> agentTables(Operations& operations) {
    return std::make_unique<AgentTables>(operations);
}

} // namespace Agent::Kernel
