#include "agent/kernel/KernelConfig.h"

#include <nlohmann/json.hpp>

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

using Json = nlohmann::json;

constexpr std::string_view defaultName = "default";
constexpr std::uint32_t defaultTable = 253;
constexpr std::uint32_t maxId = 0x00ffffff;
constexpr std::uint32_t maxTable = 999'999'999; // the kernel makes no table above
constexpr std::size_t maxName = 100;

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

// Collects what is wrong, each with the place where it is.
class Problems {
  public:
    explicit Problems(std::string_view file)
        : file_(file) {}

    void vrfIs(std::size_t entry, const std::string& name) {
        where_ = ": VRF " + Json(name).dump() + " (entry " + std::to_string(entry) + ")";
    }
    void vrfIs(std::size_t entry) { where_ = ": VRF entry " + std::to_string(entry); }
    void vrfIsNone() { where_.clear(); }

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

// A field given twice would silently win over the first one; the parser's events tell.
class RepeatedFields {
  public:
    explicit RepeatedFields(Problems& problems)
        : problems_(problems) {}

    void operator()(Json::parse_event_t event, const Json& value) {
        if (event == Json::parse_event_t::object_start) {
            open_.emplace_back();
            if (open_.size() == 2)
                problems_.vrfIs(++entry_);
        } else if (event == Json::parse_event_t::object_end) {
            open_.pop_back();
            if (open_.size() == 1)
                problems_.vrfIsNone();
        } else if (event == Json::parse_event_t::key &&
                   !open_.back().insert(value.get<std::string>()).second) {
            problems_.add(value.get<std::string>(), "is given twice");
        }
    }

  private:
    Problems& problems_;
    std::vector<std::set<std::string>> open_;
    std::size_t entry_ = 0;
};

// The library's text without its own error number.
std::string syntaxProblem(const Json::parse_error& error) {
    std::string text = error.what();
    std::size_t end = text.find("] ");
    return "is not JSON: " + (end == std::string::npos ? text : text.substr(end + 2));
}

std::optional<std::uint32_t> number(const Json& vrf, const char* field, std::uint32_t least,
                                    std::uint32_t most, Problems& problems) {
    auto at = vrf.find(field);
    if (at == vrf.end())
        return std::nullopt;
    if (at->is_number_unsigned() && at->get<std::uint64_t>() >= least && at->get<std::uint64_t>() <= most)
        return at->get<std::uint32_t>();
    problems.add(field, "is " + at->dump() + ", not a whole number from " + std::to_string(least) + " to " +
                            std::to_string(most));
    return std::nullopt;
}

bool nameOk(const Json& vrf, Problems& problems) {
    auto at = vrf.find("name");
    if (at == vrf.end())
        return problems.add("name", "is missing"), false;
    if (!at->is_string())
        return problems.add("name", "is " + at->dump() + ", not a string"), false;
    const auto& name = at->get_ref<const std::string&>();
    if (name.empty())
        return problems.add("name", "is empty"), false;
    if (name.size() > maxName)
        problems.add("name",
                     "has " + std::to_string(name.size()) + " bytes, more than " + std::to_string(maxName));
    if (name.find('/') != std::string::npos)
        problems.add("name", "contains \"/\"");
    for (unsigned char byte : name)
        if (byte < 0x20 || byte == 0x7f)
            return problems.add("name", "contains a control byte"), true;
    return true;
}

RouteTypeRule rule(const Json& vrf, Problems& problems) {
    auto at = vrf.find("routeType");
    if (at == vrf.end())
        return RouteTypeRule::byProtocol;
    for (const auto& [value, text] : ruleTexts)
        if (*at == text)
            return value;
    problems.add("routeType", "is " + at->dump() + ", not one of \"static\", \"sparse\", \"by-protocol\"");
    return RouteTypeRule::byProtocol;
}

void checkFields(const Json& object, std::initializer_list<std::string_view> known, Problems& problems) {
    for (const auto& [field, value] : object.items())
        if (std::find(known.begin(), known.end(), field) == known.end())
            problems.add(field, "is unknown");
}

VrfConfig vrfFrom(const Json& json, std::size_t entry, Problems& problems) {
    problems.vrfIs(entry);
    VrfConfig vrf;
    if (!json.is_object()) {
        problems.add("is not an object");
        return vrf;
    }
    if (nameOk(json, problems)) {
        vrf.name = json["name"].get<std::string>();
        problems.vrfIs(entry, vrf.name);
    }
    checkFields(json, {"name", "id", "table", "routeType"}, problems);
    bool isDefault = vrf.name == defaultName;
    auto id = number(json, "id", 0, maxId, problems);
    auto table = number(json, "table", 1, maxTable, problems);
    if (isDefault && id.value_or(0) != 0)
        problems.add("id", "is " + std::to_string(*id) + ", but the default VRF has 0");
    if (!isDefault && id == 0u)
        problems.add("id", "is 0, which belongs to the VRF \"default\"");
    if (!isDefault && !json.contains("id"))
        problems.add("id", "is missing");
    if (!isDefault && !json.contains("table"))
        problems.add("table", "is missing");
    vrf.id = id.value_or(0);
    vrf.table = table.value_or(isDefault ? defaultTable : 0);
    vrf.routeType = rule(json, problems);
    return vrf;
}

// What failed its own check (id and table 0, name empty) is not compared.
void checkUnique(const std::vector<VrfConfig>& vrfs, Problems& problems) {
    std::map<std::string, std::size_t> names;
    std::map<std::uint32_t, std::string> ids;
    std::map<std::uint32_t, std::string> tables;
    for (std::size_t i = 0; i < vrfs.size(); ++i) {
        const VrfConfig& vrf = vrfs[i];
        problems.vrfIs(i + 1, vrf.name);
        if (auto [at, isNew] = names.try_emplace(vrf.name, i + 1); !isNew && !vrf.name.empty())
            problems.add("name", "is that of entry " + std::to_string(at->second) + " too");
        if (auto [at, isNew] = ids.try_emplace(vrf.id, vrf.name); !isNew && vrf.id != 0)
            problems.add("id",
                         "is " + std::to_string(vrf.id) + ", which VRF " + Json(at->second).dump() + " has");
        if (auto [at, isNew] = tables.try_emplace(vrf.table, vrf.name); !isNew && vrf.table != 0)
            problems.add("table", "is " + std::to_string(vrf.table) + ", which VRF " +
                                      Json(at->second).dump() + " mirrors");
    }
}

} // namespace

std::string_view routeTypeRuleText(RouteTypeRule rule) {
    for (const auto& [value, text] : ruleTexts)
        if (value == rule)
            return text;
    return "unknown";
}

KernelConfigError::KernelConfigError(std::vector<std::string> problems)
    : std::runtime_error(joined(problems))
    , problems_(std::move(problems)) {}

KernelConfig parseKernelConfig(std::string_view text, std::string_view file) {
    Problems problems(file);
    RepeatedFields repeated(problems);
    Json json;
    try {
        json = Json::parse(text, [&](int, Json::parse_event_t event, Json& value) {
            repeated(event, value);
            return true;
        });
    } catch (const Json::parse_error& error) {
        problems.vrfIsNone();
        problems.add(syntaxProblem(error));
    }
    problems.throwIfAny();
    if (!json.is_object() || !json.contains("vrfs") || !json["vrfs"].is_array()) {
        problems.add("is not an object with a list \"vrfs\"");
        problems.throwIfAny();
    }
    checkFields(json, {"vrfs"}, problems);
    KernelConfig config;
    for (const Json& entry : json["vrfs"])
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
