#include "agent/host/QuillSource.h"

#include "agent/host/Refusal.h"
#include "records/QuillFib.h"

#include <algorithm>
#include <map>

namespace Agent {

namespace {

using Quill::Multicast::Fib::OifIndex;
using Table = Quill::Multicast::Fib::Status;
using Quill::Multicast::Fib::Route;
using Routing::Multicast::Fib::sparseMode;
using Routing::Multicast::Fib::staticMode;

constexpr const char* modes[] = {staticMode, sparseMode}; // by RouteType

std::string pathOf(std::string_view vrf, RouteType type) {
    return Table::mountPath(vrf, modes[static_cast<std::size_t>(type)]);
}

State::Handle<Table> find(const Stores& stores, const std::string& path) {
    return State::handleCast<Table>(stores.tables->entity(path));
}

// Which indexes of a table are free.
class FreeIndexes {
  public:
    explicit FreeIndexes(const Table* table) {
        taken_[0] = true; // indexes are given from 1 on
        if (table != nullptr)
            for (const auto& [index, intf] : table->oifIndexIntf())
                taken_[index.value()] = true;
    }

    // Takes the lowest.
    std::uint16_t take(std::string_view path, std::string_view intf) {
        const auto last = taken_.begin() + OifIndex::null;
        const auto free = std::find(taken_.begin(), last, false);
        if (free == last)
            throw Refusal(RefusalKind::limit,
                          "the table has no index left for interface " + std::string(intf),
                          {.path = std::string(path)});
        *free = true;
        return static_cast<std::uint16_t>(free - taken_.begin());
    }
    void giveBack(std::uint16_t index) { taken_[index] = false; }

  private:
    std::array<bool, OifIndex::null + 1> taken_{};
};

class Draft final : public RouteDraft {
  public:
    explicit Draft(const Stores& stores)
        : stores_(stores) {}

    std::vector<RowWrite> route(std::string_view vrf, RouteType type, const State::Datum& key,
                                const std::vector<std::string>& oifs, bool isReady) override {
        if (!isReady)
            throw Refusal("not-ready: routes of the Quill tables have no readiness");
        const std::string path = pathOf(vrf, type);
        Indexes& indexes = indexesOf(path);
        std::vector<RowWrite> writes;
        State::Datum::List list;
        for (const std::string& intf : oifs) {
            auto known = indexes.byIntf.find(intf);
            if (known == indexes.byIntf.end()) {
                known = indexes.byIntf.emplace(intf, indexes.free.take(path, intf)).first;
                writes.push_back({path, "oifIndexIntf", State::Datum(known->second), State::Datum(intf)});
            }
            list.emplace_back(known->second);
        }
        writes.push_back({path, "route", key, State::Datum(State::Datum::Record{{"oifs", std::move(list)}})});
        return writes;
    }

  private:
    struct Indexes {
        explicit Indexes(const Table* table)
            : free(table) {}
        std::map<std::string, std::uint64_t, std::less<>> byIntf;
        FreeIndexes free;
    };

    Indexes& indexesOf(const std::string& path) {
        const auto known = indexes_.find(path);
        if (known != indexes_.end())
            return known->second;
        const State::Handle<Table> table = find(stores_, path);
        Indexes& made = indexes_.try_emplace(path, table.get()).first->second;
        if (table)
            for (const auto& [index, intf] : table->oifIndexIntf())
                made.byIntf.emplace(intf.stringValue(), index.value());
        return made;
    }

    Stores stores_;
    std::map<std::string, Indexes> indexes_; // by the path of the table
};

class WrittenTable final : public RouteTable {
  public:
    WrittenTable(const Stores& stores, std::string path)
        : stores_(stores)
        , path_(std::move(path))
        , free_(find(stores_, path_).get()) {}

    bool put(const RouteKey& key, std::span<const Oif> oifs) override {
        Table& table = made();
        Route route;
        for (const Oif& oif : oifs)
            route.oifs.insert(indexOf(table, oif));
        return table.routeCollection().is(key, std::move(route));
    }

    bool erase(const RouteKey& key) override {
        const State::Handle<Table> table = find(stores_, path_);
        const bool isThere = table && table->routeHas(key);
        if (isThere)
            table->routeDel(key);
        return isThere;
    }

    bool rename(int ifindex, std::string_view name) override {
        if (const auto known = byIfindex_.find(ifindex); known != byIfindex_.end())
            made().oifIndexIntfIs(known->second, L3::IntfId(name));
        return true;
    }

