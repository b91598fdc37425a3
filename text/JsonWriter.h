// Results as JSON, on one line, appended to a text.
#pragma once

#include "text/Writer.h"

namespace Text {

/// Appends a JSON string. Bytes that are no UTF-8 become U+FFFD.
void appendJson(std::string& out, std::string_view text);

class JsonWriter final : public Writer {
  public:
    /// @param out outlives it.
    explicit JsonWriter(std::string& out)
        : out_(out) {}

    using Writer::value;
    bool isForPeople() const override { return false; }
    void beginRecord() override;
    void beginList() override;
    void beginTable(std::span<const std::string_view>) override { beginList(); }
    void end() override;
    void field(std::string_view name) override;
    void value(std::string_view text) override;
    void value(bool value) override;
    void value(std::uint64_t number) override;
    void value(std::int64_t number) override;
    void value(double number) override;
    void value(std::nullptr_t) override;
    void json(std::string_view text) override;

  private:
    void separate();

    std::string& out_;
    std::string ends_;    // the closing brackets that are owed, innermost last
    bool isFirst_ = true; // of what was begun last
    bool isAfterField_ = false;
};

} // namespace Text
