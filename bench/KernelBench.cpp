// The kernel as the source of routes, beside the least that any reader of the kernel's routes pays.
//
// From route to answer: another process gives the kernel a route. What is timed ends where the plug-in's
// answer is told to a subscriber, with the agent's loop, its mirror of the kernel and the real plug-in in
// this process. It stands beside the arrival of the same kind of notification at a bare reader in the same
// process: the agent's loop and one recv, nothing parsed. Both times begin just before the route is given to
// the kernel, and both hold what the kernel takes to make the route, to tell it and to wake the reader. The
// two wait for every other route, and the bare reader subscribes for its own ones alone, so that neither
// waits while the kernel tells the other first.
//
// Start: the kernel has the routes already. What is timed begins with the first question to the kernel and
// ends when all rows and all answers are there; it stands beside a bare dump of the same table, read into a
// buffer of the same size and thrown away.
//
// Everything happens in a network namespace of this program's own.
#include "agent/changes/Operations.h"
#include "agent/host/Fd.h"
#include "agent/kernel/KernelSource.h"
#include "bench/Report.h"
#include "records/NatMroute.h"
#include "tests/kernel/MfcFeeder.h"
#include "tests/kernel/NetNamespace.h"

#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>

#include <libmnl/libmnl.h>
#include <linux/rtnetlink.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <limits>
#include <string>
#include <thread>
#include <vector>

namespace {

using Agent::Kernel::MfcKey;
using Agent::Kernel::Test::MfcFeeder;
using Clock = Bench::WallClock;

constexpr std::uint32_t kernelTable = 253;
constexpr std::chrono::microseconds moment{300}; // in which the reader goes to sleep

MfcKey keyOf(std::size_t number) {
    return {.source = 0x0a000001U + static_cast<std::uint32_t>(number >> 16),
            .group = 0xe8000000U + static_cast<std::uint32_t>(number & 0xffffU)};
}

// A process that holds the kernel's table, as a routing daemon does, and sets routes when told to.
class Feeder {
  public:
    Feeder() {
        void* memory = ::mmap(nullptr, sizeof(Clock::time_point), PROT_READ | PROT_WRITE,
                              MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        if (memory == MAP_FAILED || ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends_.data()) != 0)
            Bench::refuse("no memory or sockets to share");
        begun_ = static_cast<Clock::time_point*>(memory);
        process_ = ::fork();
        if (process_ == 0) {
            ::close(ends_[0]);
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            serve();
            ::_exit(0);
        }
        ::close(ends_[1]);
        wait(); // until it has the table
    }
    ~Feeder() {
        ::close(ends_[0]);
        ::waitpid(process_, nullptr, 0);
    }
    Feeder(const Feeder&) = delete;
    Feeder& operator=(const Feeder&) = delete;

    // Has one route set in a moment, when the caller sleeps, and comes back at once.
    void begin(std::size_t route) { send({.first = route, .count = 1, .later = true}); }
    // When the route that was begun was given to the kernel; waits for that.
    Clock::time_point begun() const {
        wait();
        return *begun_;
    }
    void set(std::size_t routes) {
        send({.count = routes});
        wait();
    }
    void remove(std::size_t routes) {
        send({.count = routes, .remove = true});
        wait();
    }

  private:
    struct Command {
        std::size_t first = 0;
        std::size_t count = 0;
        bool remove = false;
        bool later = false;
    };

    void wait() const {
        char done = 0;
        if (::read(ends_[0], &done, 1) != 1)
            Bench::refuse("the process that sets routes is gone");
    }
    void send(const Command& command) const {
        if (::write(ends_[0], &command, sizeof command) != static_cast<ssize_t>(sizeof command))
            Bench::refuse("the process that sets routes is gone");
    }
    void serve() const {
        MfcFeeder kernel(kernelTable);
        kernel.vifIs(0, "e1");
        kernel.vifIs(1, "e2");
        const auto done = [this] { return ::write(ends_[1], "", 1) == 1; };
        Command command;
        while (done() && ::read(ends_[1], &command, sizeof command) == static_cast<ssize_t>(sizeof command)) {
            if (command.later) {
                std::this_thread::sleep_for(moment);
                *begun_ = Clock::now();
            }
            for (std::size_t i = command.first; i < command.first + command.count; ++i)
                if (command.remove)
                    kernel.routeDel(keyOf(i));
                else
                    kernel.routeIs(keyOf(i), 0, {1});
        }
    }

