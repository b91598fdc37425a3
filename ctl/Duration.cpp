#include "ctl/Duration.h"

#include <charconv>
#include <cstdint>

namespace Ctl {

std::optional<std::chrono::milliseconds> durationOf(std::string_view text) {
    constexpr std::uint32_t longest = 1'000'000; // of any unit
    std::uint32_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || number > longest)
        return std::nullopt;
    const std::string_view unit = text.substr(static_cast<std::size_t>(end - text.data()));
    if (unit == "ms")
        return std::chrono::milliseconds(number);
    if (unit == "s" || unit.empty())
        return std::chrono::seconds(number);
    if (unit == "m")
        return std::chrono::minutes(number);
    return std::nullopt;
}

std::string durationText(std::chrono::milliseconds duration) {
    return duration.count() % 1000 == 0 ? std::to_string(duration.count() / 1000) + "s"
                                        : std::to_string(duration.count()) + "ms";
}

} // namespace Ctl
