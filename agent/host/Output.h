// What the agent says on standard output and standard error. Saying never waits for a reader: a line that can't be
// written at once is dropped and counted, and the next that can says how many were.
//
// main makes one; std::cout, std::cerr and the text trace go through it from then on.
#pragma once

#include <cstdint>
#include <ostream>
#include <streambuf>
#include <string>
#include <string_view>

namespace Agent {

/// Writes lines to a descriptor as far as it takes them without waiting.
class LineOutput final : public std::streambuf {
  public:
    explicit LineOutput(int fd)
        : fd_(fd) {}

    std::uint64_t droppedLines() const { return dropped_; }

  protected:
    std::streamsize xsputn(const char* text, std::streamsize size) override;
    int_type overflow(int_type character) override;
    int sync() override;

  private:
    void say(std::string_view text);
    std::size_t write(std::string_view text) const;

    int fd_;
    std::string line_;             // that is not complete yet
    std::string rest_;             // of a line of which a part has been written
    std::uint64_t dropped_ = 0;    // lines
    std::uint64_t droppedNow_ = 0; // since the last one that was written
};

/// Descriptors 0 to 2 that are closed become the null device, so that nothing else gets their numbers.
void openMissingStreams();

class StandardOutput {
  public:
    /// @param mayWait standard output does: for a play with nobody to serve behind it, whose reader may be a pager.
    explicit StandardOutput(bool mayWait);
    ~StandardOutput();
    StandardOutput(const StandardOutput&) = delete;
    StandardOutput& operator=(const StandardOutput&) = delete;

    /// Lines dropped so far in this process.
    static std::uint64_t droppedLines();

  private:
    LineOutput out_;
    LineOutput err_;
    std::streambuf* usualOut_;
    std::streambuf* usualErr_;
};

} // namespace Agent
