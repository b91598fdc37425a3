#include "ctl/CommandLine.h"

#include "ctl/Client.h"
#include "ctl/Commands.h"
#include "ctl/LineHelp.h"
#include "ctl/Watch.h"
#include "ctl/Words.h"

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <charconv>
#include <functional>
#include <ostream>
#include <utility>

namespace Ctl {

namespace {

constexpr const char* rawHelp = "Change it even where the agent's guards refuse to";

/// What the command line says. The options' targets live here while CLI11 reads them.
struct CommandLine {
    std::string socket;
    bool json = false;
    bool raw = false;
    std::vector<std::string> words; // of a line of the grammar
    std::string since;
    GetCommand get;
    ApplyCommand apply;
    TraceCommand trace;
    std::string type;
    std::string verify;
    std::function<int(Client&, const Output&)> action;
};

CLI::ValidationError usageError(const std::string& what) {
    return CLI::ValidationError(what, CLI::ExitCodes::ValidationError);
}

bool isLine(const std::string& command) {
    const auto lines = lineCommands();
    return command == "wait" || std::any_of(lines.begin(), lines.end(), [&command](const LineHelp& line) {
               return line.takesMore && line.name == command;
           });
}

/// The command's place in the arguments; their end when there is none.
std::size_t commandAt(const std::vector<std::string>& arguments) {
    std::size_t at = 0;
    while (at < arguments.size() && arguments[at].starts_with("-"))
        at += arguments[at] == "--socket" ? 2 : 1;
    return std::min(at, arguments.size());
}

/// Takes the words of a line of the grammar out of the arguments, so that no option or list is read into
/// them. Behind the command what begins with "--" is an option, up to a lone "--".
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
        if (*argument == "--socket" && argument + 1 != arguments.end())
            others.push_back(*++argument);
    }
    arguments = std::move(others);
    return words;
}

/// The help of a line: its forms are its usage.
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

void addLine(CLI::App& app, CommandLine& line, const LineHelp& help) {
    CLI::App* command = app.add_subcommand(help.name, help.summary);
    command->formatter(std::make_shared<LineFormatter>(help.forms));
    command->footer(help.notes);
    if (help.changes)
        command->add_flag("--raw", line.raw, rawHelp);
    command->callback([&line, help] {
        if (help.takesMore && line.words.empty())
            throw usageError(help.name + " takes more words:\n" + help.forms);
        LineCommand run{.words = help.words, .raw = line.raw};
        run.words.insert(run.words.end(), line.words.begin(), line.words.end());
        line.action = [run](Client& client, const Output& output) { return runLine(client, run, output); };
    });
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
        throw usageError("wait takes an answer and what it should be:\n" + answerForms("wait"));
    wait.words = std::move(words);
    return wait;
}