    std::array<int, 2> ends_{};
    Clock::time_point* begun_ = nullptr;
    pid_t process_ = -1;
};

Agent::Fd netlinkSocket() {
    Agent::Fd fd(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE));
    if (!fd)
        Bench::refuse("no netlink socket");
    return fd;
}

// The agent without its control socket: the plug-in, the mirror of the kernel, requests for the first
// routes, and a subscriber to the answers.
class Mirrored {
  public:
    explicit Mirrored(std::size_t requests)
        : requests_(requests) {
        host_.load(KESTREL_LIB_DIR "/libKestrelNatMulticastMounter.so");
        host_.start();
        const auto collection = host_.stores().inDatabase<KestrelNat::NatMrouteRequestSet>();
        for (std::size_t i = 0; i < requests; ++i) {
            collection->mrouteReqIs({.intf = L3::IntfId("Ethernet99"),
                                     .vrfId = 0,
                                     .vlanId = 10,
                                     .sourceIp = L3::IpAddr(keyOf(i).source),
                                     .groupIp = L3::IpAddr(keyOf(i).group)});
        }
        answers_->subscribe(this, &hear);
    }
    ~Mirrored() { answers_->unsubscribe(this, &hear); }
    Mirrored(const Mirrored&) = delete;
    Mirrored& operator=(const Mirrored&) = delete;

    // Begins to follow the kernel; comes back when so many routes are rows, and all requests that can be
    // answered are.
    void follow(const std::string& config, std::size_t routes) {
        const std::size_t answered = heard_ + std::min(routes, requests_);
        mirror_ = std::make_unique<Agent::Kernel::KernelSource>(loop_, operations_, config);
        while (rows() != routes || heard_ != answered)
            loop_.run_one();
    }
    // When the next answer with an interface was told; waits for it.
    Clock::time_point answerTold() {
        for (const std::size_t wanted = heard_ + 1; heard_ < wanted;)
            loop_.run_one();
        return last_;
    }
    // Takes in what the kernel has told.
    void catchUp() { loop_.poll(); }

  private:
    static void hear(void* self, const State::Notification& change) {
        auto& mirrored = *static_cast<Mirrored*>(self);
        const auto* answer =
            mirrored.answers_->mrouteRespCollection().find(change.keyAs<KestrelNat::NatMrouteKey>());
        if (answer == nullptr || answer->empty())
            return;
        mirrored.last_ = Clock::now();
        ++mirrored.heard_;
    }
    std::size_t rows() const { return host_.routes().routes("default", Agent::RouteType::sparse); }

    std::size_t requests_;
    asio::io_context loop_;
    Agent::Host host_;
    Agent::Operations operations_{host_};
    State::Handle<const KestrelNat::NatMrouteResponseMap> answers_ =
        host_.stores().inDatabase<KestrelNat::NatMrouteResponseMap>();
    std::unique_ptr<Agent::Kernel::KernelSource> mirror_;
    std::size_t heard_ = 0; // answers with an interface
    Clock::time_point last_;
};

