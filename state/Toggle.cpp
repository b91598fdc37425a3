#include "state/Toggle.h"

#include "state/Trace.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <optional>
#include <stdexcept>

TRACE_FACILITY("State");

namespace State {

namespace {

// What is wrong with a toggle file, without the place.
class Malformed : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

using ToggleValues = std::map<std::string, bool, std::less<>>;

// Reads a toggle file: one JSON object whose members are all true or false, and nothing else.
class ToggleReader {
  public:
    explicit ToggleReader(std::string_view text)
        : text_(text) {}

    // Raises Malformed; `line` and `column` are then where.
    ToggleValues read();

    std::size_t line() const { return 1 + static_cast<std::size_t>(std::ranges::count(before(), '\n')); }
    // In bytes, from 1.
    std::size_t column() const { return at_ - (before().rfind('\n') + 1) + 1; }

  private:
    std::string_view before() const { return text_.substr(0, at_); }
    bool isAt(std::string_view token) const { return text_.substr(at_, token.size()) == token; }
    bool skip(std::string_view token);
    void skipBlanks() { at_ = std::min(text_.find_first_not_of(" \t\r\n", at_), text_.size()); }
    void expect(std::string_view token, const char* what);
    std::string string();
    void escape(std::string& out);
    unsigned hex4();

