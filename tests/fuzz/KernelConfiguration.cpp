// The configuration of the kernel source: read, or refused with a text that names the file.
#include "agent/kernel/KernelConfig.h"

#include <cstdlib>
#include <string>
#include <string_view>

// NOLINTNEXTLINE(readability-identifier-naming): the fuzzer's name
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    try {
        Agent::Kernel::parseKernelConfig(std::string(reinterpret_cast<const char*>(data), size),
                                         "kernel.json");
    } catch (const Agent::Kernel::KernelConfigError& error) {
        if (std::string_view(error.what()).find("kernel.json: ") != 0)
            std::abort();
    }
    return 0;
}
