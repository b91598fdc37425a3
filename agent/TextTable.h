// An aligned table of text: a heading and rows of cells, columns as wide as their widest cell.
#pragma once

#include <string>
#include <vector>

namespace Agent {

class TextTable {
  public:
    explicit TextTable(std::vector<std::string> heading)
        : rows_{std::move(heading)} {}

    /// A row; as many cells as the heading has. An empty cell prints as "-".
    void row(std::vector<std::string> cells);
    /// The table, a newline behind each line; no blanks at the lines' ends.
    std::string text() const;

  private:
    std::vector<std::vector<std::string>> rows_;
};

} // namespace Agent
