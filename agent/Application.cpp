#include "agent/Application.h"

#include "agent/ControlSocket.h"
#include "agent/LineServer.h"
#include "agent/ScenarioGrammar.h"
#include "agent/ServiceNotify.h"
#include "agent/kernel/KernelConfig.h"
#include "records/NatStatus.h"
#include "state/Toggle.h"
#include "state/Trace.h"

#include <nlohmann/json.hpp>

#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <iostream>
#include <utility>

TRACE_FACILITY("Agent");

namespace Agent {

namespace {

/// Something went wrong that is no fault of the agent's: its text says all there is to say.
void tell(const std::exception& error) {
    std::fprintf(stderr, "kestrel-agent: %s\n", error.what());
}

/// Runs what fails by the fault of files and options alone: tells its errors, but for those of usage.
template <class Step>
bool succeeds(Step step) {
    try {
        step();
        return true;
    } catch (const UsageError&) {
        throw;
    } catch (const std::exception& error) {
        tell(error);
        return false;
    }
}

} // namespace

Application::Application(Options options, KernelSourceMaker makeKernelSource)
    : options_(std::move(options))
    , makeKernelSource_(std::move(makeKernelSource))
    , operations_(host_)
    , log_(host_)
    , service_(operations_, log_)
    , rpc_(service_)
    , tellHook_(loop_.turnHookIs([this] { return service_.tellWatchers(); })) {
    if (!options_.kernel.empty() && !makeKernelSource_)
        throw UsageError("--kernel: this agent was built without a kernel source");
}

Application::~Application() {
    end();
    loop_.turnHookDel(tellHook_);
}

int Application::run() {
    if (!succeeds([this] { setUp(); }))
        return exitFailed;
    start();
    loop_.run();
    end();
    return status_;
}

/// Everything in front of the plug-in's start; what goes wrong here is the surroundings' fault.
void Application::setUp() {
    configure();
    loop_.signalsAre({SIGTERM, SIGINT, SIGHUP}, [this](int signal) { signalled(signal); });
    std::signal(SIGPIPE, SIG_IGN);
    server_ = std::make_unique<LineServer>(loop_, rpc_);
    if (!options_.isStdio)
        server_->listen(socketPath());
    load();
    makeParts();
    if (!options_.preload.empty())
        grammar_->preload(options_.preload);
}

void Application::configure() const {
    for (const auto& [name, value] : options_.toggles)
        State::toggleOverrideIs(name, value);
    State::toggleDirectoryIs(options_.toggleDirectory);
    for (const auto& [facility, level] : options_.traceLevels)
        State::traceLevelIs(facility, level);
}

void Application::load() {
    host_.load(pluginFile());
    checkNames();
}

/// Toggles and facilities are known once the plug-in is loaded.
void Application::checkNames() const {
    const auto asked = State::toggles();
    for (const auto& [name, value] : options_.toggles)
        if (std::ranges::find(asked, name, &State::ToggleStatus::name) == asked.end())
            throw UsageError("--toggle: nobody asks for a toggle " + name);
    for (const State::TraceLevel& known : State::traceLevels())
        if (!known.isLoaded)
            throw UsageError("--trace: there is no trace facility " + known.facility);
}

void Application::makeParts() {
    grammar_ = std::make_unique<ScenarioGrammar>(
        operations_,
        ScenarioGrammar::Hooks{.settle = [this] { loop_.runDeferred(); },
                               .status = [this] { return service_.statusReport(); }},
        options_.isStdio ? std::cerr : std::cout);
    service_.grammarIs(grammar_.get());
    service_.serverIs(server_.get());
    rpc_.serverIs(server_.get());

    std::vector<std::string> sources;
    if (options_.chip != Options::Chip::none) {
        sources.emplace_back("software-chip");
        SoftwareChip::Defer defer;
        if (options_.chip == Options::Chip::deferred)
            defer = [this](std::function<void()> task) { loop_.defer(std::move(task)); };
        chip_ = std::make_unique<SoftwareChip>(host_, std::move(defer));
    }
    if (!options_.kernel.empty())
        sources.emplace_back("kernel");
    service_.sourcesAre(std::move(sources));
}

void Application::start() {
    TRACE(6, "Application::", "start");
    listenForReady();
    host_.start();
    if (!options_.kernel.empty()) {
        kernel_ = makeKernelSource_(operations_, loop_, options_.kernel);
        service_.kernelSourceIs(kernel_.get());
    }
    if (options_.isStdio) {
        const ClientId only = server_->serve(STDIN_FILENO, STDOUT_FILENO);
        service_.onClientGone([this, only](ClientId client) {
            if (client == only)
                loop_.stop();
        });
    }
}

void Application::listenForReady() {
    readyFlags_ = host_.inDatabase<KestrelNat::MulticastSmStatus>("api/multicastSmStatus");
    readyFlags_->subscribe(this, &flagChanged);
}

void Application::flagChanged(void* self, const State::Notification& /*change*/) {
    auto& application = *static_cast<Application*>(self);
    application.loop_.defer([&application] { application.announceIfReady(); });
}

void Application::announceIfReady() {
    if (isAnnounced_ || !readyFlags_->mrouteSmReady() || !readyFlags_->mgroupSmReady())
        return;
    isAnnounced_ = true;
    TRACE(6, "Application::", "announceIfReady", " ready");
    std::FILE* const where = options_.isStdio ? stderr : stdout;
    std::fputs("ready\n", where);
    std::fflush(where);
    notifyService("READY=1");
    playIfAsked();
}

void Application::playIfAsked() {
    if (options_.play.empty())
        return;
    // Until it has been played to its end, the play has failed.
    status_ = options_.exitAfterPlay ? exitFailed : exitClean;
    const auto done = [this](bool held) {
        if (options_.exitAfterPlay) {
            status_ = held ? exitClean : exitFailed;
            loop_.stop();
        }
    };
    try {
        grammar_->play(options_.play, done);
    } catch (const std::exception& error) {
        tell(error);
        done(false);
    }
}

void Application::signalled(int signal) {
    TRACE(6, "Application::", "signalled", " signal=", signal);
    if (signal != SIGHUP) {
        loop_.stop();
        return;
    }
    if (!kernel_)
        return; // nothing else is read again
    State::traceEventBegin();
    try {
        kernel_->configAgain();
    } catch (const std::exception& error) {
        tell(error);
    }
}

/// The start backwards.
void Application::end() {
    if (!server_)
        return;
    State::traceEventBegin();
    TRACE(6, "Application::", "end");
    notifyService("STOPPING=1");
    log_.close();
    if (readyFlags_)
        readyFlags_->unsubscribe(this, &flagChanged);
    service_.kernelSourceIs(nullptr);
    kernel_.reset();
    host_.stop();
    chip_.reset();
    service_.serverIs(nullptr);
    rpc_.serverIs(nullptr);
    server_.reset();
    TRACE(6, "Application::", "end", " done");
}

int Application::check(std::ostream& out) {
    return succeeds([&] { sayPlan(out); }) ? exitClean : exitFailed;
}

void Application::sayPlan(std::ostream& out) {
    configure();
    load();
    makeParts();
    out << (options_.isStdio ? "serve one client on standard input and output\n"
                             : "serve clients on " + socketPath() + "\n");
    out << "host " << pluginFile() << ", with routes from the " << (host_.isLumen() ? "Lumen" : "Quill")
        << " source\n";
    for (const State::ToggleStatus& toggle : State::toggles()) {
        constexpr const char* origins[] = {"by default", "from the toggle file", "from --toggle"};
        out << "toggle " << toggle.name << " is " << (toggle.value ? "on" : "off") << ", "
            << origins[static_cast<std::size_t>(toggle.origin)] << "\n";
    }
    if (chip_)
        out << "stand in for the hardware layer\n";
    if (!options_.preload.empty()) {
        grammar_->preload(options_.preload);
        out << "begin with the state of " << options_.preload << "\n";
    }
    if (!options_.kernel.empty()) {
        const std::size_t vrfs = Kernel::readKernelConfig(options_.kernel).vrfs.size();
        out << "mirror the kernel's multicast forwarding in " << vrfs << " VRFs, as " << options_.kernel
            << " says\n";
    }
    if (!options_.play.empty()) {
        grammar_->check(options_.play);
        out << "play " << options_.play << (options_.exitAfterPlay ? " and leave" : "") << "\n";
    }
}

std::string Application::pluginFile() const {
    return options_.plugin.empty() ? pluginBesideAgent() : options_.plugin;
}

std::string Application::socketPath() const {
    return options_.socket.empty() ? defaultSocketPath() : options_.socket;
}

} // namespace Agent
