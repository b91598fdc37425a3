#include "agent/host/Output.h"

#include "agent/host/Fd.h"
#include "state/Trace.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <iostream>

namespace Agent {

namespace {

const StandardOutput* theOne = nullptr;

// Lets writes not wait. Pipes and terminals are opened once more, as the flag for that is one that others see who share
// what is open; files make nobody wait, and sockets are asked each time.
void neverWait(int fd) {
    struct stat status {};
    if (::fstat(fd, &status) != 0 || (!S_ISFIFO(status.st_mode) && !S_ISCHR(status.st_mode)))
        return;
    const std::string name = "/proc/self/fd/" + std::to_string(fd);
    if (const Fd again(::open(name.c_str(), O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC)); again)
        ::dup2(again.get(), fd);
}

void traceToStandardError(void* /*context*/, const State::TraceRecord& record) {
    std::string line;
    State::appendTraceLine(line, record);
    std::cerr << line;
}

} // namespace

std::streamsize LineOutput::xsputn(const char* text, std::streamsize size) {
    line_.append(text, static_cast<std::size_t>(size));
    if (const std::size_t end = line_.rfind('\n'); end != std::string::npos) {
        say(std::string_view(line_).substr(0, end + 1));
        line_.erase(0, end + 1);
    }
    return size;
}

LineOutput::int_type LineOutput::overflow(int_type character) {
    const char text = traits_type::to_char_type(character);
    return traits_type::eq_int_type(character, traits_type::eof()) || xsputn(&text, 1) == 1
               ? 0
               : traits_type::eof();
}

int LineOutput::sync() {
    say(line_);
    line_.clear();
    return 0;
}

void LineOutput::say(std::string_view text) {
    if (text.empty())
        return;
    rest_.erase(0, write(rest_));
    std::string whole;
    if (droppedNow_ != 0)
        whole = "kestrel-agent: " + std::to_string(droppedNow_) + " lines were dropped here\n";
    whole += text; // in one piece, so that the note comes with the first line that can be written
    if (const std::size_t written = rest_.empty() ? write(whole) : 0; written != 0) {
        rest_ = whole.substr(written);
        droppedNow_ = 0;
        return;
    }
    const auto lines = static_cast<std::uint64_t>(std::ranges::count(text, '\n'));
    dropped_ += lines;
    droppedNow_ += lines;
}

// How much was written. What fails for good counts as written: nobody is there who could miss it.
std::size_t LineOutput::write(std::string_view text) const {
    ssize_t count = -1;
    do {
        count = ::send(fd_, text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (count < 0 && errno == ENOTSOCK)
            count = ::write(fd_, text.data(), text.size());
    } while (count < 0 && errno == EINTR);
    if (count >= 0)
        return static_cast<std::size_t>(count);
    return errno == EAGAIN ? 0 : text.size();
}

void openMissingStreams() {
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
        if (::fcntl(fd, F_GETFD) < 0)
            Fd(::open("/dev/null", O_RDWR)).release(); // gets the lowest number that is free
}

StandardOutput::StandardOutput(bool mayWait)
    : out_(STDOUT_FILENO)
    , err_(STDERR_FILENO)
    , usualOut_(std::cout.rdbuf())
    , usualErr_(std::cerr.rdbuf()) {
    if (!mayWait) {
        neverWait(STDOUT_FILENO);
        std::cout.rdbuf(&out_);
    }
    neverWait(STDERR_FILENO);
    std::cerr.rdbuf(&err_);
    std::cerr.unsetf(std::ios::unitbuf); // whole lines
    State::traceSinkIs(&traceToStandardError, nullptr);
    theOne = this;
}

StandardOutput::~StandardOutput() {
    theOne = nullptr;
    State::traceSinkIs(nullptr, nullptr);
    std::cout.flush();
    std::cerr.flush();
    std::cout.rdbuf(usualOut_);
    std::cerr.rdbuf(usualErr_);
}

std::uint64_t StandardOutput::droppedLines() {
    return theOne == nullptr ? 0 : theOne->out_.droppedLines() + theOne->err_.droppedLines();
}

} // namespace Agent
