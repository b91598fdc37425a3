// A client of a line server on a Unix socket, as quick as one gets: it sends whole lines, and counts and
// keeps what comes back. It reads while it sends, so neither side waits for the other with full buffers.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace Bench {

class LineClient {
  public:
    /// @throws std::system_error when nobody listens.
    explicit LineClient(const std::string& path);
    ~LineClient();
    LineClient(const LineClient&) = delete;
    LineClient& operator=(const LineClient&) = delete;

    /// Sends `lines` (each with its newline) and reads until `count` lines have come. What came is then in
    /// received(). Ends the program when the server goes.
    void exchange(std::string_view lines, std::size_t count);
    /// How many lines the last exchange brought: `count` or, where more were there, more.
    std::size_t lines() const { return newlines_; }
    /// These lines, and the beginning of the next where that came too.
    const std::string& received() const { return received_; }

  private:
    void readSome();

    int socket_;
    std::string received_;
    std::size_t newlines_ = 0;
    std::string buffer_;
};

} // namespace Bench
