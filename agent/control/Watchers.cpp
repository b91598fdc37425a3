#include "agent/control/Watchers.h"

#include "agent/language/AnswerText.h"
#include "text/JsonWriter.h"

#include <algorithm>
#include <array>
#include <new>
#include <string>

namespace Agent {

using Clock = std::chrono::steady_clock;

void Watchers::watchSince(ClientId client, std::uint64_t heard, bool withText) {
    unwatch(client);
    watchers_.push_back({.client = client, .next = heard + 1, .withText = withText});
}

SnapshotPage Watchers::watch(ClientId client, bool withText) {
    watchSince(client, log_.last(), withText);
    SnapshotPage page = snapshotPage(operations_.host().stores(), std::nullopt);
    if (page.last)
        watchers_.back().rest = Rest{.after = page.last};
    return page;
}

void Watchers::unwatch(ClientId client) {
    std::erase_if(watchers_, [client](const Watcher& watcher) { return watcher.client == client; });
}

bool Watchers::tell(Sessions& sessions) {
    loseIf([this](const Watcher& watcher) { return watcher.next < log_.oldest(); });
    try {
        return tellSlice(sessions);
    } catch (const std::bad_alloc&) { // whom it told is not known
        loseIf([](const Watcher&) { return true; });
        return true;
    }
}

// They begin anew.
template <class IsLost>
void Watchers::loseIf(IsLost isLost) {
    for (Watcher& watcher : watchers_)
        if (isLost(watcher))
            watcher.rest = Rest{.after = {}, .isAfterLoss = true};
}

bool Watchers::tellSlice(Sessions& sessions) {
    const VrfNames vrfs(operations_);
    const Clock::time_point end = Clock::now() + sliceTime;
    while (const Watcher* watcher = nextInTurn(sessions)) {
        if (isAtPage(*watcher))
            tellPage(Rest(*watcher->rest), vrfs, sessions);
        else
            tellChange(watcher->next, vrfs, sessions);
        if (Clock::now() >= end)
            return true;
    }
    return false;
}

// Whether what it is told next is a page: when it has heard every change, or what it missed is no longer held.
bool Watchers::isAtPage(const Watcher& watcher) const {
    return watcher.rest && (watcher.rest->isAfterLoss || watcher.next > log_.last());
}

// Whether the watcher can be told something now.
bool Watchers::isOpen(const Watcher& watcher, const Sessions& sessions) const {
    return (watcher.next <= log_.last() || watcher.rest) && sessions.unsent(watcher.client) < waitingLimit;
}

// Of those who can be told something now.
const Watchers::Watcher* Watchers::nextInTurn(const Sessions& sessions) {
    for (std::size_t passed = 0; passed < watchers_.size(); ++passed) {
        const Watcher& watcher = watchers_[turn_++ % watchers_.size()];
        if (isOpen(watcher, sessions))
            return &watcher;
    }
    return nullptr;
}

// Sends a notification to all for whom it is meant, which notes for each that it is told: put into words once for
// each form. Ends after so much text that copying it takes a slice: who is left is told on another turn.
template <class IsMeant, class WriteLine>
void Watchers::tellAll(const char* method, Sessions& sessions, IsMeant isMeant, WriteLine write) {
    std::array<std::string, 2> lines; // without text and with it; empty: not put into words yet
    std::size_t bytes = 0;
    std::erase_if(watchers_, [&](Watcher& watcher) {
        if (bytes >= sliceBytes || !isOpen(watcher, sessions) || !isMeant(watcher))
            return false;
        std::string& line = lines[watcher.withText ? 1 : 0];
        if (line.empty()) {
            Text::JsonWriter writer(line);
            writer.beginRecord();
            writer.member("jsonrpc", "2.0");
            writer.member("method", method);
            writer.field("params");
            writer.beginRecord();
            write(writer, watcher.withText);
            writer.end();
            writer.end();
        }
        bytes += line.size();
        return !sessions.notify(watcher.client, line);
    });
}

void Watchers::tellChange(std::uint64_t seq, const VrfNames& vrfs, Sessions& sessions) {
    const auto isMeant = [&](Watcher& watcher) {
        const bool isNext = watcher.next == seq && !isAtPage(watcher);
        watcher.next += isNext ? 1 : 0;
        return isNext;
    };
    tellAll("changed", sessions, isMeant, [&](Text::Writer& writer, bool withText) {
        writer.member("seq", seq);
        writeAnswerMembers(writer, vrfs, log_.change(seq), withText);
    });
}

// To all who are so far in a snapshot.
void Watchers::tellPage(const Rest& rest, const VrfNames& vrfs, Sessions& sessions) {
    const SnapshotPage page = snapshotPage(operations_.host().stores(), rest.after);
    const auto isMeant = [&](Watcher& watcher) {
        const bool isNext = isAtPage(watcher) && watcher.rest == rest;
        if (isNext) {
            watcher.rest = page.last ? std::optional(Rest{.after = page.last}) : std::nullopt;
            watcher.next = log_.last() + 1;
        }
        return isNext;
    };
    tellAll("snapshot", sessions, isMeant, [&](Text::Writer& writer, bool withText) {
        writer.member("seq", log_.last());
        if (rest.isAfterLoss)
            writer.member("lost", true);
        writer.field("answers");
        writeAnswers(writer, vrfs, page.answers, withText);
        writer.member("more", page.last.has_value());
    });
}

} // namespace Agent
