// `--kernel CONFIG`: the mirror of the kernel's multicast forwarding cache on the agent's loop, and what `kernel` and
// `kernel verify` show of it.
//
// It ties together NetlinkSource.h, which reads the kernel and holds the mirror, the agent's tables, which the mirror
// writes (AgentTables.cpp), and the loop, on which it works in slices. The application owns it and makes it once the plug-in runs.
#pragma once

#include "agent/kernel/NetlinkSource.h"

namespace asio {
class io_context;
}

namespace Agent::Kernel {

class KernelSource {
  public:
    /// Subscribes to the kernel and begins its first look.
    /// @param operations, loop outlive it.
    /// @throws KernelConfigError that names file and fault; std::system_error
    KernelSource(asio::io_context& loop, Operations& operations, const std::string& configFile);
    ~KernelSource();

    /// State and counters as a record.
    void status(Text::Writer& writer) const;
    /// Compares a fresh dump with the tables, in slices of the loop's turns. The reply is given once, from the loop,
    /// with a record (VerifyResult), or never when the source goes. @throws std::system_error
    void verify(Text::Reply reply);
    /// Reads the configuration file again. @throws KernelConfigError; the one in force stays then.
    void reconfigure();
    /// Tries again what was refused, if anyone changed the tables since that was tried; to be called after whatever
    /// may have changed them.
    void tablesMayHaveChanged();

  private:
    struct OnLoop;

    void watch();
    void doSlice();
    void goOn();

    Operations& operations_;
    std::string configFile_;
    std::unique_ptr<TableSink> tables_;
    NetlinkSource source_;
    std::shared_ptr<OnLoop> onLoop_;
    std::uint64_t changesSeen_ = 0; // of all writers, when refused changes were last tried
};

} // namespace Agent::Kernel
