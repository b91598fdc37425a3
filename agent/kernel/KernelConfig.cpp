#include "agent/kernel/KernelConfig.h"

#include "agent/json/Json.h"
#include "records/VrfId.h"
#include "records/VrfName.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <map>
#include <optional>
#include <set>
#include <utility>

namespace Agent::Kernel {
namespace {

using State::Datum;

constexpr std::string_view defaultName = "default";
constexpr std::uint32_t defaultTable = 253;
constexpr std::uint32_t maxTable = 999'999'999; // the kernel makes no table above

constexpr std::pair<RouteTypeRule, std::string_view> ruleTexts[] = {
    {RouteTypeRule::staticRoutes, "static"},
    {RouteTypeRule::sparse, "sparse"},
    {RouteTypeRule::byProtocol, "by-protocol"},
};

std::string joined(const std::vector<std::string>& lines) {
    std::string text;
    for (const std::string& line : lines)
        text += (text.empty() ? "" : "\n") + line;
    return text;
}

std::string quoted(const std::string& text) {
    return Json::textOf(text);
}

// Collects what is wrong, each with the place where it is.
class Problems {
  public:
    explicit Problems(std::string_view file)
        : file_(file) {}

    // What is added from now on is about this entry of the list, from 1.
    void enter(std::size_t entry) { where_ = ": VRF entry " + std::to_string(entry); }
    void enter(std::size_t entry, const std::string& name) {
        where_ = ": VRF " + quoted(name) + " (entry " + std::to_string(entry) + ")";
    }

    void add(const std::string& what) { lines_.push_back(file_ + where_ + ": " + what); }
    void add(std::string_view field, const std::string& what) {
        add("field \"" + std::string(field) + "\" " + what);
    }

    void throwIfAny() {
        if (!lines_.empty())
            throw KernelConfigError(std::move(lines_));
    }

