#include "agent/Options.h"

#include "text/Nearest.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <filesystem>

namespace Agent {

namespace {

constexpr const char* footer =
    "TERM and INT end the agent cleanly; HUP reads the kernel configuration again.\n"
    "Exit status: 0 clean, 1 run-time failure, 2 usage.";

// NAME=VALUE of an option.
std::pair<std::string, std::string> split(const std::string& option, const std::string& given,
                                          const std::string& form) {
    const std::size_t equals = given.find('=');
    if (equals == 0 || equals == std::string::npos || equals + 1 == given.size())
        throw UsageError(option + ": \"" + given + "\" is not of the form " + form);
    return {given.substr(0, equals), given.substr(equals + 1)};
}

std::pair<std::string, bool> toggleOf(const std::string& given) {
    const auto [name, value] = split("--toggle", given, "NAME=on or NAME=off");
    if (value != "on" && value != "off")
        throw UsageError("--toggle: " + name + " can be on or off, not \"" + value + "\"");
    return {name, value == "on"};
}

std::pair<std::string, int> traceLevelOf(const std::string& given) {
    const auto [facility, level] = split("--trace", given, "FACILITY=LEVEL");
    if (level.size() != 1 || level[0] < '0' || level[0] > '9')
        throw UsageError("--trace: the level of " + facility + " runs from 0 to 9, not \"" + level + "\"");
    return {facility, level[0] - '0'};
}

constexpr std::string_view chipWords[] = {"deferred", "sync"};

struct Raw {
    std::vector<std::string> toggles;
    std::vector<std::string> traces;
};

void declare(CLI::App& app, Options& options, Raw& raw) {
    app.set_version_flag("--version", std::string("kestrel-agent ") + KESTREL_VERSION);
    app.footer(footer);
    auto* socket =
        app.add_option("--socket", options.socket,
                       "control socket (default: $XDG_RUNTIME_DIR/kestrel-nat.sock, as root "
                       "/run/kestrel-nat.sock)")
            ->check([](const std::string& path) { return path.empty() ? "the path is empty" : ""; });
    app.add_flag("--stdio", options.isStdio,
                 "serve one client on standard input and output instead; ready goes to standard error")
        ->excludes(socket);
    app.add_option(
           "--client-memory", options.clientMemory,
           "MiB that may be held for all clients together (default: 64); beyond it the one for whom most is "
           "held is cut off")
        ->check(CLI::Range(8U, 65536U));
    app.add_option("--preload", options.preload,
                   "put the state that a scenario file describes into the stores before the plug-in starts");
    auto* play = app.add_option("--play", options.play, "play a scenario file once ready");
    app.add_flag("--exit", options.exitAfterPlay,
                 "leave after the play: status 0 only if every expectation held")
        ->needs(play);
    app.add_option("--kernel", options.kernel,
                   "mirror the kernel's multicast forwarding cache as this JSON file says");
    app.add_flag("--software-chip{deferred}", options.chip,
                 "stand in for the hardware layer: allocate groups on the next turn of the event loop, with "
                 "=sync inside the write");
    app.add_option("--toggle", raw.toggles, "NAME=on or NAME=off: set a toggle for this run")
        ->allow_extra_args(false);
    app.add_option("--toggle-dir", options.toggleDirectory, "where toggle files are read");
    app.add_option("--trace", raw.traces, "FACILITY=LEVEL: print trace lines up to the level (0 to 9)")
        ->allow_extra_args(false);
    app.add_option("--plugin", options.plugin, "the plug-in's library (default: the one beside the agent)");
    app.add_flag("--check", options.checkOnly, "read options and files, say what would happen, and leave");
}

std::string pluginBesideAgent() {
    const auto program = std::filesystem::read_symlink("/proc/self/exe");
    return (program.parent_path().parent_path() / "lib" / "libKestrelNatMulticastMounter.so").string();
}

void convert(const Raw& raw, Options& options) {
    for (const std::string& given : raw.toggles)
        options.toggles.push_back(toggleOf(given));
    for (const std::string& given : raw.traces)
        options.traceLevels.push_back(traceLevelOf(given));
    if (!options.chip.empty() && std::ranges::find(chipWords, options.chip) == std::end(chipWords))
        throw UsageError("--software-chip: the chip works \"deferred\" or \"sync\", not \"" + options.chip +
                         "\"" + Text::suggestion(options.chip, chipWords));
    if (options.plugin.empty())
        options.plugin = pluginBesideAgent();
}

// What may have been meant by an option that is not known.
std::string suggestionFor(const CLI::App& app) {
    std::vector<std::string> names;
    for (const CLI::Option* option : app.get_options())
        for (const std::string& name : option->get_lnames())
            names.push_back("--" + name);
    const std::vector<std::string_view> known(names.begin(), names.end());
    const std::vector<std::string> extras = app.remaining();
    return extras.empty() ? "" : Text::suggestion(extras.front().substr(0, extras.front().find('=')), known);
}

} // namespace

std::variant<Options, int> readCommandLine(int argc, const char* const* argv, std::ostream& out,
                                           std::ostream& err) {
    CLI::App app("Hosts the NAT multicast plug-in and serves it on a control socket.", "kestrel-agent");
    Options options;
    Raw raw;
    declare(app, options, raw);
    std::string wrong;
    try {
        app.parse(argc, argv);
        convert(raw, options);
        return options;
    } catch (const CLI::ExtrasError& error) {
        wrong = error.what() + suggestionFor(app);
    } catch (const CLI::ParseError& error) {
        return app.exit(error, out, err) == 0 ? exitClean : exitUsage;
    } catch (const UsageError& error) {
        wrong = error.what();
    }
    err << wrong << "\nRun with --help for more information.\n";
    return exitUsage;
}

} // namespace Agent
