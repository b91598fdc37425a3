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

struct Subscription::Buffers {
    std::array<std::array<std::uint32_t, eventBytes / sizeof(std::uint32_t)>, batchDatagrams> bytes;
    std::array<sockaddr_nl, batchDatagrams> senders{};
    std::array<iovec, batchDatagrams> vectors{};
    std::array<mmsghdr, batchDatagrams> headers{};

    void prepare() {
        for (std::size_t i = 0; i < batchDatagrams; ++i) {
            vectors[i] = {.iov_base = bytes[i].data(), .iov_len = eventBytes};
            headers[i].msg_hdr = {};
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
    , buffers_(std::make_unique<Buffers>()) {
    for (int group : {RTNLGRP_IPV4_MROUTE, RTNLGRP_LINK, RTNLGRP_IPV4_NETCONF})
        if (::setsockopt(fd_.get(), SOL_NETLINK, NETLINK_ADD_MEMBERSHIP, &group, sizeof group) != 0)
            failHere("can't subscribe to the kernel's multicast routes");
    buffers_->prepare();
}

Subscription::~Subscription() = default;

Subscription::Batch Subscription::receive(std::span<Mirror* const> mirrors) {
    int count = ::recvmmsg(fd_.get(), buffers_->headers.data(), batchDatagrams, MSG_DONTWAIT, nullptr);
    if (count < 0) {
        if (errno == EAGAIN || errno == EINTR)
            return {.drained = errno == EAGAIN};
        if (errno == ENOBUFS)
            return {.lost = true};
        failHere("can't read the kernel's events");
    }
    Batch batch;
    batch.datagrams = static_cast<std::size_t>(count);
    batch.drained = batch.datagrams < batchDatagrams;
    for (std::size_t i = 0; i < batch.datagrams; ++i) {
        mmsghdr& header = buffers_->headers[i];
        bool isWhole = (header.msg_hdr.msg_flags & MSG_TRUNC) == 0;
        bool isKernels = buffers_->senders[i].nl_pid == 0;
        batch.lost = batch.lost || (!isWhole && isKernels);
        MessageReader reader(buffers_->bytes[i].data(), isWhole && isKernels ? header.msg_len : 0);
        while (reader.next(message_))
            for (Mirror* mirror : mirrors)
                mirror->takeEvent(message_);
        header.msg_hdr.msg_namelen = sizeof buffers_->senders[i];
    }
    return batch;
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
        std::optional<KernelQuery> query = mirror.nextQuery(Mirror::Clock::now());
        if (!query)
            return 0;
        ask(*query);
    }
    Part part = receive(mirror);
    if (part.complete) {
        busy_ = false;
        // VIFs and interfaces are taken as read: events that come after them must not be judged by them.
        if (kind_ == KernelQuery::Kind::routes)
            settleEvents();
        mirror.endAnswer(part.error, interrupted_, Mirror::Clock::now());
    }
    return std::max<std::size_t>(part.messages, 1);
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
    sendError_ = ::send(fd_.get(), header, header->nlmsg_len, 0) < 0 ? errno : 0;
}

QuerySocket::Part QuerySocket::receive(Mirror& mirror) {
    if (sendError_ != 0)
        return failed(sendError_);
    sockaddr_nl sender{};
    socklen_t senderSize = sizeof sender;
    ssize_t size = ::recvfrom(fd_.get(), buffer_.data(), answerBytes, MSG_DONTWAIT | MSG_TRUNC,
                              reinterpret_cast<sockaddr*>(&sender), &senderSize);
    if (size < 0 && errno == EINTR)
        return {};
    if (size < 0)
        return failed(errno);
    if (static_cast<std::size_t>(size) > answerBytes)
        return failed(EMSGSIZE);
    Part part;
    MessageReader reader(buffer_.data(), sender.nl_pid == 0 ? static_cast<std::size_t>(size) : 0);
    while (!part.complete && reader.next(message_)) {
        if (message_.sequence != sequence_)
            continue;
        ++part.messages;
        interrupted_ = interrupted_ || message_.interrupted;
        bool ends = message_.kind == MessageKind::done || message_.kind == MessageKind::error;
        part.complete = ends || !message_.isPart;
        part.error = message_.error;
        if (!ends)
            mirror.takeAnswer(message_);
    }
    return part;
}

// What is left of an answer that broke off is in the way of the next one.
QuerySocket::Part QuerySocket::failed(int error) {
    while (::recv(fd_.get(), buffer_.data(), answerBytes, MSG_DONTWAIT) >= 0 || errno == EINTR ||
           errno == ENOBUFS) {
    }
    return {.complete = true, .error = error};
}

} // namespace Agent::Kernel
