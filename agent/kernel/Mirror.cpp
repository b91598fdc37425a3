#include "agent/kernel/Mirror.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

namespace Agent::Kernel {
namespace {

using Kind = KernelQuery::Kind;

constexpr Mirror::Clock::duration failurePause = std::chrono::seconds(1);

// What a query asks for.
std::string queryText(const KernelQuery& query) {
    static constexpr const char* texts[] = {"interfaces", "VIFs", "routes of table ", "a route of table "};
    return texts[static_cast<std::size_t>(query.kind)] +
           (query.table == 0 ? "" : std::to_string(query.table));
}

Mirror::VrfList::iterator named(Mirror::VrfList& list, const std::string& name) {
    return std::ranges::find_if(list, [&](const auto& vrf) { return vrf->config().name == name; });
}

} // namespace

// A VRF keeps its identity by its name, also one that was on its way out.
void Mirror::reconfigure(const KernelConfig& config) {
    VrfList before = std::exchange(vrfs_, {});
    for (const VrfConfig& vrf : config.vrfs) {
        VrfList& holder = named(before, vrf.name) != before.end() ? before : leaving_;
        const auto known = named(holder, vrf.name);
        if (known == holder.end()) {
            vrfs_.push_back(std::make_unique<MirroredVrf>(vrf, shared_));
            vifsWanted_ = true;
            continue;
        }
        vifsWanted_ = vifsWanted_ || &holder == &leaving_ || (*known)->config().table != vrf.table;
        (*known)->reconfigure(vrf);
        vrfs_.push_back(std::move(*known));
        holder.erase(known);
    }
    for (auto& vrf : before) {
        vrf->leave();
        leaving_.push_back(std::move(vrf));
    }
    shared_.retry = true;
}

void Mirror::takeEvent(const KernelMessage& message) {
    ++shared_.counters.events;
    if (message.kind == MessageKind::route || message.kind == MessageKind::routeGone) {
        routeEvent(message.route, message.kind == MessageKind::routeGone);
    } else if (message.kind == MessageKind::link) {
        learnLink(message.link, false);
    } else if (message.kind == MessageKind::linkGone) {
        linkGone(message.link.ifindex);
    } else if (message.kind == MessageKind::mcForwarding) {
        if (message.mcForwarding.tables > 0)
            added_.insert(message.mcForwarding.ifindex);
        vifsWanted_ = true;
    } else if (message.kind == MessageKind::overrun) {
        overrun();
    } else if (message.kind == MessageKind::malformed) {
        noteMalformed("a message", message);
    }
}

void Mirror::overrun() {
    ++shared_.counters.overruns;
    linksWanted_ = true;
    vifsWanted_ = true;
    for (const auto& vrf : vrfs_) {
        vrf->kernel().disturbDump();
        vrf->kernel().wantDump();
    }
}

// What is skipped can still move what isn't: entries with group zero are in the list that a dump walks.
void Mirror::routeEvent(const MfcRoute& route, bool gone) {
    MirroredVrf* vrf = vrfOf(route.table);
    if (vrf && gone && !route.unresolved)
        vrf->kernel().disturbDump();
    if (!isMirrored(vrf, route))
        return;
    if (gone)
        vrf->kernel().learnGone(route.key);
    else
        vrf->kernel().learn(route);
}

void Mirror::learnLink(const Link& link, bool isFromDump) {
    if (!shared_.interfaces.learn(link, isFromDump))
        return;
    for (const auto& vrf : vrfs_)
        vrf->kernel().linkChanged(link.ifindex);
}

// An answer under way may still have the interface, among the VIFs too.
void Mirror::linkGone(int ifindex) {
    linksWanted_ = linksWanted_ || asks(Kind::links);
    vifsWanted_ = vifsWanted_ || asks(Kind::vifs);
    shared_.interfaces.remove(ifindex);
    for (const auto& vrf : vrfs_)
        vrf->kernel().linkGone(ifindex);
}

MirroredVrf* Mirror::vrfOf(std::uint32_t table) const {
    const auto at =
        std::ranges::find_if(vrfs_, [&](const auto& vrf) { return vrf->config().table == table; });
    return at == vrfs_.end() ? nullptr : at->get();
}

// Whether the route can be a row; if not, it is counted as skipped.
bool Mirror::isMirrored(const MirroredVrf* vrf, const MfcRoute& route) {
    if (!vrf)
        ++shared_.counters.skippedOtherTable;
    else if (route.unresolved)
        ++shared_.counters.skippedUnresolved;
    else if (route.key.group == 0)
        ++shared_.counters.skippedGroupZero;
    else
        return true;
    return false;
}

// Names come before routes that have them, VIFs before routes that lost them.
std::optional<KernelQuery> Mirror::nextQuery(Clock::time_point now) {
    if (!queryDue(now))
        return std::nullopt;
    KernelQuery& query = asked_.emplace().query;
    const auto asksOne = std::ranges::find_if(vrfs_, [](const auto& vrf) { return vrf->kernel().missing(); });
    if (asksOne != vrfs_.end()) {
        const MirroredVrf& vrf = **asksOne;
        query = {.kind = Kind::route, .table = vrf.config().table, .key = *vrf.kernel().missing()};
    } else if (std::exchange(linksWanted_, false)) {
        shared_.interfaces.beginDump();
    } else if (std::exchange(vifsWanted_, false)) {
        query.kind = Kind::vifs;
        asked_->added = std::exchange(added_, {});
    } else {
        MirroredVrf& vrf =
            **std::ranges::find_if(vrfs_, [&](const auto& it) { return it->kernel().dumpDue(now); });
        vrf.kernel().beginDump(now);
        query = {.kind = Kind::routes, .table = vrf.config().table};
    }
    return query;
}

std::optional<Mirror::Clock::time_point> Mirror::queryDueAt() const {
    std::optional<Clock::time_point> earliest;
    if (linksWanted_ || vifsWanted_)
        earliest = notBefore_;
    for (const auto& vrf : vrfs_)
        if (const auto due = vrf->kernel().queryDueAt())
            earliest = std::min(std::max(*due, notBefore_), earliest.value_or(Clock::time_point::max()));
    return earliest;
}

// A configuration may have come meanwhile: what it made of a table that was asked for has no dump open.
void Mirror::takeAnswer(const KernelMessage& message) {
    const KernelQuery& query = asked_->query;
    if (message.kind == MessageKind::malformed) {
        noteMalformed("an answer", message);
        asked_->malformed = true;
    } else if (message.kind == MessageKind::link && asks(Kind::links)) {
        learnLink(message.link, true);
    } else if (message.kind == MessageKind::vifTable && asks(Kind::vifs)) {
        const std::vector<Vif>& part = message.vifTable.vifs;
        std::vector<Vif>& vifs = asked_->vifs[message.vifTable.table];
        vifs.insert(vifs.end(), part.begin(), part.end());
    } else if (message.kind == MessageKind::route && asks(Kind::route)) {
        if (!message.route.unresolved && message.route.key == query.key)
            asked_->route = message.route;
    } else if (message.kind == MessageKind::route && asks(Kind::routes) &&
               message.route.table == query.table) {
        MirroredVrf* vrf = vrfOf(query.table);
        if (isMirrored(vrf, message.route) && vrf->kernel().dumpOpen())
            vrf->kernel().learnFromDump(message.route);
    }
}

void Mirror::endAnswer(int error, bool interrupted, Clock::time_point now) {
    AskedQuery asked = *std::exchange(asked_, std::nullopt);
    const KernelQuery& query = asked.query;
    const bool isOfTable = query.kind == Kind::routes || query.kind == Kind::route;
    if (isOfTable && error == ENOENT)
        error = 0; // the kernel has made no such table, or has no such route
    if (asked.malformed && query.kind != Kind::routes)
        error = EBADMSG;
    MirroredVrf* vrf = isOfTable ? vrfOf(query.table) : nullptr;
    if (error != 0) {
        failQuery(asked, error, now);
    } else if (query.kind == Kind::links) {
        linksWanted_ = linksWanted_ || interrupted;
        if (!linksWanted_)
            for (int ifindex : shared_.interfaces.unseen())
                linkGone(ifindex);
    } else if (query.kind == Kind::vifs) {
        for (const auto& each : vrfs_)
            each->kernel().takeVifs(asked.vifs[each->config().table], asked.added);
    } else if (vrf && query.kind == Kind::route) {
        if (vrf->kernel().missing() && *vrf->kernel().missing() == query.key)
            vrf->kernel().learnMissing(asked.route ? &*asked.route : nullptr, now);
    } else if (vrf && vrf->kernel().dumpOpen()) {
        if (interrupted)
            vrf->kernel().disturbDump();
        vrf->kernel().endDump(now);
    }
}

void Mirror::failQuery(AskedQuery& asked, int error, Clock::time_point now) {
    noteError("the kernel's " + queryText(asked.query) + " can't be read: " + std::strerror(error));
    notBefore_ = now + failurePause;
    if (asked.query.kind == Kind::links) {
        linksWanted_ = true;
    } else if (asked.query.kind == Kind::vifs) {
        vifsWanted_ = true;
        added_.merge(asked.added);
    } else if (MirroredVrf* vrf = vrfOf(asked.query.table)) {
        vrf->kernel().abandonDump();
    }
}

// A VRF that leaves gives up what another one may wait for.
std::size_t Mirror::publish(std::size_t max) {
    publishRenames();
    if (std::exchange(shared_.retry, false))
        for (const VrfList* list : {&leaving_, &vrfs_})
            for (const auto& vrf : *list)
                vrf->retry();
    std::size_t told = 0;
    for (const VrfList* list : {&leaving_, &vrfs_})
        for (const auto& vrf : *list)
            if (vrf->hasWork())
                told += vrf->publish(max - told);
    std::erase_if(leaving_, [](const auto& vrf) { return vrf->left(); });
    publishGoneInterfaces();
    return told;
}

bool Mirror::publishDue() const {
    const auto hasWork = [](const auto& vrf) { return vrf->hasWork() || vrf->left(); };
    return shared_.retry || !shared_.interfaces.toRename().empty() || std::ranges::any_of(vrfs_, hasWork) ||
           std::ranges::any_of(leaving_, hasWork);
}

void Mirror::publishRenames() {
    for (int ifindex : std::exchange(shared_.interfaces.toRename(), {})) {
        const bool rowsHoldNames = shared_.sink.renameInterface(ifindex, shared_.interfaces.nameOf(ifindex));
        shared_.retry = true;
        if (!rowsHoldNames)
            continue;
        for (const VrfList* list : {&leaving_, &vrfs_})
            for (const auto& vrf : *list)
                vrf->repeatRoutesWith(ifindex);
    }
}

// Only when no route, known or told, has the interface any more: one that waits to be told may, and one whose change
// the sink refused.
void Mirror::publishGoneInterfaces() {
    std::set<int>& toForget = shared_.interfaces.toForget();
    const auto anyQueued = [](const auto& vrf) { return vrf->kernel().anyQueued(); };
    if (toForget.empty() || std::ranges::any_of(vrfs_, anyQueued) || std::ranges::any_of(leaving_, anyQueued))
        return;
    std::set<int> unused = toForget;
    for (const VrfList* list : {&leaving_, &vrfs_})
        for (const auto& vrf : *list)
            for (const RouteEntry& entry : vrf->kernel().routes().walk())
                for (const std::vector<int>* oifs : {&entry.oifs, &entry.installedOifs})
                    for (int ifindex : *oifs)
                        unused.erase(ifindex);
    for (int ifindex : unused) {
        shared_.sink.forgetInterface(ifindex);
        toForget.erase(ifindex);
        shared_.retry = true;
    }
}

bool Mirror::synced() const {
    return std::ranges::all_of(vrfs_, [](const auto& vrf) { return vrf->kernel().synced(); });
}

void Mirror::vrfStatus(Text::Writer& writer) const {
    writer.beginList();
    for (const VrfList* list : {&vrfs_, &leaving_})
        for (const auto& vrf : *list)
            vrf->status(writer);
    writer.end();
}

void Mirror::noteMalformed(const char* what, const KernelMessage& message) {
    ++shared_.counters.malformed;
    noteError(what + (" of the kernel is malformed: " + std::string(message.problem)));
}

void Mirror::noteError(std::string text) {
    lastError_ = std::move(text);
    lastErrorAt_ = std::chrono::system_clock::now();
}

} // namespace Agent::Kernel
