#include "agent/host/LumenSource.h"

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

// A VRF's FIB of a route type: where it is.
struct FibPlace {
    FibPlace(const Stores& from, std::string_view vrfName, RouteType type)
        : stores(from)
        , path(fibsPath(type))
        , vrf(L3::VrfName(vrfName)) {}

    State::Handle<Fib> find() const {
        const auto fibs = State::handleCast<StatusByVrf>(stores.entities->entity(path));
        return fibs ? fibs->status(vrf) : State::Handle<Fib>();
    }
    State::Handle<Fib> made() const {
        const auto fibs =
            State::handleCast<StatusByVrf>(stores.entities->entityIs(path, StatusByVrf::type().name()));
        State::Handle<Fib> fib = fibs->status(vrf);
        if (!fib) {
            fib = State::makeHandle<Fib>(fibs->name());
            fibs->statusIs(vrf, fib);
        }
        return fib;
    }

    Stores stores;
    std::string path; // of what holds the FIBs of the type
    MfibVrfName vrf;
};

class Draft final : public RouteDraft {
  public:
    std::vector<RowWrite> route(std::string_view vrf, RouteType type, const State::Datum& key,
                                const std::vector<std::string>& oifs, bool isReady) override {
        State::Datum::List list(oifs.begin(), oifs.end());
        State::Datum::Record row{{"intf", std::move(list)},
                                 {"ready", std::uint64_t{isReady ? Route::isReady : 0U}}};
        return {{fibsPath(type) + "/" + std::string(vrf), "route", key, State::Datum(std::move(row))}};
    }
};

class WrittenFib final : public RouteTable {
  public:
    explicit WrittenFib(FibPlace place)
        : place_(std::move(place)) {}

    bool put(const RouteKey& key, std::span<const Oif> oifs) override {
        L3::IntfSet intf;
        for (const Oif& oif : oifs)
            intf.insert(L3::IntfId(oif.name));
        State::Handle<Fib> fib = place_.find();
        if (!fib)
            fib = place_.made();
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

    bool rename(int /*ifindex*/, std::string_view /*name*/) override { return false; }
    void forget(int /*ifindex*/) override {}

  private:
    FibPlace place_;
};

class LumenSource final : public RouteSource {
  public:
    explicit LumenSource(const Stores& stores)
        : stores_(stores) {}

    std::string_view name() const override { return "lumen"; }
    void makeEntities() override {
        for (const RouteType type : routeTypes)
            stores_.entities->entityIs(fibsPath(type), StatusByVrf::type().name());
    }

    std::string tablePath(std::string_view vrf, RouteType type) const override {
        return fibsPath(type) + "/" + std::string(vrf);
    }
    bool hasTable(std::string_view vrf, RouteType type) const override {
        return static_cast<bool>(FibPlace(stores_, vrf, type).find());
    }
    std::size_t routes(std::string_view vrf, RouteType type) const override {
        const State::Handle<Fib> fib = FibPlace(stores_, vrf, type).find();
        return fib ? std::as_const(*fib).routeCollection().size() : 0;
    }
    void eachRoute(std::string_view vrf, RouteType type,
                   const std::function<bool(const ShownRoute&)>& visit) const override {
        const State::Handle<Fib> fib = FibPlace(stores_, vrf, type).find();
        if (!fib)
            return;
        ShownRoute shown;
        fib->routes([&](const State::Handle<Route>& route) {
            shown.key = route->key();
            shown.oifs.clear();
            for (const L3::IntfId intf : route->intf())
                shown.oifs.emplace_back(intf.stringValue());
            shown.isReady = route->ready() == Route::isReady;
            return visit(shown);
        });
    }

    std::unique_ptr<RouteDraft> draft() const override { return std::make_unique<Draft>(); }
    std::unique_ptr<RouteTable> table(std::string_view vrf, RouteType type) override {
        return std::make_unique<WrittenFib>(FibPlace(stores_, vrf, type));
    }

  private:
    Stores stores_;
};

} // namespace

std::unique_ptr<RouteSource> makeLumenSource(const Stores& stores) {
    return std::make_unique<LumenSource>(stores);
}

std::span<const PathShape> lumenShapes() {
    static const PathShape shapes[] = {{.text = "lumen/multicast/fib/ipv4/TYPE",
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
    return shapes;
}

} // namespace Agent
