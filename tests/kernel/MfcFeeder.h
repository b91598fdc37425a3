// Sets multicast routes in the kernel, as a routing daemon does, but as fast as the kernel takes them: some
// 200,000 a second. For tests and benchmarks, in a network namespace of their own.
//
// It holds the table as its daemon: routes and VIFs go when it goes.
#pragma once

#include "agent/host/Fd.h"
#include "agent/kernel/KernelMessage.h"

#include <cstdint>
#include <string>
#include <vector>

namespace Agent::Kernel::Test {

class MfcFeeder {
  public:
    /// Takes the table. @throws std::system_error where that is not permitted or the table has a daemon.
    explicit MfcFeeder(std::uint32_t table = 253);

    // All below throw std::system_error when the kernel refuses.

    void vifIs(int vif, const std::string& interface);
    /// The VIF on which a PIM daemon receives register messages.
    void registerVifIs(int vif);
    void vifDel(int vif);
    /// Adds the route or changes it.
    /// @param vifs where it leaves.
    void routeIs(const MfcKey& key, int parentVif, const std::vector<int>& vifs);
    /// The same for a (*,G) or (*,*) entry: one a parent VIF.
    void proxyIs(const MfcKey& key, int parentVif, const std::vector<int>& vifs);
    void routeDel(const MfcKey& key, int parentVif = 0);

  private:
    void route(int option, const MfcKey& key, int parentVif, const std::vector<int>& vifs);

    Fd fd_;
};

} // namespace Agent::Kernel::Test
