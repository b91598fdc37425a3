#include "agent/kernel/KernelConfig.h"

#include "agent/json/Json.h"
#include "records/VrfId.h"
#include "records/VrfName.h"
#include "text/ByteOrderMark.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <system_error>
#include <utility>

namespace Agent::Kernel {
namespace {

using State::Datum;

constexpr std::string_view defaultName = "default";
constexpr std::uint32_t defaultTable = 253;
constexpr std::uint32_t maxTable = 999'999'999; // the kernel makes no table above
constexpr std::string_view byProtocol = "by-protocol";

const Datum* find(const Datum::Record& record, std::string_view field) {
    const auto at = std::ranges::find(record, field, &Datum::Record::value_type::first);
    return at == record.end() ? nullptr : &at->second;
}

// Collects what is wrong, each with the place where it is.
class Problems {
  public:
    explicit Problems(std::string_view file)
        : file_(file) {}

    // What is added from now on is about this entry of the list, from 1, and the VRF of that name, if any.
    void enter(std::size_t entry, const std::string& name = "") {
        const std::string number = "entry " + std::to_string(entry);
        where_ = ": VRF " + (name.empty() ? number : Json::textOf(name) + " (" + number + ")");
    }
    void add(const std::string& what) {
        lines_ += (lines_.empty() ? "" : "\n") + file_ + where_ + ": " + what;
    }
    void add(std::string_view field, const std::string& what) {
        add("field \"" + std::string(field) + "\" " + what);
    }
    // Of a field with one of two values, that one would silently win.
    void addRepeated(const Datum::Record& record) {
        for (const auto& [field, value] : record)
            if (find(record, field) != &value)
                add(field, "is given twice");
    }
    void addUnknown(const Datum::Record& record, std::initializer_list<std::string_view> known) {
        for (const auto& [field, value] : record)
            if (std::ranges::find(known, field) == known.end())
                add(field, "is unknown");
    }
    void throwIfAny() const {
        if (!lines_.empty())
            throw KernelConfigError(lines_);
    }

  private:
    std::string file_;
    std::string where_;
    std::string lines_;
};

// Empty where there is none to be used.
std::string nameOf(const Datum* name, Problems& problems) {
    if (name && name->text()) {
        const std::string why = L3::VrfName::whyUnusable(*name->text());
        if (why.empty())
            return *name->text();
        problems.add("name", why);
    } else {
        problems.add("name", name ? "is " + Json::textOf(*name) + ", not a string" : "is missing");
    }
    return "";
}

std::optional<std::uint32_t> numberOf(const Datum::Record& vrf, std::string_view field, std::uint32_t least,
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

std::optional<RouteType> routeTypeOf(const Datum* given, Problems& problems) {
    if (!given || *given == Datum(byProtocol))
        return std::nullopt;
    for (const RouteType type : routeTypes)
        if (*given == Datum(routeTypeText(type)))
            return type;
    problems.add("routeType",
                 "is " + Json::textOf(*given) + ", not one of \"static\", \"sparse\", \"by-protocol\"");
    return std::nullopt;
}

VrfConfig vrfFrom(const Datum& datum, std::size_t entry, Problems& problems) {
    problems.enter(entry);
    if (!datum.record()) {
        problems.add("is not an object");
        return {};
    }
    const Datum::Record& record = *datum.record();
    problems.addRepeated(record);
    const std::string name = nameOf(find(record, "name"), problems);
    problems.enter(entry, name);
    problems.addUnknown(record, {"name", "id", "table", "routeType"});
    const bool isDefault = name == defaultName;
    const auto id = numberOf(record, "id", 0, L3::VrfId::max, problems);
    const auto table = numberOf(record, "table", 1, maxTable, problems);
    if (isDefault && id.value_or(0) != 0)
        problems.add("id", "is " + std::to_string(*id) + ", but the default VRF has 0");
    if (!isDefault && id == 0U)
        problems.add("id", "is 0, which belongs to the VRF \"default\"");
    for (const char* field : {"id", "table"})
        if (!isDefault && !find(record, field))
            problems.add(field, "is missing");
    return {.name = name,
            .id = id.value_or(0),
            .table = table.value_or(isDefault ? defaultTable : 0),
            .routeType = routeTypeOf(find(record, "routeType"), problems)};
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
            problems.add("id",
                         "is " + std::to_string(vrf.id) + ", which VRF " + Json::textOf(at->second) + " has");
        if (auto [at, isNew] = tables.try_emplace(vrf.table, vrf.name); !isNew && vrf.table != 0)
            problems.add("table", "is " + std::to_string(vrf.table) + ", which VRF " +
                                      Json::textOf(at->second) + " mirrors");
    }
}

} // namespace

std::string_view routeTypeText(const VrfConfig& vrf) {
    return vrf.routeType ? routeTypeText(*vrf.routeType) : byProtocol;
}

KernelConfig parseKernelConfig(std::string_view text, std::string_view file) {
    Datum whole;
    try {
        whole = Json::parse(Text::withoutMark(text));
    } catch (const Json::Error& error) {
        throw KernelConfigError(std::string(file) + ": is " + error.what());
    }
    const Datum* list = whole.record() ? find(*whole.record(), "vrfs") : nullptr;
    if (!list || !list->list())
        throw KernelConfigError(std::string(file) + ": is not an object with a list \"vrfs\"");
    Problems problems(file);
    problems.addRepeated(*whole.record());
    problems.addUnknown(*whole.record(), {"vrfs"});
    KernelConfig config;
    for (const Datum& entry : *list->list())
        config.vrfs.push_back(vrfFrom(entry, config.vrfs.size() + 1, problems));
    checkUnique(config.vrfs, problems);
    problems.throwIfAny();
    return config;
}

KernelConfig readKernelConfig(const std::string& path) {
    // Opening a FIFO would wait for who writes to it.
    std::error_code error; // what can't be looked at can't be opened
    const std::filesystem::file_type type = std::filesystem::status(path, error).type();
    if (!error && type != std::filesystem::file_type::regular)
        throw KernelConfigError(path + ": is no regular file");
    errno = 0;
    std::ifstream file(path, std::ios::binary);
    std::string text;
    char chunk[4096];
    while (file.read(chunk, sizeof chunk) || file.gcount() > 0)
        text.append(chunk, static_cast<std::size_t>(file.gcount()));
    if (!file.is_open() || file.bad())
        throw KernelConfigError(path + ": can't be read: " + std::strerror(errno ? errno : EIO));
    return parseKernelConfig(text, path);
}

} // namespace Agent::Kernel
