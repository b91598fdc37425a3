#include "agent/kernel/KernelMessage.h"

#include "records/IpAddr.h"

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/if_arp.h>
#include <linux/mroute.h>
#include <linux/netconf.h>
#include <linux/rtnetlink.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <limits>
#include <optional>
#include <span>

namespace Agent::Kernel {
namespace {

// Thrown at what is wrong with a message; MessageReader::next() tells it.
struct Malformed {
    std::string_view problem;
};

constexpr std::string_view badValue = "an attribute has a wrong size";
constexpr std::string_view missingValue = "an attribute is missing";

void require(bool holds, std::string_view problem) {
    if (!holds)
        throw Malformed{problem};
}

using Bytes = std::span<const char>;

Bytes payloadOf(const nlattr* attribute) {
    return {static_cast<const char*>(mnl_attr_get_payload(attribute)), mnl_attr_get_payload_len(attribute)};
}

// Calls visit(type, attribute) for each attribute.
template <class Visit>
void eachAttribute(Bytes bytes, Visit visit) {
    while (!bytes.empty()) {
        const auto* attribute = reinterpret_cast<const nlattr*>(bytes.data());
        require(mnl_attr_ok(attribute, static_cast<int>(bytes.size())), "an attribute does not fit");
        visit(mnl_attr_get_type(attribute), attribute);
        // The last one may come without its padding.
        bytes = bytes.subspan(std::min<std::size_t>(MNL_ALIGN(attribute->nla_len), bytes.size()));
    }
}

// Attributes by their types, of which the highest that is asked for is IFLA_AF_SPEC.
class Attributes {
  public:
    explicit Attributes(Bytes bytes) {
        eachAttribute(bytes, [this](std::size_t type, const nlattr* attribute) {
            ++count_;
            if (type < byType_.size())
                byType_[type] = attribute;
        });
    }

    std::size_t count() const { return count_; }
    // Nothing where there is no such attribute.
    Bytes bytes(std::size_t type) const { return byType_[type] ? payloadOf(byType_[type]) : Bytes(); }
    template <class T>
    std::optional<T> find(std::size_t type) const {
        if (!byType_[type])
            return std::nullopt;
        T value{};
        require(bytes(type).size() == sizeof value, badValue);
        std::memcpy(&value, bytes(type).data(), sizeof value);
        return value;
    }
    template <class T>
    T get(std::size_t type) const {
        require(byType_[type], missingValue);
        return *find<T>(type);
    }

