#include "records/IntfId.h"

#include "state/Errors.h"
#include "state/ValueType.h"

#include <algorithm>
#include <deque>
#include <unordered_map>

namespace L3 {

namespace {

struct NameTable {
    std::deque<std::string> names{""}; // by number; stable addresses
    std::unordered_map<std::string_view, std::uint64_t> numbers{{"", 0}};
};

NameTable& nameTable() {
    static NameTable table;
    return table;
}

[[noreturn]] void refuse(std::string_view name, std::string_view why) {
    throw State::RangeError("L3::IntfId: name '" + std::string(name) + "' not allowed: " + std::string(why));
}

} // namespace

IntfId::IntfId(std::string_view name) {
    NameTable& table = nameTable();
    const auto known = table.numbers.find(name);
    if (known != table.numbers.end()) {
        number_ = known->second;
        return;
    }
    if (name.size() > maxNameLength)
        throw State::RangeError(State::lengthErrorText(typeName, maxNameLength, name));
    const auto isRefused = [](char c) { return static_cast<unsigned char>(c) <= 0x20 || c == 0x7f; };
    if (std::any_of(name.begin(), name.end(), isRefused))
        refuse(name, "it holds a blank or a control byte");
    if (names() == maxNames)
        refuse(name, "there are " + std::to_string(maxNames) + " names already");
    number_ = table.names.size();
    table.names.emplace_back(name);
    table.numbers.emplace(table.names.back(), number_);
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
    return number_ <= names() ? nameTable().names[number_] : unknown;
}

STATE_VALUE_TYPE(IntfId);

} // namespace L3
