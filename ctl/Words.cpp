#include "ctl/Words.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <charconv>
#include <string_view>

namespace Ctl {

namespace {

bool needsQuotes(const std::string& word) {
    return word.empty() || std::any_of(word.begin(), word.end(), [](char c) {
               return static_cast<unsigned char>(c) <= ' ' || c == '"' || c == '\\' || c == '#';
           });
}

} // namespace

std::string joinWords(const std::vector<std::string>& words) {
    std::string line;
    for (const std::string& word : words) {
        if (!line.empty())
            line += ' ';
        if (!needsQuotes(word)) {
            line += word;
            continue;
        }
        line += '"';
        for (const char c : word) {
            if (c == '"' || c == '\\')
                line += '\\';
            line += c;
        }
        line += '"';
    }
    return line;
}

nlohmann::ordered_json valueOf(const std::string& word) {
    nlohmann::ordered_json value = nlohmann::ordered_json::parse(word, nullptr, false);
    return value.is_discarded() ? nlohmann::ordered_json(word) : value;
}

std::optional<std::chrono::milliseconds> durationOf(const std::string& text) {
    constexpr std::uint32_t longest = 1'000'000; // of any unit
    std::uint32_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || number > longest)
        return std::nullopt;
    const std::string_view unit(end, static_cast<std::size_t>(text.data() + text.size() - end));
    if (unit == "ms")
        return std::chrono::milliseconds(number);
    if (unit == "s" || unit.empty())
        return std::chrono::seconds(number);
    if (unit == "m")
        return std::chrono::minutes(number);
    return std::nullopt;
}

} // namespace Ctl
