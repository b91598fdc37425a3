#include "text/JsonWriter.h"

#include <array>
#include <charconv>
#include <cmath>

namespace Text {

namespace {

constexpr std::array<bool, 256> makeAsItIs() {
    std::array<bool, 256> asItIs{};
    for (std::size_t byte = 0x20; byte < 0x80; ++byte)
        asItIs[byte] = byte != '"' && byte != '\\';
    return asItIs;
}

// Whether a byte stands in a JSON string as it is, whatever stands around it.
constexpr std::array<bool, 256> asItIs = makeAsItIs();

unsigned char byteAt(std::string_view text, std::size_t at) {
    return static_cast<unsigned char>(text[at]);
}

// Bytes of the character of more than one byte with which the text begins; 0 where it is no UTF-8.
std::size_t characterLength(std::string_view text) {
    const unsigned char lead = byteAt(text, 0);
    const std::size_t length = lead < 0xc2 ? 0 : lead < 0xe0 ? 2 : lead < 0xf0 ? 3 : lead < 0xf5 ? 4 : 0;
    if (length == 0 || text.size() < length)
        return 0;
    for (std::size_t at = 1; at < length; ++at)
        if ((byteAt(text, at) & 0xc0U) != 0x80)
            return 0;
    const unsigned char second = byteAt(text, 1);
    const bool isTooLong = (lead == 0xe0 && second < 0xa0) || (lead == 0xf0 && second < 0x90);
    const bool isSurrogate = lead == 0xed && second >= 0xa0;
    const bool isTooLarge = lead == 0xf4 && second >= 0x90;
    return isTooLong || isSurrogate || isTooLarge ? 0 : length;
}

void appendEscaped(std::string& out, char byte) {
    constexpr std::string_view digits = "0123456789abcdef";
    const auto number = static_cast<unsigned char>(byte);
    if (number >= 0x80)
        out += "\xef\xbf\xbd";
    else if (byte == '"' || byte == '\\')
        (out += '\\') += byte;
    else if (byte == '\n')
        out += "\\n";
    else
        ((out += "\\u00") += digits[number >> 4U]) += digits[number & 0xfU];
}

template <class Number>
void appendNumber(std::string& out, Number number) {
    std::array<char, 32> text; // NOLINT(cppcoreguidelines-pro-type-member-init)
    out.append(text.data(), std::to_chars(text.data(), text.data() + text.size(), number).ptr);
}

} // namespace

void appendJson(std::string& out, std::string_view text) {
    out += '"';
    std::size_t begin = 0; // of what is not appended yet
    for (std::size_t at = 0; at < text.size();) {
        if (asItIs[byteAt(text, at)]) {
            ++at;
            continue;
        }
        const std::size_t length = characterLength(text.substr(at));
        if (length == 0) {
            out.append(text, begin, at - begin);
            appendEscaped(out, text[at]);
            begin = at + 1;
        }
        at += length == 0 ? 1 : length;
    }
    out.append(text, begin);
    out += '"';
}

void JsonWriter::separate() {
    if (!isFirst_ && !isAfterField_)
        out_ += ',';
    isFirst_ = isAfterField_ = false;
}

void JsonWriter::beginRecord() {
    separate();
    out_ += '{';
    ends_ += '}';
    isFirst_ = true;
}

void JsonWriter::beginList() {
    separate();
    out_ += '[';
    ends_ += ']';
    isFirst_ = true;
}

void JsonWriter::end() {
    out_ += ends_.back();
    ends_.pop_back();
    isFirst_ = false;
}

void JsonWriter::field(std::string_view name) {
    separate();
    appendJson(out_, name);
    out_ += ':';
    isAfterField_ = true;
}

void JsonWriter::value(std::string_view text) {
    separate();
    appendJson(out_, text);
}

void JsonWriter::value(bool value) {
    separate();
    out_ += value ? "true" : "false";
}

void JsonWriter::value(std::uint64_t number) {
    separate();
    appendNumber(out_, number);
}

void JsonWriter::value(std::int64_t number) {
    separate();
    appendNumber(out_, number);
}

void JsonWriter::value(double number) {
    separate();
    if (std::isfinite(number))
        appendNumber(out_, number);
    else
        out_ += "null"; // JSON has no other number for it
}

void JsonWriter::value(std::nullptr_t /*none*/) {
    separate();
    out_ += "null";
}

void JsonWriter::json(std::string_view text) {
    separate();
    out_ += text;
}

} // namespace Text
