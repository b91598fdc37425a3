#include "agent/control/LineBuffer.h"

#include "agent/control/LineHandler.h"

#include <algorithm>
#include <cstring>

namespace Agent {

namespace {

constexpr std::size_t smallest = 64U << 10U;
constexpr std::size_t largest = LineHandler::lineLimit + smallest;

} // namespace

std::span<char> LineBuffer::room() {
    const std::size_t held = size();
    std::size_t capacity = capacity_;
    if (held == 0)
        capacity = smallest; // a long line's room is given back
    else if (held + smallest / 2 > capacity_)
        capacity = std::min(capacity_ * 2, largest);

    if (capacity != capacity_) {
        auto bytes = std::make_unique_for_overwrite<char[]>(capacity); // NOLINT(modernize-avoid-c-arrays)
        std::copy_n(bytes_.get() + begin_, held, bytes.get());
        bytes_ = std::move(bytes);
        capacity_ = capacity;
    } else if (begin_ > 0) {
        std::memmove(bytes_.get(), bytes_.get() + begin_, held);
    }
    scanned_ -= begin_;
    begin_ = 0;
    end_ = held;
    return {bytes_.get() + end_, capacity_ - end_};
}

std::size_t LineBuffer::lineEnd() {
    if (scanned_ < end_) {
        const void* newline = std::memchr(bytes_.get() + scanned_, '\n', end_ - scanned_);
        scanned_ = newline == nullptr
                       ? end_
                       : static_cast<std::size_t>(static_cast<const char*>(newline) - bytes_.get());
    }
    return scanned_;
}

bool LineBuffer::isOverlong() {
    return lineEnd() - begin_ > LineHandler::lineLimit;
}

std::string_view LineBuffer::takeLine() {
    const std::string_view line(bytes_.get() + begin_, lineEnd() - begin_);
    begin_ = ++scanned_;
    return line;
}

} // namespace Agent
