// Sockets of the kernel's netlink, which need no privilege, and the one for a mirror's questions. NetlinkSource has one
// for events and one for questions; a comparison has one of its own.
#pragma once

#include "agent/host/Fd.h"
#include "agent/kernel/Mirror.h"

namespace Agent::Kernel {

/// A netlink socket, and the datagram that it read last.
class NetlinkSocket {
  public:
    /// @param longest datagram that is read whole, in bytes.
    /// @param bufferBytes how much the kernel shall hold for a slow reader; only the privileged are granted more than
    /// the system's limit (net.core.rmem_max).
    /// @param groups of events to subscribe to. @throws std::system_error
    NetlinkSocket(std::size_t longest, std::size_t bufferBytes, std::initializer_list<int> groups = {});

    int fd() const { return fd_.get(); }
    /// Bytes granted, by the kernel's own count.
    std::size_t bufferBytes() const { return bufferBytes_; }

    /// Reads a datagram. Never blocks. @return errno: 0, EAGAIN where none waits, EMSGSIZE where it was too long, ...
    int receive();
    /// The messages of the datagram, until the next is read: none where it wasn't the kernel's.
    MessageReader messages() const { return {datagram_.data(), size_}; }

  private:
    Fd fd_;
    std::size_t bufferBytes_ = 0;
    std::vector<std::uint32_t> datagram_; // words, as messages are aligned to 4 bytes
    std::size_t size_ = 0;
};

/// Carries out the queries of a mirror, one after the other, each part by part: the kernel makes the next part of a dump
/// while the one before is read.
class QuerySocket {
  public:
    /// @throws std::system_error
    QuerySocket();

    bool busy() const { return busy_ || ended_; }

    /// Asks the mirror's next query or reads the next part of the answer, where there is either. Never blocks.
    /// @param settleEvents called until it is done before the end of a dump of routes.
    /// @return whether there was anything to do.
    bool step(Mirror& mirror, const SettleEvents& settleEvents);

  private:
    void ask(const KernelQuery& query);
    void receive(Mirror& mirror);
    void breakOff(int error);

    NetlinkSocket socket_;
    std::uint32_t sequence_ = 0;
    KernelQuery::Kind kind_ = KernelQuery::Kind::links;
    bool busy_ = false;
    bool ended_ = false;       // the answer is complete, but for events from before its end
    bool interrupted_ = false; // the kernel marked some part as inconsistent
    int error_ = 0;            // errno with which the answer ended, or couldn't begin
    KernelMessage message_;
};

} // namespace Agent::Kernel
