#include "records/IntfId.h"

#include "state/Errors.h"
#include "state/ValueType.h"

#include <algorithm>
#include <deque>
#include <optional>
#include <unordered_map>

namespace L3 {

namespace {

struct NameTable {
    std::deque<std::string> names; // by number, less that of the first; stable addresses
    std::unordered_map<std::string_view, std::uint64_t> numbers;

    std::uint64_t enter(std::string_view name, std::uint64_t first) {
        const std::uint64_t number = first + names.size();
        names.emplace_back(name);
        numbers.emplace(names.back(), number);
        return number;
    }
    std::optional<std::uint64_t> find(std::string_view name) const {
        const auto known = numbers.find(name);
        return known == numbers.end() ? std::nullopt : std::optional(known->second);
    }
};

NameTable& nameTable() {
    static NameTable table{{""}, {{"", 0}}};
    return table;
}

std::optional<NameTable>& provisionalNames() {
    static std::optional<NameTable> table;
    return table;
}

[[noreturn]] void refuse(std::string_view name, std::string_view why) {
    throw State::RangeError("L3::IntfId: name '" + std::string(name) + "' not allowed: " + std::string(why));
}

} // namespace

IntfId::IntfId(std::string_view name) {
    NameTable& table = nameTable();
    std::optional<NameTable>& provisional = provisionalNames();
    auto known = table.find(name);
    if (!known && provisional)
        known = provisional->find(name);
    if (known) {
        number_ = *known;
        return;
    }
    if (name.size() > maxNameLength)
        throw State::RangeError(State::lengthErrorText(typeName, maxNameLength, name));
    const auto isRefused = [](char c) { return static_cast<unsigned char>(c) <= 0x20 || c == 0x7f; };
    if (std::any_of(name.begin(), name.end(), isRefused))
        refuse(name, "it holds a blank or a control byte");
    if (names() + Provisional::newNames() >= maxNames)
        refuse(name, "there are " + std::to_string(maxNames) + " names already");
    number_ = provisional ? provisional->enter(name, firstProvisional) : table.enter(name, 0);
}

IntfId IntfId::fromNumber(std::uint64_t number) {
    if (number > names())
        throw State::RangeError("L3::IntfId: there is no interface number " + std::to_string(number));
    return {Unchecked{}, number};
}

std::uint64_t IntfId::names() {
    return nameTable().names.size() - 1;
}

const std::string& IntfId::stringValue() const {
    static const std::string unknown = "?";
    if (number_ <= names())
        return nameTable().names[number_];
    const std::uint64_t place = number_ - firstProvisional;
    return number_ >= firstProvisional && place < Provisional::newNames() ? provisionalNames()->names[place]
                                                                          : unknown;
}

IntfId::Provisional::Provisional()
    : isOuter_(!provisionalNames()) {
    if (isOuter_)
        provisionalNames().emplace();
}

IntfId::Provisional::~Provisional() {
    if (isOuter_)
        provisionalNames().reset();
}

std::size_t IntfId::Provisional::newNames() {
    return provisionalNames() ? provisionalNames()->names.size() : 0;
}

STATE_VALUE_TYPE(IntfId);

} // namespace L3
