#include "ctl/CommandLine.h"

#include "ctl/Client.h"
#include "ctl/Watch.h"
#include "text/Nearest.h"
#include "text/SocketPath.h"
#include "text/Verbs.h"

#include <CLI/CLI.hpp>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <functional>
#include <ostream>
#include <utility>

namespace Ctl {

namespace {

constexpr const char* rawHelp = "Change it even where the agent's guards refuse to";

// What the command line says. The options' targets live here while CLI11 reads them.
struct CommandLine {
    std::string socket;
    bool isJson = false;
    bool isRaw = false;
    std::vector<std::string> words;       // of a line of the grammar
    std::vector<std::string> optionWords; // that options put behind them
    std::string since;
    ApplyCommand apply;
    std::function<int(Client&, const Output&)> action;
};

CLI::ValidationError usageError(const std::string& what) {
    return CLI::ValidationError(what, CLI::ExitCodes::ValidationError);
}

bool isLine(const std::string& command) {
    return command == "wait" || Text::verb(command) != nullptr;
}

// The command's place in the arguments; their end when there is none.
std::size_t commandAt(const std::vector<std::string>& arguments) {
    std::size_t at = 0;
    while (at < arguments.size() && arguments[at].starts_with("-"))
        at += arguments[at] == "--socket" ? 2 : 1;
    return std::min(at, arguments.size());
}

// Takes the words of a line of the grammar out of the arguments, so that no option or list is read into
// them. Behind the command what begins with "--" is an option, up to a lone "--".
std::vector<std::string> takeWords(std::vector<std::string>& arguments) {
    const std::size_t command = commandAt(arguments);
    if (command == arguments.size() || !isLine(arguments[command]))
        return {};
    const auto first = arguments.begin() + static_cast<std::ptrdiff_t>(command) + 1;
    std::vector<std::string> others(arguments.begin(), first);
    std::vector<std::string> words;
    for (auto argument = first; argument != arguments.end(); ++argument) {
        if (*argument == "--") {
            words.insert(words.end(), argument + 1, arguments.end());
            break;
        }
        const bool isOption = argument->starts_with("--") || *argument == "-h";
        (isOption ? others : words).push_back(*argument);
        const bool takesValue = *argument == "--socket" || *argument == "--limit" || *argument == "--after" ||
                                *argument == "--last";
        if (takesValue && argument + 1 != arguments.end())
            others.push_back(*++argument);
    }
    arguments = std::move(others);
    return words;
}

// The help of a line: its forms are its usage.
class LineFormatter : public CLI::Formatter {
  public:
    explicit LineFormatter(std::string forms)
        : forms_(std::move(forms)) {}
    std::string make_usage(const CLI::App* /*app*/, std::string /*name*/) const override {
        return "Usage:\n" + forms_;
    }

