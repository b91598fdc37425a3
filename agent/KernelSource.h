// The source of routes that mirrors the kernel's multicast forwarding, as the rest of the agent knows it:
// what `kernel` shows, and what HUP asks of it. The application owns it and makes it once the plug-in runs;
// it works from the loop and changes the tables through Operations.
#pragma once

#include <nlohmann/json_fwd.hpp>

#include <functional>
#include <memory>
#include <string>

namespace Agent {

class EventLoop;
class Operations;

class KernelSource {
  public:
    virtual ~KernelSource() = default;

    /// State and counters as an object.
    virtual nlohmann::json status() = 0;
    /// Compares a fresh dump with the tables, in slices of the loop's turns; done is called once, from the
    /// loop, with an object, or never when the source goes. @throws std::system_error
    virtual void verify(std::function<void(nlohmann::json result)> done) = 0;
    /// Reads the configuration file again. @throws std::runtime_error; the one in force stays then.
    virtual void configAgain() = 0;
};

/// Makes the source from its configuration file. @throws std::runtime_error that names file and fault.
using KernelSourceMaker = std::function<std::unique_ptr<KernelSource>(Operations& operations, EventLoop& loop,
                                                                      const std::string& configFile)>;

} // namespace Agent