// Reads the kernel's notifications of routes and nothing in them.
class BareReader {
  public:
    BareReader() {
        sockaddr_nl address{};
        address.nl_family = AF_NETLINK;
        if (::bind(fd_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
            Bench::refuse("the bare reader's socket can't be bound");
        read();
    }
    ~BareReader() { onLoop_.release(); }
    BareReader(const BareReader&) = delete;
    BareReader& operator=(const BareReader&) = delete;

    // NETLINK_ADD_MEMBERSHIP or NETLINK_DROP_MEMBERSHIP.
    void membershipIs(int which) const {
        const int group = RTNLGRP_IPV4_MROUTE;
        if (::setsockopt(fd_.get(), SOL_NETLINK, which, &group, sizeof group) != 0)
            Bench::refuse("no subscription to the kernel's routes");
    }
    // When the next notification was read; waits for it.
    Clock::time_point arrival() {
        for (const std::size_t before = reads_; reads_ == before;)
            loop_.run_one();
        return last_;
    }

  private:
    void read() {
        onLoop_.async_wait(asio::posix::descriptor_base::wait_read, [this](const asio::error_code& error) {
            if (error)
                return;
            if (::recv(fd_.get(), buffer_.data(), buffer_.size(), 0) > 0) {
                last_ = Clock::now();
                ++reads_;
            }
            read();
        });
    }

    asio::io_context loop_;
    Agent::Fd fd_ = netlinkSocket();
    asio::posix::stream_descriptor onLoop_{loop_, fd_.get()};
    std::size_t reads_ = 0;
    std::array<char, 32768> buffer_{};
    Clock::time_point last_;
};

void measureChanges(Feeder& feeder, const std::string& config) {
    constexpr std::size_t routes = 100;
    Mirrored agent(routes);
    BareReader bare;
    agent.follow(config, 0);
    std::vector<double> agentTimes;
    std::vector<double> bareTimes;
    const auto took = [&](Clock::time_point end) {
        return Bench::nanosecondsEach(end - feeder.begun(), 1) / 1000;
    };
    for (int turn = 0; turn < (Bench::quick ? 10 : 60); ++turn) {
        for (std::size_t route = 0; route < routes; route += 2) {
            feeder.begin(route);
            agentTimes.push_back(took(agent.answerTold()));

            bare.membershipIs(NETLINK_ADD_MEMBERSHIP);
            feeder.begin(route + 1);
            bareTimes.push_back(took(bare.arrival()));
            bare.membershipIs(NETLINK_DROP_MEMBERSHIP);
            agent.catchUp();
        }
        feeder.remove(routes);
        agent.catchUp();
        if (turn == 0) { // of which the first route waited for the mirror's first look
            agentTimes.clear();
            bareTimes.clear();
        }
    }
    Bench::Report report("a route added in the kernel, until its answer is told", "us", "bare us");
    report.atMost("median", Bench::quantile(agentTimes), Bench::quantile(bareTimes), 1.2);
    report.atMost("99 of 100", Bench::quantile(agentTimes, 0.99), Bench::quantile(bareTimes, 0.99));
}

void dumpBare() {
    constexpr std::size_t bufferBytes = std::size_t{128} * 1024; // as the mirror's
    static std::array<std::uint32_t, bufferBytes / sizeof(std::uint32_t)> buffer;
    const Agent::Fd fd = netlinkSocket();
    const int yes = 1;
    ::setsockopt(fd.get(), SOL_NETLINK, NETLINK_GET_STRICT_CHK, &yes, sizeof yes);
    nlmsghdr* header = mnl_nlmsg_put_header(buffer.data());
    header->nlmsg_type = RTM_GETROUTE;
    header->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    static_cast<rtmsg*>(mnl_nlmsg_put_extra_header(header, sizeof(rtmsg)))->rtm_family = RTNL_FAMILY_IPMR;
    mnl_attr_put_u32(header, RTA_TABLE, kernelTable);
    if (::send(fd.get(), header, header->nlmsg_len, 0) < 0)
        Bench::refuse("the kernel's routes can't be dumped");
    do {
        if (::recv(fd.get(), buffer.data(), bufferBytes, 0) <= 0)
            Bench::refuse("the kernel's routes can't be read");
    } while (header->nlmsg_type != NLMSG_DONE);
}

void measureStart(Feeder& feeder, const std::string& config) {
    const std::size_t routes = Bench::quick ? 10'000 : 100'000;
    const std::size_t requests = routes * 16 / 100;
    feeder.set(routes);
    double agent[2];
    double bare[2];
    const auto least = [](double(&times)[2], auto pass) {
        const auto begin = Clock::now();
        times[1] = std::min(times[1], Bench::timeEach(1, pass) / 1e6);
        times[0] = std::min(times[0], Bench::nanosecondsEach(Clock::now() - begin, 1) / 1e6);
    };
    std::ranges::fill(agent, std::numeric_limits<double>::max());
    std::ranges::fill(bare, std::numeric_limits<double>::max());
    for (int i = 0; i < (Bench::quick ? 3 : 5); ++i) {
        Mirrored mirrored(requests);
        least(agent, [&] { mirrored.follow(config, routes); });
        least(bare, dumpBare);
    }
    feeder.remove(routes);
    Bench::Report report(("start with " + std::to_string(routes) + " routes in the kernel, " +
                          std::to_string(requests) + " answers")
                             .c_str(),
                         "ms", "dump ms");
    report.atMost("time passed", agent[0], bare[0], 1.3);
    report.atMost("processor time", agent[1], bare[1]);
}

} // namespace

int main() {
    if (const std::string why = Agent::Kernel::Test::enterNetNamespace(); !why.empty())
        Bench::refuse(("no network namespace: " + why).c_str());
    char config[] = "/tmp/kestrel-bench-XXXXXX";
    const Agent::Fd file(::mkstemp(config));
    std::ofstream(config) << R"({"vrfs": [{"name": "default"}]})" << std::flush;
    try {
        Agent::Kernel::Test::makeInterfaces();
        Feeder feeder;
        measureChanges(feeder, config);
        measureStart(feeder, config);
    } catch (const std::exception& error) {
        ::unlink(config);
        Bench::refuse(error.what());
    }
    ::unlink(config);
}
