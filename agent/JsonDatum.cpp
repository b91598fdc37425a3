#include "agent/JsonDatum.h"

#include "agent/Operations.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <stdexcept>

namespace Agent {

namespace {

using Json = nlohmann::json;
using State::Datum;

/// Whether the text stands for itself between quotes.
bool isPlain(std::string_view text) {
    return std::ranges::all_of(text, [](char c) { return c >= 0x20 && c < 0x7f && c != '"' && c != '\\'; });
}

} // namespace

Datum toDatum(const Json& json) {
    switch (json.type()) {
    case Json::value_t::null:
        return {};
    case Json::value_t::boolean:
        return {json.get<bool>()};
    case Json::value_t::number_unsigned:
        return {json.get<std::uint64_t>()};
    case Json::value_t::number_integer:
        return json.get<std::int64_t>() < 0 ? Datum(json.get<std::int64_t>())
                                            : Datum(json.get<std::uint64_t>());
    case Json::value_t::string:
        return {json.get_ref<const std::string&>()};
    case Json::value_t::array: {
        Datum::List list;
        list.reserve(json.size());
        for (const Json& element : json)
            list.push_back(toDatum(element));
        return {std::move(list)};
    }
    case Json::value_t::object: {
        Datum::Record record;
        record.reserve(json.size());
        for (const auto& [name, content] : json.items())
            record.emplace_back(name, toDatum(content));
        return {std::move(record)};
    }
    default:
        throw std::invalid_argument("the number " + json.dump() + " is not whole or does not fit 64 bits");
    }
}

Json toJson(const Datum& datum) {
    if (const auto* record = datum.record()) {
        Json object = Json::object();
        for (const auto& [name, content] : *record)
            object[name] = toJson(content);
        return object;
    }
    if (const auto* list = datum.list()) {
        Json array = Json::array();
        for (const Datum& element : *list)
            array.push_back(toJson(element));
        return array;
    }
    if (const auto* negative = std::get_if<std::int64_t>(&datum.content))
        return *negative;
    return datum.text() != nullptr      ? Json(*datum.text())
           : datum.number() != nullptr  ? Json(*datum.number())
           : datum.boolean() != nullptr ? Json(*datum.boolean())
                                        : Json();
}

Json toJson(const AnswerChange& change) {
    return {{"path", change.path},
            {"attribute", change.attribute},
            {"key", toJson(change.key)},
            {"value", change.value ? toJson(*change.value) : Json()}};
}

AnswerChange toAnswerChange(const Json& json) {
    const Json& value = json.at("value");
    return {.path = json.at("path"),
            .attribute = json.at("attribute"),
            .key = toDatum(json.at("key")),
            .value = value.is_null() ? std::nullopt : std::optional(toDatum(value))};
}

void appendJson(std::string& out, std::string_view text) {
    if (isPlain(text)) {
        out += '"';
        out += text;
        out += '"';
    } else {
        out += Json(text).dump(-1, ' ', false, Json::error_handler_t::replace);
    }
}

void appendJson(std::string& out, const Datum& datum) {
    char separator = 0;
    if (const auto* record = datum.record()) {
        separator = '{';
        for (const auto& [name, content] : *record) {
            out += separator;
            separator = ',';
            appendJson(out, std::string_view(name));
            out += ':';
            appendJson(out, content);
        }
        out += separator == '{' ? "{}" : "}";
    } else if (const auto* list = datum.list()) {
        separator = '[';
        for (const Datum& element : *list) {
            out += separator;
            separator = ',';
            appendJson(out, element);
        }
        out += separator == '[' ? "[]" : "]";
    } else if (const auto* text = datum.text()) {
        appendJson(out, std::string_view(*text));
    } else if (const auto* number = datum.number()) {
        out += std::to_string(*number);
    } else if (const auto* negative = std::get_if<std::int64_t>(&datum.content)) {
        out += std::to_string(*negative);
    } else if (const auto* boolean = datum.boolean()) {
        out += *boolean ? "true" : "false";
    } else {
        out += "null";
    }
}

} // namespace Agent
