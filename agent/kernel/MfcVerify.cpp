#include "agent/kernel/MfcVerify.h"

#include <algorithm>
#include <map>
#include <utility>

namespace Agent::Kernel {
namespace {

constexpr std::size_t differencesListed = 1000;

std::string sortedList(std::vector<std::string> names) {
    std::sort(names.begin(), names.end());
    std::string text;
    for (const std::string& name : names)
        text += (text.empty() ? "" : " ") + name;
    return text.empty() ? "none" : text;
}

std::string onOff(bool on) {
    return on ? "on" : "off";
}

std::string routeText(RouteType type, const MfcKey& key) {
    return std::string(routeTypeText(type)) + " " + mfcKeyText(key);
}

} // namespace

MfcVerify::MfcVerify(const KernelConfig& config, const MfcMirror& mirror, KernelSink& tables)
    : mirror_(mirror)
    , tables_(tables)
    , fresh_(tables) {
    fresh_.configIs(config);
}

bool MfcVerify::compare() {
    result_ = {};
    extras_.clear();
    for (const auto& vrf : fresh_.vrfs()) {
        const auto& known = mirror_.vrfs();
        auto at = std::find_if(known.begin(), known.end(),
                               [&](const auto& other) { return other->config() == vrf->config(); });
        compareVrf(*vrf, at == known.end() ? nullptr : at->get());
    }
    if (!std::exchange(asked_, true) && askForExtras())
        return false;
    result_.complete = true;
    for (const MfcMirror* mirror : {&std::as_const(fresh_), &mirror_})
        for (const auto& vrf : mirror->vrfs())
            result_.complete = result_.complete && !vrf->kernel().resyncPending();
    result_.took = std::chrono::steady_clock::now() - began_;
    return true;
}

void MfcVerify::compareVrf(VrfMirror& vrf, const VrfMirror* known) {
    const VrfConfig& config = vrf.config();
    bool multicast = !vrf.kernel().vifs().empty();
    std::optional<bool> inTables = tables_.multicastEnabled(config);
    std::string why = known ? known->whyPending({}) : "";
    if (!inTables)
        return differ({.vrf = config.name, .what = "VRF missing", .pending = why});
    if (*inTables != multicast)
        differ({.vrf = config.name,
                .what = "multicast",
                .kernel = onOff(multicast),
                .tables = onOff(*inTables),
                .pending = why});
    MfcTable& routes = vrf.kernel().routes();
    routes.each([](MfcEntry& entry) { entry.shown = false; });
    for (RouteType type : routeTypes)
        tables_.eachRoute(config, type, [&](const MfcKey& key, std::span<const std::string_view> names) {
            compareRow(vrf, type, key, names);
        });
    // An entry without an IIF is a row only where it was one before it lost it.
    routes.each([&](const MfcEntry& entry) {
        result_.routes += entry.present;
        if (entry.present && entry.iif != 0 && !entry.shown)
            differ({.vrf = config.name,
                    .what = "missing",
                    .route = routeText(vrf.typeOf(entry), entry.key),
                    .kernel = namesOf(entry),
                    .tables = "",
                    .pending = known ? known->whyPending(entry.key) : ""});
    });
}

// Marks the entry that the row belongs to as shown: this mirror shows nothing itself.
void MfcVerify::compareRow(VrfMirror& vrf, RouteType type, const MfcKey& key,
                           std::span<const std::string_view> names) {
    ++result_.rows;
    MfcEntry* entry = vrf.kernel().routes().find(key);
    std::string inTables = sortedList({names.begin(), names.end()});
    Difference difference{.vrf = vrf.config().name, .route = routeText(type, key), .tables = inTables};
    if (!entry || !entry->present || (entry->iif != 0 && vrf.typeOf(*entry) != type)) {
        if (!entry || !entry->present)
            extras_.emplace_back(&vrf, key);
        difference.what = "extra";
        return differ(std::move(difference));
    }
    entry->shown = true;
    difference.kernel = namesOf(*entry);
    if (difference.kernel == inTables)
        return;
    difference.what = "different";
    for (const auto& known : mirror_.vrfs())
        if (known->config() == vrf.config())
            difference.pending = known->whyPending(key);
    differ(std::move(difference));
}

std::string MfcVerify::namesOf(const MfcEntry& entry) const {
    std::vector<std::string> names;
    if (entry.iif != 0)
        for (int ifindex : entry.oifs.members())
            names.push_back(fresh_.interfaces().nameOf(ifindex));
    return sortedList(std::move(names));
}

void MfcVerify::differ(Difference difference) {
    if (++result_.differenceCount <= differencesListed)
        result_.differences.push_back(std::move(difference));
}

// A dump can miss a route beside one that is deleted: what the tables have and it hasn't is asked for by
// name.
bool MfcVerify::askForExtras() {
    std::map<VrfMirror*, std::vector<MfcKey>> keys;
    for (const auto& [vrf, key] : extras_)
        keys[vrf].push_back(key);
    for (auto& [vrf, list] : keys)
        vrf->kernel().lookUp(std::move(list), MfcMirror::Clock::now());
    return !keys.empty();
}

} // namespace Agent::Kernel
