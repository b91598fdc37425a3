// Results as text for people, appended to a text; a newline stands behind each line.
//
// - A scalar is a line.
// - A record is a line a member, "name: value"; a record or table in it stands below its name, indented by two.
// - A list is a line an element. Within a record or list, scalars stand on the line before them instead, joined
//   by ", " ("none" without elements), and other elements are indented and begin with "- ".
// - A table has its headings in capitals and columns as wide as their widest cell, two blanks apart. An empty or
//   absent cell is "-", a boolean yes or no, a list its elements joined by blanks ("none" without any); a member
//   that is no column is left out.
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
    void json(std::string_view text) override { value(text); }

  private:
    struct Level {
        bool isList = false;
        std::size_t indent = 0; // of its lines
        bool isEmpty = true;
        bool isElement = false; // a record whose first line, not written yet, begins with "- "
    };

    void begin(bool isList);
    void beginInTable();
    void margin(Level& level);
    void endLine();
    void addToCell(std::string_view text);
    void writeTable(std::size_t indent);

    std::string& out_;
    std::vector<Level> levels_; // innermost last; what is within a table has none
    bool isLineOpen_ = false;   // "name:" or "-" stands there, and perhaps scalars of a list

    std::size_t tableDepth_ = 0; // 0: no table; 1: in one, 2: in a row, more: in a cell's value
    std::span<const std::string_view> columns_;
    std::vector<std::string> cells_; // row by row, the headings first
    std::string* cell_ = nullptr;    // that is written; null for what is no column
};

} // namespace Text
