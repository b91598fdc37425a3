// The Lumen FIBs as the source of routes (RouteSource.h): one FIB per VRF and route type, all FIBs of a type in one
// entity of the entity store; routes hold their interfaces themselves, and say whether they are ready.
#include "agent/host/RouteSource.h"
#include "records/LumenFib.h"

namespace Agent {

namespace {

using Lumen::Multicast::Fib::MfibVrfName;
using Lumen::Multicast::Fib::Route;
using Lumen::Multicast::Fib::StatusByVrf;
using Fib = Lumen::Multicast::Fib::Status;
using Routing::Multicast::Fib::sparseMode;
using Routing::Multicast::Fib::userMode;

constexpr const char* modes[] = {userMode, sparseMode}; // by RouteType

std::string fibsPath(RouteType type) {
    return StatusByVrf::mountPath(L3::AddressFamily::ipv4, modes[static_cast<std::size_t>(type)]);
}

std::string fibPath(std::string_view vrf, RouteType type) {
    return fibsPath(type) + "/" + std::string(vrf);
}

class Draft final : public RouteDraft {
  public:
    std::vector<Change> changes(const DraftedRoute& route) override {
        State::Datum::List oifs(route.oifs.begin(), route.oifs.end());
        State::Datum::Record row{{"intf", std::move(oifs)},
                                 {"ready", std::uint64_t{route.isReady ? Route::isReady : 0U}}};
        return {{.path = fibPath(route.vrf, route.type),
                 .attribute = "route",
                 .key = route.key,
                 .value = std::move(row)}};
    }
};

// A VRF's FIB of a route type: where it is.
struct FibPlace {
    FibPlace(const Stores& stores, std::string_view vrfName, RouteType type)
        : entities(stores.entities)
        , path(fibsPath(type))
        , vrf(L3::VrfName(vrfName)) {}

    State::Handle<Fib> find() const {
        const auto fibs = State::handleCast<StatusByVrf>(entities->entity(path));
        return fibs ? fibs->status(vrf) : State::Handle<Fib>();
    }
    State::Handle<Fib> made() const {
        const auto fibs =
            State::handleCast<StatusByVrf>(entities->entityIs(path, StatusByVrf::type().name()));
        State::Handle<Fib> fib = fibs->status(vrf);
        if (!fib) {
            fib = State::makeHandle<Fib>(fibs->name());
            fibs->statusIs(vrf, fib);
        }
        return fib;
    }

    State::Handle<State::Store> entities;
    std::string path; // of what holds the FIBs of the type
    MfibVrfName vrf;
};

class WrittenFib final : public RouteTable {
  public:
    explicit WrittenFib(FibPlace place)
        : place_(std::move(place)) {}

    bool put(const RouteKey& key, std::span<const Oif> oifs) override {
        L3::IntfSet intf;
        for (const Oif& oif : oifs)
            intf.insert(L3::IntfId(oif.name));
        const State::Handle<Fib> fib = place_.made();
        const State::Handle<Route> present = fib->route(key);
        if (!present) {
            const auto made = State::makeHandle<Route>(key);
            made->intfIs(std::move(intf));
            fib->routeIs(made);
            return true;
        }
        if (present->intf() == intf && present->ready() == Route::isReady)
            return false;
        present->intfIs(std::move(intf));
        present->readyIs(Route::isReady);
        present->versionAdvance();
        return true;
    }

    bool erase(const RouteKey& key) override {
        const State::Handle<Fib> fib = place_.find();
        const bool isThere = fib && fib->route(key);
        if (isThere)
            fib->routeDel(key);
        return isThere;
    }

  private:
    FibPlace place_;
};

class LumenSource final : public RouteSource {
  public:
    explicit LumenSource(const Stores& stores)
        : stores_(stores) {
        for (const RouteType type : routeTypes)
            stores_.entities->entityIs(fibsPath(type), StatusByVrf::type().name());
    }

    std::string_view name() const override { return "lumen"; }
    std::string tablePath(std::string_view vrf, RouteType type) const override { return fibPath(vrf, type); }
    State::Handle<State::Entity> find(std::string_view vrf, RouteType type) const override {
        return FibPlace(stores_, vrf, type).find();
    }
    void eachRoute(std::string_view vrf, RouteType type, const RouteKey* after,
                   const std::function<bool(const ShownRoute&)>& visit) const override {
        const State::Handle<Fib> fib = FibPlace(stores_, vrf, type).find();
        if (!fib)
            return;
        ShownRoute shown;
        std::as_const(*fib).routeCollection().visit(after,
                                                    [&](const RouteKey&, const State::Handle<Route>& route) {
                                                        fill(shown, *route);
                                                        return visit(shown);
                                                    });
    }
    bool showRoute(std::string_view vrf, RouteType type, const RouteKey& key,
                   const std::function<void(const ShownRoute&)>& show) const override {
        const State::Handle<Fib> fib = FibPlace(stores_, vrf, type).find();
        const State::Handle<Route> route = fib ? fib->route(key) : State::Handle<Route>();
        if (!route)
            return false;
        ShownRoute shown;
        fill(shown, *route);
        show(shown);
        return true;
    }
    void eachKey(std::string_view vrf, RouteType type,
                 const std::function<void(const RouteKey&)>& visit) const override {
        if (const State::Handle<Fib> fib = FibPlace(stores_, vrf, type).find())
            fib->routeCollection().visit(nullptr, [&](const RouteKey& key, const auto&) {
                visit(key);
                return true;
            });
    }

    std::unique_ptr<RouteDraft> draft() const override { return std::make_unique<Draft>(); }
    std::unique_ptr<RouteTable> table(std::string_view vrf, RouteType type) const override {
        return std::make_unique<WrittenFib>(FibPlace(stores_, vrf, type));
    }

  private:
    static void fill(ShownRoute& shown, const Route& route) {
        shown.key = route.key();
        shown.oifs.clear();
        for (const L3::IntfId intf : route.intf())
            shown.oifs.emplace_back(intf.stringValue());
        shown.isReady = route.ready() == Route::isReady;
    }

    Stores stores_;
};

constexpr PathShape shapes[] = {{.text = "lumen/multicast/fib/ipv4/TYPE",
                                 .kind = PathKind::routeTables,
                                 .entityType = &StatusByVrf::type,
                                 .store = &Stores::entities,
                                 .modes = modes,
                                 .source = "lumen"},
                                {.text = "lumen/multicast/fib/ipv4/TYPE/VRF",
                                 .kind = PathKind::routeTable,
                                 .entityType = &Fib::type,
                                 .store = &Stores::entities,
                                 .isMember = true,
                                 .modes = modes,
                                 .source = "lumen"}};

} // namespace

RouteSourceRow lumenSource() {
    return {.toggle = true,
            .make = [](const Stores& stores) -> std::unique_ptr<RouteSource> {
                return std::make_unique<LumenSource>(stores);
            },
            .shapes = shapes};
}

} // namespace Agent
