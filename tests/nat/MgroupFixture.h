// The mgroup service with the five entities around it, and the words in which its stories are told: requests
// of one flow that differ in interface, VLAN or VRF, and the hardware's rows for it.
#pragma once

#include "KestrelNat/KestrelNatMulticastSm/NatMgroupSm.h"
#include "state/Mount.h"
#include "state/Trace.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace MgroupTests {

using KestrelCommon::MrouteGroup::MgroupColl;
using KestrelCommon::MrouteGroup::MrouteColl;
using KestrelL3::IpMcastKey;
using KestrelNat::MrouteIntfAndVlan;
using KestrelNat::NatMgroupSm;
using KestrelNat::NatMrouteKey;
using KestrelNat::NatRequestType;

const L3::IpAddr source("10.0.0.1");
const L3::IpAddr group("239.1.1.1");

struct Ask {
    std::string_view intf = "Ethernet1";
    std::uint16_t vlan = 10;
    std::uint32_t vrf = 3;
    NatRequestType type = NatRequestType::mgroupRequest;
};
inline NatMrouteKey request(const Ask& ask = {}) {
    return {L3::IntfId(ask.intf), ask.vrf, ask.vlan, source, group, ask.type};
}
// Key of the hardware's row.
inline IpMcastKey row(std::uint16_t vlan = 10, std::uint16_t vrf = 3) {
    return {vrf, source, group, vlan};
}
inline KestrelNat::VrfIdMrouteSourceAndGroup flow(std::uint32_t vrf = 3) {
    return {vrf, {source, group}};
}

class MgroupTest : public ::testing::Test {
  protected:
    // The state machine, made by its factory.
    void start() { machine = KestrelNat::natMgroupSmFactory(requests, responses, status, config, groups); }
    void groupIs(const IpMcastKey& key, std::uint32_t id) { groups->mgroupsIs(key, {.groupId = id}); }

    std::optional<std::uint32_t> answer(const NatMrouteKey& key) const {
        return responses->mgroupIdHas(key) ? std::optional(responses->mgroupId(key)) : std::nullopt;
    }
    std::vector<IpMcastKey> configRows() const {
        std::vector<IpMcastKey> rows;
        config->mroutes([&](const auto& item) {
            rows.push_back(item.key());
            return true;
        });
        return rows;
    }
    // Who the state machine remembers for the flow, in order of asking.
    std::vector<MrouteIntfAndVlan> requesters(std::uint32_t vrf = 3) const {
        return machine->vrfIdSourceAndGroupToIntf(flow(vrf)).elements();
    }

    // Lines of the service since `mark`, as "LEVEL MESSAGE".
    std::vector<std::string> traced() const {
        std::vector<std::string> lines;
        for (const State::TraceRecord& record : State::traceRecordsSince(mark))
            if (record.facility == "KestrelNatMulticastSm")
                lines.push_back(std::to_string(record.level) + " " + record.message);
        return lines;
    }
    std::size_t tracedCount(std::string_view line) const {
        const auto lines = traced();
        return static_cast<std::size_t>(std::count(lines.begin(), lines.end(), line));
    }

    State::Handle<KestrelNat::NatMgroupRequestSet> requests =
        State::makeHandle<KestrelNat::NatMgroupRequestSet>();
    State::Handle<KestrelNat::NatMgroupResponseMap> responses =
        State::makeHandle<KestrelNat::NatMgroupResponseMap>();
    State::Handle<KestrelNat::MulticastSmStatus> status = State::makeHandle<KestrelNat::MulticastSmStatus>();
    State::Handle<MrouteColl> config = State::makeHandle<MrouteColl>("config");
    State::Handle<MgroupColl> groups = State::makeHandle<MgroupColl>("status");
    State::Handle<NatMgroupSm> machine;
    std::uint64_t mark = State::traceNext();
};

// Calls `reaction` for every change of a publisher while it lives.
template <class Reaction>
class OnChange {
  public:
    OnChange(const State::Publisher& publisher, Reaction reaction)
        : publisher_(publisher)
        , reaction_(std::move(reaction)) {
        publisher_.subscribe(this, &dispatch);
    }
    ~OnChange() { publisher_.unsubscribe(this, &dispatch); }
    OnChange(const OnChange&) = delete;
    OnChange& operator=(const OnChange&) = delete;

  private:
    static void dispatch(void* self, const State::Notification& change) {
        static_cast<OnChange*>(self)->reaction_(change);
    }

    const State::Publisher& publisher_;
    Reaction reaction_;
};

} // namespace MgroupTests
