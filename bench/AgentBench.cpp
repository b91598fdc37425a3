// The agent as a NAT feature meets it, over its control socket: from a request to its answer, requests
// pipelined, 16,000 requests in one go, the rate at which a watcher is told; beside the bare round trip of
// the same bytes over the same kind of socket to an echo server (EchoServer.h), both processes of their own.
#include "bench/AgentProcess.h"
#include "bench/EchoServer.h"
#include "bench/LineClient.h"
#include "bench/Report.h"

#include <sys/types.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <limits>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace {

constexpr std::size_t flows = 16'000; // as many requests as the services are made for

class TemporaryFolder {
  public:
    TemporaryFolder() {
        if (::mkdtemp(path_.data()) == nullptr)
            Bench::refuse("no temporary folder");
    }
    ~TemporaryFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;
    std::string file(const char* name) const { return path_ + "/" + name; }

  private:
    std::string path_ = (std::filesystem::temp_directory_path() / "kestrel-bench-XXXXXX").string();
};

std::string group(std::size_t flow) {
    return "239.1." + std::to_string(flow / 250) + "." + std::to_string(flow % 250 + 1);
}

std::string requestMember(std::size_t flow) {
    return R"("path":"api/mroute/req","attribute":"mrouteReq","key":{"intf":"Ethernet5","vrfId":3,"vlanId":10,)"
           R"("sourceIp":"10.0.0.1","groupIp":")" +
           group(flow) + R"(","type":0})";
}

std::string routeMember(std::size_t flow, std::string_view interfaces) {
    return R"("path":"lumen/multicast/fib/ipv4/user/red","attribute":"route","key":{"source":"10.0.0.1/32",)"
           R"("group":")" +
           group(flow) + R"(/32"},"value":{"intf":[)" + std::string(interfaces) + R"(],"ready":1})";
}

std::string call(std::string_view method, std::string_view members) {
    return R"({"jsonrpc":"2.0","id":1,"method":")" + std::string(method) + R"(","params":{)" +
           std::string(members) + "}}\n";
}

// An apply of one change a flow; member(flow) is the change without its operation.
template <class Member>
std::string applyAll(std::string_view operation, Member member) {
    std::string changes = R"("changes":[)";
    for (std::size_t flow = 0; flow < flows; ++flow) {
        changes +=
            (flow == 0 ? "" : ",") + (R"({"op":")" + std::string(operation) + R"(",)") + member(flow) + "}";
    }
    return call("apply", changes + "]");
}

// Sends what must succeed, and leaves the answer in client.received().
void succeed(Bench::LineClient& client, const std::string& lines, std::size_t count = 1) {
    client.exchange(lines, count);
    if (client.received().find(R"("error")") != std::string::npos) {
        std::fprintf(stderr, "%.300s\n", client.received().c_str());
        Bench::refuse("the agent answers with an error");
    }
}