  private:
    std::string file_;
    std::string where_;
    std::vector<std::string> lines_;
};

const Datum* find(const Datum::Record& record, std::string_view field) {
    const auto at = std::ranges::find(record, field, &Datum::Record::value_type::first);
    return at == record.end() ? nullptr : &at->second;
}

// One of the values would silently win.
void checkRepeated(const Datum::Record& record, Problems& problems) {
    std::set<std::string_view> seen;
    for (const auto& [field, value] : record)
        if (!seen.insert(field).second)
            problems.add(field, "is given twice");
}

void checkKnown(const Datum::Record& record, std::initializer_list<std::string_view> known,
                Problems& problems) {
    for (const auto& [field, value] : record)
        if (std::ranges::find(known, field) == known.end())
            problems.add(field, "is unknown");
}

// Empty where there is none to be used.
std::string nameOf(const Datum::Record& vrf, Problems& problems) {
    const Datum* name = find(vrf, "name");
    if (!name) {
        problems.add("name", "is missing");
    } else if (!name->text()) {
        problems.add("name", "is " + Json::textOf(*name) + ", not a string");
    } else {
        const std::string why = L3::VrfName::whyUnusable(*name->text());
        if (why.empty())
            return *name->text();
        problems.add("name", why);
    }
    return "";
}

std::optional<std::uint32_t> number(const Datum::Record& vrf, std::string_view field, std::uint32_t least,
                                    std::uint32_t most, Problems& problems) {
    const Datum* value = find(vrf, field);
    if (!value)
        return std::nullopt;
    if (value->number() && *value->number() >= least && *value->number() <= most)
        return static_cast<std::uint32_t>(*value->number());
    problems.add(field, "is " + Json::textOf(*value) + ", not a whole number from " + std::to_string(least) +
                            " to " + std::to_string(most));
    return std::nullopt;
}

RouteTypeRule ruleOf(const Datum::Record& vrf, Problems& problems) {
    const Datum* given = find(vrf, "routeType");
    if (!given)
        return RouteTypeRule::byProtocol;
    for (const auto& [rule, text] : ruleTexts)
        if (*given == Datum(text))
            return rule;
    problems.add("routeType",
                 "is " + Json::textOf(*given) + ", not one of \"static\", \"sparse\", \"by-protocol\"");
    return RouteTypeRule::byProtocol;
}

VrfConfig vrfFrom(const Datum& datum, std::size_t entry, Problems& problems) {
    problems.enter(entry);
    VrfConfig vrf;
    if (!datum.record()) {
        problems.add("is not an object");
        return vrf;
    }
    const Datum::Record& record = *datum.record();
    checkRepeated(record, problems);
    vrf.name = nameOf(record, problems);
    if (!vrf.name.empty())
        problems.enter(entry, vrf.name);
    checkKnown(record, {"name", "id", "table", "routeType"}, problems);
    const bool isDefault = vrf.name == defaultName;
    const auto id = number(record, "id", 0, L3::VrfId::max, problems);
    const auto table = number(record, "table", 1, maxTable, problems);
    if (isDefault && id.value_or(0) != 0)
        problems.add("id", "is " + std::to_string(*id) + ", but the default VRF has 0");
    if (!isDefault && id == 0U)
        problems.add("id", "is 0, which belongs to the VRF \"default\"");
    if (!isDefault)
        for (const char* field : {"id", "table"})
            if (!find(record, field))
                problems.add(field, "is missing");
    vrf.id = id.value_or(0);
    vrf.table = table.value_or(isDefault ? defaultTable : 0);
    vrf.routeType = ruleOf(record, problems);
    return vrf;
}

// What failed its own check (id and table 0, name empty) is not compared.
void checkUnique(const std::vector<VrfConfig>& vrfs, Problems& problems) {
    std::map<std::string, std::size_t> names;
    std::map<std::uint32_t, std::string> ids;
    std::map<std::uint32_t, std::string> tables;
    for (std::size_t i = 0; i < vrfs.size(); ++i) {
        const VrfConfig& vrf = vrfs[i];
        problems.enter(i + 1, vrf.name);
        if (auto [at, isNew] = names.try_emplace(vrf.name, i + 1); !isNew && !vrf.name.empty())
            problems.add("name", "is that of entry " + std::to_string(at->second) + " too");
        if (auto [at, isNew] = ids.try_emplace(vrf.id, vrf.name); !isNew && vrf.id != 0)
            problems.add("id", "is " + std::to_string(vrf.id) + ", which VRF " + quoted(at->second) + " has");
        if (auto [at, isNew] = tables.try_emplace(vrf.table, vrf.name); !isNew && vrf.table != 0)
            problems.add("table", "is " + std::to_string(vrf.table) + ", which VRF " + quoted(at->second) +
                                      " mirrors");
    }
}

Datum parsed(std::string_view text, std::string_view file) {
    try {
        return Json::parse(text);
    } catch (const Json::Error& error) {
        throw KernelConfigError({std::string(file) + ": is " + error.what()});
    }
}

} // namespace

std::string_view routeTypeRuleText(RouteTypeRule rule) {
    return std::ranges::find(ruleTexts, rule, &std::pair<RouteTypeRule, std::string_view>::first)->second;
}

KernelConfigError::KernelConfigError(std::vector<std::string> problems)
    : std::runtime_error(joined(problems))
    , problems_(std::move(problems)) {}

KernelConfig parseKernelConfig(std::string_view text, std::string_view file) {
    const Datum whole = parsed(text, file);
    const Datum* list = whole.record() ? find(*whole.record(), "vrfs") : nullptr;
    if (!list || !list->list())
        throw KernelConfigError({std::string(file) + ": is not an object with a list \"vrfs\""});
    Problems problems(file);
    checkRepeated(*whole.record(), problems);
    checkKnown(*whole.record(), {"vrfs"}, problems);
    KernelConfig config;
    for (const Datum& entry : *list->list())
        config.vrfs.push_back(vrfFrom(entry, config.vrfs.size() + 1, problems));
    checkUnique(config.vrfs, problems);
    problems.throwIfAny();
    return config;
}

KernelConfig readKernelConfig(const std::string& path) {
    errno = 0;
    std::ifstream file(path, std::ios::binary);
    std::string text;
    char chunk[4096];
    while (file.read(chunk, sizeof chunk) || file.gcount() > 0)
        text.append(chunk, static_cast<std::size_t>(file.gcount()));
    if (!file.is_open() || file.bad())
        throw KernelConfigError({path + ": can't be read: " + std::strerror(errno ? errno : EIO)});
    return parseKernelConfig(text, path);
}

} // namespace Agent::Kernel
