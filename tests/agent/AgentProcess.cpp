#include "tests/agent/AgentProcess.h"

#include <gtest/gtest.h>

#include <poll.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <utility>

namespace AgentTest {

namespace {

constexpr const char* program = KESTREL_BIN_DIR "/kestrel-agent";

std::string textOf(const std::string& file) {
    std::ifstream in(file);
    return {std::istreambuf_iterator<char>(in), {}};
}

// Starts the agent with its standard streams on these descriptors.
pid_t start(const std::vector<std::string>& options, int in, int out, int err) {
    std::vector<char*> arguments{const_cast<char*>(program)};
    for (const std::string& option : options)
        arguments.push_back(const_cast<char*>(option.c_str()));
    arguments.push_back(nullptr);
    const pid_t process = ::fork();
    if (process == 0) {
        ::dup2(in, STDIN_FILENO);
        ::dup2(out, STDOUT_FILENO);
        ::dup2(err, STDERR_FILENO);
        ::execv(program, arguments.data());
        ::_exit(127);
    }
    return process;
}

// Reads until `end` has come, the other side has closed, or the time is up.
std::string readUntil(int fd, const std::string& end, std::chrono::milliseconds patience) {
    std::string text;
    pollfd wait{.fd = fd, .events = POLLIN, .revents = 0};
    while ((end.empty() || text.find(end) == std::string::npos) &&
           ::poll(&wait, 1, static_cast<int>(patience.count())) > 0) {
        std::array<char, 65536> block{};
        const ssize_t count = ::read(fd, block.data(), block.size());
        if (count <= 0)
            break;
        text.append(block.data(), static_cast<std::size_t>(count));
    }
    return text;
}

} // namespace

Json RpcClient::ask(const std::string& method, const Json& params, const char* wanted) {
    const int id = ++lastId_;
    send(json("{'jsonrpc': '2.0', 'id': %, 'method': %, 'params': %}", id, method, params).dump() + "\n");
    while (const auto text = line()) {
        Json message = Json::parse(*text);
        if (message.contains("id")) {
            EXPECT_EQ(message.at("id"), id) << *text;
            EXPECT_TRUE(message.contains(wanted)) << method << params << " was answered with " << message;
            return message.contains(wanted) ? message.at(wanted) : Json();
        }
        notifications_.push_back(message.at("params"));
    }
    ADD_FAILURE() << "no answer to " << method;
    return {};
}

Json RpcClient::notification(std::chrono::milliseconds patience) {
    if (!notifications_.empty()) {
        Json first = std::move(notifications_.front());
        notifications_.erase(notifications_.begin());
        return first;
    }
    const auto text = line(patience);
    return text ? Json::parse(*text).at("params") : Json();
}

AgentProcess::AgentProcess(const TemporaryFolder& folder, const std::vector<std::string>& options)
    : socket_(folder.file("agent.sock"))
    , errors_(folder.file("agent.err")) {
    std::array<int, 2> out{};
    if (::pipe2(out.data(), O_CLOEXEC) != 0)
        throw std::runtime_error("pipe2");
    const Agent::Fd in(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    const Agent::Fd err(::open(errors_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    out_ = Agent::Fd(out[0]);
    Agent::Fd itsEnd(out[1]);
    std::vector<std::string> all{"--socket", socket_};
    all.insert(all.end(), options.begin(), options.end());
    process_ = start(all, in.get(), itsEnd.get(), err.get());
    itsEnd.close();
    const std::string heard = readUntil(out_.get(), "ready\n", std::chrono::seconds(60));
    if (heard.find("ready\n") == std::string::npos) {
        const int status = stop();
        throw std::runtime_error("the agent ended with " + std::to_string(status) + ": " + heard + said());
    }
}

AgentProcess::~AgentProcess() {
    if (process_ > 0) {
        ::kill(process_, SIGKILL);
        wait();
    }
}

std::string AgentProcess::said() const {
    return std::filesystem::is_fifo(errors_) ? "" : textOf(errors_); // a pipe has its own reader
}

void AgentProcess::signal(int number) const {
    ::kill(process_, number);
}

int endOf(pid_t process) {
    constexpr int patience = 30'000; // milliseconds
    const Agent::Fd end(static_cast<int>(::syscall(SYS_pidfd_open, process, 0)));
    pollfd wait{.fd = end.get(), .events = POLLIN, .revents = 0};
    if (::poll(&wait, 1, patience) == 0) {
        ADD_FAILURE() << "the program goes on";
        ::kill(process, SIGKILL);
    }
    int status = 0;
    ::waitpid(process, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

int AgentProcess::wait() {
    return endOf(std::exchange(process_, -1));
}

int AgentProcess::stop() {
    signal(SIGTERM);
    return wait();
}

Finished runAgent(const std::vector<std::string>& options, const std::string& input) {
    const TemporaryFolder folder;
    const std::string in = writeFile(folder, "in", input);
    const Agent::Fd inFd(::open(in.c_str(), O_RDONLY | O_CLOEXEC));
    const Agent::Fd out(::open(folder.file("out").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    const Agent::Fd err(::open(folder.file("err").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    Finished finished;
    finished.status = endOf(start(options, inFd.get(), out.get(), err.get()));
    finished.out = textOf(folder.file("out"));
    finished.err = textOf(folder.file("err"));
    return finished;
}

std::string writeFile(const TemporaryFolder& folder, const std::string& name, const std::string& text) {
    std::ofstream(folder.file(name)) << text;
    return folder.file(name);
}

} // namespace AgentTest
