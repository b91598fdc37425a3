#include "ctl/Commands.h"

#include "ctl/Client.h"
#include "ctl/CommandLine.h"
#include "ctl/Print.h"
#include "ctl/Words.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <fstream>
#include <iostream>
#include <iterator>
#include <stdexcept>

namespace Ctl {

namespace {

/// The lines of a file, checked to be UTF-8.
std::vector<std::string> linesOf(std::istream& in, const std::string& name) {
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) {
        try {
            static_cast<void>(Json(line).dump());
        } catch (const Json::exception&) {
            throw std::runtime_error(name + ":" + std::to_string(lines.size() + 1) + ": not UTF-8");
        }
        lines.push_back(std::move(line));
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

/// The agent's refusal of a line, with the place in front.
std::string refusalAt(const std::string& file, const AgentError& error) {
    const std::string name = file == "-" ? "standard input" : file;
    const auto data = error.object().find("data");
    if (data == error.object().end() || !data->is_object() || !data->contains("line"))
        return name + ": " + error.what();
    const std::string line = plain(data->at("line"));
    const std::string said = "line " + line + ": ";
    std::string text = error.what();
    if (text.starts_with(said))
        text.erase(0, said.size());
    return name + ":" + line + ": " + text;
}

void printLevels(std::ostream& out, const Json& levels) {
    std::size_t width = 0;
    for (const Json& level : levels)
        width = std::max(width, plain(level.at("facility")).size());
    for (const Json& level : levels) {
        std::string facility = plain(level.at("facility"));
        facility.resize(width, ' ');
        out << facility << "  " << plain(level.at("level")) << '\n';
    }
}

void printRecords(std::ostream& out, const Json& records) {
    for (const Json& record : records) {
        const auto text = [&record](const char* name) { return plain(record.at(name)); };
        out << text("n") << ' ' << text("facility") << ' ' << text("level") << ' ' << text("file") << ':'
            << text("line") << ' ' << text("message") << '\n';
    }
}

/// Prints a result as it came, or readably.
template <class PrintText>
int print(const Output& output, const Json& result, PrintText printText) {
    if (output.json)
        output.out << result.dump() << '\n';
    else
        printText();
    return exitDone;
}

} // namespace

int runLine(Client& client, const LineCommand& command, const Output& output) {
    Json params{{"line", joinWords(command.words)}};
    if (command.raw)
        params["raw"] = true;
    if (!output.json)
        params["text"] = true;
    const Json answer = client.call("command", params);
    return print(output, answer.at("result"), [&] {
        const std::string text = answer.at("text");
        output.out << text;
        if (!text.empty() && text.back() != '\n')
            output.out << '\n';
    });
}

int runGet(Client& client, const GetCommand& command, const Output& output) {
    Json params{{"path", command.path}};
    if (!command.attribute.empty())
        params["attribute"] = command.attribute;
    if (!command.key.empty())
        params["key"] = valueOf(command.key);
    if (command.limit != 0)
        params["limit"] = command.limit;
    if (!command.after.empty())
        params["after"] = valueOf(command.after);
    const Json value = client.call("get", params);
    return print(output, value, [&] { printValue(output.out, value); });
}

int runApply(Client& client, const ApplyCommand& command, const Output& output) {
    Json params{{"lines", linesOf(command.file)}};
    if (command.dryRun)
        params["dryRun"] = true;
    if (command.raw)
        params["raw"] = true;
    Json result;
    try {
        result = client.call("apply", params);
    } catch (const AgentError& error) {
        if (output.json)
            throw;
        throw std::runtime_error(refusalAt(command.file, error));
    }
    const auto assertion = result.find("assertion");
    if (output.json) {
        output.out << result.dump() << '\n';
    } else {
        for (const Json& answer : result.value("answers", Json::array()))
            output.out << changeText(answer) << '\n';
        if (assertion != result.end())
            output.err << "kestrelctl: this would end the agent: " << plain(*assertion) << '\n';
    }
    return assertion == result.end() ? exitDone : exitFailed;
}

int runTrace(Client& client, const TraceCommand& command, const Output& output) {
    Json params = Json::object();
    if (command.last != 0) {
        params["last"] = command.last;
    } else if (!command.facility.empty()) {
        params["facility"] = command.facility;
        params["level"] = command.level;
    }
    const Json result = client.call("trace", params);
    return print(output, result, [&] {
        if (command.last != 0)
            printRecords(output.out, result.at("records"));
        else
            printLevels(output.out, result.at("levels"));
    });
}

int runSchema(Client& client, const std::string& type, const Output& output) {
    const Json result = client.call("schema", type.empty() ? Json::object() : Json{{"type", type}});
    return print(output, result, [&] { printOutline(output.out, result); });
}

int runStatus(Client& client, const Output& output) {
    const Json result = client.call("status", Json::object());
    return print(output, result, [&] { printOutline(output.out, result); });
}

int runKernel(Client& client, bool verify, const Output& output) {
    const Json result = client.call("kernel", verify ? Json{{"verify", true}} : Json::object());
    return print(output, result, [&] { printOutline(output.out, result); });
}

} // namespace Ctl
