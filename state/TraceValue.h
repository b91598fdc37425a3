// How a value goes into a trace record and comes out as text. At a TRACE the raw value is copied, nothing is
// formatted; a reader turns it into text later. What a type has to do for it:
//
// - trivially copyable types, strings, described values (state/Value.h) and sets of such: nothing beyond their
//   text form (ValueTraits or `appendText`, state/Text.h). Their printers must accept any bytes.
// - others: `void traceEncode(State::TraceWriter&) const` and
//   `static void traceDecode(State::TraceReader&, std::string& out)`, which may leave out what is long.
//
// A record holds at most 100 bytes of a string ("..." stands for the rest), 8 members of a set (" (8 of 12)"
// follows them), and 1024 bytes in all ("..." again). Neither function may write a trace itself.
#pragma once

#include "state/Text.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>

namespace State {

template <class T>
struct ValueTraits; // state/Value.h

template <class T>
struct TraceValue;

constexpr std::size_t traceStringBytes = 100;
constexpr std::size_t traceSetMembers = 8;
constexpr std::size_t traceRecordBytes = 1024;

/// Takes the values of one record. What does not fit any more is left out, and so is all that follows it.
class TraceWriter {
  public:
    TraceWriter(std::byte* begin, std::byte* end)
        : at_(begin)
        , end_(end) {}

    /// The bytes of a trivially copyable value.
    template <class T>
    void raw(const T& value) {
        static_assert(std::is_trivially_copyable_v<T>);
        bytes(&value, sizeof value);
    }
    /// A string: its first bytes, whole UTF-8 characters.
    void text(std::string_view text) {
        const std::size_t size = text.size() <= traceStringBytes ? text.size() : cutSize(text);
        if (size + 2 > static_cast<std::size_t>(end_ - at_)) {
            end_ = at_;
            return;
        }
        at_[0] = static_cast<std::byte>(size);
        at_[1] = static_cast<std::byte>(size < text.size());
        if (size != 0)
            std::memcpy(at_ + 2, text.data(), size);
        at_ += size + 2;
    }
    /// A value of any type, in the way of its TraceValue.
    template <class T>
    void value(const T& value) {
        TraceValue<T>::encode(*this, value);
    }
    /// The first members of a set, and how many it has.
    template <class Set>
    void members(const Set& set) {
        std::uint32_t count = 0;
        for (auto member = set.begin(); member != set.end(); ++member)
            ++count;
        raw(count);
        count = 0;
        for (auto member = set.begin(); count < traceSetMembers && member != set.end(); ++member, ++count)
            value<std::remove_cvref_t<decltype(*member)>>(*member);
    }

    std::byte* position() const { return at_; }

  private:
    // How many bytes of a long string are kept.
    [[gnu::cold]] static std::size_t cutSize(std::string_view text);

    void bytes(const void* from, std::size_t size) {
        if (size > static_cast<std::size_t>(end_ - at_)) {
            end_ = at_;
        } else {
            std::memcpy(at_, from, size);
            at_ += size;
        }
    }

    std::byte* at_;
    std::byte* end_;
};

/// Hands the values of one record back, in the order in which they were written. Reading past the end yields
/// empty values and sets `failed`.
class TraceReader {
  public:
    TraceReader(const std::byte* begin, const std::byte* end)
        : at_(begin)
        , end_(end) {}

    template <class T>
    void raw(T& value) {
        static_assert(std::is_trivially_copyable_v<T>);
        bytes(&value, sizeof value);
    }
    /// A string as it was written; "..." follows a cut one.
    std::string text();
    /// Appends the text of a T, or "..." where its bytes are missing.
    template <class T>
    void value(std::string& out) {
        const std::size_t before = out.size();
        TraceValue<T>::decode(*this, out);
        if (failed_) {
            out.resize(before);
            out += "...";
        }
    }
    bool failed() const { return failed_; }

  private:
    void bytes(void* to, std::size_t size) {
        if (size > static_cast<std::size_t>(end_ - at_)) {
            failed_ = true;
        } else {
            std::memcpy(to, at_, size);
            at_ += size;
        }
    }

