// A toggle file: any bytes are a file of toggles, or count as none.
#include "state/Toggle.h"

#include <filesystem>
#include <fstream>
#include <unistd.h>

// NOLINTNEXTLINE(readability-identifier-naming): the fuzzer's name
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const std::filesystem::path folder =
        std::filesystem::temp_directory_path() / ("kestrel-toggles-" + std::to_string(::getpid()));
    std::filesystem::create_directories(folder);
    State::toggleDirectoryIs(folder.string());
    std::ofstream(folder / "Fuzz.json", std::ios::binary)
        .write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
    static_cast<void>(State::getToggleState("KestrelNatMfibLumen", "Fuzz.json", true));
    return 0;
}
