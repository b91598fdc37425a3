#include "state/TraceValue.h"

namespace State {

std::size_t TraceWriter::cutSize(std::string_view text) {
    // Never within a UTF-8 character: its later bytes are 10xxxxxx, at most three of them.
    std::size_t size = traceStringBytes;
    while (size > traceStringBytes - 3 && (static_cast<unsigned char>(text[size]) & 0xc0U) == 0x80U)
        --size;
    return size;
}

std::string TraceReader::text() {
    std::uint8_t head[2] = {};
    raw(head);
    std::string text(head[0], '\0');
    bytes(text.data(), text.size());
    if (failed_)
        return {};
    if (head[1] != 0)
        text += "...";
    return text;
}

} // namespace State
