#include "text/TextWriter.h"

#include <algorithm>
#include <array>
#include <charconv>

namespace Text {

namespace {

// Places that a text takes in a line: its characters, as far as bytes tell.
std::size_t widthOf(std::string_view text) {
    return static_cast<std::size_t>(std::count_if(
        text.begin(), text.end(), [](char c) { return (static_cast<unsigned char>(c) & 0xc0U) != 0x80; }));
}

std::string capitals(std::string_view name) {
    std::string heading(name);
    std::transform(heading.begin(), heading.end(), heading.begin(),
                   [](char c) { return static_cast<char>(c >= 'a' && c <= 'z' ? c - 'a' + 'A' : c); });
    return heading;
}

} // namespace

void TextWriter::beginRecord() {
    begin(false);
}

void TextWriter::beginList() {
    begin(true);
}

void TextWriter::beginTable(std::span<const std::string_view> columns) {
    begin(true);
    if (tableDepth_ != 0)
        return;
    endLine();
    tableDepth_ = 1;
    columns_ = columns;
    cells_.clear();
    std::transform(columns.begin(), columns.end(), std::back_inserter(cells_), capitals);
}

void TextWriter::begin(bool isList) {
    if (tableDepth_ != 0) {
        beginInTable();
        return;
    }
    if (levels_.empty()) {
        levels_.push_back({.isList = isList});
        return;
    }
    Level& outer = levels_.back();
    if (!outer.isList && !isList) {
        endLine();
    } else if (outer.isList) {
        endLine();
        outer.isEmpty = false;
        if (isList) {
            margin(outer);
            out_ += '-';
            isLineOpen_ = true;
        }
    }
    levels_.push_back({.isList = isList, .indent = outer.indent + 2, .isElement = outer.isList && !isList});
}

void TextWriter::beginInTable() {
    if (++tableDepth_ != 2)
        return;
    cells_.resize(cells_.size() + columns_.size());
    cell_ = nullptr;
}

void TextWriter::end() {
    if (tableDepth_ > 1) {
        --tableDepth_;
        if (tableDepth_ == 2 && cell_ != nullptr && cell_->empty())
            *cell_ = "none";
        return;
    }
    const Level level = levels_.back();
    levels_.pop_back();
    if (tableDepth_ == 1) {
        tableDepth_ = 0;
        writeTable(level.indent);
    } else if (isLineOpen_) {
        if (level.isEmpty)
            out_ += " none";
        endLine();
    }
}

void TextWriter::field(std::string_view name) {
    if (tableDepth_ != 0) {
        if (tableDepth_ > 2)
            return; // a cell has the values alone
        const auto column = std::find(columns_.begin(), columns_.end(), name);
        const auto end = cells_.end() - static_cast<std::ptrdiff_t>(columns_.size());
        cell_ = column == columns_.end() ? nullptr : &*(end + (column - columns_.begin()));
        return;
    }
    margin(levels_.back());
    out_.append(name) += ':';
    isLineOpen_ = true;
}

void TextWriter::value(std::string_view text) {
    if (tableDepth_ != 0) {
        addToCell(text);
        return;
    }
    const bool isElement = !levels_.empty() && levels_.back().isList;
    if (isElement && isLineOpen_) {
        out_.append(levels_.back().isEmpty ? " " : ", ").append(text);
    } else {
        if (isElement && levels_.size() > 1)
            out_.append(levels_.back().indent, ' ').append("- ");
        else if (isLineOpen_ && !text.empty())
            out_ += ' ';
        out_ += text;
        isLineOpen_ = true;
        endLine();
    }
    if (isElement)
        levels_.back().isEmpty = false;
}

void TextWriter::value(bool value) {
    if (tableDepth_ != 0)
        addToCell(value ? "yes" : "no");
    else
        this->value(std::string_view(value ? "true" : "false"));
}

void TextWriter::value(std::uint64_t number) {
    value(std::to_string(number));
}

void TextWriter::value(std::int64_t number) {
    value(std::to_string(number));
}

void TextWriter::value(double number) {
    std::array<char, 32> text; // NOLINT(cppcoreguidelines-pro-type-member-init)
    const char* end = std::to_chars(text.data(), text.data() + text.size(), number).ptr;
    value(std::string_view(text.data(), static_cast<std::size_t>(end - text.data())));
}

void TextWriter::value(std::nullptr_t /*none*/) {
    if (tableDepth_ == 0)
        value("null");
}

void TextWriter::margin(Level& level) {
    out_.append(level.isElement ? level.indent - 2 : level.indent, ' ');
    if (level.isElement)
        out_ += "- ";
    level.isElement = false;
}

void TextWriter::endLine() {
    if (isLineOpen_)
        out_ += '\n';
    isLineOpen_ = false;
}

void TextWriter::addToCell(std::string_view text) {
    if (cell_ == nullptr)
        return;
    if (!cell_->empty())
        *cell_ += ' ';
    *cell_ += text;
}

void TextWriter::writeTable(std::size_t indent) {
    std::vector<std::size_t> widths(columns_.size());
    for (std::size_t at = 0; at < cells_.size(); ++at) {
        if (cells_[at].empty())
            cells_[at].assign(1, '-'); // not = "-", at which g++ 12 warns without cause
        std::size_t& width = widths[at % widths.size()];
        width = std::max(width, widthOf(cells_[at]));
    }
    for (std::size_t at = 0; at < cells_.size(); ++at) {
        const std::size_t column = at % widths.size();
        if (column == 0)
            out_.append(indent, ' ');
        out_ += cells_[at];
        if (column + 1 == widths.size())
            out_ += '\n';
        else
            out_.append(widths[column] - widthOf(cells_[at]) + 2, ' ');
    }
}

} // namespace Text
