// Which tables of the kernel are mirrored, and as what: one entry a VRF, read from a JSON file.
//
//     {"vrfs": [{"name": "default"},
//               {"name": "red", "id": 3, "table": 100, "routeType": "static"}]}
//
// A plain value, checked completely before anyone sees it; NetlinkSource holds the one in force. The fields are
// described in docs/kernel-source.md.
#pragma once

#include "agent/host/RouteSource.h"

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace Agent::Kernel {

struct VrfConfig {
    std::string name;
    std::uint32_t id = 0;
    std::uint32_t table = 0;
    /// None: by protocol, static where the route was set as a static one, else sparse.
    std::optional<RouteType> routeType = std::nullopt;
    bool operator==(const VrfConfig&) const = default;
};

/// No two VRFs have a name, an id or a table in common.
struct KernelConfig {
    std::vector<VrfConfig> vrfs;
    bool operator==(const KernelConfig&) const = default;
};

/// "static", "sparse" or "by-protocol".
std::string_view routeTypeText(const VrfConfig& vrf);

/// Everything that is wrong with a configuration, one line a problem; each names the file, and the VRF and the field
/// where there is one.
class KernelConfigError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

/// @throws KernelConfigError when the file can't be read or anything in it is wrong.
KernelConfig readKernelConfig(const std::string& path);

/// The same for a text; file is its name in messages.
KernelConfig parseKernelConfig(std::string_view text, std::string_view file);

} // namespace Agent::Kernel
