#include "agent/Watchers.h"

#include "agent/JsonDatum.h"

#include <algorithm>

namespace Agent {

namespace {

void appendNotification(std::string& out, std::uint64_t seq, const AnswerChange& change) {
    out += R"({"jsonrpc":"2.0","method":"changed","params":{"seq":)";
    out += std::to_string(seq);
    out += R"(,"path":")";
    out += change.path;
    out += R"(","attribute":")";
    out += change.attribute;
    out += R"(","key":)";
    appendJson(out, change.key);
    out += R"(,"value":)";
    appendJson(out, change.value.value_or(State::Datum()));
    out += "}}";
}

} // namespace

void Watchers::watch(ClientId client, std::uint64_t last) {
    unwatch(client);
    watchers_.push_back({client, last + 1});
}

void Watchers::unwatch(ClientId client) {
    std::erase_if(watchers_, [client](const Watcher& watcher) { return watcher.client == client; });
}

bool Watchers::tell() {
    cutOffTheLost();
    for (std::size_t told = 0; told < sliceChanges; ++told) {
        const Watcher* watcher = furthestBehind();
        if (watcher == nullptr)
            return false;
        tellOne(watcher->next);
    }
    return furthestBehind() != nullptr;
}

void Watchers::cutOffTheLost() {
    std::erase_if(watchers_, [this](const Watcher& watcher) {
        const bool isLost = watcher.next < log_.oldest();
        if (isLost && server_ != nullptr)
            server_->cutOff(watcher.client);
        return isLost;
    });
}

/// Whether the watcher can be told something now.
bool Watchers::isOpen(const Watcher& watcher) const {
    return watcher.next <= log_.last() && server_ != nullptr &&
           server_->unsent(watcher.client) < waitingLimit;
}

const Watchers::Watcher* Watchers::furthestBehind() const {
    const Watcher* found = nullptr;
    for (const Watcher& watcher : watchers_)
        if ((found == nullptr || watcher.next < found->next) && isOpen(watcher))
            found = &watcher;
    return found;
}

/// Tells one change to all whose turn it is, put into words once.
void Watchers::tellOne(std::uint64_t seq) {
    line_.clear();
    appendNotification(line_, seq, log_.change(seq).change());
    std::erase_if(watchers_, [&](Watcher& watcher) {
        if (watcher.next != seq || !isOpen(watcher))
            return false;
        ++watcher.next;
        return !server_->notify(watcher.client, line_);
    });
}

} // namespace Agent