  private:
    std::string forms_;
};

// Whether every form of the line has words behind the verb that can't be left out.
bool needsWords(const Text::VerbHelp& verb) {
    const std::string alone = "  " + std::string(verb.name);
    return verb.forms.find(alone + "\n") == std::string_view::npos &&
           verb.forms.find(alone + " [") == std::string_view::npos;
}

// An option that stands for words at the line's end.
CLI::Option* addWordOption(CLI::App& command, CommandLine& line, const std::string& word,
                           const std::string& help) {
    const auto add = [&line, word](const std::string& value) {
        line.optionWords.insert(line.optionWords.end(), {word, value});
    };
    return command.add_option_function<std::string>("--" + word, add, help);
}

void addLine(CLI::App& app, CommandLine& line, const Text::VerbHelp& verb) {
    CLI::App& command = *app.add_subcommand(std::string(verb.name), std::string(verb.summary));
    command.formatter(std::make_shared<LineFormatter>(std::string(verb.forms)));
    command.footer(std::string(verb.notes));
    const CLI::Range some(std::uint64_t{1}, std::uint64_t{1'000'000});
    if (verb.changes)
        command.add_flag("--raw", line.isRaw, rawHelp);
    if (verb.name == "get") {
        addWordOption(command, line, "limit", "A page of at most so many members")
            ->type_name("N")
            ->check(some);
        addWordOption(command, line, "after", "Members behind this one: JSON, or a word")->type_name("KEY");
    } else if (verb.name == "show") {
        addWordOption(command, line, "limit", "A page of at most so many rows")->type_name("N")->check(some);
        addWordOption(command, line, "after", "Rows behind an earlier page")->type_name("CURSOR");
    } else if (verb.name == "trace") {
        addWordOption(command, line, "last", "The ring's last so many records")->type_name("N")->check(some);
    }
    command.callback([&line, &verb] {
        if (needsWords(verb) && line.words.empty())
            throw usageError(std::string(verb.name) + " takes more words:\n" + std::string(verb.forms));
        LineCommand run{.words = {std::string(verb.name)}, .isRaw = line.isRaw};
        for (const auto* words : {&line.words, &line.optionWords})
            run.words.insert(run.words.end(), words->begin(), words->end());
        line.action = [run](Client& client, const Output& output) { return runLine(client, run, output); };
    });
}

// The forms of `expect` that name an answer, for `wait`.
std::string waitForms() {
    const std::string_view forms = Text::verb("expect")->forms;
    std::string answers;
    for (std::size_t begin = 0; begin < forms.size();) {
        const std::size_t end = forms.find('\n', begin) + 1;
        std::string form(forms.substr(begin, end - begin));
        if (form.find(" trace ") == std::string::npos)
            answers += form.replace(form.find("expect"), 6, "wait");
        begin = end;
    }
    return answers;
}

WaitCommand waitOf(std::vector<std::string> words) {
    WaitCommand wait;
    if (words.size() >= 2 && words[words.size() - 2] == "timeout") {
        const auto timeout = durationOf(words.back());
        if (!timeout)
            throw usageError("timeout takes a time such as 500ms, 2s or 1m, not '" + words.back() + "'");
        wait.timeout = *timeout;
        words.resize(words.size() - 2);
    }
    const bool isAnswer = !words.empty() && (words[0] == "mroute" || words[0] == "mgroup");
    if (!isAnswer || std::find(words.begin(), words.end(), "=") == words.end())
        throw usageError("wait takes an answer and what it should be:\n" + waitForms());
    wait.words = std::move(words);
    return wait;
}

void addWait(CLI::App& app, CommandLine& line) {
    CLI::App* command = app.add_subcommand("wait", "Wait until an answer is what it should be");
    command->formatter(std::make_shared<LineFormatter>(waitForms()));
    command->footer("Behind it may stand timeout TIME, such as 500ms, 2s (5s unless told) or 1m.\n"
                    "Ends with status 3 and says both sides when the time runs out.");
    command->callback([&line] {
        line.action = [wait = waitOf(line.words)](Client& client, const Output& output) {
            return runWait(client, wait, output);
        };
    });
}

WatchCommand watchOf(const std::string& since) {
    WatchCommand watch;
    if (since.empty())
        return watch;
    const std::size_t colon = since.rfind(':');
    const char* end = since.data() + since.size();
    const char* number = colon == std::string::npos ? end : since.data() + colon + 1;
    const auto read = std::from_chars(number, end, watch.seq);
    if (colon == 0 || read.ec != std::errc() || read.ptr != end)
        throw usageError("--since takes INSTANCE:SEQ as watch told it, not '" + since + "'");
    watch.instance = since.substr(0, colon);
    return watch;
}

void addWatch(CLI::App& app, CommandLine& line) {
    CLI::App* command = app.add_subcommand("watch", "Print the answers, then a line a change");
    command->add_option("--since", line.since, "Print what changed since then instead of all answers")
        ->type_name("INSTANCE:SEQ");
    command->footer("Runs until it is interrupted or the agent goes, and says then how to go on from there.");
    command->callback([&line] {
        line.action = [watch = watchOf(line.since)](Client& client, const Output& output) {
            return runWatch(client, watch, output);
        };
    });
}

void addApply(CLI::App& app, CommandLine& line) {
    CLI::App* command = app.add_subcommand("apply", "Apply a file of state commands: all of it, or nothing");
    command->add_option("FILE", line.apply.file, "The file; - is standard input")->required();
    command->add_flag("--dry-run", line.apply.isDryRun, "Say which answers would change, and change nothing");
    command->add_flag("--raw", line.apply.isRaw, rawHelp);
    command->footer("The file holds vrf, route, request, group, egress, set, del and no, one a line.\n"
                    "Prints the answers that changed.");
    command->callback([&line] {
        line.action = [&line](Client& client, const Output& output) {
            return runApply(client, line.apply, output);
        };
    });
}

void addCommands(CLI::App& app, CommandLine& line) {
    app.require_subcommand(1);
    app.get_formatter()->label("SUBCOMMAND", "COMMAND");
    app.get_formatter()->label("Subcommands", "Commands");
    app.fallthrough();
    app.set_help_flag("-h,--help", "Print this help and exit");
    app.set_version_flag("--version", "kestrelctl " KESTREL_VERSION, "Print the version and exit");
    app.add_option("--socket", line.socket,
                   "The agent's control socket (/run/kestrel-nat.sock as root, else "
                   "$XDG_RUNTIME_DIR/kestrel-nat.sock)")
        ->type_name("PATH");
    app.add_flag("--json", line.isJson, "Print the result object as it came");
    for (const Text::VerbHelp& verb : Text::verbs())
        addLine(app, line, verb);
    addWatch(app, line);
    addWait(app, line);
    addApply(app, line);
    app.footer(
        "kestrelctl COMMAND --help tells more. Exit status: 0 done, 1 failed, 2 usage, 3 a wait ran out.");
}

// "there is no KIND 'WORD'", and which was meant or whose help lists them.
std::string unknown(const std::string& kind, const std::string& word, const std::vector<std::string>& known,
                    const std::string& program) {
    const std::string meant =
        Text::suggestion(word, std::vector<std::string_view>(known.begin(), known.end()));
    return "there is no " + kind + " '" + word + "'" +
           (meant.empty() ? "; " + program + " --help lists them" : meant) + '\n';
}

std::vector<std::string> commandsOf(const CLI::App& app) {
    std::vector<std::string> names;
    for (const CLI::App* command : app.get_subcommands([](const CLI::App*) { return true; }))
        names.push_back(command->get_name());
    return names;
}

std::vector<std::string> optionsOf(const CLI::App& app, const CLI::App& command) {
    std::vector<std::string> names;
    for (const CLI::App* each : {&command, &app})
        for (const CLI::Option* option : each->get_options([](const CLI::Option*) { return true; }))
            if (!option->get_lnames().empty())
                names.push_back("--" + option->get_lnames().front());
    return names;
}

// What is wrong with the usage, told in full.
std::string usageText(const CLI::App& app, const CLI::ParseError& error) {
    const auto commands = app.get_subcommands();
    if (commands.empty() && error.get_name() == "RequiredError")
        return "no command is given\nkestrelctl --help tells more\n";
    const CLI::App& command = commands.empty() ? app : *commands.front();
    const std::string program = commands.empty() ? "kestrelctl" : "kestrelctl " + command.get_name();
    if (error.get_exit_code() == static_cast<int>(CLI::ExitCodes::ExtrasError))
        for (const std::string& argument : app.remaining(true))
            if (argument.starts_with("-"))
                return unknown("option", argument.substr(0, argument.find('=')), optionsOf(app, command),
                               program);
    return error.what() + ("\n" + program) + " --help tells more\n";
}

// Returns the exit status if that was all: help, the version or a fault.
std::optional<int> read(CommandLine& line, std::vector<std::string> arguments, std::ostream& out,
                        std::ostream& err) {
    CLI::App app("Speaks to kestrel-agent: asks which interfaces and hardware groups multicast flows use.",
                 "kestrelctl");
    addCommands(app, line);
    const std::vector<std::string> commands = commandsOf(app);
    const std::size_t command = commandAt(arguments);
    if (command < arguments.size() &&
        std::find(commands.begin(), commands.end(), arguments[command]) == commands.end()) {
        err << "kestrelctl: " << unknown("command", arguments[command], commands, "kestrelctl");
        return exitUsage;
    }
    line.words = takeWords(arguments);
    std::reverse(arguments.begin(), arguments.end()); // CLI11 takes them from the back
    try {
        app.parse(arguments);
        for (const auto* words : {&line.words, &line.optionWords})
            if (!std::all_of(words->begin(), words->end(), isUtf8))
                throw usageError("a word is not UTF-8");
        return std::nullopt;
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success)) {
            app.exit(error, out, err);
            return exitDone;
        }
        err << "kestrelctl: " << usageText(app, error);
        return exitUsage;
    }
}

} // namespace

int run(const std::vector<std::string>& arguments, std::ostream& out, std::ostream& err) {
    CommandLine line;
    if (const std::optional<int> status = read(line, arguments, out, err))
        return *status;
    try {
        Client client(line.socket.empty() ? Text::defaultSocketPath(::geteuid() == 0) : line.socket);
        const int status = line.action(client, {.out = out, .err = err, .isJson = line.isJson});
        out.flush();
        if (out)
            return status;
        err << "kestrelctl: the result can't be written\n";
    } catch (const AgentError& error) {
        err << (line.isJson ? error.object().json() : std::string("kestrelctl: ") + error.what()) << '\n';
        return error.isUsage() ? exitUsage : exitFailed;
    } catch (const std::exception& error) {
        err << "kestrelctl: " << error.what() << '\n';
    }
    return exitFailed;
}

} // namespace Ctl
