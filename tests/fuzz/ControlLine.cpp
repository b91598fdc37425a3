// Lines of the control protocol, through a whole agent in this process: the answer is one line of JSON, or none.
#include "agent/control/ControlService.h"
#include "agent/json/Json.h"

#include <asio/io_context.hpp>

#include <cstdlib>
#include <string>
#include <string_view>

// NOLINTNEXTLINE(readability-identifier-naming): the fuzzer's name
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace Agent;
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    // Raw changes may end the process, and a dry run forks; escapes could hide either.
    for (const char* excluded : {"raw", "dryRun", "\\u"})
        if (text.find(excluded) != std::string_view::npos)
            return 0;
    asio::io_context context{1};
    Host host;
    host.load(KESTREL_LIB_DIR "/libKestrelNatMulticastMounter.so");
    Operations operations(host);
    AnswerLog log(host.stores(), operations.names());
    Language language(operations, [] {});
    ControlService service(context, operations, language, log);
    std::string late;
    JsonRpc rpc(context, service, [&](ClientId /*client*/, std::string answer) { late = std::move(answer); });
    host.start();
    for (std::size_t begin = 0; begin < size;) {
        const std::size_t end = std::min(text.find('\n', begin), size);
        const std::optional<std::string> answer = rpc.serve(1, text.substr(begin, end - begin));
        context.restart();
        context.poll();
        const std::string& given = answer ? *answer : late;
        if (given.find('\n') != std::string::npos)
            std::abort();
        if (!given.empty())
            Json::parse(given);
        begin = end + 1;
    }
    rpc.clientGone(1);
    return 0;
}