void makeVrf(Bench::LineClient& client) {
    for (const char* type : {"user", "sparsemode"}) {
        succeed(client, call("set", std::string(R"("path":"lumen/multicast/fib/ipv4/)") + type +
                                        R"(","attribute":"status","key":"red","value":{})"));
    }
    succeed(client,
            call("set", R"("path":"routing/hardware/route/status","attribute":"vrfStatus","key":"red",)"
                        R"("value":{"vrfId":3})"));
    succeed(client, call("set", R"("path":"routing/multicast/fibenabled/status","attribute":"vrfEnabled",)"
                                R"("key":"red","value":true)"));
}

// Microseconds each exchange took.
class Pair {
  public:
    // A turn of exchanges with each.
    void turnIs(const std::vector<double>& agent, const std::vector<double>& echo) {
        agent_.insert(agent_.end(), agent.begin(), agent.end());
        echo_.insert(echo_.end(), echo.begin(), echo.end());
        agentMedian_ = std::min(agentMedian_, Bench::quantile(agent));
        echoMedian_ = std::min(echoMedian_, Bench::quantile(echo));
    }
    // The median is that of the turn with the least one, for each of the two.
    void report(Bench::Report& report, const std::string& name, double goal) const {
        report.atMost((name + ", median").c_str(), agentMedian_, echoMedian_, goal);
        report.atMost((name + ", 99 of 100").c_str(), Bench::quantile(agent_, 0.99),
                      Bench::quantile(echo_, 0.99));
    }

  private:
    std::vector<double> agent_;
    std::vector<double> echo_;
    double agentMedian_ = std::numeric_limits<double>::max();
    double echoMedian_ = std::numeric_limits<double>::max();
};

// One exchange after the other with the agent, and of the same bytes with the echo server, in turns of a
// hundred. ask(i) is the line to send, of which `lines` lines come back from the agent.
template <class Ask>
Pair roundTrips(Bench::LineClient& agent, Bench::LineClient& echo, std::size_t lines, Ask ask) {
    constexpr std::size_t turn = 100;
    const std::size_t turns = Bench::quick ? 50 : 300;
    const std::string wake = call("status", ""); // who slept through the other's turn wakes unmeasured
    Pair pair;
    std::vector<std::string> asked(turn);
    std::vector<double> agentTimes(turn);
    std::vector<double> echoTimes(turn);
    for (std::size_t i = 0; i < turns; ++i) {
        for (std::size_t j = 0; j < turn; ++j)
            asked[j] = ask(i * turn + j);
        agent.exchange(wake, 1);
        for (std::size_t j = 0; j < turn; ++j) {
            agentTimes[j] =
                Bench::timeEach<Bench::WallClock>(1, [&] { agent.exchange(asked[j], lines); }) / 1000;
        }
        echo.exchange(wake, 1);
        for (std::size_t j = 0; j < turn; ++j)
            echoTimes[j] = Bench::timeEach<Bench::WallClock>(1, [&] { echo.exchange(asked[j], 1); }) / 1000;
        pair.turnIs(agentTimes, echoTimes);
    }
    return pair;
}

void measureRoundTrips(const std::string& agentPath, Bench::LineClient& echo) {
    Bench::Report report("one client, one thing at a time", "us", "echo us");
    Bench::LineClient client(agentPath);
    // Requests come and go, a route being there: with every one an answer comes or goes.
    const auto asking = [](std::size_t i) {
        return call(i % 2 == 0 ? "set" : "del", requestMember(i / 2 % flows));
    };
    roundTrips(client, echo, 1, [](std::size_t) { return call("status", ""); }); // warm
    roundTrips(client, echo, 1, asking).report(report, "request -> result", 2);
    const std::string answer = R"("path":"api/mroute/resp","attribute":"mrouteResp","key")" +
                               requestMember(0).substr(requestMember(0).find(R"(:{"intf)"));
    roundTrips(client, echo, 1, [&](std::size_t) {
        return call("get", answer);
    }).report(report, "reading an answer", 2);

    succeed(client, call("watch", ""));
    const Pair pair = roundTrips(client, echo, 2, asking);
    if (client.received().find(R"("method":"changed")") == std::string::npos)
        Bench::refuse("no answer was told");
    pair.report(report, "request -> result and answer told", 2);
}

// Nanoseconds that each of `count` took: passed, and of the processor in the server's process. The second
// tells more where other programs use the machine.
struct Cost {
    double passed = std::numeric_limits<double>::max();
    double server = std::numeric_limits<double>::max();

    void least(const Cost& other) {
        passed = std::min(passed, other.passed);
        server = std::min(server, other.server);
    }
};

std::chrono::nanoseconds processorTime(pid_t process) {
    clockid_t clock{};
    timespec time{};
    if (::clock_getcpuclockid(process, &clock) != 0 || ::clock_gettime(clock, &time) != 0)
        Bench::refuse("a server is gone");
    return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

template <class Body>
Cost costOf(pid_t server, std::size_t count, Body body) {
    const auto before = processorTime(server);
    const double passed = Bench::timeEach<Bench::WallClock>(count, body);
    return {.passed = passed, .server = Bench::nanosecondsEach(processorTime(server) - before, count)};
}

// The two that are held against each other.
struct Servers {
    std::string agentPath;
    pid_t agent;
    pid_t echoPid;
    Bench::LineClient& echo;
};

// Several passes of each in turn; agentPass() and echoPass() yield a Cost, of which rows are printed in
// `unit` nanoseconds.
template <class AgentPass, class EchoPass>
Cost reportBulk(Bench::Report& report, double unit, AgentPass agentPass, EchoPass echoPass) {
    Cost agent;
    Cost echo;
    for (int i = 0; i < (Bench::quick ? 3 : 9); ++i) {
        agent.least(agentPass());
        echo.least(echoPass());
    }
    report.atMost("time passed", agent.passed / unit, echo.passed / unit);
    report.atMost("processor time of the server", agent.server / unit, echo.server / unit);
    return agent;
}

void measurePipelined(const Servers& servers) {
    Bench::Report report("a request, 10,000 sent without waiting for results", "us", "echo us");
    Bench::LineClient client(servers.agentPath);
    const std::size_t count = 10'000;
    std::string lines;
    for (std::size_t i = 0; i < count; ++i)
        lines += call(i % 2 == 0 ? "set" : "del", requestMember(i / 2));
    const Cost cost = reportBulk(
        report, 1e3, [&] { return costOf(servers.agent, count, [&] { succeed(client, lines, count); }); },
        [&] { return costOf(servers.echoPid, count, [&] { servers.echo.exchange(lines, count); }); });
    report.row("requests a second", 1e9 / cost.passed);
    report.row("requests a second of processor time", 1e9 / cost.server);
}

void measureApply(const Servers& servers) {
    Bench::Report report("apply of 16,000 requests, all answered", "ms", "echo ms");
    Bench::LineClient client(servers.agentPath);
    const std::string ask = applyAll("set", requestMember);
    const std::string withdraw = applyAll("del", requestMember);
    const Cost cost = reportBulk(
        report, 1e6,
        [&] {
            const Cost pass = costOf(servers.agent, 1, [&] { succeed(client, ask); });
            if (client.received().find("Ethernet1") == std::string::npos)
                Bench::refuse("apply told of no answers");
            succeed(client, withdraw);
            return pass;
        },
        [&] { return costOf(servers.echoPid, 1, [&] { servers.echo.exchange(ask, 1); }); });
    report.row("microseconds of processor time a request", cost.server / 1e3 / flows);
}

void measureWatch(const Servers& servers) {
    Bench::Report report("a changed answer told to a watcher, of 16,000", "us", "echo us");
    Bench::LineClient writer(servers.agentPath);
    Bench::LineClient watcher(servers.agentPath);
    watcher.exchange(call("watch", ""), 1);
    succeed(writer, applyAll("set", requestMember));
    watcher.exchange("", flows);
    const auto routes = [](std::string_view interfaces) {
        return applyAll("set", [&](std::size_t flow) { return routeMember(flow, interfaces); });
    };
    const std::string changes[] = {routes(R"("Ethernet2")"), routes(R"("Ethernet1")")};
    std::size_t which = 0;
    std::string told;
    const Cost cost = reportBulk(
        report, 1e3,
        [&] {
            // The time begins when all routes have changed and the first lines are there.
            std::thread applying([&] { succeed(writer, changes[which++ % 2]); });
            watcher.exchange("", 1);
            const std::size_t rest = flows - watcher.lines();
            const Cost pass = costOf(servers.agent, rest, [&] { watcher.exchange("", rest); });
            applying.join();
            told = watcher.received().substr(watcher.received().find('\n') + 1);
            return pass;
        },
        [&] {
            const auto count = static_cast<std::size_t>(std::ranges::count(told, '\n'));
            return costOf(servers.echoPid, count, [&] { servers.echo.exchange(told, count); });
        });
    report.row("changes told a second", 1e9 / cost.passed);
}

} // namespace

int main() {
    const TemporaryFolder folder;
    const std::string agentPath = folder.file("agent.sock");
    const Bench::EchoServer echoServer(folder.file("echo.sock"));
    const Bench::AgentProcess agent(agentPath);
    Bench::LineClient echo(folder.file("echo.sock"));
    {
        Bench::LineClient client(agentPath);
        makeVrf(client);
        succeed(client,
                applyAll("set", [](std::size_t flow) { return routeMember(flow, R"("Ethernet1")"); }));
    }
    measureRoundTrips(agentPath, echo);
    const Servers servers{
        .agentPath = agentPath, .agent = agent.pid(), .echoPid = echoServer.pid(), .echo = echo};
    measurePipelined(servers);
    measureApply(servers);
    measureWatch(servers);
}
