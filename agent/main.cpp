#include "agent/Application.h"
#include "agent/host/LastWords.h"

#include <cstdio>
#include <exception>
#include <iostream>

int main(int argc, char** argv) {
    using namespace Agent;
    const auto line = readCommandLine(argc, argv, std::cout, std::cerr);
    if (const int* status = std::get_if<int>(&line))
        return *status;
    sayLastWords();
    try {
        const auto& options = std::get<Options>(line);
        Application application(options);
        return options.checkOnly ? application.check(std::cout) : application.run();
    } catch (const UsageError& error) {
        std::fprintf(stderr, "kestrel-agent: %s\n", error.what());
        return exitUsage;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "kestrel-agent: %s\n", error.what());
        printLastRecords();
        return exitFailed;
    }
}
