#include "records/IntfId.h"

#include "state/Errors.h"
#include "state/ValueType.h"

#include <algorithm>
#include <optional>
#include <unordered_map>

namespace L3 {

namespace {

struct NameTable {
    std::uint64_t last;                                        // number given
    std::unordered_map<std::uint64_t, std::string> names = {}; // by number; stable addresses
    std::unordered_map<std::string_view, std::uint64_t> numbers = {};

    std::uint64_t enter(std::string_view name) {
        const auto& entered = *names.emplace(++last, name).first;
        numbers.emplace(entered.second, last);
        return last;
    }
    std::optional<std::uint64_t> find(std::string_view name) const {
        const auto known = numbers.find(name);
        return known == numbers.end() ? std::nullopt : std::optional(known->second);
    }
};

// The empty name, which is always known and never counts, is not in it.
NameTable& nameTable() {
    static NameTable table{.last = 0};
    return table;
}

std::optional<NameTable>& provisionalNames() {
    static std::optional<NameTable> table;
    return table;
}

// How many names can still be entered.
std::uint64_t room() {
    const NameTable& table = nameTable();
    return std::min(IntfId::maxNames - table.names.size(), IntfId::firstProvisional - 1 - table.last);
}

std::uint64_t refusalCount = 0;

[[noreturn]] void refuse(std::string_view name, std::string_view why) {
    throw State::RangeError("L3::IntfId: name '" + std::string(name) + "' not allowed: " + std::string(why));
}

} // namespace

IntfId::IntfId(std::string_view name) {
    std::optional<NameTable>& provisional = provisionalNames();
    if (const auto known = find(name)) {
        *this = *known;
        return;
    }
    if (const auto met = provisional ? provisional->find(name) : std::nullopt) {
        number_ = *met;
        return;
    }
    if (name.size() > maxNameLength)
        throw State::RangeError(State::lengthErrorText(typeName, maxNameLength, name));
    const auto isRefused = [](char c) { return static_cast<unsigned char>(c) <= 0x20 || c == 0x7f; };
    if (std::any_of(name.begin(), name.end(), isRefused))
        refuse(name, "it holds a blank or a control byte");
    if (Provisional::newNames() >= room()) {
        ++refusalCount;
        refuse(name, "there are " + std::to_string(maxNames) + " names already");
    }
    number_ = (provisional ? *provisional : nameTable()).enter(name);
}

IntfId IntfId::fromNumber(std::uint64_t number) {
    if (number > lastNumber())
        throw State::RangeError("L3::IntfId: there is no interface number " + std::to_string(number));
    return {Unchecked{}, number};
}

std::optional<IntfId> IntfId::find(std::string_view name) {
    if (name.empty())
        return IntfId();
    const auto known = nameTable().find(name);
    return known ? std::optional(IntfId(Unchecked{}, *known)) : std::nullopt;
}

std::size_t IntfId::names() {
    return nameTable().names.size();
}

std::uint64_t IntfId::lastNumber() {
    return nameTable().last;
}

std::uint64_t IntfId::refusals() {
    return refusalCount;
}

std::size_t IntfId::sweep(const std::function<bool(IntfId)>& isCarried) {
    NameTable& table = nameTable();
    return std::erase_if(table.names, [&](const auto& named) {
        const bool goes = !isCarried(IntfId(Unchecked{}, named.first));
        if (goes)
            table.numbers.erase(named.second);
        return goes;
    });
}

const std::string& IntfId::stringValue() const {
    static const std::string none;
    static const std::string unknown = "?";
    if (isEmpty())
        return none;
    const std::optional<NameTable>& provisional = provisionalNames();
    const NameTable& table = number_ >= firstProvisional && provisional ? *provisional : nameTable();
    const auto named = table.names.find(number_);
    return named == table.names.end() ? unknown : named->second;
}

IntfId::Provisional::Provisional()
    : isOuter_(!provisionalNames()) {
    if (isOuter_)
        provisionalNames() = NameTable{.last = firstProvisional - 1};
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
