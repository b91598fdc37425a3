#include "agent/language/Language.h"

#include "agent/language/AnswerText.h"
#include "agent/language/Queries.h"
#include "text/ByteOrderMark.h"
#include "text/Nearest.h"
#include "text/TextWriter.h"
#include "text/Verbs.h"
#include "text/Words.h"

#include <algorithm>
#include <fstream>
#include <iostream>
#include <memory>
#include <sstream>
#include <stdexcept>

namespace Agent {

namespace {

std::vector<std::string> linesOf(const std::string& file) {
    std::ifstream in(file);
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);)
        lines.emplace_back(lines.empty() ? Text::withoutMark(line) : line);
    if (!in.eof()) // it is not there, or a folder
        throw std::runtime_error(file + ": cannot be read");
    return lines;
}

std::string place(const std::string& file, std::size_t line) {
    return file + ":" + std::to_string(line) + ": ";
}

std::vector<std::string> wordsOf(std::string_view line) {
    try {
        return Text::splitWords(line);
    } catch (const std::invalid_argument& error) {
        throw Refusal(error.what());
    }
}

// Has something done with the lines of a file; a refusal names the file and the line.
template <class Use>
void withLines(const std::string& file, Use use) {
    const auto lines = linesOf(file);
    try {
        use(lines);
    } catch (const Refusal& refusal) {
        throw std::runtime_error(place(file, refusal.where().line.value_or(1)) + refusal.what());
    }
}

} // namespace

Language::Language(Operations& operations, std::function<void()> settle)
    : operations_(operations)
    , expectations_(operations, std::move(settle))
    , shown_(shownTables(operations)) {
    using Names = const StateCommands&;
    addVerb({"expect", [this](WordReader& words, Names names) { return expectations_.read(words, names); }});
    addVerb({"mark", [this](WordReader&, Names) { return expectations_.mark(); }});
    addVerb({"show", [this](WordReader& words, Names) { return readShow(words); }});
    addVerb({"get", [this](WordReader& words, Names) { return readGet(operations_, words); }});
    addVerb({"trace", [](WordReader& words, Names) { return readTrace(words); }});
}

void Language::addVerb(Verb verb) {
    verbs_.push_back(std::move(verb));
}

void Language::addShown(std::string name, Text::Tell tell) {
    shown_.push_back({std::move(name), [tell = std::move(tell)](const ShowQuery&) { return tell; }, false});
}

Text::Tell Language::shown(const ShowQuery& query) const {
    const auto found = std::ranges::find(shown_, query.what, &Shown::name);
    if (found == shown_.end())
        throw Refusal("there is nothing called \"" + query.what + "\" to show" +
                          Text::suggestion(query.what, Text::namesOf(shown_, &Shown::name)),
                      {.field = "what"});
    checkPage(*found, query);
    return found->page(query);
}

Action Language::readShow(WordReader& words) {
    const Shown& shown = shown_[words.oneOf("what to show", Text::namesOf(shown_, &Shown::name))];
    ShowQuery query{.what = shown.name};
    if (words.accept("limit")) {
        query.limit = words.number("how many rows", ShowQuery::pageRows);
        words.checkLast([&] { checkPage(shown, query); });
    }
    if (words.accept("after")) {
        query.after = words.word("a cursor");
        words.checkLast([&] { checkPage(shown, query); });
    }
    return [this, query](const Text::Reply& reply) { reply(this->shown(query)); };
}

// Reads a line that is no state command.
Action Language::readOther(const std::vector<std::string>& given, const StateCommands& names) {
    WordReader words(given);
    const std::string name = words.word("a command");
    const auto verb = std::ranges::find(verbs_, name, &Verb::name);
    if (verb == verbs_.end()) {
        const auto known = Text::namesOf(Text::verbs(), &Text::VerbHelp::name);
        throw Refusal("expected a command (" + Text::joined(known, ", ") + "), not '" + name + "'" +
                          Text::suggestion(name, known),
                      {.word = 1});
    }
    Action action = verb->read(words, names);
    words.expectEnd();
    return action;
}

void Language::run(std::string_view line, bool raw, const Text::Reply& reply) {
    const auto words = wordsOf(line);
    if (words.empty())
        throw Refusal("the line holds no command");
    StateCommands commands(operations_, raw);
    if (!commands.compile(words)) {
        readOther(words, commands)(reply);
        return;
    }
    const ApplyResult result = operations_.apply(commands.changes());
    reply([&](Text::Writer& writer) { writeApplied(writer, operations_, result, true); });
}

// Reads lines; those that are no state commands are refused, or read and carried out no further.
void Language::readLines(std::span<const std::string> lines, StateCommands& commands, bool onlyState) {
    for (std::size_t at = 0; at < lines.size(); ++at) {
        try {
            const auto words = wordsOf(lines[at]);
            if (words.empty() || commands.compile(words, at + 1))
                continue;
            if (onlyState)
                throw Refusal("'" + words.front() + "' describes no state");
            readOther(words, commands);
        } catch (Refusal& refusal) {
            refusal.where().line = at + 1;
            throw;
        }
    }
}

std::vector<Change> Language::changes(std::span<const std::string> lines, bool raw) {
    StateCommands commands(operations_, raw);
    readLines(lines, commands, true);
    return commands.changes();
}

void Language::preload(const std::string& file) {
    withLines(file, [this](const auto& lines) { operations_.apply(changes(lines, false)); });
}

void Language::check(const std::string& file, VrfIds vrfs) {
    StateCommands commands(operations_, false, std::move(vrfs));
    withLines(file, [&](const auto& lines) {
        readLines(lines, commands, false);
        operations_.check(commands.changes());
    });
}

bool Language::play(const std::string& file, std::ostream& out) {
    bool held = true;
    std::size_t number = 0;
    for (const std::string& line : linesOf(file)) {
        ++number;
        out << line << '\n';
        try {
            playLine(line, out);
        } catch (const std::exception& error) {
            out.flush();
            std::cerr << place(file, number) << error.what() << '\n';
            held = false;
        }
    }
    out.flush();
    return held;
}

// Carries a line out and prints its result, indented.
void Language::playLine(const std::string& line, std::ostream& out) {
    if (wordsOf(line).empty())
        return;
    const auto text = std::make_shared<std::string>();
    const auto isDone = std::make_shared<bool>(false);
    run(line, false, [text, isDone](const Text::Tell& tell) {
        Text::TextWriter writer(*text);
        tell(writer);
        *isDone = true;
    });
    if (!*isDone)
        throw Refusal("its result comes later: it can't be played");
    std::istringstream result(*text);
    for (std::string told; std::getline(result, told);)
        out << "    " << told << '\n';
}

} // namespace Agent
