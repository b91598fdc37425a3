// The agent put together: reads files, loads and starts the plug-in, serves clients until it is told to end.
//
// The order of the start matters: toggles and trace levels before the plug-in is loaded, as it reads them then;
// preloaded state after, as it goes to the source of routes that the toggle chose; the answer log, the chip and the
// preloaded state before the plug-in starts; `ready` when the ready flags of all services are true. The end is the
// start backwards, the answer log first, so that nobody is told of the teardown.
//
// main() makes one and runs it.
#pragma once

#include "agent/Options.h"
#include "agent/control/ControlService.h"
#include "agent/control/JsonRpc.h"
#include "agent/control/Sessions.h"
#include "agent/host/SoftwareChip.h"
#include "agent/host/Worker.h"
#include "agent/kernel/KernelSource.h"
#include "agent/language/Language.h"
#include "records/NatStatus.h"

#include <iosfwd>
#include <memory>
#include <string>

namespace Agent {

class Application {
  public:
    explicit Application(Options options);
    ~Application();
    Application(const Application&) = delete;
    Application& operator=(const Application&) = delete;

    /// Runs to the end; the exit status.
    /// @throws UsageError for an option that can't be followed; what leaves a callback of the loop.
    int run();
    /// Says on `out` what run() would do, files read; the exit status. @throws UsageError
    int check(std::ostream& out);

  private:
    struct Loop;

    void configure() const;
    void load();
    void addKernelCommands();
    void makeChip();
    void setUp();
    void start();
    void announceIfReady();
    void play();
    void awaitSignal();
    void signalled(int signal);
    void end();
    void sayPlan(std::ostream& out);
    std::string socketPath() const;

    const Options options_;
    const std::unique_ptr<Loop> loop_;
    Host host_;
    Operations operations_;
    AnswerLog log_;
    Language language_;
    ControlService service_;
    Worker worker_;
    JsonRpc rpc_;
    PostedTask readyTask_;
    PostedTask chipTask_;
    std::unique_ptr<SoftwareChip> chip_;
    std::unique_ptr<Kernel::KernelSource> kernel_;
    std::unique_ptr<Sessions> sessions_;
    State::Handle<const KestrelNat::MulticastSmStatus> readyFlags_;
    bool isAnnounced_ = false;
    int status_ = exitClean;
};

} // namespace Agent
