#include "tests/ctl/FakeAgent.h"

#include "ctl/CommandLine.h"
#include "ctl/Message.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <utility>

namespace CtlTest {

namespace {

Request requestOf(const std::string& line) {
    const std::optional<Ctl::Message> message = Ctl::Message::parse(line);
    if (!message || message->findText("jsonrpc") != "2.0")
        throw std::runtime_error("no request: " + line);
    return {.method = message->text("method"),
            .params = message->at("params").json(),
            .id = message->number("id")};
}

} // namespace

FakeAgent::FakeAgent(Answer answer)
    : answer_(std::move(answer))
    , listener_(boundSocket(SOCK_STREAM, path_))
    , stop_(::eventfd(0, EFD_CLOEXEC)) {
    ::listen(listener_, 8);
    thread_ = std::thread([this] { serve(); });
}

FakeAgent::~FakeAgent() {
    ::eventfd_write(stop_, 1);
    thread_.join();
    ::close(listener_);
    ::close(stop_);
}

void FakeAgent::serve() {
    for (;;) {
        std::array<pollfd, 2> waits{{{listener_, POLLIN, 0}, {stop_, POLLIN, 0}}};
        ::poll(waits.data(), waits.size(), -1);
        if (waits[1].revents != 0)
            return;
        const int client = ::accept(listener_, nullptr, nullptr);
        {
            const std::lock_guard lock(mutex_);
            client_ = client;
        }
        serveClient();
        const std::lock_guard lock(mutex_);
        ::close(std::exchange(client_, -1));
    }
}

void FakeAgent::serveClient() {
    std::string received;
    for (;;) {
        std::array<pollfd, 2> waits{{{client_, POLLIN, 0}, {stop_, POLLIN, 0}}};
        ::poll(waits.data(), waits.size(), -1);
        std::array<char, 65536> buffer; // NOLINT(cppcoreguidelines-pro-type-member-init)
        const ssize_t count =
            waits[1].revents != 0 ? 0 : ::recv(client_, buffer.data(), buffer.size(), MSG_DONTWAIT);
        if (count <= 0)
            return;
        received.append(buffer.data(), static_cast<std::size_t>(count));
        for (std::size_t end = 0; (end = received.find('\n')) != std::string::npos;) {
            const auto request = requestOf(received.substr(0, end));
            received.erase(0, end + 1);
            const std::string answer = answer_(request);
            { // before the answer, by which the client goes on
                const std::lock_guard lock(mutex_);
                requests_.push_back(request);
            }
            tell(answer);
            if (answer.empty())
                return;
        }
    }
}

void FakeAgent::tell(const std::string& text) {
    const std::lock_guard lock(mutex_);
    for (std::size_t sent = 0; client_ >= 0 && sent < text.size();) {
        const ssize_t count = ::send(client_, text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
        if (count < 0)
            return;
        sent += static_cast<std::size_t>(count);
    }
}

std::vector<Request> FakeAgent::requests() const {
    const std::lock_guard lock(mutex_);
    return requests_;
}

bool FakeAgent::awaitRequests(std::size_t count) const {
    for (int i = 0; i < 5000; ++i) {
        if (requests().size() >= count)
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return false;
}

std::string resultLine(const Request& request, const std::string& result) {
    return R"({"jsonrpc":"2.0","id":)" + std::to_string(request.id) + R"(,"result":)" + result + "}\n";
}

std::string errorLine(const Request& request, const std::string& error) {
    return R"({"jsonrpc":"2.0","id":)" + std::to_string(request.id) + R"(,"error":)" + error + "}\n";
}

std::string changedLine(const std::string& change) {
    return R"({"jsonrpc":"2.0","method":"changed","params":)" + change + "}\n";
}

std::string snapshotLine(const std::string& page) {
    return R"({"jsonrpc":"2.0","method":"snapshot","params":)" + page + "}\n";
}

Outcome runCtl(const std::vector<std::string>& arguments) {
    std::ostringstream out;
    std::ostringstream err;
    const int status = Ctl::run(arguments, out, err);
    return {.status = status, .out = out.str(), .err = err.str()};
}

Outcome runCtl(const FakeAgent& agent, std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), {"--socket", agent.path()});
    return runCtl(arguments);
}

} // namespace CtlTest
