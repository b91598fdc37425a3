#include "tests/agent/ToyServer.h"

#include "agent/EventLoop.h"
#include "agent/JsonRpc.h"
#include "agent/LineServer.h"

#include <nlohmann/json.hpp>

#include <sys/resource.h>
#include <sys/wait.h>
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

using Json = nlohmann::json;

class ToyDispatcher : public Agent::Dispatcher {
  public:
    Agent::EventLoop* loop = nullptr;
    Agent::LineServer* server = nullptr;

    Json call(Agent::ClientId client, const std::string& method, const Json& params) override {
        ++calls_;
        if (method == "echo")
            return params;
        if (method == "size")
            return params.at("text").get_ref<const std::string&>().size();
        if (method == "big")
            return std::string(params.at("bytes").get<std::size_t>(), 'b');
        if (method == "count")
            return calls_;
        if (method == "sleep")
            std::this_thread::sleep_for(std::chrono::milliseconds(params.at("ms").get<int>()));
        else if (method == "release")
            loop->defer([replies = std::exchange(replies_, {})] {
                for (const Reply& reply : replies)
                    reply("late");
            });
        else if (method == "follow")
            followers_.insert(client);
        else if (method == "tell")
            tell(params.at("count").get<int>(), params.at("bytes").get<std::size_t>());
        else if (method == "status")
            return {{"clients", server->clients()}, {"cutOff", server->cutOff()}, {"gone", gone_}};
        else
            throw Agent::RpcError(Agent::RpcCode::methodNotFound, "no method \"" + method + "\"");
        return true;
    }

    // "late" is answered when somebody calls "release".
    bool takesLong(const std::string& method, const Json& /*params*/) const override {
        return method == "late";
    }
    void begin(Agent::ClientId /*client*/, const Json& /*params*/, const Reply& reply) override {
        replies_.push_back(reply);
    }

    void clientGone(Agent::ClientId client) override {
        ++gone_;
        followers_.erase(client);
    }

  private:
    void tell(int count, std::size_t bytes) {
        const std::string line = Agent::JsonRpc::notification("told", std::string(bytes, 't'));
        for (int i = 0; i < count; ++i)
            for (const Agent::ClientId follower : followers_)
                server->notify(follower, line);
    }

    std::set<Agent::ClientId> followers_;
    std::vector<Reply> replies_;
    int calls_ = 0;
    int gone_ = 0;
};

int serve(const std::string& path, unsigned descriptors, int ready) {
    if (descriptors != 0) {
        const rlimit limit{.rlim_cur = descriptors, .rlim_max = descriptors};
        ::setrlimit(RLIMIT_NOFILE, &limit);
    }
    try {
        Agent::EventLoop loop;
        loop.signalsAre({SIGTERM}, [&loop](int /*signal*/) { loop.stop(); });
        ToyDispatcher dispatcher;
        Agent::JsonRpc rpc(dispatcher);
        Agent::LineServer server(loop, rpc);
        dispatcher.loop = &loop;
        dispatcher.server = &server;
        rpc.serverIs(&server);
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
    if (process_ == 0)
        ::_exit(serve(path_, descriptors, ready[1]));
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
    int status = 0;
    ::waitpid(std::exchange(process_, -1), &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

} // namespace AgentTest
