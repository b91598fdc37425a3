// What the tests of the plug-in share: requests, changes heard, lines traced; and the mroute service with the
// entities around it, told of in tables and routes of whichever source the toggle chooses.
#pragma once

#include "KestrelNat/KestrelNatMulticastSm/NatMrouteSm.h"
#include "KestrelNat/KestrelNatMulticastSm/RouteTypes.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace NatTest {

using KestrelNat::NatMcastRouteKey;
using KestrelNat::NatMrouteKey;
using KestrelNat::NatMrouteSm;
using KestrelNat::NatRequestType;
using Routing::Multicast::Fib::IpGenRouteKey;
using State::Handle;
using State::makeHandle;
using State::Notification;
using QuillTable = Quill::Multicast::Fib::Status;
using LumenFib = Lumen::Multicast::Fib::Status;
using LumenRoute = Lumen::Multicast::Fib::Route;
using Lines = std::vector<std::string>;

// Which source this process uses.
const bool lumen = KestrelNat::toggleKestrelNatMfibLumenEnabled();

// Positions in the list of route types.
enum Type : std::size_t { plain = 0, sparse = 1 };

// What the requests of the tests differ in; "0.0.0.0" is any.
struct Ask {
    std::string_view source = "10.0.0.1";
    std::string_view group = "239.1.1.1";
    std::string_view intf = "Ethernet9";
    std::uint32_t vrf = 3;
    std::uint16_t vlan = 10;
    NatRequestType type = NatRequestType::mrouteRequest;
};
NatMrouteKey request(const Ask& ask = {});
// Of the group that requests ask for.
IpGenRouteKey routeKey(std::string_view source = "10.0.0.1");
NatMcastRouteKey tableKey(std::uint32_t vrf = 3, Type type = plain);

// Calls `reaction` for every change of a publisher while it lives. A reaction may put another in its place.
class OnChange {
  public:
    using Reaction = std::function<void(const Notification&)>;
    explicit OnChange(const State::Publisher& publisher, Reaction given = {});
    ~OnChange();
    OnChange(const OnChange&) = delete;
    OnChange& operator=(const OnChange&) = delete;

    Reaction reaction;

  private:
    static void hear(void* self, const Notification& change);
    const State::Publisher& publisher_;
};
// The same until the publisher ends, which the reaction outlives.
void atEachChange(const State::Publisher& publisher, OnChange::Reaction& reaction);

// The lines of a facility, as "LEVEL MESSAGE".
class Traced {
  public:
    explicit Traced(std::string_view facility);
    // Those since the last call, or the beginning.
    Lines operator()();
    // How many of those hold `part`.
    std::size_t operator()(std::string_view part);

  private:
    std::string_view facility_;
    std::uint64_t mark_;
};

class NatFixture : public testing::Test {
  protected:
    NatFixture();

    // The state machine, made by its factory.
    void start();

    // An empty table, in the route map; `name` where it is not called as its type.
    void tableIs(const NatMcastRouteKey& key = tableKey(), std::string_view name = {});
    void tableDel(const NatMcastRouteKey& key = tableKey());
    bool isWatched(const NatMcastRouteKey& key = tableKey()) const;
    // Adds or changes a route as the source's writer does; its table is there or made.
    void routeIs(std::initializer_list<std::string_view> intfs, std::string_view source = "10.0.0.1",
                 const NatMcastRouteKey& table = tableKey());
    void routeDel(std::string_view source = "10.0.0.1", const NatMcastRouteKey& table = tableKey());

    // "{Ethernet1, Ethernet2}" in order of their numbers, or "none" without an answer.
    std::string answer(const Ask& ask = {}) const;
    // The same of what one route type yields.
    std::string answerOf(Type type) const;
    std::size_t requesters() const;

    Handle<KestrelNat::NatMrouteRequestSet> requests = makeHandle<KestrelNat::NatMrouteRequestSet>();
    Handle<KestrelNat::NatMrouteResponseMap> answers =
        makeHandle<KestrelNat::NatMrouteResponseMap>("answers");
    Handle<KestrelNat::MulticastSmStatus> status = makeHandle<KestrelNat::MulticastSmStatus>();
    Handle<KestrelNat::NatMrouteRouteMap> routeMap = makeHandle<KestrelNat::NatMrouteRouteMap>();
    Handle<KestrelNat::CapabilityConfig> capability = makeHandle<KestrelNat::CapabilityConfig>();
    std::map<NatMcastRouteKey, Handle<QuillTable>> quillTables;
    std::map<NatMcastRouteKey, Handle<LumenFib>> lumenFibs;
    Handle<NatMrouteSm> machine;
    Traced traced{"KestrelNatMulticastSm"};
};

} // namespace NatTest