  private:
    std::array<const nlattr*, IFLA_AF_SPEC + 1> byType_{};
    std::size_t count_ = 0;
};

template <class Fixed>
const Fixed& fixedPart(const nlmsghdr* header) {
    require(mnl_nlmsg_get_payload_len(header) >= sizeof(Fixed), "the fixed part is cut short");
    return *static_cast<const Fixed*>(mnl_nlmsg_get_payload(header));
}

template <class Fixed>
Attributes attributesBehind(const nlmsghdr* header) {
    const Bytes body(static_cast<const char*>(mnl_nlmsg_get_payload(header)),
                     mnl_nlmsg_get_payload_len(header));
    return Attributes(body.subspan(std::min<std::size_t>(MNL_ALIGN(sizeof(Fixed)), body.size())));
}

void readNextHops(Bytes bytes, std::vector<int>& oifs) {
    while (!bytes.empty()) {
        rtnexthop hop{};
        require(bytes.size() >= sizeof hop, "a next hop is cut short");
        std::memcpy(&hop, bytes.data(), sizeof hop);
        require(hop.rtnh_len >= sizeof hop && hop.rtnh_len <= bytes.size(), "a next hop has a wrong size");
        require(hop.rtnh_ifindex > 0, "a next hop has no interface");
        oifs.push_back(hop.rtnh_ifindex);
        bytes = bytes.subspan(std::min<std::size_t>(RTNH_ALIGN(hop.rtnh_len), bytes.size()));
    }
}

// The kernel always gives both addresses with their full length, also where they are zero.
void readRoute(const nlmsghdr* header, KernelMessage& message) {
    constexpr unsigned fullLength = 32;
    const auto& fixed = fixedPart<rtmsg>(header);
    if (fixed.rtm_family != RTNL_FAMILY_IPMR)
        return;
    require(fixed.rtm_src_len == fullLength && fixed.rtm_dst_len == fullLength, "a prefix length is not 32");
    const auto given = attributesBehind<rtmsg>(header);
    const std::optional<int> iif = given.find<int>(RTA_IIF);
    require(!iif || *iif > 0, badValue);
    MfcRoute& route = message.route;
    route.table = given.find<std::uint32_t>(RTA_TABLE).value_or(fixed.rtm_table);
    route.key = {.source = ntohl(given.get<std::uint32_t>(RTA_SRC)),
                 .group = ntohl(given.get<std::uint32_t>(RTA_DST))};
    route.iif = iif.value_or(0);
    route.oifs.clear();
    readNextHops(given.bytes(RTA_MULTIPATH), route.oifs);
    route.protocol = fixed.rtm_protocol;
    route.unresolved = (fixed.rtm_flags & RTNH_F_UNRESOLVED) != 0;
    message.kind = header->nlmsg_type == RTM_NEWROUTE ? MessageKind::route : MessageKind::routeGone;
}

Vif vifOf(const nlattr* nest) {
    const Attributes given(payloadOf(nest));
    const Vif vif{.index = given.get<int>(IPMRA_VIFA_VIF_ID),
                  .ifindex = given.get<int>(IPMRA_VIFA_IFINDEX),
                  .isRegister =
                      (given.find<std::uint16_t>(IPMRA_VIFA_FLAGS).value_or(0) & VIFF_REGISTER) != 0};
    require(vif.ifindex > 0 && vif.index >= 0, missingValue);
    return vif;
}

void readVifTable(const nlmsghdr* header, KernelMessage& message) {
    const Attributes table(attributesBehind<ifinfomsg>(header).bytes(IFLA_AF_SPEC));
    message.vifTable.table = table.get<std::uint32_t>(IPMRA_TABLE_ID);
    message.vifTable.vifs.clear();
    eachAttribute(table.bytes(IPMRA_TABLE_VIFS), [&](unsigned type, const nlattr* nest) {
        if (type == IPMRA_VIF)
            message.vifTable.vifs.push_back(vifOf(nest));
    });
    message.kind = MessageKind::vifTable;
}

// Messages of other families are about a role of an interface, and not about the interface: a bridge tells
// with RTM_DELLINK that a port has left it.
void readLink(const nlmsghdr* header, KernelMessage& message) {
    const auto& fixed = fixedPart<ifinfomsg>(header);
    const bool comes = header->nlmsg_type == RTM_NEWLINK;
    if (fixed.ifi_family == RTNL_FAMILY_IPMR && comes)
        return readVifTable(header, message);
    if (fixed.ifi_family != AF_UNSPEC)
        return;
    require(fixed.ifi_index > 0, "an interface has no index");
    const Bytes name = attributesBehind<ifinfomsg>(header).bytes(IFLA_IFNAME);
    message.link = {.ifindex = fixed.ifi_index,
                    .name = std::string(name.begin(), std::ranges::find(name, '\0')),
                    .internal = (fixed.ifi_flags & IFF_LOOPBACK) != 0 || fixed.ifi_type == ARPHRD_PIMREG};
    require(!message.link.name.empty(), missingValue);
    message.kind = comes ? MessageKind::link : MessageKind::linkGone;
}

// The kernel tells all settings of an interface together where its record is made anew, as after a rename;
// only a message with nothing else tells a change of the forwarding state. Negative indexes are "all" and
// "default".
void readNetconf(const nlmsghdr* header, KernelMessage& message) {
    if (fixedPart<netconfmsg>(header).ncm_family != AF_INET)
        return;
    const auto given = attributesBehind<netconfmsg>(header);
    const int ifindex = given.find<int>(NETCONFA_IFINDEX).value_or(0);
    const std::optional<int> tables = given.find<int>(NETCONFA_MC_FORWARDING);
    if (!tables || ifindex <= 0 || given.count() != 2)
        return;
    message.mcForwarding = {.ifindex = ifindex, .tables = *tables};
    message.kind = MessageKind::mcForwarding;
}

// The kernel gives errors as negative numbers; a dump that ends well may give a positive one, or none.
void readEnd(const nlmsghdr* header, KernelMessage& message) {
    const bool isDone = header->nlmsg_type == NLMSG_DONE;
    message.kind = isDone ? MessageKind::done : MessageKind::error;
    if (isDone && mnl_nlmsg_get_payload_len(header) < sizeof(int))
        return;
    const int error = fixedPart<int>(header);
    message.error = error < 0 ? -std::max(error, -std::numeric_limits<int>::max()) : 0;
}

void readBody(const nlmsghdr* header, KernelMessage& message) {
    const unsigned type = header->nlmsg_type;
    if (type == RTM_NEWROUTE || type == RTM_DELROUTE)
        readRoute(header, message);
    else if (type == RTM_NEWLINK || type == RTM_DELLINK)
        readLink(header, message);
    else if (type == RTM_NEWNETCONF)
        readNetconf(header, message);
    else if (type == NLMSG_DONE || type == NLMSG_ERROR)
        readEnd(header, message);
    else if (type == NLMSG_OVERRUN)
        message.kind = MessageKind::overrun;
}

} // namespace

std::string mfcKeyText(const MfcKey& key) {
    const auto text = [](Ipv4 address) { return address == 0 ? "*" : L3::IpAddr(address).stringValue(); };
    return "(" + text(key.source) + ", " + text(key.group) + ")";
}

bool MessageReader::next(KernelMessage& message) {
    message.kind = MessageKind::end;
    if (left_ == 0)
        return false;
    message.kind = MessageKind::other;
    message.sequence = 0;
    message.isPart = message.interrupted = false;
    message.error = 0;
    // Where nothing tells where the next message would start: all. NOLINTNEXTLINE(clang-analyzer-deadcode.DeadStores)
    std::size_t size = left_;
    try {
        const auto* header = reinterpret_cast<const nlmsghdr*>(at_);
        require(left_ >= sizeof *header && header->nlmsg_len >= sizeof *header && header->nlmsg_len <= left_,
                "a message does not fit its datagram");
        size = std::min<std::size_t>(MNL_ALIGN(header->nlmsg_len), left_);
        message.sequence = header->nlmsg_seq;
        message.isPart = (header->nlmsg_flags & NLM_F_MULTI) != 0;
        message.interrupted = (header->nlmsg_flags & NLM_F_DUMP_INTR) != 0;
        readBody(header, message);
    } catch (const Malformed& found) {
        message.kind = MessageKind::malformed;
        message.problem = found.problem;
    }
    at_ += size;
    left_ -= size;
    return true;
}

} // namespace Agent::Kernel
