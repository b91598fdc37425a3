// The two ways to hear from the kernel: a subscription to its events, and a socket for questions.
//
// Neither needs a privilege. A subscription is drained in batches of datagrams by one system call each, as one that
// has fallen behind loses events. Answers to questions are there when the question has been sent, part by part: the
// kernel makes the next part of a dump while the one before is read. NetlinkSource owns the subscription;
// NetlinkSource and Verification each own a socket for the questions of their mirrors.
#pragma once

#include "agent/host/Fd.h"
#include "agent/kernel/Mirror.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <vector>

namespace Agent::Kernel {

/// Routes, links and the forwarding state of interfaces.
class Subscription {
  public:
    /// @param bufferBytes how much the kernel shall hold for a slow reader; more than the system's limit
    /// (net.core.rmem_max) is granted to the privileged only.
    /// @throws std::system_error
    explicit Subscription(std::size_t bufferBytes);
    ~Subscription();

    int fd() const { return fd_.get(); }
    /// Bytes granted, by the kernel's own count.
    std::size_t bufferBytes() const { return bufferBytes_; }

    struct Batch {
        std::size_t datagrams = 0;
        bool lost = false;    // the kernel dropped events: all that wait are older, none newer until drained
        bool drained = false; // no event waits
    };
    /// Gives the events of the next datagrams to each of the mirrors, in order. Never blocks.
    /// @throws std::system_error when the socket is broken.
    Batch receive(std::span<Mirror* const> mirrors);

  private:
    struct Buffers;

    Fd fd_;
    std::size_t bufferBytes_ = 0;
    std::unique_ptr<Buffers> buffers_;
    KernelMessage message_;
};

/// Carries out the queries of a mirror, one after the other, each part by part.
class QuerySocket {
  public:
    /// @throws std::system_error
    QuerySocket();

    bool busy() const { return busy_; }

    /// Asks the mirror's next query or reads the next part of the answer, where there is either. Never
    /// blocks.
    /// @param settleEvents gives the mirror all events that wait; called before the end of a dump of routes.
    /// @return how many messages were read, at least 1; 0 when there was nothing to do.
    std::size_t step(Mirror& mirror, const std::function<void()>& settleEvents);

  private:
    struct Part {
        std::size_t messages = 0;
        bool complete = false;
        int error = 0; // errno, when complete
    };
    void ask(const KernelQuery& query);
    Part receive(Mirror& mirror);
    Part failed(int error);

    Fd fd_;
    std::vector<std::uint32_t> buffer_; // words, as messages are aligned to 4 bytes
    std::uint32_t sequence_ = 0;
    KernelQuery::Kind kind_ = KernelQuery::Kind::links;
    bool busy_ = false;
    bool interrupted_ = false; // the kernel marked some part as inconsistent
    int sendError_ = 0;
    KernelMessage message_;
};

} // namespace Agent::Kernel
