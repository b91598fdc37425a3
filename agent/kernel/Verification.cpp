#include "agent/kernel/Verification.h"

#include <algorithm>
#include <utility>

namespace Agent::Kernel {
namespace {

constexpr std::size_t differencesListed = 1000;

std::string sortedList(std::vector<std::string> names) {
    std::ranges::sort(names);
    std::string text;
    for (const std::string& name : names)
        text += (text.empty() ? "" : " ") + name;
    return text.empty() ? "none" : text;
}

std::string routeText(RouteType type, const MfcKey& key) {
    return std::string(routeTypeText(type)) + " " + mfcKeyText(key);
}

bool standsStill(const Mirror& mirror) {
    return std::ranges::none_of(mirror.vrfs(), [](const auto& vrf) { return vrf->kernel().resyncPending(); });
}

} // namespace

Verification::Verification(const KernelConfig& config, const Mirror& mirror, TableSink& tables)
    : mirror_(mirror)
    , tables_(tables)
    , fresh_(tables) {
    fresh_.reconfigure(config);
}

// A dump can miss a route beside one that is deleted: what the tables have and it hasn't is asked for by name, once.
bool Verification::compare() {
    result_ = {};
    const bool mayAsk = !std::exchange(asked_, true);
    bool asks = false;
    for (const auto& vrf : fresh_.vrfs()) {
        const auto known = std::ranges::find_if(
            mirror_.vrfs(), [&](const auto& other) { return other->config() == vrf->config(); });
        std::vector<MfcKey> extras = compareVrf(*vrf, known == mirror_.vrfs().end() ? nullptr : known->get());
        if (!mayAsk || extras.empty())
            continue;
        vrf->kernel().lookUp(std::move(extras), Mirror::Clock::now());
        asks = true;
    }
    result_.complete = standsStill(fresh_) && standsStill(mirror_);
    result_.took = std::chrono::steady_clock::now() - began_;
    return !asks;
}

// Marks the entries that have a row as installed: this mirror installs nothing itself.
// @return the keys of rows that the kernel lacks.
std::vector<MfcKey> Verification::compareVrf(MirroredVrf& vrf, const MirroredVrf* known) {
    const VrfConfig& config = vrf.config();
    const auto whyPending = [&](const MfcKey& key) { return known ? known->whyPending(key) : WhyNot(); };
    const auto onOff = [](bool on) { return on ? "on" : "off"; };
    std::vector<MfcKey> extras;
    const bool multicast = !vrf.kernel().vifs().empty();
    const std::optional<bool> inTables = tables_.multicastEnabled(config);
    if (!inTables) {
        differ({config.name, "VRF missing", "", "", "", whyPending({})});
        return extras;
    }
    if (*inTables != multicast)
        differ({config.name, "multicast", "", onOff(multicast), onOff(*inTables), whyPending({})});
    RouteEntries& routes = vrf.kernel().routes();
    for (RouteEntry& entry : routes.walk())
        entry.installed = false;
    for (RouteType type : routeTypes)
        tables_.eachRoute(config, type, [&](const MfcKey& key, std::span<const std::string_view> names) {
            ++result_.rows;
            const std::string has = sortedList({names.begin(), names.end()});
            RouteEntry* entry = routes.find(key);
            const bool isPresent = entry && entry->present;
            if (!isPresent)
                extras.push_back(key);
            if (!isPresent || (entry->iif != 0 && vrf.typeOf(*entry) != type))
                return differ({config.name, "extra", routeText(type, key), "", has, ""});
            entry->installed = true;
            if (const std::string wanted = namesOf(*entry); wanted != has)
                differ({config.name, "different", routeText(type, key), wanted, has, whyPending(key)});
        });
    // An entry without an IIF is a row only where it was one before it lost it.
    for (const RouteEntry& entry : routes.walk()) {
        result_.routes += entry.present;
        if (entry.present && entry.iif != 0 && !entry.installed)
            differ({config.name, "missing", routeText(vrf.typeOf(entry), entry.key), namesOf(entry), "",
                    whyPending(entry.key)});
    }
    return extras;
}

std::string Verification::namesOf(const RouteEntry& entry) const {
    std::vector<std::string> names;
    if (entry.iif != 0)
        for (int ifindex : entry.oifs)
            names.push_back(fresh_.interfaces().nameOf(ifindex));
    return sortedList(std::move(names));
}

void Verification::differ(Difference difference) {
    if (++result_.differenceCount <= differencesListed)
        result_.differences.push_back(std::move(difference));
}

void VerifyResult::write(Text::Writer& writer) const {
    writer.beginRecord();
    writer.member("complete", complete);
    writer.member("routes", routes);
    writer.member("rows", rows);
    writer.member("differenceCount", differenceCount);
    static constexpr std::string_view columns[] = {"vrf", "what", "route", "kernel", "tables", "pending"};
    writer.field("differences");
    writer.beginTable(columns);
    for (const Difference& one : differences) {
        const std::string* const texts[] = {&one.vrf,    &one.what,   &one.route,
                                            &one.kernel, &one.tables, &one.pending};
        writer.beginRecord();
        for (std::size_t i = 0; i < std::size(columns); ++i)
            if (!texts[i]->empty())
                writer.member(columns[i], *texts[i]);
        writer.end();
    }
    writer.end();
    writer.member("tookMs", std::chrono::duration_cast<std::chrono::milliseconds>(took).count());
    writer.end();
}

} // namespace Agent::Kernel
