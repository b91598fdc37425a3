#include "ctl/Watch.h"

#include "ctl/Client.h"

#include <charconv>
#include <ostream>
#include <utility>

namespace Ctl {

namespace {

// Prints what has been seen and remembers how far that goes.
class Watcher {
  public:
    Watcher(const WatchCommand& command, const Output& output)
        : since_(command)
        , output_(output) {}

    void tellParameters(Text::Writer& params) const {
        if (!since_.instance.empty()) {
            params.field("since");
            params.beginRecord();
            params.member("instance", since_.instance);
            params.member("seq", since_.seq);
            params.end();
        }
        if (!output_.isJson)
            params.member("text", true);
    }

    // The answer to `watch`: the first answers as they are, or word that what was missed follows.
    void begin(const Message& answer) {
        instance_ = answer.text("instance");
        takeAnswers(answer, "snapshot");
    }

    // A change, or more of the answers as they are.
    void notified(const Message& told) {
        if (told.find("answers"))
            return takeAnswers(told, "answers");
        output_.out << (output_.isJson ? told.json() : told.text("text")) << '\n';
        since_.seq = seqOf(told);
    }

    void tellHowToGoOn() const {
        output_.out.flush();
        if (isWhole_)
            output_.err << "kestrelctl: go on with watch --since " << since_.instance << ':' << since_.seq
                        << '\n';
    }

  private:
    void takeAnswers(const Message& told, const char* list) {
        if (output_.isJson)
            output_.out << told.json() << '\n';
        else if (told.isTrue("lost"))
            tellOfLoss();
        if (!output_.isJson)
            for (const Message& answer : told.list(list))
                output_.out << answer.text("text") << '\n';
        since_ = {.instance = instance_, .seq = seqOf(told)};
        isWhole_ = !told.isTrue("more");
    }
    // Behind what was printed before, if both go to the same place.
    void tellOfLoss() const {
        output_.out.flush();
        output_.err
            << "kestrelctl: changes were lost; these are all answers now; what is not among them is gone\n";
    }
    static std::uint64_t seqOf(const Message& message) {
        return static_cast<std::uint64_t>(message.number("seq"));
    }

    WatchCommand since_; // what has been printed
    const Output& output_;
    std::string instance_;
    bool isWhole_ = false; // all answers have been seen as they are or were
};

std::string durationText(std::chrono::milliseconds duration) {
    return duration.count() % 1000 == 0 ? std::to_string(duration.count() / 1000) + "s"
                                        : std::to_string(duration.count()) + "ms";
}

// Looks once; prints the result of an expectation that holds.
// Returns nothing where it holds, otherwise what the agent says of it.
std::optional<std::string> whyUnmet(Client& client, const LineCommand& expectation, const Output& output) {
    try {
        runLine(client, expectation, output);
        return std::nullopt;
    } catch (const AgentError& error) {
        if (!error.isExpectation())
            throw;
        return output.isJson ? error.object().json() : error.what();
    }
}

} // namespace

std::optional<std::chrono::milliseconds> durationOf(std::string_view text) {
    constexpr std::uint32_t longest = 1'000'000; // of any unit
    std::uint32_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || number > longest)
        return std::nullopt;
    const std::string_view unit = text.substr(static_cast<std::size_t>(end - text.data()));
    if (unit == "ms")
        return std::chrono::milliseconds(number);
    if (unit == "s" || unit.empty())
        return std::chrono::seconds(number);
    if (unit == "m")
        return std::chrono::minutes(number);
    return std::nullopt;
}

int runWatch(Client& client, const WatchCommand& command, const Output& output) {
    client.endOnInterrupt();
    Watcher watcher(command, output);
    try {
        watcher.begin(client.call("watch", [&](Text::Writer& params) { watcher.tellParameters(params); }));
        for (;;) {
            if (!client.hasNotification())
                output.out.flush();
            const std::optional<Message> change = client.notification();
            if (!change)
                break;
            watcher.notified(*change);
        }
    } catch (const ConnectionError&) {
        watcher.tellHowToGoOn();
        throw;
    }
    watcher.tellHowToGoOn();
    return exitDone;
}

int runWait(Client& client, const WaitCommand& command, const Output& output) {
    const Clock::time_point deadline = Clock::now() + command.timeout;
    LineCommand expectation{.words = command.words};
    expectation.words.insert(expectation.words.begin(), "expect");
    // Before the first look, so that no change falls between.
    client.call("watch", [](Text::Writer&) {});
    for (;;) {
        const std::optional<std::string> unmet = whyUnmet(client, expectation, output);
        if (!unmet)
            return exitDone;
        if (Clock::now() >= deadline || !client.notification(deadline)) {
            if (!output.isJson)
                output.err << "kestrelctl: timed out after " << durationText(command.timeout) << ": ";
            output.err << *unmet << '\n';
            return exitTimedOut;
        }
        while (client.hasNotification()) // one look answers for all of them
            client.notification(deadline);
    }
}

} // namespace Ctl
