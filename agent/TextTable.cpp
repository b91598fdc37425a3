#include "agent/TextTable.h"

#include <algorithm>

namespace Agent {

void TextTable::row(std::vector<std::string> cells) {
    for (std::string& cell : cells)
        if (cell.empty())
            cell.assign(1, '-'); // not = "-", at which g++ 12 warns without cause
    rows_.push_back(std::move(cells));
}

std::string TextTable::text() const {
    std::vector<std::size_t> widths(rows_.front().size());
    for (const auto& row : rows_)
        for (std::size_t column = 0; column < row.size(); ++column)
            widths[column] = std::max(widths[column], row[column].size());
    std::string out;
    for (const auto& row : rows_) {
        for (std::size_t column = 0; column < row.size(); ++column) {
            out += row[column];
            if (column + 1 < row.size())
                out.append(widths[column] - row[column].size() + 2, ' ');
        }
        out += '\n';
    }
    return out;
}

} // namespace Agent
