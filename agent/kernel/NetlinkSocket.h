// The two ways to hear from the kernel: a subscription to its events, and a socket for questions. Neither needs a
// privilege. NetlinkSource owns one of each; a Verification has a socket of its own for its questions.
//
// A subscription is drained in batches of datagrams by one system call each, as one that has fallen behind loses
// events. Answers come part by part: the kernel makes the next part of a dump while the one before is read.
#pragma once

#include "agent/host/Fd.h"
#include "agent/kernel/Mirror.h"

#include <functional>

namespace Agent::Kernel {

/// Routes, links and the forwarding state of interfaces.
class Subscription {
  public:
    /// @param bufferBytes how much the kernel shall hold for a slow reader; only the privileged are granted more than
    /// the system's limit (net.core.rmem_max). @throws std::system_error
    explicit Subscription(std::size_t bufferBytes);
    ~Subscription();

    int fd() const { return fd_.get(); }
    /// Bytes granted, by the kernel's own count.
    std::size_t bufferBytes() const { return bufferBytes_; }

    /// Gives the events that wait to each of the mirrors, in order: all, or those of some datagrams more than a limit.
    /// Never blocks. @throws std::system_error when the socket is broken.
    void drain(std::size_t limit, std::span<Mirror* const> mirrors);
    /// As many datagrams as can wait at one moment: none occupies less of the buffer.
    std::size_t mostWaiting() const { return bufferBytes_ / 512 + 1; }

  private:
    struct Batch;

    bool deliver(std::size_t index, std::span<Mirror* const> mirrors);

    Fd fd_;
    std::size_t bufferBytes_ = 0;
    std::unique_ptr<Batch> batch_;
    KernelMessage message_;
};

/// Carries out the queries of a mirror, one after the other, each part by part.
class QuerySocket {
  public:
    /// @throws std::system_error
    QuerySocket();

    bool busy() const { return busy_; }

    /// Asks the mirror's next query or reads the next part of the answer, where there is either. Never blocks.
    /// @param settleEvents gives the mirror all events that wait; called before the end of a dump of routes.
    /// @return how many messages were read, at least 1; 0 when there was nothing to do.
    std::size_t step(Mirror& mirror, const std::function<void()>& settleEvents);

  private:
    void ask(const KernelQuery& query);
    std::size_t receive(Mirror& mirror);
    void breakOff(int error);

    Fd fd_;
    std::vector<std::uint32_t> buffer_; // words, as messages are aligned to 4 bytes
    std::uint32_t sequence_ = 0;
    KernelQuery::Kind kind_ = KernelQuery::Kind::links;
    bool busy_ = false;
    bool interrupted_ = false; // the kernel marked some part as inconsistent
    int error_ = 0;            // errno with which the answer ended, or couldn't begin
    KernelMessage message_;
};

} // namespace Agent::Kernel
