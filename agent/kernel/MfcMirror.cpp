#include "agent/kernel/MfcMirror.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

namespace Agent::Kernel {
namespace {

constexpr MfcMirror::Clock::duration failurePause = std::chrono::seconds(1);

std::string_view queryText(KernelQuery::Kind kind) {
    switch (kind) {
    case KernelQuery::Kind::links:
        return "interfaces";
    case KernelQuery::Kind::vifs:
        return "VIFs";
    case KernelQuery::Kind::routes:
        return "routes of table ";
    case KernelQuery::Kind::route:
        return "a route of table ";
    }
    return "";
}

template <class List>
auto named(List& list, const std::string& name) {
    return std::find_if(list.begin(), list.end(),
                        [&](const auto& vrf) { return vrf->config().name == name; });
}

} // namespace

// A VRF keeps its identity by its name, also one that was on its way out.
void MfcMirror::configIs(const KernelConfig& config) {
    VrfList before = std::exchange(vrfs_, {});
    for (const VrfConfig& vrf : config.vrfs) {
        VrfList& holder = named(before, vrf.name) != before.end() ? before : leaving_;
        auto known = named(holder, vrf.name);
        if (known == holder.end()) {
            vrfs_.push_back(std::make_unique<VrfMirror>(vrf, shared_));
            vifsWanted_ = true;
            continue;
        }
        vifsWanted_ = vifsWanted_ || &holder == &leaving_ || (*known)->config().table != vrf.table;
        (*known)->configIs(vrf);
        vrfs_.push_back(std::move(*known));
        holder.erase(known);
    }
    for (auto& vrf : before) {
        vrf->leave();
        leaving_.push_back(std::move(vrf));
    }
    shared_.retry = true;
}

void MfcMirror::event(const KernelMessage& message) {
    ++shared_.counters.events;
    switch (message.kind) {
    case MessageKind::route:
    case MessageKind::routeGone:
        routeEvent(message.route, message.kind == MessageKind::routeGone);
        break;
    case MessageKind::link:
        linkChanged(message.link.ifindex, shared_.interfaces.eventIs(message.link));
        break;
    case MessageKind::linkGone:
        linkGone(message.link.ifindex);
        break;
    case MessageKind::mcForwarding:
        forwardingEvent(message.mcForwarding);
        break;
    case MessageKind::overrun:
        overrun();
        break;
    case MessageKind::malformed:
        ++shared_.counters.malformed;
        errorIs("a message of the kernel is malformed: " + std::string(message.problem));
        break;
    default:
        break;
    }
}

void MfcMirror::overrun() {
    ++shared_.counters.overruns;
    linksWanted_ = true;
    shared_.interfaces.disturbDump();
    vifsWanted_ = true;
    for (const auto& vrf : vrfs_) {
        vrf->kernel().disturbDump();
        vrf->kernel().dumpWanted();
    }
}

// What is skipped can still move what isn't: entries with group zero are in the list that a dump walks.
void MfcMirror::routeEvent(const MfcRoute& route, bool gone) {
    VrfMirror* vrf = vrfOf(route.table);
    if (vrf && gone && !route.unresolved)
        vrf->kernel().disturbDump();
    if (!mirrored(route) || vrf == nullptr)
        return;
    if (gone)
        vrf->kernel().routeGoneEvent(route.key);
    else
        vrf->kernel().routeEvent(route);
}

void MfcMirror::linkChanged(int ifindex, Interfaces::Change change) {
    for (const auto& vrf : vrfs_) {
        if (change.toInternal)
            vrf->kernel().linkInternal(ifindex);
        if (change.toKnown)
            vrf->kernel().linkKnown(ifindex);
    }
}

// An answer under way may still have the interface among the VIFs.
void MfcMirror::linkGone(int ifindex) {
    vifsWanted_ = vifsWanted_ || (query_ && query_->kind == KernelQuery::Kind::vifs);
    shared_.interfaces.gone(ifindex);
    for (const auto& vrf : vrfs_)
        vrf->kernel().linkGone(ifindex);
}

void MfcMirror::forwardingEvent(const McForwarding& state) {
    if (state.tables > 0)
        added_.insert(state.ifindex);
    vifsWanted_ = true;
}

VrfMirror* MfcMirror::vrfOf(std::uint32_t table) const {
    for (const auto& vrf : vrfs_)
        if (vrf->config().table == table)
            return vrf.get();
    return nullptr;
}

bool MfcMirror::mirrored(const MfcRoute& route) {
    if (!vrfOf(route.table))
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
std::optional<KernelQuery> MfcMirror::nextQuery(Clock::time_point now) {
    if (!queryDue(now))
        return std::nullopt;
    query_ = KernelQuery();
    answerMalformed_ = false;
    for (const auto& vrf : vrfs_)
        if (const MfcKey* key = vrf->kernel().absentee()) {
            *query_ = {.kind = KernelQuery::Kind::route, .table = vrf->config().table, .key = *key};
            routeAnswer_.reset();
            return query_;
        }
    if (linksWanted_) {
        linksWanted_ = false;
        shared_.interfaces.dumpBegins();
        return query_;
    }
    if (vifsWanted_) {
        vifsWanted_ = false;
        vifAnswer_.clear();
        addedBeforeQuery_ = std::exchange(added_, {});
        query_->kind = KernelQuery::Kind::vifs;
        return query_;
    }
    for (const auto& vrf : vrfs_)
        if (vrf->kernel().dumpDue(now)) {
            *query_ = {.kind = KernelQuery::Kind::routes, .table = vrf->config().table, .key = {}};
            vrf->kernel().dumpBegins(now);
            break;
        }
    return query_;
}

bool MfcMirror::queryDue(Clock::time_point now) const {
    if (now < notBefore_)
        return false;
    return linksWanted_ || vifsWanted_ || std::any_of(vrfs_.begin(), vrfs_.end(), [&](const auto& vrf) {
               return vrf->kernel().absentee() || vrf->kernel().dumpDue(now);
           });
}

std::optional<MfcMirror::Clock::time_point> MfcMirror::queryWaitsUntil() const {
    std::optional<Clock::time_point> earliest;
    if (linksWanted_ || vifsWanted_)
        earliest = notBefore_;
    for (const auto& vrf : vrfs_) {
        std::optional<Clock::time_point> due = vrf->kernel().dumpWaitsUntil();
        if (due && (!earliest || *due < *earliest))
            earliest = due;
    }
    return earliest ? std::optional(std::max(*earliest, notBefore_)) : std::nullopt;
}

void MfcMirror::answer(const KernelMessage& message) {
    if (message.kind == MessageKind::malformed) {
        ++shared_.counters.malformed;
        errorIs("an answer of the kernel is malformed: " + std::string(message.problem));
        answerMalformed_ = true;
        return;
    }
    switch (query_->kind) {
    case KernelQuery::Kind::links:
        if (message.kind == MessageKind::link)
            linkChanged(message.link.ifindex, shared_.interfaces.answerIs(message.link));
        break;
    case KernelQuery::Kind::vifs:
        if (message.kind == MessageKind::vifTable) {
            std::vector<Vif>& vifs = vifAnswer_[message.vifTable.table];
            vifs.insert(vifs.end(), message.vifTable.vifs.begin(), message.vifTable.vifs.end());
        }
        break;
    case KernelQuery::Kind::routes:
        if (message.kind == MessageKind::route && message.route.table == query_->table &&
            mirrored(message.route))
            if (KernelTable& table = vrfOf(query_->table)->kernel(); table.dumpOpen())
                table.dumpEntry(message.route);
        break;
    case KernelQuery::Kind::route:
        if (message.kind == MessageKind::route && !message.route.unresolved &&
            message.route.key == query_->key)
            routeAnswer_ = message.route;
        break;
    }
}

// A configuration may have come meanwhile: what it made of a table that was asked for has no dump open.
void MfcMirror::answered(int error, bool interrupted, Clock::time_point now) {
    KernelQuery query = *std::exchange(query_, std::nullopt);
    VrfMirror* vrf = vrfOf(query.table);
    bool ofTable = query.kind == KernelQuery::Kind::routes || query.kind == KernelQuery::Kind::route;
    if (ofTable && error == ENOENT)
        error = 0; // the kernel has made no such table, or has no such route
    if (answerMalformed_ && query.kind != KernelQuery::Kind::routes)
        error = EBADMSG;
    if (error != 0)
        return queryFailed(query, error, now);
    switch (query.kind) {
    case KernelQuery::Kind::links:
        if (interrupted)
            shared_.interfaces.disturbDump();
        linksAnswered();
        break;
    case KernelQuery::Kind::vifs:
        vifsAnswered();
        break;
    case KernelQuery::Kind::routes:
        if (!vrf || !vrf->kernel().dumpOpen())
            break;
        if (interrupted)
            vrf->kernel().disturbDump();
        vrf->kernel().dumpDone(now);
        break;
    case KernelQuery::Kind::route:
        if (vrf && vrf->kernel().absentee() && *vrf->kernel().absentee() == query.key)
            vrf->kernel().absenteeIs(routeAnswer_ ? &*routeAnswer_ : nullptr, now);
        break;
    }
}

void MfcMirror::linksAnswered() {
    linksWanted_ = linksWanted_ || shared_.interfaces.dumpDisturbed();
    if (!linksWanted_)
        for (int ifindex : shared_.interfaces.absent())
            linkGone(ifindex);
}

void MfcMirror::vifsAnswered() {
    for (const auto& vrf : vrfs_)
        vrf->kernel().vifsAre(vifAnswer_[vrf->config().table], addedBeforeQuery_);
}

void MfcMirror::queryFailed(const KernelQuery& query, int error, Clock::time_point now) {
    errorIs("the kernel's " + std::string(queryText(query.kind)) +
            (query.table ? std::to_string(query.table) : "") + " can't be read: " + std::strerror(error));
    notBefore_ = now + failurePause;
    if (query.kind == KernelQuery::Kind::links) {
        linksWanted_ = true;
    } else if (query.kind == KernelQuery::Kind::vifs) {
        vifsWanted_ = true;
        added_.merge(addedBeforeQuery_);
    } else if (VrfMirror* vrf = vrfOf(query.table)) {
        vrf->kernel().dumpFailed(now);
    }
}

std::size_t MfcMirror::publish(std::size_t max) {
    publishRenames();
    if (std::exchange(shared_.retry, false))
        for (VrfList* list : {&leaving_, &vrfs_})
            for (const auto& vrf : *list)
                vrf->retry();
    std::size_t told = publishVrfs(leaving_, max);
    std::erase_if(leaving_, [](const auto& vrf) { return vrf->left(); });
    told += publishVrfs(vrfs_, max - told);
    publishGoneInterfaces();
    return told;
}

std::size_t MfcMirror::publishVrfs(VrfList& vrfs, std::size_t max) {
    std::size_t told = 0;
    for (const auto& vrf : vrfs)
        if (vrf->hasWork())
            told += vrf->publish(max - told);
    return told;
}

bool MfcMirror::publishDue() const {
    auto hasWork = [](const auto& vrf) { return vrf->hasWork() || vrf->left(); };
    return shared_.retry || !shared_.interfaces.renamed().empty() ||
           std::any_of(vrfs_.begin(), vrfs_.end(), hasWork) ||
           std::any_of(leaving_.begin(), leaving_.end(), hasWork);
}

void MfcMirror::publishRenames() {
    for (int ifindex : std::exchange(shared_.interfaces.renamed(), {})) {
        bool rowsHoldNames = shared_.sink.interfaceNamed(ifindex, shared_.interfaces.nameOf(ifindex));
        shared_.retry = true;
        if (!rowsHoldNames)
            continue;
        for (VrfList* list : {&leaving_, &vrfs_})
            for (const auto& vrf : *list)
                vrf->renamed(ifindex);
    }
}

// Only when no route, known or told, has the interface any more: one whose removal the sink refused may
// still.
void MfcMirror::publishGoneInterfaces() {
    std::erase_if(shared_.interfaces.goneAndTold(), [&](int ifindex) {
        if (shared_.oifSets.uses(ifindex))
            return false;
        shared_.sink.interfaceGone(ifindex);
        return shared_.retry = true;
    });
}

bool MfcMirror::synced() const {
    return std::all_of(vrfs_.begin(), vrfs_.end(), [](const auto& vrf) { return vrf->kernel().synced(); });
}

KernelStatus MfcMirror::status() const {
    KernelStatus status;
    status.counters = shared_.counters;
    for (const VrfList* list : {&vrfs_, &leaving_})
        for (const auto& vrf : *list)
            status.vrfs.push_back(vrf->state());
    status.lastError = lastError_;
    status.lastErrorAt = lastErrorAt_;
    return status;
}

void MfcMirror::errorIs(std::string text) {
    lastError_ = std::move(text);
    lastErrorAt_ = std::chrono::system_clock::now();
}

} // namespace Agent::Kernel
