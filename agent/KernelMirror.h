// `--kernel CONFIG`: the mirror of the kernel's multicast forwarding cache (kernel/MfcSource.h) on the
// agent's loop, writing the agent's tables (KernelTables.h), and what `kernel` and `kernel verify` show of
// it.
#pragma once

#include "agent/KernelSource.h"
#include "agent/KernelTables.h"
#include "agent/kernel/MfcSource.h"

#include <cstddef>
#include <cstdint>
#include <string>

namespace Agent {

class KernelMirror final : public KernelSource {
  public:
    /// Routes told, or read from the kernel, between two looks at the control clients.
    static constexpr std::size_t sliceRoutes = 512;

    /// Subscribes to the kernel and begins its first look. @throws KernelConfigError, std::system_error
    KernelMirror(Operations& operations, EventLoop& loop, const std::string& configFile);
    ~KernelMirror() override;

    nlohmann::json status() override;
    void verify(std::function<void(nlohmann::json result)> done) override;
    void configAgain() override;

  private:
    bool turnEnds();

    EventLoop& loop_;
    Operations& operations_;
    std::string configFile_;
    KernelTables tables_;
    Kernel::MfcSource source_;
    std::uint64_t hook_;
    std::uint64_t changesSeen_ = 0; // of all writers, when refused changes were last tried
};

/// Makes it, as the application asks for it.
std::unique_ptr<KernelSource> makeKernelMirror(Operations& operations, EventLoop& loop,
                                               const std::string& configFile);

} // namespace Agent
