// The Quill tables as the source of routes (RouteSource.h): one table per VRF and route type in the table store,
// whose routes name their interfaces by indexes; rows beside them say which interface an index is.
#include "agent/host/Refusal.h"
#include "agent/host/RouteSource.h"
#include "records/QuillFib.h"
#include "state/Errors.h"

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

// A table: where it is.
struct TablePlace {
    TablePlace(const Stores& stores, std::string_view vrf, RouteType type)
        : tables(stores.tables)
        , path(Table::mountPath(vrf, modes[static_cast<std::size_t>(type)])) {}

    State::Handle<Table> find() const { return State::handleCast<Table>(tables->entity(path)); }
    State::Handle<Table> made() const {
        return State::handleCast<Table>(tables->entityIs(path, Table::type().name()));
    }

    State::Handle<State::Store> tables;
    std::string path;
};

// Which indexes of a table are free, or all of one that is not there.
class FreeIndexes {
  public:
    FreeIndexes(std::string path, const State::Handle<Table>& table)
        : path_(std::move(path)) {
        isTaken_[0] = true; // indexes are given from 1 on
        if (table)
            for (const auto& [index, intf] : table->oifIndexIntf())
                isTaken_[index.value()] = true;
    }

    // Takes the lowest.
    std::uint16_t take(std::string_view intf) {
        const auto last = isTaken_.begin() + OifIndex::null;
        const auto free = std::find(isTaken_.begin(), last, false);
        if (free == last)
            throw Refusal(RefusalKind::limit,
                          "the table has no index left for interface " + std::string(intf), {.path = path_});
        *free = true;
        return static_cast<std::uint16_t>(free - isTaken_.begin());
    }
    void giveBack(std::uint16_t index) { isTaken_[index] = false; }

  private:
    std::string path_;
    std::array<bool, OifIndex::null + 1> isTaken_{};
};

class Draft final : public RouteDraft {
  public:
    explicit Draft(const Stores& stores)
        : stores_(stores) {}

    std::vector<Change> changes(const DraftedRoute& route) override {
        if (!route.isReady)
            throw Refusal("not-ready: routes of the Quill tables have no readiness");
        const TablePlace place(stores_, route.vrf, route.type);
        Indexes& indexes = indexes_.try_emplace(place.path, place.path, place.find()).first->second;
        std::vector<Change> changes;
        State::Datum::List list;
        for (const std::string& intf : route.oifs) {
            auto known = indexes.byIntf.find(intf);
            if (known == indexes.byIntf.end()) {
                known = indexes.byIntf.emplace(intf, indexes.free.take(intf)).first;
                changes.push_back(setOf(place, "oifIndexIntf", known->second, intf));
            }
            list.emplace_back(known->second);
        }
        changes.push_back(setOf(place, "route", route.key, State::Datum::Record{{"oifs", std::move(list)}}));
        return changes;
    }
    void tableGoes(const std::string& path) override { indexes_.insert_or_assign(path, Indexes(path, {})); }

  private:
    struct Indexes {
        Indexes(const std::string& path, const State::Handle<Table>& table)
            : free(path, table) {
            if (table)
                for (const auto& [index, intf] : table->oifIndexIntf())
                    byIntf.emplace(intf.stringValue(), index.value());
        }
        std::map<std::string, std::uint64_t, std::less<>> byIntf;
        FreeIndexes free;
    };

    static Change setOf(const TablePlace& place, const char* attribute, State::Datum key,
                        State::Datum value) {
        return {.path = place.path, .attribute = attribute, .key = std::move(key), .value = std::move(value)};
    }

    Stores stores_;
    std::map<std::string, Indexes> indexes_; // by the path of the table
};

class WrittenTable final : public RouteTable {
  public:
    explicit WrittenTable(TablePlace place)
        : place_(std::move(place))
        , table_(place_.find())
        , free_(place_.path, table_) {}

    bool put(const RouteKey& key, std::span<const Oif> oifs) override {
        begin(place_.made());
        Route route;
        const std::uint32_t namings = std::as_const(*table_).oifIndexIntfCollection().changes();
        for (const Oif& oif : oifs)
            route.oifs.insert(indexOf(oif));
        const bool isChanged = table_->routeCollection().is(key, std::move(route));
        return isChanged || std::as_const(*table_).oifIndexIntfCollection().changes() != namings;
    }

    bool erase(const RouteKey& key) override {
        const State::Handle<Table> table = place_.find();
        const bool isThere = table && table->routeHas(key);
        if (isThere)
            table->routeDel(key);
        return isThere;
    }

    bool rename(int ifindex, std::string_view name) override {
        begin(place_.find());
        const auto known = byIfindex_.find(ifindex);
        if (known == byIfindex_.end())
            return true;
        try {
            table_->oifIndexIntfIs(known->second.number, L3::IntfId(name));
            known->second.isNamed = true;
        } catch (const State::RangeError&) {
            known->second.isNamed = false; // no room for the name, or none that an interface can have
        }
        return known->second.isNamed;
    }

    void forget(int ifindex) override {
        begin(place_.find());
        const auto known = byIfindex_.find(ifindex);
        if (known == byIfindex_.end())
            return;
        table_->oifIndexIntfDel(known->second.number);
        free_.giveBack(known->second.number);
        byIfindex_.erase(known);
    }

  private:
    struct Index {
        std::uint16_t number;
        bool isNamed; // false: the rows show an earlier name, as the present one was refused
    };

