#include "agent/kernel/NetlinkSocket.h"

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <system_error>

namespace Agent::Kernel {
namespace {

constexpr std::size_t batchDatagrams = 32;
// A link with many virtual functions is the longest event; a datagram that doesn't fit counts as lost.
constexpr std::size_t eventBytes = std::size_t{32} * 1024;
constexpr std::size_t answerBytes = std::size_t{128} * 1024;

[[noreturn]] void failHere(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

Fd openNetlink() {
    Fd fd(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE));
    if (!fd)
        failHere("can't open a netlink socket");
    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    if (::bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        failHere("can't bind a netlink socket");
    return fd;
}

std::size_t growReceiveBuffer(int fd, std::size_t bytes) {
    int wanted = static_cast<int>(bytes);
    if (::setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &wanted, sizeof wanted) != 0)
        ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &wanted, sizeof wanted);
    int granted = 0;
    socklen_t size = sizeof granted;
    ::getsockopt(fd, SOL_SOCKET, SO_RCVBUF, &granted, &size);
    return static_cast<std::size_t>(granted);
}

} // namespace

struct Subscription::Batch {
    std::array<std::array<std::uint32_t, eventBytes / sizeof(std::uint32_t)>, batchDatagrams> bytes;
    std::array<sockaddr_nl, batchDatagrams> senders{};
    std::array<iovec, batchDatagrams> vectors{};
    std::array<mmsghdr, batchDatagrams> headers{};

    Batch() {
        for (std::size_t i = 0; i < batchDatagrams; ++i) {
            vectors[i] = {.iov_base = bytes[i].data(), .iov_len = eventBytes};
            headers[i].msg_hdr.msg_name = &senders[i];
            headers[i].msg_hdr.msg_namelen = sizeof senders[i];
            headers[i].msg_hdr.msg_iov = &vectors[i];
            headers[i].msg_hdr.msg_iovlen = 1;
        }
    }
};

Subscription::Subscription(std::size_t bufferBytes)
    : fd_(openNetlink())
    , bufferBytes_(growReceiveBuffer(fd_.get(), bufferBytes))
    , batch_(std::make_unique<Batch>()) {
    for (int group : {RTNLGRP_IPV4_MROUTE, RTNLGRP_LINK, RTNLGRP_IPV4_NETCONF})
        if (::setsockopt(fd_.get(), SOL_NETLINK, NETLINK_ADD_MEMBERSHIP, &group, sizeof group) != 0)
            failHere("can't subscribe to the kernel's multicast routes");
}

Subscription::~Subscription() = default;

// After a loss the kernel withholds every further event until none waits any more: then reading on has an end.
void Subscription::drain(std::size_t limit, std::span<Mirror* const> mirrors) {
    bool mustEnd = false;
    for (std::size_t read = 0; read < limit || mustEnd;) {
        const int count =
            ::recvmmsg(fd_.get(), batch_->headers.data(), batchDatagrams, MSG_DONTWAIT, nullptr);
        if (count < 0 && errno == EAGAIN)
            return;
        if (count < 0 && errno != ENOBUFS && errno != EINTR)
            failHere("can't read the kernel's events");
        bool lost = count < 0 && errno == ENOBUFS;
        const auto datagrams = static_cast<std::size_t>(std::max(count, 0));
        for (std::size_t i = 0; i < datagrams; ++i)
            lost = !deliver(i, mirrors) || lost;
        for (Mirror* mirror : lost ? mirrors : std::span<Mirror* const>())
            mirror->overrun();
        if (count >= 0 && datagrams < batchDatagrams)
            return;
        mustEnd = mustEnd || lost;
        read += datagrams + 1;
    }
}

// One datagram of the batch. @return whether it is whole.
bool Subscription::deliver(std::size_t index, std::span<Mirror* const> mirrors) {
    mmsghdr& header = batch_->headers[index];
    header.msg_hdr.msg_namelen = sizeof(sockaddr_nl); // for the next one
    if (batch_->senders[index].nl_pid != 0)
        return true; // not the kernel's
    if ((header.msg_hdr.msg_flags & MSG_TRUNC) != 0)
        return false;
    MessageReader reader(batch_->bytes[index].data(), header.msg_len);
    while (reader.next(message_))
        for (Mirror* mirror : mirrors)
            mirror->takeEvent(message_);
    return true;
}

// With strict checks the kernel heeds the table that a dump asks for; where it knows no strict checks it
// dumps all tables, which costs time and nothing else.
QuerySocket::QuerySocket()
    : fd_(openNetlink())
    , buffer_(answerBytes / sizeof(std::uint32_t)) {
    int yes = 1;
    ::setsockopt(fd_.get(), SOL_NETLINK, NETLINK_GET_STRICT_CHK, &yes, sizeof yes);
    growReceiveBuffer(fd_.get(), answerBytes);
}

std::size_t QuerySocket::step(Mirror& mirror, const std::function<void()>& settleEvents) {
    if (!busy_) {
        const std::optional<KernelQuery> query = mirror.nextQuery(Mirror::Clock::now());
        if (!query)
            return 0;
        ask(*query);
    }
    const std::size_t messages = busy_ ? receive(mirror) : 0;
    if (!busy_) {
        // VIFs and interfaces are taken as read: events that come after them must not be judged by them.
        if (kind_ == KernelQuery::Kind::routes)
            settleEvents();
        mirror.endAnswer(error_, interrupted_, Mirror::Clock::now());
    }
    return std::max<std::size_t>(messages, 1);
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
    if (::send(fd_.get(), header, header->nlmsg_len, 0) < 0)
        breakOff(errno);
}

std::size_t QuerySocket::receive(Mirror& mirror) {
    sockaddr_nl sender{};
    socklen_t senderSize = sizeof sender;
    const ssize_t size = ::recvfrom(fd_.get(), buffer_.data(), answerBytes, MSG_DONTWAIT | MSG_TRUNC,
                                    reinterpret_cast<sockaddr*>(&sender), &senderSize);
    if (size < 0 && errno == EINTR)
        return 0;
    if (size < 0 || static_cast<std::size_t>(size) > answerBytes) {
        breakOff(size < 0 ? errno : EMSGSIZE);
        return 0;
    }
    std::size_t messages = 0;
    MessageReader reader(buffer_.data(), sender.nl_pid == 0 ? static_cast<std::size_t>(size) : 0);
    while (busy_ && reader.next(message_)) {
        if (message_.sequence != sequence_)
            continue;
        ++messages;
        interrupted_ = interrupted_ || message_.interrupted;
        const bool ends = message_.kind == MessageKind::done || message_.kind == MessageKind::error;
        busy_ = !ends && message_.isPart;
        error_ = message_.error;
        if (!ends)
            mirror.takeAnswer(message_);
    }
    return messages;
}

// What is left of an answer that broke off is in the way of the next one.
void QuerySocket::breakOff(int error) {
    while (::recv(fd_.get(), buffer_.data(), answerBytes, MSG_DONTWAIT) >= 0 || errno == EINTR ||
           errno == ENOBUFS) {
    }
    busy_ = false;
    error_ = error;
}

} // namespace Agent::Kernel
