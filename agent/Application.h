// The agent put together: reads files, loads and starts the plug-in, serves clients until it is told to end.
//
// The order of the start matters: toggles and trace levels before the plug-in is loaded, as it reads them
// then; preloaded state after, as it goes to the source of routes that the toggle chose; the answer log, the
// chip and the preloaded state before the plug-in starts; `ready` when both of its ready flags are true. The
// end is the start backwards, the answer log first, so that nobody is told of the teardown.
//
// main() makes one and runs it.
#pragma once

#include "agent/ControlService.h"
#include "agent/EventLoop.h"
#include "agent/Grammar.h"
#include "agent/KernelSource.h"
#include "agent/Options.h"
#include "agent/SoftwareChip.h"
#include "records/NatStatus.h"

#include <iosfwd>
#include <memory>
#include <string>
#include <string_view>

namespace Agent {

class Application {
  public:
    /// @param makeKernelSource makes the kernel source of --kernel; empty: there is none in this agent.
    Application(Options options, KernelSourceMaker makeKernelSource);
    ~Application();
    Application(const Application&) = delete;
    Application& operator=(const Application&) = delete;

    /// Runs to the end; the exit status.
    /// @throws UsageError for an option that can't be followed; what the plug-in or a callback raises.
    int run();
    /// Says on `out` what run() would do, files read; the exit status. @throws UsageError
    int check(std::ostream& out);

  private:
    void configure() const;
    void load();
    void checkNames() const;
    void makeParts();
    void setUp();
    void start();
    void listenForReady();
    static void flagChanged(void* self, const State::Notification& change);
    void announceIfReady();
    void playIfAsked();
    void signalled(int signal);
    void end();
    void sayPlan(std::ostream& out);
    std::string pluginFile() const;
    std::string socketPath() const;

    const Options options_;
    const KernelSourceMaker makeKernelSource_;
    EventLoop loop_;
    Host host_;
    Operations operations_;
    AnswerLog log_;
    ControlService service_;
    JsonRpc rpc_;
    std::uint64_t tellHook_ = 0;
    std::unique_ptr<SoftwareChip> chip_;
    std::unique_ptr<Grammar> grammar_;
    std::unique_ptr<KernelSource> kernel_;
    std::unique_ptr<LineServer> server_;
    State::Handle<const KestrelNat::MulticastSmStatus> readyFlags_;
    bool isAnnounced_ = false;
    int status_ = exitClean;
};

} // namespace Agent
