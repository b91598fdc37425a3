#include "state/Fatal.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace State {

namespace {

struct Hook {
    FatalHook hook;
    void* context;
    bool operator==(const Hook&) const = default;
};

constexpr unsigned hookCapacity = 8;
constinit Hook hooks[hookCapacity] = {};
constinit unsigned hookCount = 0;
constinit bool isEnding = false;

// One line for standard error, put together in place so that it goes out in one piece; one that is longer
// than the buffer goes out in several, whole all the same.
class ErrorLine {
  public:
    ErrorLine() = default;
    ErrorLine(const ErrorLine&) = delete;
    ErrorLine& operator=(const ErrorLine&) = delete;
    ~ErrorLine() {
        add("\n");
        flush();
    }

    ErrorLine& add(const char* text) {
        std::size_t left = std::strlen(text);
        while (left != 0) {
            const std::size_t taken = std::min(left, sizeof buffer_ - used_);
            std::memcpy(buffer_ + used_, text, taken);
            used_ += taken;
            text += taken;
            left -= taken;
            if (used_ == sizeof buffer_)
                flush();
        }
        return *this;
    }
    ErrorLine& add(unsigned number) {
        char digits[16] = {};
        std::to_chars(digits, digits + sizeof digits - 1, number);
        return add(digits);
    }

  private:
    void flush() {
        std::fwrite(buffer_, 1, used_, stderr);
        std::fflush(stderr);
        used_ = 0;
    }

    char buffer_[2048];
    std::size_t used_ = 0;
};

[[noreturn]] void end() {
    if (!isEnding) {
        isEnding = true;
        for (unsigned i = 0; i < hookCount; ++i) {
            try {
                hooks[i].hook(hooks[i].context);
            } catch (...) {
                ErrorLine().add("an exception left the last words");
            }
        }
    }
    std::abort();
}

} // namespace

void fatal(const char* text, const char* file, unsigned line, const char* function) {
    ErrorLine()
        .add(file)
        .add(":")
        .add(line)
        .add(": ")
        .add(function)
        .add(": Assertion `")
        .add(text)
        .add("' failed.");
    end();
}

void fatalException(const char* what) {
    ErrorLine().add("exception left a reactor: ").add(what);
    end();
}

void fatalHookIs(FatalHook hook, void* context) {
    const Hook added{hook, context};
    if (std::find(hooks, hooks + hookCount, added) == hooks + hookCount) {
        FATAL_ASSERT(hookCount < hookCapacity, "hookCount < hookCapacity && \"too many last words\"");
        hooks[hookCount++] = added;
    }
}

void fatalHookDel(FatalHook hook, void* context) {
    hookCount = static_cast<unsigned>(std::remove(hooks, hooks + hookCount, Hook{hook, context}) - hooks);
}

} // namespace State
