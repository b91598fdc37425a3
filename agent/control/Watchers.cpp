#include "agent/control/Watchers.h"

#include "agent/language/AnswerText.h"
#include "text/JsonWriter.h"

#include <algorithm>

namespace Agent {

void writeChange(Text::Writer& writer, const Operations& operations, std::uint64_t seq,
                 const AnswerChange& change, bool withText) {
    writer.beginRecord();
    writer.member("seq", seq);
    writeAnswerMembers(writer, operations, change, withText);
    writer.end();
}

void Watchers::watch(ClientId client, std::uint64_t last, bool withText) {
    unwatch(client);
    watchers_.push_back({client, last + 1, withText});
}

void Watchers::unwatch(ClientId client) {
    std::erase_if(watchers_, [client](const Watcher& watcher) { return watcher.client == client; });
}

bool Watchers::tell(Sessions& sessions) {
    std::erase_if(watchers_, [&](const Watcher& watcher) {
        const bool isLost = watcher.next < log_.oldest();
        if (isLost)
            sessions.cutOff(watcher.client);
        return isLost;
    });
    for (std::size_t told = 0; told < sliceChanges; ++told) {
        const Watcher* watcher = furthestBehind(sessions);
        if (watcher == nullptr)
            return false;
        tellOne(watcher->next, sessions);
    }
    return furthestBehind(sessions) != nullptr;
}

// Whether the watcher can be told something now.
bool Watchers::isOpen(const Watcher& watcher, const Sessions& sessions) const {
    return watcher.next <= log_.last() && sessions.unsent(watcher.client) < waitingLimit;
}

// Of those who can be told something now.
const Watchers::Watcher* Watchers::furthestBehind(const Sessions& sessions) const {
    const Watcher* found = nullptr;
    for (const Watcher& watcher : watchers_)
        if ((found == nullptr || watcher.next < found->next) && isOpen(watcher, sessions))
            found = &watcher;
    return found;
}

// Tells one change to all whose turn it is, put into words once for each form.
void Watchers::tellOne(std::uint64_t seq, Sessions& sessions) {
    std::string lines[2]; // without text and with it; empty: not put into words yet
    std::erase_if(watchers_, [&](Watcher& watcher) {
        if (watcher.next != seq || !isOpen(watcher, sessions))
            return false;
        ++watcher.next;
        std::string& line = lines[watcher.withText ? 1 : 0];
        if (line.empty()) {
            line = R"({"jsonrpc":"2.0","method":"changed","params":)";
            Text::JsonWriter writer(line);
            writeChange(writer, operations_, seq, log_.change(seq), watcher.withText);
            line += '}';
        }
        return !sessions.notify(watcher.client, line);
    });
}

} // namespace Agent