    // What was known of a table that was removed holds no more.
    void begin(const State::Handle<Table>& table) {
        if (table == table_)
            return;
        table_ = table;
        free_ = FreeIndexes(place_.path, table);
        byIfindex_.clear();
    }

    // One index an interface, so that its rename is one row.
    std::uint16_t indexOf(const Oif& oif) {
        const auto known = byIfindex_.find(oif.ifindex);
        if (known != byIfindex_.end() && known->second.isNamed)
            return known->second.number;
        const L3::IntfId intf(oif.name);
        const std::uint16_t number = known != byIfindex_.end() ? known->second.number : free_.take(oif.name);
        table_->oifIndexIntfIs(number, intf);
        byIfindex_[oif.ifindex] = {.number = number, .isNamed = true};
        return number;
    }

    TablePlace place_;
    State::Handle<Table> table_; // the one that the indexes are of; null: none yet
    FreeIndexes free_;
    std::map<int, Index> byIfindex_;
};

// Rows of a table as people see them, one at a time.
class Shown {
  public:
    explicit Shown(const Table& table)
        : table_(table) {}

    const ShownRoute& of(const RouteKey& key, const Route& route) {
        shown_.key = key;
        shown_.oifs.clear();
        unnamed_.clear();
        unnamed_.reserve(route.oifs.size()); // what is in it is pointed to
        for (const std::uint16_t index : route.oifs) {
            const auto* intf =
                index <= OifIndex::null ? table_.oifIndexIntfCollection().find(index) : nullptr;
            shown_.oifs.push_back(intf != nullptr
                                      ? std::string_view(intf->stringValue())
                                      : std::string_view(unnamed_.emplace_back("#" + std::to_string(index))));
        }
        return shown_;
    }

  private:
    const Table& table_;
    ShownRoute shown_;
    std::vector<std::string> unnamed_;
};

// The plug-in mounts a VRF's tables when the VRF is enabled; those of the default VRF are the host's.
class QuillSource final : public RouteSource {
  public:
    explicit QuillSource(const Stores& stores)
        : stores_(stores) {}

    std::string_view name() const override { return "quill"; }
    std::string tablePath(std::string_view vrf, RouteType type) const override {
        return TablePlace(stores_, vrf, type).path;
    }
    State::Handle<State::Entity> find(std::string_view vrf, RouteType type) const override {
        return TablePlace(stores_, vrf, type).find();
    }
    void eachRoute(std::string_view vrf, RouteType type, const RouteKey* after,
                   const std::function<bool(const ShownRoute&)>& visit) const override {
        const State::Handle<Table> table = TablePlace(stores_, vrf, type).find();
        if (!table)
            return;
        Shown shown(*table);
        std::as_const(*table).routeCollection().visit(
            after, [&](const RouteKey& key, const Route& route) { return visit(shown.of(key, route)); });
    }
    void eachKey(std::string_view vrf, RouteType type,
                 const std::function<void(const RouteKey&)>& visit) const override {
        if (const State::Handle<Table> table = TablePlace(stores_, vrf, type).find())
            std::as_const(*table).routeCollection().visit(nullptr, [&](const RouteKey& key, const Route&) {
                visit(key);
                return true;
            });
    }
    bool showRoute(std::string_view vrf, RouteType type, const RouteKey& key,
                   const std::function<void(const ShownRoute&)>& show) const override {
        const State::Handle<Table> table = TablePlace(stores_, vrf, type).find();
        const Route* route = table ? std::as_const(*table).routeCollection().find(key) : nullptr;
        if (route != nullptr)
            show(Shown(*table).of(key, *route));
        return route != nullptr;
    }

    std::unique_ptr<RouteDraft> draft() const override { return std::make_unique<Draft>(stores_); }
    std::unique_ptr<RouteTable> table(std::string_view vrf, RouteType type) const override {
        return std::make_unique<WrittenTable>(TablePlace(stores_, vrf, type));
    }

  private:
    Stores stores_;
};

// An index that the tables can't have as one of an interface.
void checkRow(const Change& change) {
    const auto checkIndex = [&](const char* field, std::uint64_t index) {
        if (index < OifIndex::null)
            return;
        const std::string null = std::to_string(OifIndex::null);
        refuseByGuard(change, field,
                      "the OIF index " + std::to_string(index) + " is none: " + null +
                          " ends a list, larger ones end the process",
                      "use indexes up to " + std::to_string(OifIndex::null - 1));
    };
    if (change.attribute == "oifIndexIntf")
        return checkIndex("key", *change.key->number());
    if (!change.value || change.value->record() == nullptr)
        return;
    for (const auto& [name, content] : *change.value->record())
        for (const State::Datum& index : *content.list())
            checkIndex("oifs", *index.number());
}

constexpr PathShape shapes[] = {{.text = "routing/multicast/routestatus/VRF/TYPE",
                                 .kind = PathKind::routeTable,
                                 .entityType = &Table::type,
                                 .store = &Stores::tables,
                                 .modes = modes,
                                 .source = "quill",
                                 .checkRow = &checkRow}};

} // namespace

RouteSourceRow quillSource() {
    return {.toggle = false,
            .make = [](const Stores& stores) -> std::unique_ptr<RouteSource> {
                return std::make_unique<QuillSource>(stores);
            },
            .shapes = shapes};
}

} // namespace Agent
