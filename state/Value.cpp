#include "state/Value.h"

#include <algorithm>
#include <charconv>
#include <exception>

namespace State {

namespace {

constexpr std::string_view hexDigits = "0123456789abcdef";

int hexValue(char digit) {
    const auto at = hexDigits.find(digit);
    return at == std::string_view::npos ? -1 : static_cast<int>(at);
}

} // namespace

// Not by the variant's own copy: an exception inside that has libstdc++ 12 destroy an alternative that is none, if all are
// ones that never leave it without a value.
Datum::Datum(const Datum& other) {
    std::visit(
        [this](const auto& value) {
            auto copy = value;
            content.emplace<decltype(copy)>(std::move(copy));
        },
        other.content);
}
Datum::Datum(Datum&& other) noexcept = default;
Datum& Datum::operator=(const Datum& other) {
    return *this = Datum(other);
}
Datum& Datum::operator=(Datum&& other) noexcept = default;
Datum::~Datum() = default;

std::string_view Datum::kindName() const {
    constexpr std::string_view names[] = {
        "nothing",  "a boolean", "a number", "a negative number", "a number that is not whole",
        "a string", "an array",  "an object"};
    return names[content.index()];
}

void appendQuoted(std::string& out, std::string_view text) {
    out += '"';
    for (const char character : text) {
        const auto byte = static_cast<unsigned char>(character);
        if (character == '"' || character == '\\') {
            out += '\\';
            out += character;
        } else if (character == '\n') {
            out += "\\n";
        } else if (character == '\t') {
            out += "\\t";
        } else if (byte < 0x20 || byte == 0x7f) {
            out += "\\x";
            out += hexDigits[byte >> 4U];
            out += hexDigits[byte & 15U];
        } else {
            out += character;
        }
    }
    out += '"';
}

void wrongKind(std::string_view typeName, std::string_view wanted, const Datum& datum) {
    std::string text(typeName);
    text.append(" takes ").append(wanted).append(", not ");
    if (const double* number = datum.real()) {
        char digits[32];
        text.append(digits, std::to_chars(digits, digits + sizeof digits, *number).ptr);
    } else {
        text += datum.kindName();
    }
    throw ParseError(text);
}

void rethrowInField(std::string_view typeName, std::string_view name) {
    try {
        throw;
    } catch (const Error& error) {
        throw ParseError(typeName, name, error.what());
    }
}

void unknownField(std::string_view typeName, std::string_view name) {
    throw ParseError(std::string(typeName) + " has no attribute \"" + std::string(name) + "\"");
}

void appendWord(std::string& out, std::string_view text) {
    if (text.find_first_of(",()") == std::string_view::npos && !text.starts_with('"'))
        out += text;
    else
        appendQuoted(out, text);
}

void TextReader::fail(std::string_view wanted) const {
    throw ParseError(std::string(typeName_) + ": expected " + std::string(wanted) + " at column " +
                     std::to_string(position_ + 1) + " of '" + std::string(text_) + "'");
}

void TextReader::expect(std::string_view literal) {
    if (text_.substr(position_, literal.size()) != literal)
        fail("'" + std::string(literal) + "'");
    position_ += literal.size();
}

void TextReader::expectEnd() const {
    if (position_ != text_.size())
        fail("the end");
}

bool TextReader::boolean() {
    const std::string_view found = word();
    if (found != "true" && found != "false") {
        position_ -= found.size();
        fail("true or false");
    }
    return found == "true";
}

bool TextReader::atNumber() const {
    return position_ < text_.size() && text_[position_] >= '0' && text_[position_] <= '9';
}

std::uint64_t TextReader::number() {
    const char* begin = text_.data() + position_;
    const char* end = text_.data() + text_.size();
    std::uint64_t value = 0;
    const auto [stopped, error] = std::from_chars(begin, end, value);
    if (error != std::errc{})
        fail("a number");
    position_ += static_cast<std::size_t>(stopped - begin);
    return value;
}

std::string TextReader::quoted() {
    expect("\"");
    std::string value;
    while (position_ < text_.size() && text_[position_] != '"') {
        char character = text_[position_++];
        if (character == '\\') {
            const char escape = position_ < text_.size() ? text_[position_++] : '\0';
            if (escape == 'n') {
                character = '\n';
            } else if (escape == 't') {
                character = '\t';
            } else if (escape == '"' || escape == '\\') {
                character = escape;
            } else if (escape == 'x' && position_ + 2 <= text_.size() && hexValue(text_[position_]) >= 0 &&
                       hexValue(text_[position_ + 1]) >= 0) {
                character =
                    static_cast<char>(hexValue(text_[position_]) * 16 + hexValue(text_[position_ + 1]));
                position_ += 2;
            } else {
                fail("an escape");
            }
        }
        value += character;
    }
    expect("\"");
    return value;
}

std::string_view TextReader::word() {
    const std::size_t begin = position_;
    position_ = std::min(text_.find_first_of(",)", begin), text_.size());
    return text_.substr(begin, position_ - begin);
}

std::string_view TextReader::rest() {
    const std::string_view left = text_.substr(position_);
    position_ = text_.size();
    return left;
}

} // namespace State