    const std::byte* at_;
    const std::byte* end_;
    bool failed_ = false;
};

/// The plain text of any value (see state/Text.h).
template <class T>
void traceText(std::string& out, const T& value) {
    if constexpr (requires { appendText(out, value); })
        appendText(out, value);
    else
        ValueTraits<T>::print(out, value);
}

template <class T>
concept TraceCoded = requires(const T& value, TraceWriter& writer, TraceReader& reader, std::string& out) {
    value.traceEncode(writer);
    T::traceDecode(reader, out);
};

template <class T>
concept TraceString = std::convertible_to<const T&, std::string_view>;

template <class T>
concept TraceDescribed = requires {
    T::describe().fields;
};

template <class T>
concept TraceSet = requires(T& set, const typename T::Element& element) {
    set.insert(element);
    set.begin() != set.end();
};

/// The way of a type: `encode` and `decode` move values between record and text; `read` brings a value back,
/// as far as it was kept, for types that are printed as part of another. A raw type has the same size in every
/// record.
template <class T>
struct TraceValue {
    static constexpr bool isRaw = std::is_trivially_copyable_v<T> && !TraceCoded<T> && !TraceString<T>;
    static_assert(isRaw || TraceCoded<T> || TraceString<T> || TraceDescribed<T> || TraceSet<T>,
                  "a traced type that is not trivially copyable needs traceEncode and traceDecode");
    static_assert(!isRaw || (!std::is_pointer_v<T> && sizeof(T) <= traceRecordBytes / 8),
                  "trace what is pointed to, or a small part of a large value");

    static void encode(TraceWriter& writer, const T& value) {
        if constexpr (isRaw) {
            writer.raw(value);
        } else if constexpr (TraceCoded<T>) {
            value.traceEncode(writer);
        } else if constexpr (std::is_same_v<T, const char*>) {
            writer.text(value == nullptr ? std::string_view("(null)") : std::string_view(value));
        } else if constexpr (TraceString<T>) {
            writer.text(value);
        } else if constexpr (TraceDescribed<T>) {
            std::apply([&](const auto&... fields) { (writer.value(value.*(fields.member)), ...); },
                       T::describe().fields);
        } else {
            writer.members(value);
        }
    }

    static void decode(TraceReader& reader, std::string& out) {
        if constexpr (TraceCoded<T>) {
            T::traceDecode(reader, out);
        } else if constexpr (TraceString<T>) {
            out += reader.text();
        } else if constexpr (isRaw || TraceDescribed<T>) {
            T value{};
            read(reader, value);
            traceText(out, value);
        } else {
            T set;
            std::uint32_t count = 0;
            const std::size_t kept = readMembers(reader, set, count);
            traceText(out, set);
            if (kept < count)
                out += " (" + std::to_string(kept) + " of " + std::to_string(count) + ")";
        }
    }

    static void read(TraceReader& reader, T& value) {
        if constexpr (std::is_same_v<T, bool>) {
            std::uint8_t byte = 0; // a damaged record may hold any number
            reader.raw(byte);
            value = byte != 0;
        } else if constexpr (isRaw) {
            reader.raw(value);
        } else if constexpr (TraceString<T>) {
            if constexpr (requires { T::fromString(std::string_view()); })
                value = T::fromString(reader.text());
            else
                value = T(reader.text());
        } else if constexpr (TraceDescribed<T>) {
            const auto readField = [&]<class Member>(Member& member) {
                TraceValue<Member>::read(reader, member);
            };
            std::apply([&](const auto&... fields) { (readField(value.*(fields.member)), ...); },
                       T::describe().fields);
        } else {
            std::uint32_t count = 0;
            readMembers(reader, value, count);
        }
    }

  private:
    // Inserts the members that the record kept into `set`; how many those are.
    static std::size_t readMembers(TraceReader& reader, T& set, std::uint32_t& count) {
        reader.raw(count);
        const std::size_t kept = std::min<std::size_t>(count, traceSetMembers);
        for (std::size_t i = 0; i < kept && !reader.failed(); ++i) {
            typename T::Element element{};
            TraceValue<typename T::Element>::read(reader, element);
            set.insert(element);
        }
        return kept;
    }
};

} // namespace State