    std::string_view text_;
    std::size_t at_ = 0;
};

ToggleValues ToggleReader::read() {
    ToggleValues values;
    skip("\xef\xbb\xbf"); // the byte order mark of UTF-8
    expect("{", "expected '{'");
    skipBlanks();
    if (!skip("}")) {
        do {
            skipBlanks();
            const std::size_t begin = at_;
            std::string name = string();
            if (values.contains(name)) {
                at_ = begin;
                throw Malformed("duplicate name \"" + name + "\"");
            }
            expect(":", "expected ':'");
            skipBlanks();
            const bool value = skip("true");
            if (!value && !skip("false"))
                throw Malformed("expected true or false");
            values.emplace(std::move(name), value);
            skipBlanks();
        } while (skip(","));
        expect("}", "expected ',' or '}'");
    }
    skipBlanks();
    if (at_ != text_.size())
        throw Malformed("unexpected text after the object");
    return values;
}

bool ToggleReader::skip(std::string_view token) {
    const bool found = isAt(token);
    at_ += found ? token.size() : 0;
    return found;
}

void ToggleReader::expect(std::string_view token, const char* what) {
    skipBlanks();
    if (!skip(token))
        throw Malformed(what);
}

std::string ToggleReader::string() {
    expect("\"", "expected a name in quotes");
    std::string value;
    while (!skip("\"")) {
        if (at_ == text_.size())
            throw Malformed("the name has no closing quote");
        if (static_cast<unsigned char>(text_[at_]) < 0x20)
            throw Malformed("control character in a name");
        if (isAt("\\"))
            escape(value);
        else
            value += text_[at_++];
    }
    return value;
}

// An escape sequence; \u escapes become UTF-8.
void ToggleReader::escape(std::string& out) {
    constexpr std::string_view names = "\"\\/bfnrt";
    constexpr std::string_view characters = "\"\\/\b\f\n\r\t";
    const char name = at_ + 1 < text_.size() ? text_[at_ + 1] : '\0';
    if (const auto known = names.find(name); known != std::string_view::npos) {
        out += characters[known];
        at_ += 2;
        return;
    }
    unsigned code = hex4();
    if (code >= 0xdc00 && code < 0xe000)
        throw Malformed("half of a surrogate pair");
    if (code >= 0xd800 && code < 0xdc00) {
        const unsigned low = hex4();
        if (low < 0xdc00 || low >= 0xe000)
            throw Malformed("half of a surrogate pair");
        code = 0x10000 + ((code - 0xd800) << 10U) + (low - 0xdc00);
    }
    const auto continuation = [&](unsigned shift) {
        return static_cast<char>(0x80U | (code >> shift & 0x3fU));
    };
    if (code < 0x80)
        out += static_cast<char>(code);
    else if (code < 0x800)
        out += {static_cast<char>(0xc0U | code >> 6U), continuation(0)};
    else if (code < 0x10000)
        out += {static_cast<char>(0xe0U | code >> 12U), continuation(6), continuation(0)};
    else
        out += {static_cast<char>(0xf0U | code >> 18U), continuation(12), continuation(6), continuation(0)};
}

unsigned ToggleReader::hex4() {
    unsigned code = 0;
    const std::string_view digits = text_.substr(at_).substr(0, 6);
    const auto [end, error] = digits.size() == 6 && digits.starts_with("\\u")
                                  ? std::from_chars(digits.data() + 2, digits.data() + 6, code, 16)
                                  : std::from_chars_result{digits.data(), std::errc::invalid_argument};
    if (error != std::errc{} || end != digits.data() + 6)
        throw Malformed("unknown escape");
    at_ += 6;
    return code;
}

struct Registry {
    std::map<std::string, bool, std::less<>> overrides;
    std::string directory;
    std::vector<ToggleStatus> asked;
};

// Made on first use: plug-ins ask while they load.
Registry& registry() {
    static Registry instance;
    return instance;
}

// What the file holds; nothing, with a trace unless it is not there, where it cannot be read.
std::optional<std::string> textOf(const std::string& path) {
    errno = 0;
    std::ifstream stream(path, std::ios::binary);
    if (!stream && errno == ENOENT)
        return std::nullopt;
    std::string text;
    char block[4096];
    while (stream.read(block, sizeof block) || stream.gcount() > 0)
        text.append(block, static_cast<std::size_t>(stream.gcount()));
    if (!stream.eof()) {
        TRACE(0, "toggle file ", path, " ignored, it cannot be read: ", std::strerror(errno));
        return std::nullopt;
    }
    return text;
}

std::optional<bool> valueInFile(std::string_view name, std::string_view file) {
    const std::string path = toggleDirectory() + "/" + std::string(file);
    const std::optional<std::string> text = textOf(path);
    if (!text)
        return std::nullopt;
    ToggleReader reader(*text);
    try {
        const ToggleValues values = reader.read();
        const auto found = values.find(name);
        return found == values.end() ? std::nullopt : std::optional(found->second);
    } catch (const Malformed& malformed) {
        TRACE(0, "toggle file ", path, " ignored, line ", reader.line(), " column ", reader.column(), ": ",
              malformed.what());
        return std::nullopt;
    }
}

} // namespace

bool getToggleState(std::string_view name, std::string_view file, bool defaultValue) {
    ToggleStatus status{std::string(name), std::string(file), defaultValue, ToggleOrigin::defaultValue};
    if (const auto found = registry().overrides.find(name); found != registry().overrides.end()) {
        status.value = found->second;
        status.origin = ToggleOrigin::overridden;
    } else if (const auto value = valueInFile(name, file)) {
        status.value = *value;
        status.origin = ToggleOrigin::file;
    }
    auto& asked = registry().asked;
    const auto known = std::ranges::find_if(
        asked, [&](const ToggleStatus& other) { return other.name == name && other.file == file; });
    if (known == asked.end())
        asked.push_back(status);
    else
        *known = status;
    return status.value;
}

void toggleOverrideIs(std::string_view name, bool value) {
    registry().overrides.insert_or_assign(std::string(name), value);
}

void toggleDirectoryIs(std::string_view path) {
    registry().directory = path;
}

std::string toggleDirectory() {
    if (!registry().directory.empty())
        return registry().directory;
    const char* const fromEnvironment = std::getenv("KESTREL_TOGGLE_DIR");
    const bool isSet = fromEnvironment != nullptr && *fromEnvironment != '\0';
    return isSet ? fromEnvironment : "/etc/kestrel-nat";
}

std::vector<ToggleStatus> toggles() {
    return registry().asked;
}

} // namespace State
