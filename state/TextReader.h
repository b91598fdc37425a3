// A cursor over the value form of a value (state/Value.h), used by parsing alone. Every error is a ParseError
// that names the type being read and the column.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace State {

class TextReader {
  public:
    /// Reads `text` for a value of `typeName`; both must outlive the reader.
    TextReader(std::string_view typeName, std::string_view text)
        : typeName_(typeName)
        , text_(text) {}

    void expect(std::string_view literal);
    void expectEnd() const;
    bool boolean();
    bool atNumber() const;
    bool atQuote() const { return position_ < text_.size() && text_[position_] == '"'; }
    std::uint64_t number();
    /// A quoted string: \" \\ \n \t and \xHH are its escapes.
    std::string quoted();
    /// Characters up to the next separator: comma, closing bracket, end.
    std::string_view word();
    /// All that is left.
    std::string_view rest();

  private:
    [[noreturn]] void fail(std::string_view wanted) const;

    std::string_view typeName_;
    std::string_view text_;
    std::size_t position_ = 0;
};

} // namespace State
