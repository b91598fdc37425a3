#include "tests/agent/ToyServer.h"

#include "agent/control/JsonRpc.h"
#include "agent/control/Sessions.h"
#include "agent/host/PostedTask.h"
#include "agent/host/Worker.h"
#include "agent/json/Json.h"
#include "tests/agent/AgentProcess.h"
#include "tests/agent/Json.h"

#include <asio/io_context.hpp>
#include <asio/signal_set.hpp>

#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <set>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

namespace AgentTest {

namespace {

class ToyDispatcher : public Agent::Dispatcher {
  public:
    explicit ToyDispatcher(asio::io_context& loop)
        : release_(loop, [this] {
            for (const Text::Reply& reply : std::exchange(replies_, {}))
                reply([](Text::Writer& writer) { writer.value("late"); });
        }) {}

    Agent::Sessions* server = nullptr;

    void call(Agent::ClientId client, std::string_view method, const State::Datum::Record& given,
              const Text::Reply& reply) override {
        if (method == "late") { // is answered when somebody calls "release"
            replies_.push_back(reply);
            return;
        }
        const Json result = resultOf(client, method, Json(State::Datum(given)));
        reply([&](Text::Writer& writer) { Agent::Json::write(writer, result.datum()); });
    }

    bool takesMuch(std::string_view /*method*/) const override { return true; }

    void clientGone(Agent::ClientId client) override {
        ++gone_;
        followers_.erase(client);
    }

  private:
    Json resultOf(Agent::ClientId client, std::string_view method, const Json& params) {
        ++calls_;
        if (method == "echo")
            return params;
        if (method == "size")
            return params.at("text").text().size();
        if (method == "big")
            return std::string(params.at("bytes").number(), 'b');
        if (method == "count")
            return calls_;
        if (method == "sleep")
            std::this_thread::sleep_for(std::chrono::milliseconds(params.at("ms").number()));
        else if (method == "release")
            release_.request();
        else if (method == "follow")
            followers_.insert(client);
        else if (method == "keep")
            server->keep(client, true);
        else if (method == "tell")
            tell(params.at("count").number(), params.at("bytes").number());
        else if (method == "status")
            return json("{'clients': %, 'cutOff': %, 'idle': %, 'gone': %}", server->clients(),
                        server->counters().cutOff, server->counters().idle, gone_);
        else
            throw Agent::UnknownMethod("no method \"" + std::string(method) + "\"");
        return true;
    }

    void tell(std::uint64_t count, std::size_t bytes) {
        const std::string line =
            R"({"jsonrpc":"2.0","method":"told","params":")" + std::string(bytes, 't') + R"("})";
        for (std::uint64_t i = 0; i < count; ++i)
            for (const Agent::ClientId follower : followers_)
                server->notify(follower, line);
    }

    std::set<Agent::ClientId> followers_;
    std::vector<Text::Reply> replies_;
    Agent::PostedTask release_;
    int calls_ = 0;
    int gone_ = 0;
};

int serve(const std::string& path, unsigned descriptors, int ready) {
    if (descriptors != 0) {
        const rlimit limit{.rlim_cur = descriptors, .rlim_max = descriptors};
        ::setrlimit(RLIMIT_NOFILE, &limit);
    }
    try {
        asio::io_context loop;
        asio::signal_set signals(loop, SIGTERM);
        signals.async_wait([&loop](const asio::error_code&, int /*signal*/) { loop.stop(); });
        ToyDispatcher dispatcher(loop);
        Agent::Worker worker(loop);
        Agent::JsonRpc rpc(dispatcher, worker,
                           [&](Agent::ClientId client) { dispatcher.server->wake(client); });
        Agent::Sessions server(loop, rpc);
        dispatcher.server = &server;
        server.listen(path);
        if (::write(ready, "r", 1) != 1)
            return 1;
        loop.run();
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "toy server: %s\n", error.what());
        return 1;
    }
}

} // namespace

ToyServer::ToyServer(std::string path, unsigned descriptors)
    : path_(std::move(path)) {
    std::array<int, 2> ready{};
    if (::pipe(ready.data()) != 0)
        throw std::runtime_error("pipe");
    process_ = ::fork();
    if (process_ == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL); // a test program that dies doesn't leave it behind
        ::_exit(serve(path_, descriptors, ready[1]));
    }
    ::close(ready[1]);
    char byte = 0;
    const bool up = ::read(ready[0], &byte, 1) == 1;
    ::close(ready[0]);
    if (!up)
        throw std::runtime_error("the toy server did not start");
}

ToyServer::~ToyServer() {
    if (process_ > 0)
        stop();
}

std::size_t ToyServer::memory() const {
#ifdef __SANITIZE_ADDRESS__
    return 0;
#else
    std::ifstream pages("/proc/" + std::to_string(process_) + "/statm");
    std::size_t total = 0;
    std::size_t resident = 0;
    pages >> total >> resident;
    return resident * static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
#endif
}

int ToyServer::stop() {
    ::kill(process_, SIGTERM);
    return endOf(std::exchange(process_, -1));
}

} // namespace AgentTest
