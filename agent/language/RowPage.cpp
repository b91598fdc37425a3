#include "agent/language/RowPage.h"

#include <charconv>

namespace Agent {

namespace {

constexpr char numberEnd = '.';
constexpr char nameBegin = ':';

// Nothing for a text that is no cursor.
struct Cursor {
    std::array<std::uint64_t, 6> rest = {};
    std::optional<std::string_view> vrf; // none: the VRF had no name
};

std::optional<Cursor> readCursor(std::string_view text) {
    Cursor cursor;
    const char* at = text.data();
    const char* const end = text.data() + text.size();
    for (std::uint64_t& number : cursor.rest) {
        if (&number != cursor.rest.data() && (at == end || *at++ != numberEnd))
            return std::nullopt;
        const auto [next, error] = std::from_chars(at, end, number, 16);
        if (error != std::errc())
            return std::nullopt;
        at = next;
    }
    if (at == end)
        return cursor;
    if (*at != nameBegin)
        return std::nullopt;
    cursor.vrf = std::string_view(at + 1, end);
    return cursor;
}

} // namespace

std::string cursorOf(const RowKey& key, const VrfNames& vrfs) {
    std::string cursor;
    for (const std::uint64_t number : key.rest) {
        std::array<char, 16> digits; // NOLINT(cppcoreguidelines-pro-type-member-init)
        const char* end = std::to_chars(digits.data(), digits.data() + digits.size(), number, 16).ptr;
        cursor.append(static_cast<const char*>(digits.data()), end) += numberEnd;
    }
    cursor.pop_back();
    if (key.vrf != VrfNames::nameless)
        (cursor += nameBegin) += vrfs.nameAt(key.vrf);
    return cursor;
}

bool isCursor(std::string_view text) {
    return readCursor(text).has_value();
}

PageFrame::PageFrame(const Operations& operations, std::size_t limit, const std::optional<std::string>& after)
    : operations_(operations)
    , vrfs_(operations)
    , limit_(limit) {
    if (!after)
        return;
    const Cursor cursor = *readCursor(*after);
    behind_ = {.vrf = cursor.vrf ? vrfs_.placeOf(*cursor.vrf) : VrfNames::nameless, .rest = cursor.rest};
}

} // namespace Agent
