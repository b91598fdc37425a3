// What the kernel says about multicast forwarding, as plain structs.
//
// A MessageReader walks one datagram of a netlink socket and fills one KernelMessage after the other. It believes
// nothing that it read: what doesn't fit is reported as malformed. It keeps nothing between datagrams. Read next:
// NetlinkSocket.h, where messages come from; Mirror.h, which holds the state that they change.
#pragma once

#include "state/Hash.h"

#include <compare>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace Agent::Kernel {

/// An IPv4 address in host byte order; 0 is "any".
using Ipv4 = std::uint32_t;

/// Names a route within one table of the kernel. Source 0 makes it a (*,G) route.
struct MfcKey {
    Ipv4 source = 0;
    Ipv4 group = 0;
    auto operator<=>(const MfcKey&) const = default;
    std::uint32_t hash(std::uint32_t seed) const {
        return State::Hasher(seed).mix(source).mix(group).result();
    }
};

/// "(10.0.0.1, 239.1.1.1)", with "*" for 0.
std::string mfcKeyText(const MfcKey& key);

/// One entry of the multicast forwarding cache. An unresolved one stands for packets that wait for a route: it has
/// neither IIF nor OIFs, and can exist beside a route of the same key.
struct MfcRoute {
    std::uint32_t table = 0;
    MfcKey key;
    int iif = 0;           // ifindex; 0 is none
    std::vector<int> oifs; // ifindexes as told, the IIF or a register VIF possibly among them
    std::uint8_t protocol = 0;
    bool unresolved = false;
};

/// A network interface.
struct Link {
    int ifindex = 0;
    std::string name;
    bool internal = false; // lo, or where a PIM daemon receives register messages: never an OIF to report
};

struct Vif {
    int index = 0;
    int ifindex = 0;
    bool isRegister = false;
    bool operator==(const Vif&) const = default;
};

/// A table with VIFs. A dump may spread one table over several messages.
struct VifTable {
    std::uint32_t table = 0;
    std::vector<Vif> vifs;
};

/// An interface became a VIF, or one less; tables is the number of VIFs that it is now, over all tables.
struct McForwarding {
    int ifindex = 0;
    int tables = 0;
};

enum class MessageKind {
    end,   // no further message in this datagram
    route, // a route was added or changed, or is part of an answer
    routeGone,
    link, // an interface came or changed, or is part of an answer
    linkGone,
    vifTable,
    mcForwarding,
    done,    // an answer is complete; error is set when it ended early
    error,   // the request failed (error is the errno), or succeeded (0)
    overrun, // the kernel says that it dropped messages
    other,   // well-formed and of no concern here
    malformed,
};

/// The member that the kind names is valid; the others keep what they had, so that their storage is reused.
struct KernelMessage {
    MessageKind kind = MessageKind::end;
    std::uint32_t sequence = 0; // of the request that this answers; 0 for events
    bool isPart = false;        // of an answer that a later message ends
    bool interrupted = false;   // the kernel marked this answer as inconsistent
    int error = 0;
    std::string_view problem; // malformed: what was wrong
    MfcRoute route;
    Link link;
    VifTable vifTable;
    McForwarding mcForwarding;
};

class MessageReader {
  public:
    /// @param data one datagram, aligned to 4 bytes; it must outlive the reader.
    MessageReader(const void* data, std::size_t size)
        : at_(static_cast<const char*>(data))
        , left_(size) {}

    /// Reads the next message. A header that can't be right ends the datagram with one malformed message.
    /// @return false when there is none left; message.kind is then end.
    bool next(KernelMessage& message);

  private:
    const char* at_;
    std::size_t left_;
};

} // namespace Agent::Kernel
