// A toggle file: any bytes are a file of toggles, or count as none, as the reader of all JSON sees it too.
#include "agent/json/Json.h"
#include "state/Toggle.h"
#include "state/Trace.h"
#include "tests/fuzz/Require.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <optional>
#include <set>
#include <string>
#include <string_view>

namespace {

// The toggle that is asked for: the first that the file names, if that is one letter. Those asked for are remembered.
std::string nameIn(std::string_view text) {
    const std::size_t quote = text.find('"');
    return std::string(quote < text.size() ? text.substr(quote + 1, 1) : "a");
}

// Its value in the text of a file; nothing where the text is no file of toggles, or does not have it.
std::optional<bool> expected(std::string_view text, const std::string& name) {
    std::optional<bool> value;
    try {
        const State::Datum file = Agent::Json::parse(text);
        if (file.record() == nullptr)
            return std::nullopt;
        std::set<std::string> names;
        for (const auto& [toggle, content] : *file.record()) {
            if (content.boolean() == nullptr || !names.insert(toggle).second)
                return std::nullopt;
            if (toggle == name)
                value = *content.boolean();
        }
    } catch (const Agent::Json::Error&) {
        return std::nullopt;
    }
    return value;
}

} // namespace

// NOLINTNEXTLINE(readability-identifier-naming): the fuzzer's name
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const int file = [] {
        State::toggleDirectoryIs("/proc/self/fd");
        State::traceSinkIs([](void*, const State::TraceRecord&) {}, nullptr);
        return ::memfd_create("toggles", MFD_CLOEXEC);
    }();
    require(::ftruncate(file, 0) == 0 && ::pwrite(file, data, size, 0) == static_cast<ssize_t>(size),
            "the file takes the input");
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    const std::string name = nameIn(text);
    const auto valueOr = [&](bool byDefault) {
        return State::getToggleState(name, std::to_string(file), byDefault);
    };
    const bool value = valueOr(true);
    const std::optional<bool> read = value == valueOr(false) ? std::optional(value) : std::nullopt;
    // Names are bytes here, UTF-8 there.
    if (std::ranges::all_of(text, [](char byte) { return static_cast<unsigned char>(byte) < 0x80; }))
        require(read == expected(text, name), "the toggle has the value that the JSON gives it");
    return 0;
}
