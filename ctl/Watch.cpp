#include "ctl/Watch.h"

#include "ctl/Client.h"
#include "ctl/CommandLine.h"
#include "ctl/Print.h"
#include "ctl/Words.h"

#include <nlohmann/json.hpp>

#include <sys/signalfd.h>
#include <unistd.h>

#include <csignal>
#include <optional>
#include <ostream>
#include <string>

namespace Ctl {

namespace {

/// Turns the signals by which a user ends a program into a descriptor, while it lives.
class Interrupts {
  public:
    Interrupts() {
        sigset_t signals;
        sigemptyset(&signals);
        sigaddset(&signals, SIGINT);
        sigaddset(&signals, SIGTERM);
        ::pthread_sigmask(SIG_BLOCK, &signals, &before_);
        fd_ = ::signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
    }
    ~Interrupts() {
        signalfd_siginfo info{};
        while (::read(fd_, &info, sizeof info) > 0) { // they are obeyed by now
        }
        ::close(fd_);
        ::pthread_sigmask(SIG_SETMASK, &before_, nullptr);
    }
    Interrupts(const Interrupts&) = delete;
    Interrupts& operator=(const Interrupts&) = delete;

    int fd() const { return fd_; }

  private:
    int fd_ = -1;
    sigset_t before_{};
};

/// Prints what has been seen and remembers how far that goes.
class Watcher {
  public:
    explicit Watcher(const Output& output)
        : output_(output) {}

    /// The answer to `watch`: the changes that were missed, or the answers as they are.
    void begin(const Json& answer, bool resumed) {
        instance_ = plain(answer.at("instance"));
        if (output_.json) {
            output_.out << answer.dump() << '\n';
        } else {
            if (resumed && answer.value("lost", false))
                output_.err << "kestrelctl: the changes since then are not known any more; these are all "
                               "answers now\n";
            for (const char* list : {"snapshot", "changes"})
                for (const Json& change : answer.value(list, Json::array()))
                    output_.out << changeText(change) << '\n';
        }
        seq_ = answer.at("seq").get<std::uint64_t>();
    }

    void changed(const Json& change) {
        output_.out << (output_.json ? change.dump() : changeText(change)) << '\n';
        seq_ = change.at("seq").get<std::uint64_t>();
    }

    void tellHowToGoOn() const {
        if (!instance_.empty())
            output_.err << "kestrelctl: go on with watch --since " << instance_ << ':' << seq_ << '\n';
    }

  private:
    const Output& output_;
    std::string instance_;
    std::uint64_t seq_ = 0;
};

std::string durationText(std::chrono::milliseconds duration) {
    return duration.count() % 1000 == 0 ? std::to_string(duration.count() / 1000) + "s"
                                        : std::to_string(duration.count()) + "ms";
}

/// Looks once; prints the result of an expectation that holds.
/// @return nothing where it holds, otherwise what the agent says of it.
std::optional<std::string> whyUnmet(Client& client, const LineCommand& expectation, const Output& output) {
    try {
        runLine(client, expectation, output);
        return std::nullopt;
    } catch (const AgentError& error) {
        if (error.code() != AgentError::expectationFailed)
            throw;
        return output.json ? error.object().dump() : error.what();
    }
}

} // namespace

int runWatch(Client& client, const WatchCommand& command, const Output& output) {
    const bool resumed = !command.instance.empty();
    Json params = Json::object();
    if (resumed)
        params["since"] = {{"instance", command.instance}, {"seq", command.seq}};
    const Interrupts interrupts;
    Watcher watcher(output);
    try {
        watcher.begin(client.call("watch", params), resumed);
        for (;;) {
            if (!client.hasNotification())
                output.out.flush();
            const std::optional<Json> change = client.notification(std::nullopt, interrupts.fd());
            if (!change)
                break;
            watcher.changed(*change);
        }
    } catch (const ConnectionError&) {
        output.out.flush();
        watcher.tellHowToGoOn();
        throw;
    }
    output.out.flush();
    watcher.tellHowToGoOn();
    return exitDone;
}

int runWait(Client& client, const WaitCommand& command, const Output& output) {
    const Clock::time_point deadline = Clock::now() + command.timeout;
    LineCommand expectation{.words = command.words};
    expectation.words.insert(expectation.words.begin(), "expect");
    client.call("watch", Json::object()); // before the first look, so that no change falls between
    for (;;) {
        const std::optional<std::string> unmet = whyUnmet(client, expectation, output);
        if (!unmet)
            return exitDone;
        if (Clock::now() >= deadline || !client.notification(deadline)) {
            output.err << (output.json
                               ? ""
                               : "kestrelctl: timed out after " + durationText(command.timeout) + ": ")
                       << *unmet << '\n';
            return exitTimedOut;
        }
        while (client.hasNotification()) // one look answers for all of them
            client.notification(deadline);
    }
}

} // namespace Ctl
