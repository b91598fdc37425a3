#include "agent/kernel/MfcMessage.h"

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/if_arp.h>
#include <linux/mroute.h>
#include <linux/netconf.h>
#include <linux/rtnetlink.h>

#include <algorithm>
#include <cstring>
#include <limits>

namespace Agent::Kernel {
namespace {

constexpr std::string_view shortHeader = "the fixed part is cut short";
constexpr std::string_view badAttributes = "an attribute does not fit";
constexpr std::string_view badValue = "an attribute has a wrong size";
constexpr std::string_view missingValue = "an attribute is missing";

template <class T>
bool read(const nlattr* attribute, T& value) {
    if (mnl_attr_get_payload_len(attribute) != sizeof value)
        return false;
    std::memcpy(&value, mnl_attr_get_payload(attribute), sizeof value);
    return true;
}

bool readAddress(const nlattr* attribute, Ipv4& address) {
    std::uint32_t raw = 0;
    if (!read(attribute, raw))
        return false;
    address = ntohl(raw);
    return true;
}

// Calls visit(type, attribute) for each attribute in [begin, begin + size). visit returns a problem or an
// empty text; so does this, whose own problem is an attribute that reaches beyond the end.
template <class Visit>
std::string_view eachAttribute(const void* begin, std::size_t size, Visit visit) {
    const char* at = static_cast<const char*>(begin);
    std::size_t left = size;
    while (left > 0) {
        const auto* attribute = reinterpret_cast<const nlattr*>(at);
        if (!mnl_attr_ok(attribute, static_cast<int>(left)))
            return badAttributes;
        if (std::string_view problem = visit(mnl_attr_get_type(attribute), attribute); !problem.empty())
            return problem;
        // The last attribute may come without its padding.
        std::size_t step = std::min<std::size_t>(MNL_ALIGN(attribute->nla_len), left);
        at += step;
        left -= step;
    }
    return {};
}

template <class Visit>
std::string_view eachNested(const nlattr* outer, Visit visit) {
    return eachAttribute(mnl_attr_get_payload(outer), mnl_attr_get_payload_len(outer), visit);
}

template <class Visit>
std::string_view eachAttributeAfter(const nlmsghdr* header, std::size_t fixedPart, Visit visit) {
    std::size_t skip = MNL_ALIGN(fixedPart);
    std::size_t size = mnl_nlmsg_get_payload_len(header);
    if (size <= skip)
        return {};
    return eachAttribute(static_cast<const char*>(mnl_nlmsg_get_payload(header)) + skip, size - skip, visit);
}

template <class T>
const T* fixedPart(const nlmsghdr* header) {
    return mnl_nlmsg_get_payload_len(header) < sizeof(T)
               ? nullptr
               : static_cast<const T*>(mnl_nlmsg_get_payload(header));
}

std::string_view readNextHops(const nlattr* attribute, std::vector<int>& oifs) {
    const char* at = static_cast<const char*>(mnl_attr_get_payload(attribute));
    std::size_t left = mnl_attr_get_payload_len(attribute);
    while (left > 0) {
        rtnexthop hop{};
        if (left < sizeof hop)
            return "a next hop is cut short";
        std::memcpy(&hop, at, sizeof hop);
        if (hop.rtnh_len < sizeof hop || hop.rtnh_len > left)
            return "a next hop has a wrong size";
        if (hop.rtnh_ifindex <= 0)
            return "a next hop has no interface";
        oifs.push_back(hop.rtnh_ifindex);
        std::size_t step = std::min<std::size_t>(RTNH_ALIGN(hop.rtnh_len), left);
        at += step;
        left -= step;
    }
    return {};
}

// The kernel always gives both addresses with their full length, also where they are zero.
std::string_view readRoute(const nlmsghdr* header, const rtmsg& fixed, MfcRoute& route) {
    constexpr unsigned fullLength = 32;
    route.table = fixed.rtm_table;
    route.key = {};
    route.iif = 0;
    route.oifs.clear();
    route.protocol = fixed.rtm_protocol;
    route.unresolved = (fixed.rtm_flags & RTNH_F_UNRESOLVED) != 0;
    if (fixed.rtm_src_len != fullLength || fixed.rtm_dst_len != fullLength)
        return "a prefix length is not 32";
    bool hasSource = false;
    bool hasGroup = false;
    std::string_view problem = eachAttributeAfter(
        header, sizeof fixed, [&](unsigned type, const nlattr* attribute) -> std::string_view {
            bool fits = true;
            switch (type) {
            case RTA_TABLE:
                fits = read(attribute, route.table);
                break;
            case RTA_SRC:
                fits = hasSource = readAddress(attribute, route.key.source);
                break;
            case RTA_DST:
                fits = hasGroup = readAddress(attribute, route.key.group);
                break;
            case RTA_IIF:
                fits = read(attribute, route.iif) && route.iif > 0;
                break;
            case RTA_MULTIPATH:
                return readNextHops(attribute, route.oifs);
            default:
                break;
            }
            return fits ? std::string_view{} : badValue;
        });
    if (problem.empty() && !(hasSource && hasGroup))
        return missingValue;
    return problem;
}

std::string_view readLink(const nlmsghdr* header, const ifinfomsg& fixed, Link& link) {
    link.ifindex = fixed.ifi_index;
    link.name.clear();
    link.internal = (fixed.ifi_flags & IFF_LOOPBACK) != 0 || fixed.ifi_type == ARPHRD_PIMREG;
    if (link.ifindex <= 0)
        return "an interface has no index";
    std::string_view problem = eachAttributeAfter(
        header, sizeof fixed, [&](unsigned type, const nlattr* attribute) -> std::string_view {
            if (type != IFLA_IFNAME)
                return {};
            const char* text = mnl_attr_get_str(attribute);
            std::size_t size = mnl_attr_get_payload_len(attribute);
            link.name.assign(text, strnlen(text, size));
            return link.name.empty() ? badValue : std::string_view{};
        });
    if (problem.empty() && link.name.empty())
        return missingValue;
    return problem;
}

std::string_view readVif(const nlattr* nested, std::vector<Vif>& vifs) {
    std::uint32_t ifindex = 0;
    std::uint32_t index = 0;
    std::uint16_t flags = 0;
    bool hasIndex = false;
    std::string_view problem =
        eachNested(nested, [&](unsigned type, const nlattr* attribute) -> std::string_view {
            bool fits = true;
            switch (type) {
            case IPMRA_VIFA_IFINDEX:
                fits = read(attribute, ifindex);
                break;
            case IPMRA_VIFA_VIF_ID:
                fits = hasIndex = read(attribute, index);
                break;
            case IPMRA_VIFA_FLAGS:
                fits = read(attribute, flags);
                break;
            default:
                break;
            }
            return fits ? std::string_view{} : badValue;
        });
    if (!problem.empty())
        return problem;
    if (!hasIndex || static_cast<int>(ifindex) <= 0 || static_cast<int>(index) < 0)
        return missingValue;
    vifs.push_back({.index = static_cast<int>(index),
                    .ifindex = static_cast<int>(ifindex),
                    .isRegister = (flags & VIFF_REGISTER) != 0});
    return {};
}

std::string_view readVifTable(const nlmsghdr* header, VifTable& table) {
    table.table = 0;
    table.vifs.clear();
    bool hasTable = false;
    auto tableAttribute = [&](unsigned type, const nlattr* attribute) -> std::string_view {
        if (type == IPMRA_TABLE_ID) {
            hasTable = read(attribute, table.table);
            return hasTable ? std::string_view{} : badValue;
        }
        if (type != IPMRA_TABLE_VIFS)
            return {};
        return eachNested(attribute, [&](unsigned inner, const nlattr* vif) -> std::string_view {
            return inner == IPMRA_VIF ? readVif(vif, table.vifs) : std::string_view{};
        });
    };
    std::string_view problem = eachAttributeAfter(
        header, sizeof(ifinfomsg), [&](unsigned type, const nlattr* attribute) -> std::string_view {
            return type == IFLA_AF_SPEC ? eachNested(attribute, tableAttribute) : std::string_view{};
        });
    if (problem.empty() && !hasTable)
        return missingValue;
    return problem;
}

void malformed(KernelMessage& message, std::string_view problem) {
    message.kind = MessageKind::malformed;
    message.problem = problem;
}

void settle(KernelMessage& message, MessageKind kind, std::string_view problem) {
    if (problem.empty())
        message.kind = kind;
    else
        malformed(message, problem);
}

void readRouteMessage(const nlmsghdr* header, KernelMessage& message) {
    const auto* fixed = fixedPart<rtmsg>(header);
    if (!fixed)
        return malformed(message, shortHeader);
    if (fixed->rtm_family != RTNL_FAMILY_IPMR)
        return;
    settle(message, header->nlmsg_type == RTM_NEWROUTE ? MessageKind::route : MessageKind::routeGone,
           readRoute(header, *fixed, message.route));
}

// Messages of other families are about a role of an interface, and not about the interface: a bridge tells
// with RTM_DELLINK that a port has left it.
void readLinkMessage(const nlmsghdr* header, KernelMessage& message) {
    const auto* fixed = fixedPart<ifinfomsg>(header);
    if (!fixed)
        return malformed(message, shortHeader);
    bool comes = header->nlmsg_type == RTM_NEWLINK;
    if (fixed->ifi_family == AF_UNSPEC)
        settle(message, comes ? MessageKind::link : MessageKind::linkGone,
               readLink(header, *fixed, message.link));
    else if (fixed->ifi_family == RTNL_FAMILY_IPMR && comes)
        settle(message, MessageKind::vifTable, readVifTable(header, message.vifTable));
}

// The kernel tells all settings of an interface together where its record is made anew, as after a rename;
// only a message with nothing else tells a change of the forwarding state. Negative indexes are "all" and
// "default".
void readNetconfMessage(const nlmsghdr* header, KernelMessage& message) {
    const auto* fixed = fixedPart<netconfmsg>(header);
    if (!fixed)
        return malformed(message, shortHeader);
    if (fixed->ncm_family != AF_INET)
        return;
    bool hasIndex = false;
    bool hasForwarding = false;
    bool hasOther = false;
    McForwarding& state = message.mcForwarding;
    std::string_view problem = eachAttributeAfter(
        header, sizeof *fixed, [&](unsigned type, const nlattr* attribute) -> std::string_view {
            bool fits = true;
            if (type == NETCONFA_IFINDEX)
                fits = hasIndex = read(attribute, state.ifindex);
            else if (type == NETCONFA_MC_FORWARDING)
                fits = hasForwarding = read(attribute, state.tables);
            else
                hasOther = true;
            return fits ? std::string_view{} : badValue;
        });
    if (!problem.empty())
        malformed(message, problem);
    else if (hasIndex && hasForwarding && !hasOther && state.ifindex > 0)
        message.kind = MessageKind::mcForwarding;
}

void readEnd(const nlmsghdr* header, KernelMessage& message) {
    bool isDone = header->nlmsg_type == NLMSG_DONE;
    message.kind = isDone ? MessageKind::done : MessageKind::error;
    if (mnl_nlmsg_get_payload_len(header) < sizeof message.error) {
        if (!isDone)
            malformed(message, shortHeader);
        return;
    }
    std::memcpy(&message.error, mnl_nlmsg_get_payload(header), sizeof message.error);
    // The kernel gives errors as negative numbers; a dump that ends well may give a positive one.
    message.error = message.error < 0 ? -std::max(message.error, -std::numeric_limits<int>::max()) : 0;
}

} // namespace

std::string ipv4Text(Ipv4 address) {
    in_addr raw{.s_addr = htonl(address)};
    char text[INET_ADDRSTRLEN] = {};
    inet_ntop(AF_INET, &raw, text, sizeof text);
    return text;
}

std::string mfcKeyText(const MfcKey& key) {
    return "(" + (key.source ? ipv4Text(key.source) : "*") + ", " + (key.group ? ipv4Text(key.group) : "*") +
           ")";
}

bool MessageReader::next(KernelMessage& message) {
    message.kind = MessageKind::end;
    if (left_ == 0)
        return false;
    message.kind = MessageKind::other;
    message.sequence = 0;
    message.isPart = false;
    message.interrupted = false;
    message.error = 0;
    const auto* header = reinterpret_cast<const nlmsghdr*>(at_);
    if (left_ < sizeof *header || header->nlmsg_len < sizeof *header || header->nlmsg_len > left_) {
        left_ = 0;
        malformed(message, "a message does not fit its datagram");
        return true;
    }
    message.sequence = header->nlmsg_seq;
    message.isPart = (header->nlmsg_flags & NLM_F_MULTI) != 0;
    message.interrupted = (header->nlmsg_flags & NLM_F_DUMP_INTR) != 0;
    switch (header->nlmsg_type) {
    case RTM_NEWROUTE:
    case RTM_DELROUTE:
        readRouteMessage(header, message);
        break;
    case RTM_NEWLINK:
    case RTM_DELLINK:
        readLinkMessage(header, message);
        break;
    case RTM_NEWNETCONF:
        readNetconfMessage(header, message);
        break;
    case NLMSG_DONE:
    case NLMSG_ERROR:
        readEnd(header, message);
        break;
    case NLMSG_OVERRUN:
        message.kind = MessageKind::overrun;
        break;
    default:
        break;
    }
    std::size_t step = std::min<std::size_t>(MNL_ALIGN(header->nlmsg_len), left_);
    at_ += step;
    left_ -= step;
    return true;
}

} // namespace Agent::Kernel
