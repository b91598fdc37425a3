// Lines of the grammar, as kestrelctl, scenario files and preloaded state have them, carried out in this process.
#include "agent/language/Language.h"
#include "text/TextWriter.h"

#include <stdexcept>
#include <string>
#include <string_view>

// NOLINTNEXTLINE(readability-identifier-naming): the fuzzer's name
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace Agent;
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    Host host;
    host.load(KESTREL_LIB_DIR "/libKestrelNatMulticastMounter.so");
    Operations operations(host);
    Language language(operations, [] {});
    host.start();
    for (std::size_t begin = 0; begin < size;) {
        const std::size_t end = std::min(text.find('\n', begin), size);
        try {
            language.run(text.substr(begin, end - begin), false, [](const Text::Tell& tell) {
                std::string out;
                Text::TextWriter writer(out);
                tell(writer);
            });
        } catch (const std::runtime_error&) { // what is wrong with the line
        }
        begin = end + 1;
    }
    return 0;
}
