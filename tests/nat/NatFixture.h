// The mroute service with the entities around it, and the words in which its stories are told: tables and
// routes of whichever source the toggle chooses, requests, answers, and what a subscriber of the answers
// hears.
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
using QuillTable = Quill::Multicast::Fib::Status;
using LumenFib = Lumen::Multicast::Fib::Status;
using LumenRoute = Lumen::Multicast::Fib::Route;

using Lines = std::vector<std::string>;
using Names = std::initializer_list<std::string_view>;

// Which source this process uses.
const bool lumen = KestrelNat::toggleKestrelNatMfibLumenEnabled();

// Positions in the list of route types.
enum Type : std::size_t { plain = 0, sparse = 1 };

// What the requests of the stories differ in; "0.0.0.0" is any.
struct Ask {
    std::string_view source = "10.0.0.1";
    std::string_view group = "239.1.1.1";
    std::string_view intf = "Ethernet9";
    std::uint32_t vrf = 3;
    std::uint16_t vlan = 10;
    NatRequestType type = NatRequestType::mrouteRequest;
};
NatMrouteKey request(const Ask& ask = {});
// An address, or a prefix where a length is given: "10.0.0.1/24".
IpGenRouteKey routeKey(std::string_view source, std::string_view group);
NatMcastRouteKey tableKey(std::uint32_t vrf, Type type);

// Hears every change of the answers, "Ethernet9 10.0.0.1 239.1.1.1 {Ethernet1}" or "... gone", and then calls
// `reaction`, where one is set.
class AnswerListener {
  public:
    explicit AnswerListener(Handle<KestrelNat::NatMrouteResponseMap> answers);
    ~AnswerListener();
    AnswerListener(const AnswerListener&) = delete;
    AnswerListener& operator=(const AnswerListener&) = delete;

    Lines heard;
    std::function<void(const NatMrouteKey&)> reaction;

  private:
    static void hear(void* self, const State::Notification& change);
    Handle<KestrelNat::NatMrouteResponseMap> answers_;
};

class NatFixture : public testing::Test {
  protected:
    NatFixture();

    // The state machine, made by its factory.
    void start();

    // An empty table, in the route map; `name` where it is not called as its type.
    void tableIs(std::uint32_t vrf, Type type, std::string_view name = {});
    void tableDel(std::uint32_t vrf, Type type);
    bool isWatched(std::uint32_t vrf, Type type) const;
    // Adds or changes a route as the source's writer does; its table is there or made.
    void routeIs(std::uint32_t vrf, Type type, std::string_view source, std::string_view group, Names intfs);
    void routeDel(std::uint32_t vrf, Type type, std::string_view source, std::string_view group);
    // The index under which the Quill tables of the stories name an interface, its row made.
    std::uint16_t oifIndex(QuillTable& table, std::string_view intf);

    // "{Ethernet1, Ethernet2}" in order of their numbers, or "none" without an answer.
    std::string answer(const Ask& ask = {}) const;
    // The same of what one route type yields.
    std::string answerOf(Type type, const Ask& ask = {}) const;
    std::size_t requesters(const Ask& ask = {}) const;

    // Lines of the service since the last call (or the beginning), as "LEVEL MESSAGE".
    Lines traced();
    static std::size_t countOf(const Lines& lines, std::string_view part);

    Handle<KestrelNat::NatMrouteRequestSet> requests = State::makeHandle<KestrelNat::NatMrouteRequestSet>();
    Handle<KestrelNat::NatMrouteResponseMap> answers =
        State::makeHandle<KestrelNat::NatMrouteResponseMap>("answers");
    Handle<KestrelNat::MulticastSmStatus> status = State::makeHandle<KestrelNat::MulticastSmStatus>();
    Handle<KestrelNat::NatMrouteRouteMap> routeMap = State::makeHandle<KestrelNat::NatMrouteRouteMap>();
    Handle<KestrelNat::CapabilityConfig> capability = State::makeHandle<KestrelNat::CapabilityConfig>();
    std::map<NatMcastRouteKey, Handle<QuillTable>> quillTables;
    std::map<NatMcastRouteKey, Handle<LumenFib>> lumenFibs;
    Handle<NatMrouteSm> machine;
    std::uint64_t mark;
};

} // namespace NatTest