void addWait(CLI::App& app, CommandLine& line) {
    CLI::App* command = app.add_subcommand("wait", "Wait until an answer is what it should be");
    command->formatter(std::make_shared<LineFormatter>(answerForms("wait")));
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

void addGet(CLI::App& app, CommandLine& line) {
    CLI::App* command = app.add_subcommand("get", "Read a value or a collection");
    GetCommand& get = line.get;
    command->add_option("PATH", get.path, "Where")->required();
    command->add_option("ATTRIBUTE", get.attribute, "Which; without it, all of them");
    command->add_option("KEY", get.key, "The member of a collection: JSON, or a word");
    command->add_option("--limit", get.limit, "At most so many members")
        ->check(CLI::Range(std::uint64_t{1}, std::uint64_t{1'000'000}));
    command->add_option("--after", get.after, "Members behind this one: JSON, or a word")->type_name("KEY");
    command->callback([&line] {
        line.action = [&line](Client& client, const Output& output) {
            return runGet(client, line.get, output);
        };
    });
}

void addApply(CLI::App& app, CommandLine& line) {
    CLI::App* command = app.add_subcommand("apply", "Apply a file of state commands: all of it, or nothing");
    command->add_option("FILE", line.apply.file, "The file; - is standard input")->required();
    command->add_flag("--dry-run", line.apply.dryRun, "Say which answers would change, and change nothing");
    command->add_flag("--raw", line.apply.raw, rawHelp);
    command->footer("The file holds vrf, route, request, group, egress, set, del and no, one a line.\n"
                    "Prints the answers that changed.");
    command->callback([&line] {
        line.action = [&line](Client& client, const Output& output) {
            return runApply(client, line.apply, output);
        };
    });
}

void addTrace(CLI::App& app, CommandLine& line) {
    CLI::App* command = app.add_subcommand("trace", "Show or set trace levels, or read the trace ring");
    TraceCommand& trace = line.trace;
    CLI::Option* facility = command->add_option("FACILITY", trace.facility, "Whose level to set");
    CLI::Option* level =
        command->add_option("LEVEL", trace.level, "0 (the least) to 9")->check(CLI::Range(0, 9));
    facility->needs(level);
    command->add_option("--last", trace.last, "The ring's last so many records")
        ->check(CLI::Range(std::uint64_t{1}, std::uint64_t{1'000'000}))
        ->excludes(facility);
    command->callback([&line] {
        line.action = [&line](Client& client, const Output& output) {
            return runTrace(client, line.trace, output);
        };
    });
}

void addSchema(CLI::App& app, CommandLine& line) {
    CLI::App* command = app.add_subcommand("schema", "Tell what can be read, set and called");
    command->add_option("TYPE", line.type, "One type; without it, all");
    command->callback([&line] {
        line.action = [&line](Client& client, const Output& output) {
            return runSchema(client, line.type, output);
        };
    });
}

void addStatus(CLI::App& app, CommandLine& line) {
    CLI::App* command =
        app.add_subcommand("status", "Show how the agent fares: version, readiness, sizes, counters");
    command->callback([&line] { line.action = runStatus; });
}

void addKernel(CLI::App& app, CommandLine& line) {
    CLI::App* command = app.add_subcommand("kernel", "Show how the mirror of the kernel's routes fares");
    command->add_option("verify", line.verify,
                        "The word verify: compare what the kernel has now with the tables");
    command->callback([&line] {
        if (!line.verify.empty() && line.verify != "verify")
            throw usageError("kernel takes the word verify, not '" + line.verify + "'");
        line.action = [&line](Client& client, const Output& output) {
            return runKernel(client, !line.verify.empty(), output);
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
    app.add_flag("--json", line.json, "Print the result object as it came");
    for (const LineHelp& help : lineCommands())
        addLine(app, line, help);
    addGet(app, line);
    addWatch(app, line);
    addWait(app, line);
    addApply(app, line);
    addTrace(app, line);
    addSchema(app, line);
    addStatus(app, line);
    addKernel(app, line);
    app.footer(
        "kestrelctl COMMAND --help tells more. Exit status: 0 done, 1 failed, 2 usage, 3 a wait ran out.");
}

bool isCommand(const CLI::App& app, const std::string& name) {
    const auto commands = app.get_subcommands([](const CLI::App*) { return true; });
    return std::any_of(commands.begin(), commands.end(),
                       [&name](const CLI::App* command) { return command->get_name() == name; });
}

/// @return the exit status if that was all: help, the version or a fault.
std::optional<int> read(CommandLine& line, std::vector<std::string> arguments, std::ostream& out,
                        std::ostream& err) {
    CLI::App app("Speaks to kestrel-agent: asks which interfaces and hardware groups multicast flows use.",
                 "kestrelctl");
    addCommands(app, line);
    const std::size_t command = commandAt(arguments);
    const bool hasCommand = command < arguments.size();
    if (hasCommand && !isCommand(app, arguments[command])) {
        err << "kestrelctl: there is no command '" << arguments[command]
            << "'; kestrelctl --help lists them\n";
        return exitUsage;
    }
    line.words = takeWords(arguments);
    std::reverse(arguments.begin(), arguments.end()); // CLI11 takes them from the back
    try {
        app.parse(arguments);
        return std::nullopt;
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success)) {
            app.exit(error, out, err);
            return exitDone;
        }
        const auto commands = app.get_subcommands();
        const std::string what =
            hasCommand || error.get_name() != "RequiredError" ? error.what() : "no command is given";
        err << "kestrelctl: " << what << "\nkestrelctl "
            << (commands.empty() ? "" : commands.front()->get_name() + " ") << "--help tells more\n";
        return exitUsage;
    }
}

} // namespace

int run(const std::vector<std::string>& arguments, std::ostream& out, std::ostream& err) {
    CommandLine line;
    if (const std::optional<int> status = read(line, arguments, out, err))
        return *status;
    try {
        Client client(line.socket.empty() ? defaultSocketPath() : line.socket);
        const int status = line.action(client, {.out = out, .err = err, .json = line.json});
        out.flush();
        if (out)
            return status;
        err << "kestrelctl: the result can't be written\n";
    } catch (const AgentError& error) {
        err << (line.json ? error.object().dump() : std::string("kestrelctl: ") + error.what()) << '\n';
    } catch (const std::exception& error) {
        err << "kestrelctl: " << error.what() << '\n';
    }
    return exitFailed;
}

} // namespace Ctl
