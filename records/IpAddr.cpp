#include "records/IpAddr.h"

#include "state/Errors.h"
#include "state/ValueType.h"

#include <charconv>
#include <cstring>
#include <optional>

namespace L3 {

namespace {

[[noreturn]] void refuseText(std::string_view typeName, std::string_view text) {
    throw State::ParseError(std::string(typeName) + ": '" + std::string(text) + "' is none");
}

// A decimal number up to `most`, without leading zeros.
std::optional<std::uint32_t> decimal(std::string_view digits, std::uint32_t most) {
    std::uint32_t value = 0;
    const auto [stopped, error] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
    const bool whole = error == std::errc{} && stopped == digits.data() + digits.size();
    if (!whole || value > most || (digits.size() > 1 && digits[0] == '0'))
        return std::nullopt;
    return value;
}

std::optional<std::uint32_t> dotted(std::string_view text) {
    std::uint32_t value = 0;
    for (int part = 0; part < 4; ++part) {
        const auto end = part < 3 ? text.find('.') : text.size();
        if (end == std::string_view::npos)
            return std::nullopt;
        const auto byte = decimal(text.substr(0, end), 255);
        if (!byte)
            return std::nullopt;
        value = value << 8 | *byte;
        text.remove_prefix(part < 3 ? end + 1 : end);
    }
    return value;
}

// Groups of 16 bits of one side of "::"; false when malformed or more than 8.
bool groups(std::string_view text, std::array<std::uint16_t, 8>& into, std::size_t& count) {
    count = 0;
    while (!text.empty()) {
        const auto colon = std::min(text.find(':'), text.size());
        const auto digits = text.substr(0, colon);
        std::uint16_t value = 0;
        const auto [stopped, error] =
            std::from_chars(digits.data(), digits.data() + digits.size(), value, 16);
        if (error != std::errc{} || stopped != digits.data() + digits.size() || digits.size() > 4 ||
            count == into.size())
            return false;
        into[count++] = value;
        if (colon == text.size())
            return true;
        text.remove_prefix(colon + 1);
        if (text.empty())
            return false; // a single trailing colon
    }
    return true;
}

std::optional<std::array<std::uint8_t, 16>> ipv6(std::string_view text) {
    const auto gap = text.find("::");
    const bool hasGap = gap != std::string_view::npos;
    std::array<std::uint16_t, 8> front{};
    std::array<std::uint16_t, 8> back{};
    std::size_t frontCount = 0;
    std::size_t backCount = 0;
    if (!groups(text.substr(0, gap), front, frontCount) ||
        !groups(hasGap ? text.substr(gap + 2) : std::string_view(), back, backCount) ||
        (hasGap ? frontCount + backCount > 7 : frontCount != 8))
        return std::nullopt;
    std::array<std::uint8_t, 16> bytes{};
    const auto put = [&](std::size_t at, std::uint16_t group) {
        bytes[at * 2] = static_cast<std::uint8_t>(group >> 8);
        bytes[at * 2 + 1] = static_cast<std::uint8_t>(group & 0xff);
    };
    for (std::size_t i = 0; i < frontCount; ++i)
        put(i, front[i]);
    for (std::size_t i = 0; i < backCount; ++i)
        put(8 - backCount + i, back[i]);
    return bytes;
}

// The recommended text form of RFC 5952: lower case, the longest run of zero groups (of two or more) as "::".
std::string ipv6Text(const std::array<std::uint8_t, 16>& bytes) {
    const auto group = [&](std::size_t at) { return bytes[at * 2] << 8 | bytes[at * 2 + 1]; };
    std::size_t runStart = 8;
    std::size_t runLength = 1;
    for (std::size_t i = 0; i < 8; ++i) {
        std::size_t length = 0;
        while (i + length < 8 && group(i + length) == 0)
            ++length;
        if (length > runLength) {
            runStart = i;
            runLength = length;
        }
    }
    std::string text;
    for (std::size_t i = 0; i < 8; ++i) {
        if (i == runStart) {
            text += "::";
            i += runLength - 1;
            continue;
        }
        if (!text.empty() && text.back() != ':')
            text += ':';
        char digits[4];
        const auto [end, error] = std::to_chars(digits, digits + sizeof digits, group(i), 16);
        text.append(digits, end);
    }
    return text;
}

} // namespace

IpAddr IpAddr::fromString(std::string_view text) {
    const auto value = dotted(text);
    if (!value)
        refuseText(typeName, text);
    return IpAddr(*value);
}

std::string IpAddr::stringValue() const {
    std::string text;
    for (int shift = 24; shift >= 0; shift -= 8) {
        text += std::to_string(value_ >> shift & 255U);
        text += shift > 0 ? "." : "";
    }
    return text;
}

IpGenAddr IpGenAddr::fromString(std::string_view text) {
    if (const auto value = dotted(text))
        return IpAddr(*value);
    if (const auto bytes = ipv6(text))
        return {AddressFamily::ipv6, *bytes};
    refuseText(typeName, text);
}

std::string IpGenAddr::stringValue() const {
    return isIpv4() ? ipv4().stringValue() : ipv6Text(bytes_);
}

void IpGenAddr::mixInto(State::Hasher& hasher) const {
    if (isIpv4()) {
        hasher.mix(ipv4().value());
        return;
    }
    std::uint64_t halves[2];
    std::memcpy(halves, bytes_.data(), sizeof halves);
    hasher.mix(halves[0]).mix(halves[1]);
}

std::uint32_t IpGenAddr::hash(std::uint32_t seed) const {
    State::Hasher hasher(seed);
    mixInto(hasher);
    return hasher.result();
}

IpGenPrefix IpGenPrefix::fromString(std::string_view text) {
    const auto slash = text.find('/');
    if (slash == std::string_view::npos)
        refuseText(typeName, text);
    const auto length = decimal(text.substr(slash + 1), 255);
    if (!length)
        refuseText(typeName, text);
    return {IpGenAddr::fromString(text.substr(0, slash)), static_cast<std::uint8_t>(*length)};
}

std::string IpGenPrefix::stringValue() const {
    return address_.stringValue() + "/" + std::to_string(length_);
}

std::uint32_t IpGenPrefix::hash(std::uint32_t seed) const {
    State::Hasher hasher(seed);
    address_.mixInto(hasher);
    return hasher.mix(static_cast<std::uint16_t>(length_)).result();
}

void IpGenPrefix::refuse() const {
    throw State::RangeError("IpGenPrefix::length > " + std::to_string(maxLength()) +
                            " not allowed: " + stringValue());
}

STATE_VALUE_TYPE(IpAddr);
STATE_VALUE_TYPE(IpGenAddr);
STATE_VALUE_TYPE(IpGenPrefix);

} // namespace L3
