// Results as text for people, appended to a text: a scalar on a line; a record with a member a line, "name: value",
// what is nested indented below its name; a list with an element a line, one of scalars within a record on the line
// of its name; a table aligned, under headings. A newline stands behind each line.
#pragma once

#include "text/Writer.h"

#include <vector>

namespace Text {

class TextWriter final : public Writer {
  public:
    /// @param out outlives it.
    explicit TextWriter(std::string& out)
        : out_(out) {}

    using Writer::value;
    bool isForPeople() const override { return true; }
    void beginRecord() override;
    void beginList() override;
    void beginTable(std::span<const std::string_view> columns) override;
    void end() override;
    void field(std::string_view name) override;
    void value(std::string_view text) override;
    void value(bool value) override;
    void value(std::uint64_t number) override;
    void value(std::int64_t number) override;
    void value(double number) override;
    void value(std::nullptr_t) override;

  private:
    std::string& out_;
};

} // namespace Text
