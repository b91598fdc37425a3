#include "agent/kernel/Verification.h"

#include <algorithm>
#include <memory>
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

// As mfcKeyText, with prefixes where there are some.
std::string keyText(const RouteKey& key) {
    const auto part = [](const L3::IpGenPrefix& prefix) {
        const bool isHost = prefix.length() == prefix.maxLength();
        return prefix == L3::IpGenPrefix() ? "*"
               : isHost                    ? prefix.address().stringValue()
                                           : prefix.stringValue();
    };
    return "(" + part(key.source) + ", " + part(key.group) + ")";
}

bool standsStill(const Mirror& mirror) {
    return std::ranges::none_of(mirror.vrfs(), [](const auto& vrf) { return vrf->kernel().resyncPending(); });
}

// A walk over the routes of a table that learns on: it stays open from one part to the next.
class RouteWalk {
  public:
    explicit RouteWalk(const RouteEntries& routes)
        : walk_(routes.walk())
        , at_(walk_.begin()) {}

    // Visits up to `count` further entries; false when none is left.
    template <class Visit>
    bool next(std::size_t count, Visit visit) {
        for (; count > 0 && at_ != walk_.end(); --count, ++at_)
            visit(*at_);
        return at_ != walk_.end();
    }

  private:
    RouteEntries::Walk<const RouteEntry> walk_;
    RouteEntries::Walk<const RouteEntry>::Iterator at_;
};

} // namespace

Verification::Verification(const KernelConfig& config, const Mirror& mirror, TableSink& tables,
                           std::size_t atOnce)
    : mirror_(mirror)
    , tables_(tables)
    , atOnce_(atOnce)
    , fresh_(tables) {
    fresh_.reconfigure(config);
}

bool Verification::step(const SettleEvents& settleEvents) {
    switch (stage_) {
    case Stage::begin:
        begin();
        stage_ = Stage::walk;
        break;
    case Stage::walk:
        if (!walk())
            stage_ = Stage::ask;
        break;
    case Stage::ask:
        ask();
        stage_ = Stage::settle;
        break;
    // What the kernel was asked for by name can be newer than the events.
    case Stage::settle:
        if (settleEvents(!std::exchange(settling_, true)))
            stage_ = Stage::judge;
        break;
    case Stage::judge:
        if (overruns_ == fresh_.counters().overruns)
            return !judge();
        stage_ = Stage::ask; // events were lost since
    }
    return false;
}

void Verification::begin() {
    for (std::size_t number = 0; number < fresh_.vrfs().size(); ++number) {
        const MirroredVrf& vrf = *fresh_.vrfs()[number];
        const auto walk = std::make_shared<RouteWalk>(vrf.kernel().routes());
        walks_.emplace_back([this, number, &vrf, walk] {
            return walk->next(atOnce_, [&](const RouteEntry& entry) {
                suspect({.vrf = number, .type = vrf.typeOf(entry), .key = rowKey(entry.key)});
            });
        });
        for (const RouteType type : routeTypes)
            walks_.emplace_back(
                [this, number, type, rows = std::shared_ptr(tables_.rows(vrf.config(), type))] {
                    return rows->next(atOnce_, [&](const RouteKey& key) {
                        suspect({.vrf = number, .type = type, .key = key});
                    });
                });
    }
}

// @return whether there is more to walk.
bool Verification::walk() {
    if (!walks_.empty() && !walks_.back()())
        walks_.pop_back();
    return !walks_.empty();
}

// Whether the fresh mirror may be wrong about a route for which it couldn't ask.
bool Verification::isDoubtful(const Spot& spot) const {
    const RouteEntry* entry = entryAt(spot);
    return entry && entry->present && entry->key.source == 0 && vrfOf(spot).kernel().resyncPending();
}

void Verification::suspect(const Spot& spot) {
    if (differenceAt(spot))
        suspects_.insert(Spot(spot));
}

// A dump can miss a route beside one that is deleted, and one that was disturbed isn't repeated for this. Of several
// (*,G) entries the kernel would tell the first alone.
void Verification::ask() {
    overruns_ = fresh_.counters().overruns;
    settling_ = false;
    judged_.reset();
    result_ = {};
    std::vector<std::vector<MfcKey>> keys(fresh_.vrfs().size());
    for (const Spot& spot : suspects_.walk()) {
        const RouteEntry* entry = entryAt(spot);
        const std::optional<MfcKey> key = kernelKey(spot.key);
        if (key && (key->source != 0 || !entry || !entry->present))
            keys[spot.vrf].push_back(*key);
    }
    for (std::size_t i = 0; i < keys.size(); ++i)
        if (!keys[i].empty())
            fresh_.vrfs()[i]->kernel().lookUp(std::move(keys[i]), Mirror::Clock::now());
}

