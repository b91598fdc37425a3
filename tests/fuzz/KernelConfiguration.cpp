// The configuration of the kernel source: refused with a text that names the file, or read, without anything twice; and
// what was read is written so that it is read back to the same.
#include "agent/kernel/KernelConfig.h"
#include "tests/fuzz/Require.h"
#include "text/JsonWriter.h"

#include <set>
#include <string>
#include <string_view>

namespace {

using Agent::Kernel::KernelConfig;
using Agent::Kernel::VrfConfig;

std::string written(const KernelConfig& config) {
    std::string text;
    Text::JsonWriter writer(text);
    writer.beginRecord();
    writer.list("vrfs", config.vrfs, [&](const VrfConfig& vrf) {
        writer.record("name", vrf.name, "id", vrf.id, "table", vrf.table, "routeType", routeTypeText(vrf));
    });
    writer.end();
    return text;
}

} // namespace

// NOLINTNEXTLINE(readability-identifier-naming): the fuzzer's name
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    KernelConfig config;
    try {
        config = Agent::Kernel::parseKernelConfig({reinterpret_cast<const char*>(data), size}, "kernel.json");
    } catch (const Agent::Kernel::KernelConfigError& error) {
        require(std::string_view(error.what()).starts_with("kernel.json: "), "a refusal names the file");
        return 0;
    }
    std::set<std::string> names;
    std::set<std::uint32_t> ids;
    std::set<std::uint32_t> tables;
    for (const VrfConfig& vrf : config.vrfs)
        require(names.insert(vrf.name).second && ids.insert(vrf.id).second && tables.insert(vrf.table).second,
                "no two VRFs have a name, an identifier or a table in common");
    require(Agent::Kernel::parseKernelConfig(written(config), "kernel.json") == config,
            "a configuration that is written is read back to the same");
    return 0;
}
