#include "agent/kernel/NetlinkSocket.h"

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <system_error>
#include <utility>

namespace Agent::Kernel {
namespace {

constexpr std::size_t answerBytes = std::size_t{128} * 1024;

[[noreturn]] void failHere(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

} // namespace

NetlinkSocket::NetlinkSocket(std::size_t longest, std::size_t bufferBytes, std::initializer_list<int> groups)
    : fd_(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE))
    , datagram_(longest / sizeof(std::uint32_t)) {
    if (!fd_)
        failHere("can't open a netlink socket");
    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    if (::bind(fd(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        failHere("can't bind a netlink socket");
    int bytes = static_cast<int>(bufferBytes);
    socklen_t size = sizeof bytes;
    if (::setsockopt(fd(), SOL_SOCKET, SO_RCVBUFFORCE, &bytes, size) != 0)
        ::setsockopt(fd(), SOL_SOCKET, SO_RCVBUF, &bytes, size);
    if (::getsockopt(fd(), SOL_SOCKET, SO_RCVBUF, &bytes, &size) == 0)
        bufferBytes_ = static_cast<std::size_t>(bytes);
    for (int group : groups)
        if (::setsockopt(fd(), SOL_NETLINK, NETLINK_ADD_MEMBERSHIP, &group, sizeof group) != 0)
            failHere("can't subscribe to the kernel's multicast routes");
}

int NetlinkSocket::receive() {
    const std::size_t longest = datagram_.size() * sizeof(std::uint32_t);
    sockaddr_nl sender{};
    socklen_t senderSize = sizeof sender;
    const ssize_t size = ::recvfrom(fd_.get(), datagram_.data(), longest, MSG_DONTWAIT | MSG_TRUNC,
                                    reinterpret_cast<sockaddr*>(&sender), &senderSize);
    size_ = 0;
    if (size < 0)
        return errno;
    if (sender.nl_pid != 0)
        return 0;
    if (static_cast<std::size_t>(size) > longest)
        return EMSGSIZE;
    size_ = static_cast<std::size_t>(size);
    return 0;
}

// With strict checks the kernel heeds the table that a dump asks for; where it knows no strict checks it
// dumps all tables, which costs time and nothing else.
QuerySocket::QuerySocket()
    : socket_(answerBytes, answerBytes) {
    int yes = 1;
    ::setsockopt(socket_.fd(), SOL_NETLINK, NETLINK_GET_STRICT_CHK, &yes, sizeof yes);
}

bool QuerySocket::step(Mirror& mirror, const SettleEvents& settleEvents) {
    if (!busy()) {
        const std::optional<KernelQuery> query = mirror.nextQuery(Mirror::Clock::now());
        if (!query)
            return false;
        ask(*query);
    }
    if (busy_)
        receive(mirror);
    if (busy_)
        return true;
    // VIFs and interfaces are taken as read: events that come after them must not be judged by them.
    const bool hasJustEnded = !std::exchange(ended_, true);
    if (kind_ == KernelQuery::Kind::routes && !settleEvents(hasJustEnded))
        return true;
    ended_ = false;
    mirror.endAnswer(error_, interrupted_, Mirror::Clock::now());
    return true;
}

void QuerySocket::ask(const KernelQuery& query) {
    using Kind = KernelQuery::Kind;
    alignas(nlmsghdr) std::array<char, 256> bytes{};
    nlmsghdr* header = mnl_nlmsg_put_header(bytes.data());
    header->nlmsg_flags =
        static_cast<std::uint16_t>(NLM_F_REQUEST | (query.kind == Kind::route ? 0 : NLM_F_DUMP));
    header->nlmsg_seq = ++sequence_;
    if (query.kind == Kind::links || query.kind == Kind::vifs) {
        header->nlmsg_type = RTM_GETLINK;
        auto* fixed = static_cast<ifinfomsg*>(mnl_nlmsg_put_extra_header(header, sizeof(ifinfomsg)));
        fixed->ifi_family = query.kind == Kind::vifs ? RTNL_FAMILY_IPMR : AF_UNSPEC;
        if (query.kind == Kind::links)
            mnl_attr_put_u32(header, IFLA_EXT_MASK, RTEXT_FILTER_SKIP_STATS);
    } else {
        header->nlmsg_type = RTM_GETROUTE;
        auto* fixed = static_cast<rtmsg*>(mnl_nlmsg_put_extra_header(header, sizeof(rtmsg)));
        fixed->rtm_family = RTNL_FAMILY_IPMR;
        mnl_attr_put_u32(header, RTA_TABLE, query.table);
        if (query.kind == Kind::route) {
            fixed->rtm_src_len = fixed->rtm_dst_len = 32;
            mnl_attr_put_u32(header, RTA_SRC, htonl(query.key.source));
            mnl_attr_put_u32(header, RTA_DST, htonl(query.key.group));
        }
    }
    kind_ = query.kind;
    busy_ = true;
    interrupted_ = false;
    if (::send(socket_.fd(), header, header->nlmsg_len, 0) < 0)
        breakOff(errno);
}

void QuerySocket::receive(Mirror& mirror) {
    const int error = socket_.receive();
    if (error != 0 && error != EINTR)
        breakOff(error);
    MessageReader reader = socket_.messages();
    while (busy_ && reader.next(message_)) {
        if (message_.sequence != sequence_)
            continue;
        interrupted_ = interrupted_ || message_.interrupted;
        const bool ends = message_.kind == MessageKind::done || message_.kind == MessageKind::error;
        busy_ = !ends && message_.isPart;
        error_ = message_.error;
        if (!ends)
            mirror.takeAnswer(message_);
    }
}

// What is left of an answer that broke off is in the way of the next one.
void QuerySocket::breakOff(int error) {
    for (int rest = 0; rest == 0 || rest == EMSGSIZE || rest == ENOBUFS || rest == EINTR;)
        rest = socket_.receive();
    busy_ = false;
    error_ = error;
}

} // namespace Agent::Kernel
