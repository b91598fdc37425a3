#include "agent/Application.h"
#include "agent/host/LastWords.h"
#include "agent/host/Output.h"

#include <exception>
#include <iostream>

int main(int argc, char** argv) {
    using namespace Agent;
    openMissingStreams();
    const auto line = readCommandLine(argc, argv, std::cout, std::cerr);
    if (const int* status = std::get_if<int>(&line))
        return *status;
    sayLastWords();
    try {
        const auto& options = std::get<Options>(line);
        if (options.checkOnly)
            return Application(options).check(std::cout);
        const StandardOutput output(options.exitAfterPlay);
        return Application(options).run();
    } catch (const UsageError& error) {
        std::cerr << "kestrel-agent: " << error.what() << "\n";
        return exitUsage;
    } catch (const std::exception& error) {
        std::cerr << "kestrel-agent: " << error.what() << "\n";
        printLastRecords();
        return exitFailed;
    }
}
