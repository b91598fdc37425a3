// Bytes as they come from a client, cut into lines. It holds at most one line beyond those that are complete,
// as it is filled only when none is. A session owns one.
#pragma once

#include <cstddef>
#include <memory>
#include <span>
#include <string_view>

namespace Agent {

class LineBuffer {
  public:
    /// Where the next bytes may be written; lines taken before are not valid any more. No complete line may be
    /// there.
    std::span<char> room();
    /// So many bytes were written there.
    void filled(std::size_t bytes) { end_ += bytes; }

    /// Whether a complete line is there.
    bool hasLine() { return lineEnd() != end_; }
    /// Whether the line that is next has, complete or not, more bytes than a line may have.
    bool isOverlong();
    /// The next line, without its newline; valid until room(). hasLine() must be true.
    std::string_view takeLine();

    /// Bytes that are not taken yet.
    std::size_t size() const { return end_ - begin_; }

  private:
    std::size_t lineEnd();

    std::unique_ptr<char[]> bytes_; // NOLINT(modernize-avoid-c-arrays): grown without being zeroed
    std::size_t capacity_ = 0;
    std::size_t begin_ = 0;
    std::size_t end_ = 0;
    std::size_t scanned_ = 0; // no newline in front of this position
};

} // namespace Agent
