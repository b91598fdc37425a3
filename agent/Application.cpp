#include "agent/Application.h"

#include "agent/ServiceNotify.h"
#include "agent/host/Refusal.h"
#include "agent/kernel/KernelConfig.h"
#include "state/Toggle.h"
#include "state/Trace.h"
#include "text/Nearest.h"
#include "text/SocketPath.h"

#include <asio/io_context.hpp>
#include <asio/signal_set.hpp>

#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <iostream>
#include <utility>

TRACE_FACILITY("Agent");

namespace Agent {

namespace {

// Runs what fails by the fault of files, options and surroundings: an error's text, but for those of usage, says all
// there is to say.
template <class Step>
bool succeeds(Step step) {
    try {
        step();
        return true;
    } catch (const UsageError&) {
        throw;
    } catch (const std::exception& error) {
        std::cerr << "kestrel-agent: " << error.what() << "\n";
        return false;
    }
}

void flagChanged(void* readyTask, const State::Notification& /*change*/) {
    static_cast<PostedTask*>(readyTask)->request();
}

} // namespace

struct Application::Loop {
    asio::io_context context{1};
    asio::signal_set signals{context};
};

Application::Application(Options options)
    : options_(std::move(options))
    , loop_(std::make_unique<Loop>())
    , operations_(host_)
    , log_(host_.stores(), operations_.names())
    , language_(operations_,
                [this] {
                    if (chip_)
                        chip_->settleAll();
                })
    , service_(loop_->context, operations_, language_, log_)
    , worker_(loop_->context)
    , rpc_(service_, worker_,
           [this](ClientId client) {
               if (sessions_)
                   sessions_->wake(client);
           })
    , readyTask_(loop_->context, [this] { announceIfReady(); })
    , chipTask_(loop_->context, [this] { chip_->work(); }) {
    addKernelCommands();
    service_.onServed([this] {
        if (kernel_)
            kernel_->tablesMayHaveChanged();
    });
}

Application::~Application() {
    end();
}

int Application::run() {
    const auto begin = [this] {
        setUp();
        start();
    };
    if (!succeeds(begin))
        return exitFailed;
    loop_->context.run();
    end();
    return status_;
}

// Everything in front of the plug-in's start.
void Application::setUp() {
    configure();
    for (const int signal : {SIGTERM, SIGINT, SIGHUP})
        loop_->signals.add(signal);
    awaitSignal();
    sessions_ = std::make_unique<Sessions>(loop_->context, rpc_, std::size_t{options_.clientMemory} << 20U);
    if (!options_.isStdio)
        sessions_->listen(socketPath());
    service_.attach(sessions_.get());
    load();
    makeChip();
    if (!options_.preload.empty())
        language_.preload(options_.preload);
}

void Application::configure() const {
    for (const auto& [name, value] : options_.toggles)
        State::toggleOverrideIs(name, value);
    State::toggleDirectoryIs(options_.toggleDirectory);
    for (const auto& [facility, level] : options_.traceLevels)
        State::traceLevelIs(facility, level);
    if (!options_.kernel.empty()) // read when the source is made; a fault shall show before anything is begun
        static_cast<void>(Kernel::readKernelConfig(options_.kernel));
}

// Toggles and facilities are known once the plug-in is loaded.
void Application::load() {
    host_.load(options_.plugin);
    const auto refuseUnknown = [](const auto& given, const auto& known, const std::string& what) {
        const std::vector<std::string_view> names(known.begin(), known.end());
        for (const auto& [name, value] : given)
            if (std::ranges::find(names, name) == names.end())
                throw UsageError(what + name + Text::suggestion(name, names));
    };
    std::vector<std::string> known;
    for (const State::ToggleStatus& toggle : State::toggles())
        known.push_back(toggle.name);
    refuseUnknown(options_.toggles, known, "--toggle: nobody asks for a toggle ");
    known.clear();
    for (const State::TraceLevel& level : State::traceLevels())
        if (level.isLoaded)
            known.push_back(level.facility);
    refuseUnknown(options_.traceLevels, known, "--trace: there is no trace facility ");
}

// `kernel` and `kernel verify`, as a line and as a method.
void Application::addKernelCommands() {
    const auto requireSource = [this] {
        if (options_.kernel.empty())
            throw Refusal(RefusalKind::limit,
                          "there is no kernel source: the agent was started without --kernel");
    };
    const auto carryOut = [this](bool verify, const Text::Reply& reply) {
        if (verify)
            kernel_->verify(reply);
        else
            reply([this](Text::Writer& writer) { kernel_->status(writer); });
    };
    language_.addVerb(
        {"kernel", [requireSource, carryOut](WordReader& words, const StateCommands&) -> Action {
             constexpr std::string_view known[] = {"verify"};
             requireSource();
             const bool verify = !words.atEnd();
             if (verify)
                 words.oneOf("what to do", known);
             return [carryOut, verify](const Text::Reply& reply) { carryOut(verify, reply); };
         }});
    service_.addMethod({"kernel",
                        "the state of the kernel source",
                        {{"verify", ParameterType::boolean, false, "compare a fresh dump with the tables"}},
                        [requireSource, carryOut](const Call& call) {
                            requireSource();
                            carryOut(call.parameters.isTrue("verify"), call.reply);
                        }});
}

void Application::makeChip() {
    if (options_.chip.empty())
        return;
    service_.nameSource("software-chip");
    std::function<void()> wake;
    if (options_.chip == "deferred")
        wake = [this] { chipTask_.request(); };
    chip_ = std::make_unique<SoftwareChip>(host_.stores(), std::move(wake));
}

void Application::start() {
    TRACE(6, "Application::", "start");
    readyFlags_ = host_.stores().inDatabase<KestrelNat::MulticastSmStatus>();
    readyFlags_->subscribe(&readyTask_, &flagChanged);
    host_.start();
    if (!options_.kernel.empty()) {
        service_.nameSource("kernel");
        kernel_ = std::make_unique<Kernel::KernelSource>(loop_->context, operations_, options_.kernel);
    }
    if (!options_.isStdio)
        return;
    const ClientId only = sessions_->serve(STDIN_FILENO, STDOUT_FILENO);
    service_.onClientGone([this, only](ClientId client) {
        if (client == only)
            loop_->context.stop();
    });
}

void Application::announceIfReady() {
    const bool isReady = std::ranges::all_of(services(), [this](const Service& service) {
        const State::Attribute* flag = readyFlags_->entityType().attribute(service.readyAttribute);
        return *flag->value(*readyFlags_).boolean();
    });
    if (isAnnounced_ || !isReady)
        return;
    isAnnounced_ = true;
    TRACE(6, "Application::", "announceIfReady", " ready");
    (options_.isStdio ? std::cerr : std::cout) << "ready" << std::endl;
    notifyService("READY=1");
    if (!options_.play.empty())
        play();
}

void Application::play() {
    bool held = false;
    succeeds([&] { held = language_.play(options_.play, options_.isStdio ? std::cerr : std::cout); });
    if (chip_)
        chip_->settleAll();
    if (!options_.exitAfterPlay)
        return;
    status_ = held ? exitClean : exitFailed;
    loop_->context.stop();
}

void Application::awaitSignal() {
    loop_->signals.async_wait([this](const asio::error_code& error, int signal) {
        if (error)
            return;
        signalled(signal);
        awaitSignal();
    });
}

void Application::signalled(int signal) {
    TRACE(6, "Application::", "signalled", " signal=", signal);
    if (signal != SIGHUP) {
        loop_->context.stop();
    } else if (kernel_) { // nothing else is read again
        State::traceEventBegin();
        succeeds([this] { kernel_->reconfigure(); });
    }
}

// The start backwards.
void Application::end() {
    if (!sessions_)
        return;
    State::traceEventBegin();
    TRACE(6, "Application::", "end");
    notifyService("STOPPING=1");
    log_.close();
    if (readyFlags_)
        readyFlags_->unsubscribe(&readyTask_, &flagChanged);
    kernel_.reset();
    host_.stop();
    chip_.reset();
    service_.attach(nullptr);
    sessions_.reset();
    TRACE(6, "Application::", "end", " done");
}

int Application::check(std::ostream& out) {
    return succeeds([&] { sayPlan(out); }) ? exitClean : exitFailed;
}

void Application::sayPlan(std::ostream& out) {
    configure();
    load();
    makeChip();
    out << (options_.isStdio ? "serve one client on standard input and output\n"
                             : "serve clients on " + socketPath() + "\n");
    std::string source(host_.routes().name());
    source.front() = static_cast<char>(source.front() - 'a' + 'A');
    out << "host " << options_.plugin << ", with routes from the " << source << " source\n";
    for (const State::ToggleStatus& toggle : State::toggles()) {
        constexpr const char* origins[] = {"by default", "from the toggle file", "from --toggle"};
        out << "toggle " << toggle.name << " is " << (toggle.value ? "on" : "off") << ", "
            << origins[static_cast<std::size_t>(toggle.origin)] << "\n";
    }
    if (chip_)
        out << "stand in for the hardware layer\n";
    if (!options_.preload.empty()) {
        language_.preload(options_.preload);
        out << "begin with the state of " << options_.preload << "\n";
    }
    VrfIds mirrored;
    if (!options_.kernel.empty()) {
        for (const Kernel::VrfConfig& vrf : Kernel::readKernelConfig(options_.kernel).vrfs)
            mirrored.emplace(vrf.name, vrf.id);
        out << "mirror the kernel's multicast forwarding in " << mirrored.size() << " VRFs, as "
            << options_.kernel << " says\n";
    }
    if (!options_.play.empty()) {
        language_.check(options_.play, mirrored);
        out << "play " << options_.play << (options_.exitAfterPlay ? " and leave" : "") << "\n";
    }
}

std::string Application::socketPath() const {
    return options_.socket.empty() ? Text::defaultSocketPath(::geteuid() == 0) : options_.socket;
}

} // namespace Agent
