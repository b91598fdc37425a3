// Lines of the grammar, as kestrelctl, scenario files and preloaded state have them, carried out all at once, or where
// that is refused one after the other: what is wrong is told by a Refusal, and then nothing has changed.
#include "tests/fuzz/FuzzAgent.h"
#include "tests/fuzz/Require.h"

#include "text/JsonWriter.h"
#include "text/TextWriter.h"

#include <sstream>
#include <string>
#include <vector>

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

// Whether the work is done; refused, it has changed nothing.
template <class Work>
bool isDone(const FuzzAgent& agent, Work work) {
    const std::string before = agent.state();
    try {
        work();
        return true;
    } catch (const Agent::Refusal&) {
        require(agent.state() == before, "what is refused changes nothing");
        return false;
    }
}

} // namespace

// NOLINTNEXTLINE(readability-identifier-naming): the fuzzer's name
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::istringstream text(std::string(reinterpret_cast<const char*>(data), size));
    std::vector<std::string> lines;
    for (std::string line; std::getline(text, line);)
        lines.push_back(line);
    auto& agent = freshAgent<Grammar>();
    if (!isDone(agent, [&] { agent.operations.apply(agent.language.changes(lines, false)); }))
        for (const std::string& line : lines)
            isDone(agent, [&] { agent.language.run(line, false, &tellBoth); });
    return 0;
}
