#include "ctl/Commands.h"

#include "ctl/Client.h"
#include "ctl/Pages.h"
#include "text/ByteOrderMark.h"
#include "text/Words.h"

#include <fstream>
#include <iostream>
#include <stdexcept>

namespace Ctl {

namespace {

// The lines of a file, checked to be UTF-8.
std::vector<std::string> linesOf(std::istream& in, const std::string& name) {
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) {
        if (!isUtf8(line))
            throw std::runtime_error(name + ":" + std::to_string(lines.size() + 1) + ": not UTF-8");
        lines.emplace_back(lines.empty() ? Text::withoutMark(line) : line);
    }
    if (in.bad())
        throw std::runtime_error(name + ": can't be read");
    return lines;
}

std::vector<std::string> linesOf(const std::string& file) {
    if (file == "-")
        return linesOf(std::cin, "standard input");
    std::ifstream in(file);
    if (!in)
        throw std::runtime_error(file + ": can't be opened");
    in.peek(); // of a folder, only reading says that it is none
    return linesOf(in, file);
}

// The agent's refusal of a line, with the place in front.
std::string refusalAt(const std::string& file, const AgentError& error) {
    const std::string name = file == "-" ? "standard input" : file;
    std::string text = error.what();
    const std::optional<Message> data = error.object().find("data");
    const std::optional<std::int64_t> number = data ? data->findNumber("line") : std::nullopt;
    if (!number)
        return name + ": " + text;
    const std::string said = "line " + std::to_string(*number) + ": ";
    if (text.starts_with(said))
        text.erase(0, said.size());
    return name + ":" + std::to_string(*number) + ": " + text;
}

void tellFlag(Text::Writer& params, const char* name, bool isSet) {
    if (isSet)
        params.member(name, true);
}

// The answer to a line, or to that which asks for its first page.
Message ask(Client& client, Pages& pages, bool isRaw, const Output& output) {
    for (;;) {
        try {
            return client.call("command", [&](Text::Writer& params) {
                params.member("line", Text::joinWords(pages.words()));
                tellFlag(params, "raw", isRaw);
                tellFlag(params, "text", !output.isJson);
            });
        } catch (const AgentError& refusal) {
            if (!pages.beginAfter(refusal))
                throw;
        }
    }
}

} // namespace

int runLine(Client& client, const LineCommand& command, const Output& output) {
    Pages pages(command.words);
    for (;;) {
        const Message answer = ask(client, pages, command.isRaw, output);
        const bool hasMore = pages.goOn(answer);
        output.out << (output.isJson ? answer.at("result").json() + "\n"
                                     : pages.textAmongOthers(answer.text("text")));
        if (!hasMore)
            return exitDone;
    }
}

int runApply(Client& client, const ApplyCommand& command, const Output& output) {
    const std::vector<std::string> lines = linesOf(command.file);
    const auto apply = [&] {
        try {
            return client.call("apply", [&](Text::Writer& params) {
                params.field("lines");
                params.beginList();
                for (const std::string& line : lines)
                    params.value(line);
                params.end();
                tellFlag(params, "dryRun", command.isDryRun);
                tellFlag(params, "raw", command.isRaw);
                tellFlag(params, "text", !output.isJson);
            });
        } catch (const AgentError& error) {
            if (output.isJson)
                throw;
            throw std::runtime_error(refusalAt(command.file, error));
        }
    };
    const Message result = apply();
    if (output.isJson) {
        output.out << result.json() << '\n';
        return result.find("assertion") ? exitFailed : exitDone;
    }
    for (const Message& answer : result.list("answers"))
        output.out << answer.text("text") << '\n';
    if (!result.find("assertion"))
        return exitDone;
    output.err << "kestrelctl: this would end the agent: " << result.text("assertion") << '\n';
    return exitFailed;
}

} // namespace Ctl
