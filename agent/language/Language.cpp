#include "agent/language/Language.h"

#include "agent/host/Refusal.h"
#include "agent/language/AnswerText.h"
#include "agent/language/Queries.h"
#include "agent/language/Show.h"
#include "agent/language/StateCommands.h"
#include "text/Nearest.h"
#include "text/TextWriter.h"
#include "text/Verbs.h"
#include "text/Words.h"

#include <algorithm>
#include <fstream>
#include <iostream>
#include <memory>
#include <stdexcept>

namespace Agent {

namespace {

std::vector<std::string> linesOf(const std::string& file) {
    std::ifstream in(file);
    if (!in)
        throw std::runtime_error(file + ": cannot be read");
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    if (in.bad()) // a folder
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

// Replies with what is written to the writer.
Action told(Text::Tell tell) {
    return [tell = std::move(tell)](const Text::Reply& reply) { reply(tell); };
}

void writeResult(const Operations& operations, const ApplyResult& result, Text::Writer& writer) {
    if (writer.isForPeople()) {
        writeAnswers(writer, operations, result.answers, true);
        return;
    }
    writer.beginRecord();
    writer.member("changed", result.changed);
    writer.field("answers");
    writeAnswers(writer, operations, result.answers, true);
    writer.end();
}

[[noreturn]] void refuseVerb(const std::string& word) {
    std::vector<std::string_view> names;
    for (const Text::VerbHelp& verb : Text::verbs())
        names.push_back(verb.name);
    std::string known;
    for (const std::string_view name : names)
        known += (known.empty() ? "" : ", ") + std::string(name);
    throw Refusal("expected a command (" + known + "), not '" + word + "'" + Text::suggestion(word, names),
                  {.word = 1});
}

} // namespace

void LineChanges::place(Refusal& refusal) const {
    if (const auto index = refusal.where().index) {
        refusal.where().line = lines.at(*index);
        refusal.where().index.reset();
    }
}

Language::Language(Operations& operations, std::function<void()> settle)
    : operations_(operations)
    , expectations_(operations, std::move(settle)) {
    addVerb({"expect", [this](WordReader& words, const StateCommands& names) {
                 return expectations_.read(words, names);
             }});
    addVerb({"mark", [this](WordReader&, const StateCommands&) { return mark(); }});
    addVerb({"show", [this](WordReader& words, const StateCommands&) { return readShow(words); }});
    addVerb({"get", [this](WordReader& words, const StateCommands&) { return readGet(words); }});
    addVerb({"trace", [](WordReader& words, const StateCommands&) { return readTrace(words); }});
    for (const std::string_view name : shownNames())
        addShown(std::string(name), [this, name](Text::Writer& writer) { show(operations_, name, writer); });
}

void Language::addVerb(Verb verb) {
    verbs_.push_back(std::move(verb));
}

void Language::addShown(std::string name, Text::Tell tell) {
    shown_.emplace_back(std::move(name), std::move(tell));
}

Action Language::mark() {
    return [this](const Text::Reply& reply) {
        const std::uint64_t next = expectations_.mark();
        reply([next](Text::Writer& writer) {
            if (writer.isForPeople())
                return;
            writer.beginRecord();
            writer.member("marked", next);
            writer.end();
        });
    };
}

const Text::Tell& Language::shown(const std::string& name) const {
    std::vector<std::string_view> names;
    for (const auto& [known, tell] : shown_) {
        if (known == name)
            return tell;
        names.push_back(known);
    }
    throw Refusal("there is nothing called \"" + name + "\" to show" + Text::suggestion(name, names),
                  {.field = "what"});
}

Action Language::readShow(WordReader& words) {
    std::vector<std::string_view> names;
    for (const auto& [name, tell] : shown_)
        names.push_back(name);
    return told(shown_[words.oneOf("what to show", names)].second);
}

Action Language::readGet(WordReader& words) {
    // At each word, so that a refusal names the one that is wrong.
    GetQuery query{.path = words.word("a path")};
    const auto check = [&] { checkQuery(operations_, query); };
    words.checkLast(check);
    if (!words.atEnd()) {
        query.attribute = words.word("an attribute");
        words.checkLast(check);
    }
    while (!words.atEnd()) {
        if (words.accept("limit"))
            query.limit = words.number("how many members", GetQuery::pageLimit);
        else if (words.accept("after"))
            query.after = datumOfWord(words.word("the key of a member"));
        else if (!query.key)
            query.key = datumOfWord(words.word("a key"));
        else
            words.expectEnd();
        words.checkLast(check);
    }
    return told([this, query](Text::Writer& writer) { get(operations_, query, writer); });
}

Action Language::readTrace(WordReader& words) {
    TraceQuery query;
    if (words.accept("last")) {
        query.last = words.number("how many records", 1'000'000);
    } else if (!words.atEnd()) {
        query.facility = words.word("a facility");
        words.checkLast([&] { checkQuery(query); });
        query.level = words.number("a level", TraceQuery::maxLevel);
    }
    return [query](const Text::Reply& reply) { trace(query, reply); };
}

// Reads a line that is no state command.
Action Language::readOther(const std::vector<std::string>& given, const StateCommands& names) {
    WordReader words(given);
    const std::string name = words.word("a command");
    const auto verb = std::ranges::find(verbs_, name, &Verb::name);
    if (verb == verbs_.end())
        refuseVerb(name);
    Action action = verb->read(words, names);
    words.expectEnd();
    return action;
}

void Language::run(std::string_view line, bool raw, const Text::Reply& reply) {
    const auto words = wordsOf(line);
    if (words.empty())
        throw Refusal("the line holds no command");
    StateCommands commands(operations_);
    std::vector<Change> changes;
    if (!commands.compile(words, raw, changes)) {
        readOther(words, commands)(reply);
        return;
    }
    const ApplyResult result = operations_.apply(changes);
    reply([&](Text::Writer& writer) { writeResult(operations_, result, writer); });
}

LineChanges Language::changes(std::span<const std::string> lines, bool raw) {
    StateCommands commands(operations_);
    return read(commands, lines, raw, [](const std::vector<std::string>& words) {
        throw Refusal("'" + words.front() + "' describes no state");
    });
}

// Reads lines into changes; those that are no state commands go to `other`.
LineChanges Language::read(StateCommands& commands, std::span<const std::string> lines, bool raw,
                           const std::function<void(const std::vector<std::string>&)>& other) {
    LineChanges made;
    for (std::size_t at = 0; at < lines.size(); ++at) {
        try {
            const auto words = wordsOf(lines[at]);
            if (!words.empty() && !commands.compile(words, raw, made.changes))
                other(words);
        } catch (Refusal& refusal) {
            refusal.where().line = at + 1;
            throw;
        }
        made.lines.resize(made.changes.size(), at + 1);
    }
    return made;
}

// Has something done to the changes of a file; a refusal names the file and the line.
void Language::withChanges(const std::string& file, const std::function<LineChanges()>& read,
                           const std::function<void(std::span<const Change>)>& use) {
    LineChanges made;
    try {
        made = read();
        use(made.changes);
    } catch (Refusal& refusal) {
        made.place(refusal);
        throw std::runtime_error(place(file, refusal.where().line.value_or(1)) + refusal.what());
    }
}

void Language::preload(const std::string& file) {
    const auto lines = linesOf(file);
    withChanges(
        file, [&] { return changes(lines, false); },
        [this](std::span<const Change> changes) { operations_.apply(changes); });
}

void Language::check(const std::string& file, std::span<const GivenVrf> vrfs) {
    const auto lines = linesOf(file);
    StateCommands commands(operations_);
    for (const GivenVrf& vrf : vrfs)
        commands.know(vrf.name, vrf.id);
    withChanges(
        file,
        [&] {
            return read(commands, lines, false,
                        [&](const std::vector<std::string>& words) { readOther(words, commands); });
        },
        [this](std::span<const Change> changes) { operations_.check(changes); });
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
    for (std::size_t begin = 0; begin < text->size();) {
        const std::size_t end = text->find('\n', begin);
        out << "    " << text->substr(begin, end - begin) << '\n';
        begin = end + 1;
    }
}

} // namespace Agent
