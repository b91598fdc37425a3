#include "agent/json/Json.h"

#include "text/JsonWriter.h"

#include <simdjson.h>

#include <algorithm>

namespace Agent::Json {

namespace {

using State::Datum;
namespace dom = simdjson::dom;
namespace ondemand = simdjson::ondemand;

// The depth of what has been parsed is known to be within the limit. @param left values that it may have.
Datum datumOf(const dom::element& element, std::size_t& left) {
    if (left-- == 0)
        throw TooMany("too many values");
    switch (element.type()) {
    case dom::element_type::ARRAY: {
        const dom::array array = element;
        Datum::List list;
        list.reserve(std::min(array.size(), left));
        for (const dom::element each : array)
            list.push_back(datumOf(each, left));
        return list;
    }
    case dom::element_type::OBJECT: {
        const dom::object object = element;
        Datum::Record record;
        record.reserve(std::min(object.size(), left));
        for (const auto& [name, content] : object)
            record.emplace_back(name, datumOf(content, left));
        return record;
    }
    case dom::element_type::STRING:
        return std::string_view(element);
    case dom::element_type::INT64:
        if (const std::int64_t number = element; number < 0)
            return number;
        [[fallthrough]];
    case dom::element_type::UINT64:
        return std::uint64_t(element);
    case dom::element_type::DOUBLE:
        return double(element);
    case dom::element_type::BOOL:
        return bool(element);
    case dom::element_type::NULL_VALUE:
        break;
    }
    return {};
}

// Where a fault is that was found before any value was looked at: bytes that are no UTF-8, a control byte within a
// string, or a string without an end.
std::size_t firstFault(std::string_view text) {
    std::size_t stringBegin = std::string_view::npos; // of the one that is open
    for (std::size_t at = 0; at < text.size();) {
        const auto byte = static_cast<unsigned char>(text[at]);
        const std::size_t length = byte < 0x80 ? 1 : byte < 0xe0 ? 2 : byte < 0xf0 ? 3 : 4;
        const bool isOpen = stringBegin != std::string_view::npos;
        if (!simdjson::validate_utf8(text.substr(at, length)) || (isOpen && byte < 0x20))
            return at;
        if (byte == '"')
            stringBegin = isOpen ? std::string_view::npos : at;
        at += isOpen && byte == '\\' ? 2 : length;
    }
    return std::min(stringBegin, text.size());
}

std::string placeText(std::string_view text, std::size_t at) {
    const std::string_view before = text.substr(0, at);
    const auto line = 1 + std::ranges::count(before, '\n');
    const std::size_t column = before.size() - (before.rfind('\n') + 1) + 1;
    return " (line " + std::to_string(line) + ", column " + std::to_string(column) + ")";
}

// The library's text for a code, without the code's own name; ours where it knows no number.
std::string textOf(simdjson::error_code code) {
    if (code == simdjson::DEPTH_ERROR)
        return "arrays and objects nest deeper than " + std::to_string(depthLimit) + " levels";
    const std::string text = simdjson::error_message(code);
    const std::size_t name = text.find(": ");
    return name == std::string::npos ? text : text.substr(name + 2);
}

// Looks at every value, so that what is wrong with one is met: a simdjson_error, also for one that nests too deep.
template <class Value>
void visit(Value&& value, int depth) {
    if (depth > depthLimit)
        throw simdjson::simdjson_error(simdjson::DEPTH_ERROR);
    const ondemand::json_type type = value.type();
    if (type == ondemand::json_type::array)
        for (auto element : value.get_array())
            visit(element, depth + 1);
    else if (type == ondemand::json_type::object)
        for (auto field : value.get_object()) {
            static_cast<void>(std::string_view(field.unescaped_key()));
            visit(field.value(), depth + 1);
        }
    else if (type == ondemand::json_type::string)
        static_cast<void>(std::string_view(value.get_string()));
    else if (type == ondemand::json_type::number)
        static_cast<void>(ondemand::number(value.get_number()));
    else if (type == ondemand::json_type::boolean)
        static_cast<void>(bool(value.get_bool()));
    else
        static_cast<void>(bool(value.is_null()));
}

// What is wrong with a text that the parser of documents did not take, and where, which it does not tell. The one
// that reads on demand does; it lets some texts through, those with something behind their value.
std::string faultOf(std::string_view text, simdjson::error_code error) {
    // It gives up at once on a text whose last bracket does not close the first: one that does is added.
    const std::size_t first = text.find_first_not_of(" \t\r\n");
    const char open = first == std::string_view::npos ? '\0' : text[first];
    const simdjson::padded_string padded(std::string(text) + (open == '{' ? "}" : open == '[' ? "]" : ""));
    ondemand::parser parser;
    ondemand::document document;
    if (parser.iterate(padded).get(document) != simdjson::SUCCESS)
        return textOf(error) + placeText(text, firstFault(text));
    try {
        visit(document, 1);
    } catch (const simdjson::simdjson_error& met) {
        error = met.error() == simdjson::DEPTH_ERROR ? simdjson::DEPTH_ERROR : error;
    }
    const char* at = nullptr;
    const bool isWithin = document.current_location().get(at) == simdjson::SUCCESS;
    const std::size_t place =
        isWithin ? std::min(static_cast<std::size_t>(at - padded.data()), text.size()) : text.size();
    return textOf(error) + placeText(text, place);
}

// A parser for texts up to some length, which refuses those that nest too deep.
dom::parser parserFor(std::size_t length) {
    dom::parser parser;
    if (parser.allocate(length, depthLimit) != simdjson::SUCCESS)
        throw std::bad_alloc();
    return parser;
}

} // namespace

Datum parse(std::string_view text, std::size_t valueLimit) {
    constexpr std::size_t keptLength = std::size_t{64} << 10U;
    thread_local dom::parser kept = parserFor(keptLength);
    const bool isLong = text.size() > keptLength;
    dom::parser once = isLong ? parserFor(text.size()) : dom::parser(); // gives back what a long text needs
    dom::element element;
    const auto error =
        (isLong ? once : kept).parse(text.data(), text.size()).get(element); // copies, to pad it
    if (error == simdjson::MEMALLOC)
        throw std::bad_alloc();
    if (error != simdjson::SUCCESS)
        throw Error("not JSON: " + faultOf(text, error));
    std::size_t left = valueLimit;
    return datumOf(element, left);
}

std::size_t valuesOf(const Datum& datum, std::size_t most) {
    std::size_t count = 1;
    const auto add = [&](const Datum& part) {
        if (count < most)
            count += valuesOf(part, most - count);
    };
    if (const auto* list = datum.list())
        for (const Datum& element : *list)
            add(element);
    else if (const auto* record = datum.record())
        for (const auto& [name, content] : *record)
            add(content);
    return count;
}

void write(Text::Writer& writer, const Datum& datum) {
    if (const auto* record = datum.record()) {
        writer.beginRecord();
        for (const auto& [name, content] : *record) {
            writer.field(name);
            write(writer, content);
        }
        writer.end();
    } else if (const auto* list = datum.list()) {
        writer.list(*list, [&](const Datum& element) { write(writer, element); });
    } else {
        std::visit(
            [&](const auto& scalar) {
                using T = std::remove_cvref_t<decltype(scalar)>;
                if constexpr (std::is_same_v<T, std::monostate>)
                    writer.value(nullptr);
                else if constexpr (std::is_arithmetic_v<T> || std::is_same_v<T, std::string>)
                    writer.value(scalar);
            },
            datum.content);
    }
}

std::string textOf(const Datum& datum) {
    std::string text;
    Text::JsonWriter writer(text);
    write(writer, datum);
    return text;
}

std::size_t lengthOf(const Datum& datum, std::size_t most) {
    std::size_t length = 6; // of a scalar, and of what stands around others
    const auto add = [&](std::size_t name, const Datum& content) {
        if (length < most)
            length += name + lengthOf(content, most - length);
    };
    if (const auto* text = datum.text())
        length += text->size();
    else if (const auto* list = datum.list())
        for (const Datum& element : *list)
            add(0, element);
    else if (const auto* record = datum.record())
        for (const auto& [name, content] : *record)
            add(name.size(), content);
    return length;
}

} // namespace Agent::Json
