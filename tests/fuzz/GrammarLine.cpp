// Lines of the grammar, as kestrelctl, scenario files and preloaded state have them, carried out one after the other:
// what is wrong with a line is told by a Refusal, and then nothing has changed.
#include "tests/fuzz/FuzzAgent.h"
#include "tests/fuzz/Require.h"

#include "text/JsonWriter.h"
#include "text/TextWriter.h"

#include <algorithm>
#include <string_view>

namespace {

struct Grammar : FuzzAgent {
    Grammar()
        : FuzzAgent(true) {}
};

void tellBoth(const Text::Tell& tell) {
    std::string people;
    Text::TextWriter text(people);
    tell(text);
    std::string json;
    Text::JsonWriter writer(json);
    tell(writer);
    Agent::Json::parse(json);
}

} // namespace

// NOLINTNEXTLINE(readability-identifier-naming): the fuzzer's name
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    auto& agent = freshAgent<Grammar>();
    std::string state = agent.state();
    for (std::size_t begin = 0, end = 0; begin < size; begin = end + 1) {
        end = std::min(text.find('\n', begin), size);
        bool isRefused = false;
        try {
            agent.language.run(text.substr(begin, end - begin), false, &tellBoth);
        } catch (const Agent::Refusal&) {
            isRefused = true;
        }
        std::string now = agent.state();
        require(!isRefused || now == state, "a line that is refused changes nothing");
        state = std::move(now);
    }
    return 0;
}