// @return whether there is more to judge.
bool Verification::judge() {
    if (!judged_)
        for (const auto& vrf : fresh_.vrfs())
            judgeVrf(*vrf);
    std::size_t left = atOnce_;
    for (const Spot& spot : judged_ ? suspects_.walkAfter(*judged_) : suspects_.walk()) {
        if (left-- == 0)
            return true;
        std::optional<Difference> difference = differenceAt(spot);
        if (difference && !isDoubtful(spot))
            differ(std::move(*difference));
        judged_ = spot;
    }
    result_.complete = standsStill(fresh_) && standsStill(mirror_);
    result_.took = std::chrono::steady_clock::now() - began_;
    return false;
}

const MirroredVrf* Verification::knownAs(const VrfConfig& config) const {
    const auto known =
        std::ranges::find_if(mirror_.vrfs(), [&](const auto& other) { return other->config() == config; });
    return known == mirror_.vrfs().end() ? nullptr : known->get();
}

void Verification::judgeVrf(MirroredVrf& vrf) {
    const VrfConfig& config = vrf.config();
    const MirroredVrf* known = knownAs(config);
    const auto whyPending = [&] { return known ? known->whyPending({}) : WhyNot(); };
    const auto onOff = [](bool on) { return on ? "on" : "off"; };
    const bool multicast = !vrf.kernel().vifs().empty();
    const std::optional<bool> inTables = tables_.multicastEnabled(config);
    if (!inTables)
        differ({config.name, "VRF missing", "", "", "", whyPending()});
    else if (*inTables != multicast)
        differ({config.name, "multicast", "", onOff(multicast), onOff(*inTables), whyPending()});
    result_.routes += vrf.kernel().routeCount();
    for (const RouteType type : routeTypes)
        result_.rows += tables_.rows(config, type)->size();
}

const RouteEntry* Verification::entryAt(const Spot& spot) const {
    const std::optional<MfcKey> key = kernelKey(spot.key);
    return key ? vrfOf(spot).kernel().routes().find(*key) : nullptr;
}

// Of a VRF that the tables lack, no route is told.
std::optional<Difference> Verification::differenceAt(const Spot& spot) const {
    const MirroredVrf& vrf = vrfOf(spot);
    const VrfConfig& config = vrf.config();
    const RouteEntry* entry = entryAt(spot);
    const bool isPresent = entry && entry->present;
    std::string has;
    const bool isRow = tables_.row(config, spot.type, spot.key, [&](std::span<const std::string_view> names) {
        has = sortedList({names.begin(), names.end()});
    });
    // An entry without an IIF is a row only where it was one before it lost it.
    const bool isOfType = isPresent && (entry->iif == 0 ? isRow : vrf.typeOf(*entry) == spot.type);
    const std::string wanted = isOfType ? namesOf(*entry) : "";
    if (isRow == isOfType && has == wanted)
        return std::nullopt;
    if (!tables_.multicastEnabled(config))
        return std::nullopt;
    const MirroredVrf* known = isOfType ? knownAs(config) : nullptr;
    return Difference{.vrf = config.name,
                      .what = !isOfType ? "extra"
                              : isRow   ? "different"
                                        : "missing",
                      .route = std::string(routeTypeText(spot.type)) + " " + keyText(spot.key),
                      .kernel = wanted,
                      .tables = has,
                      .pending = known ? known->whyPending(entry->key) : WhyNot()};
}

bool Verification::dismantle() {
    walks_.clear();
    std::vector<MfcKey> keys;
    for (const auto& vrf : fresh_.vrfs()) {
        RouteEntries& routes = vrf->kernel().routes();
        for (const RouteEntry& entry : routes.walk()) {
            keys.push_back(entry.key);
            if (keys.size() == atOnce_)
                break;
        }
        for (const MfcKey& key : keys)
            routes.erase(key);
        if (!keys.empty())
            return false;
    }
    return true;
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
