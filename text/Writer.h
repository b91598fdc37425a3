// How results are told: who has one writes it, piece by piece, to a Writer, which makes JSON of it (JsonWriter.h)
// or text for people (TextWriter.h). Nothing builds a tree of values in between.
//
// A value is one of: a scalar; a record, beginRecord(), then for each member field() and its value, end(); a list,
// beginList() or beginTable(), its elements, end(). Who writes keeps to that order; no writer checks it.
#pragma once

#include <concepts>
#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <string_view>

namespace Text {

class Writer {
  public:
    virtual ~Writer() = default;

    /// Whether people read it. Where a value has a form for people that its members don't tell (an answer, a
    /// record of the trace), its writer then writes that one text in place of the members.
    virtual bool isForPeople() const = 0;

    virtual void beginRecord() = 0;
    virtual void beginList() = 0;
    /// A list whose elements are records with these fields, perhaps fewer: for people a table with these columns.
    /// @param columns outlive the table.
    virtual void beginTable(std::span<const std::string_view> columns) = 0;
    /// Ends the record or list that was begun last.
    virtual void end() = 0;
    /// A member of a record; its value is written next.
    virtual void field(std::string_view name) = 0;

    virtual void value(std::string_view text) = 0;
    void value(const char* text) { value(std::string_view(text)); }
    void value(const std::string& text) { value(std::string_view(text)); }
    virtual void value(bool value) = 0;
    virtual void value(std::uint64_t number) = 0;
    virtual void value(std::int64_t number) = 0;
    virtual void value(double number) = 0;
    virtual void value(std::nullptr_t) = 0;
    /// A value that is JSON already.
    virtual void json(std::string_view text) = 0;
    template <std::integral T>
    void value(T number) {
        if constexpr (std::is_signed_v<T>)
            value(static_cast<std::int64_t>(number));
        else
            value(static_cast<std::uint64_t>(number));
    }

    /// field() and value() in one.
    template <class T>
    void member(std::string_view name, const T& content) {
        field(name);
        value(content);
    }
    /// A record of scalars in one: names and contents in turn.
    template <class... Members>
    void record(const Members&... namesAndContents) {
        beginRecord();
        members(namesAndContents...);
        end();
    }
    /// A list of what `write` writes of each element.
    template <class Elements, class Write>
    void list(const Elements& elements, const Write& write) {
        beginList();
        for (const auto& element : elements)
            write(element);
        end();
    }
    /// A member that is such a list.
    template <class Elements, class Write>
    void list(std::string_view name, const Elements& elements, const Write& write) {
        field(name);
        list(elements, write);
    }

  private:
    void members() {}
    template <class T, class... More>
    void members(std::string_view name, const T& content, const More&... more) {
        member(name, content);
        members(more...);
    }
};

/// Writes a result.
using Tell = std::function<void(Writer&)>;
/// Takes a result: called once with what writes it, which it calls at once, perhaps later than the call that was
/// handed the Reply returned.
using Reply = std::function<void(const Tell&)>;

} // namespace Text