    void forget(int ifindex) override {
        const auto known = byIfindex_.find(ifindex);
        if (known == byIfindex_.end())
            return;
        if (const State::Handle<Table> table = find(stores_, path_))
            table->oifIndexIntfDel(known->second);
        free_.giveBack(known->second);
        byIfindex_.erase(known);
    }

  private:
    Table& made() { return *State::handleCast<Table>(stores_.tables->entityIs(path_, Table::type().name())); }

    // One index an interface, so that its rename is one row.
    std::uint16_t indexOf(Table& table, const Oif& oif) {
        if (const auto known = byIfindex_.find(oif.ifindex); known != byIfindex_.end())
            return known->second;
        const L3::IntfId intf(oif.name);
        const std::uint16_t index = free_.take(path_, oif.name);
        table.oifIndexIntfIs(index, intf);
        byIfindex_.emplace(oif.ifindex, index);
        return index;
    }

    Stores stores_;
    std::string path_;
    FreeIndexes free_;
    std::map<int, std::uint16_t> byIfindex_;
};

class QuillSource final : public RouteSource {
  public:
    explicit QuillSource(const Stores& stores)
        : stores_(stores) {}

    std::string_view name() const override { return "quill"; }
    // The plug-in mounts a VRF's tables when the VRF is enabled; those of the default VRF are the host's.
    void makeEntities() override {}

    std::string tablePath(std::string_view vrf, RouteType type) const override { return pathOf(vrf, type); }
    bool hasTable(std::string_view vrf, RouteType type) const override {
        return static_cast<bool>(find(stores_, pathOf(vrf, type)));
    }
    std::size_t routes(std::string_view vrf, RouteType type) const override {
        const auto table = find(stores_, pathOf(vrf, type));
        return table ? std::as_const(*table).routeCollection().size() : 0;
    }
    void eachRoute(std::string_view vrf, RouteType type,
                   const std::function<bool(const ShownRoute&)>& visit) const override {
        const auto table = find(stores_, pathOf(vrf, type));
        if (!table)
            return;
        ShownRoute shown;
        std::vector<std::string> unnamed;
        table->routeCollection().visit(nullptr, [&](const RouteKey& key, const Route& route) {
            shown.key = key;
            shown.oifs.clear();
            unnamed.clear();
            unnamed.reserve(route.oifs.size()); // what is in it is pointed to
            for (const std::uint16_t index : route.oifs) {
                const auto* intf =
                    index <= OifIndex::null ? table->oifIndexIntfCollection().find(index) : nullptr;
                shown.oifs.push_back(
                    intf != nullptr ? std::string_view(intf->stringValue())
                                    : std::string_view(unnamed.emplace_back("#" + std::to_string(index))));
            }
            return visit(shown);
        });
    }

    std::unique_ptr<RouteDraft> draft() const override { return std::make_unique<Draft>(stores_); }
    std::unique_ptr<RouteTable> table(std::string_view vrf, RouteType type) override {
        return std::make_unique<WrittenTable>(stores_, pathOf(vrf, type));
    }

  private:
    Stores stores_;
};

// An index that the tables can't have as one of an interface.
std::optional<RowFault> rowFault(std::string_view attribute, const State::Datum& key,
                                 const State::Datum& value) {
    const auto fault = [](const char* field, std::uint64_t index) {
        const std::string null = std::to_string(OifIndex::null);
        return RowFault{.field = field,
                        .rule = "the OIF index " + std::to_string(index) + " is none: " + null +
                                " ends a list, larger ones end the process",
                        .wayOut = "use indexes up to " + std::to_string(OifIndex::null - 1)};
    };
    if (attribute == "oifIndexIntf")
        return *key.number() >= OifIndex::null ? std::optional(fault("key", *key.number())) : std::nullopt;
    if (value.record() == nullptr)
        return std::nullopt;
    for (const auto& [name, content] : *value.record())
        for (const State::Datum& index : *content.list())
            if (*index.number() >= OifIndex::null)
                return fault("oifs", *index.number());
    return std::nullopt;
}

} // namespace

std::unique_ptr<RouteSource> makeQuillSource(const Stores& stores) {
    return std::make_unique<QuillSource>(stores);
}

std::span<const PathShape> quillShapes() {
    static const PathShape shapes[] = {{.text = "routing/multicast/routestatus/VRF/TYPE",
                                        .kind = PathKind::routeTable,
                                        .entityType = &Table::type,
                                        .store = &Stores::tables,
                                        .modes = modes,
                                        .source = "quill",
                                        .rowFault = &rowFault}};
    return shapes;
}

} // namespace Agent
