// Addresses. L3::IpAddr is an IPv4 address; L3::IpGenAddr holds one of any family in 16 bytes and says which;
// L3::IpGenPrefix is such an address with a prefix length. All print and parse in the usual text forms.
#pragma once

#include "state/Hash.h"

#include <array>
#include <compare>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

namespace L3 {

/// IPv4, kept as a number in host order, so that it orders as the dotted form does. Zero often stands for
/// "any".
class IpAddr {
  public:
    static constexpr std::string_view typeName = "L3::IpAddr";

    constexpr IpAddr() = default;
    constexpr explicit IpAddr(std::uint32_t value)
        : value_(value) {}
    /// From dotted decimal; ParseError.
    explicit IpAddr(std::string_view text)
        : IpAddr(fromString(text)) {}

    static IpAddr fromString(std::string_view text);
    std::string stringValue() const;
    constexpr std::uint32_t value() const { return value_; }
    constexpr bool isZero() const { return value_ == 0; }

    constexpr std::uint32_t hashBits() const { return value_; }
    std::uint32_t hash(std::uint32_t seed) const { return State::Hasher(seed).mix(value_).result(); }
    auto operator<=>(const IpAddr&) const = default;

  private:
    std::uint32_t value_ = 0;
};

enum class AddressFamily : std::uint8_t { ipv4 = 0, ipv6 = 1 };

class IpGenAddr {
  public:
    static constexpr std::string_view typeName = "L3::IpGenAddr";

    constexpr IpGenAddr() = default; // 0.0.0.0
    constexpr IpGenAddr(IpAddr address)
        : bytes_{static_cast<std::uint8_t>(address.value() >> 24),
                 static_cast<std::uint8_t>(address.value() >> 16),
                 static_cast<std::uint8_t>(address.value() >> 8),
                 static_cast<std::uint8_t>(address.value())} {}
    constexpr IpGenAddr(AddressFamily family, const std::array<std::uint8_t, 16>& bytes)
        : bytes_(bytes)
        , family_(family) {}

    /// "10.0.0.1" or "2001:db8::1"; ParseError.
    static IpGenAddr fromString(std::string_view text);
    std::string stringValue() const;
    constexpr AddressFamily family() const { return family_; }
    constexpr bool isIpv4() const { return family_ == AddressFamily::ipv4; }
    constexpr const std::array<std::uint8_t, 16>& bytes() const { return bytes_; }
    /// The IPv4 address in the first four bytes, whatever the family.
    constexpr IpAddr ipv4() const {
        return IpAddr(static_cast<std::uint32_t>(bytes_[0]) << 24 |
                      static_cast<std::uint32_t>(bytes_[1]) << 16 |
                      static_cast<std::uint32_t>(bytes_[2]) << 8 | static_cast<std::uint32_t>(bytes_[3]));
    }

    void mixInto(State::Hasher& hasher) const;
    std::uint32_t hash(std::uint32_t seed) const;
    bool operator==(const IpGenAddr& other) const { // as words: route keys are compared with every look-up
        return family_ == other.family_ && std::memcmp(bytes_.data(), other.bytes_.data(), 16) == 0;
    }
    auto operator<=>(const IpGenAddr&) const = default;

  private:
    std::array<std::uint8_t, 16> bytes_{};
    AddressFamily family_ = AddressFamily::ipv4;
};

class IpGenPrefix {
  public:
    static constexpr std::string_view typeName = "L3::IpGenPrefix";

    constexpr IpGenPrefix() = default; // 0.0.0.0/0
    /// RangeError if `length` (bits) is more than the family has.
    constexpr IpGenPrefix(IpGenAddr address, std::uint8_t length)
        : address_(address)
        , length_(length) {
        if (length > maxLength())
            refuse();
    }
    /// The host prefix (/32) of an IPv4 address.
    static constexpr IpGenPrefix host(IpAddr address) { return {IpGenAddr(address), 32}; }

    /// "10.0.0.1/32"; ParseError, RangeError.
    static IpGenPrefix fromString(std::string_view text);
    std::string stringValue() const;
    constexpr const IpGenAddr& address() const { return address_; }
    constexpr std::uint8_t length() const { return length_; }
    constexpr std::uint8_t maxLength() const { return address_.isIpv4() ? 32 : 128; }
    /// The IPv4 address, the length ignored.
    constexpr IpAddr ipv4() const { return address_.ipv4(); }

    std::uint32_t hash(std::uint32_t seed) const;
    auto operator<=>(const IpGenPrefix&) const = default;

  private:
    [[noreturn]] void refuse() const;

    IpGenAddr address_;
    std::uint8_t length_ = 0;
};

} // namespace L3
