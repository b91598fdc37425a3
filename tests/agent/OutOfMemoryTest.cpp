// Every allocation of a short list of changes fails once: what asked for it is refused and nothing was changed, or it
// was carried out as a whole and can't be told, or the agent ends with its last words. The client may be cut off without
// an answer, but never after half of it. Each time in a forked copy.
#include "agent/control/ControlService.h"
#include "agent/control/JsonRpc.h"
#include "agent/host/Fd.h"
#include "agent/host/LastWords.h"
#include "agent/host/Worker.h"
#include "agent/language/Language.h"
#include "state/Toggle.h"
#include "tests/agent/Json.h"
#include "tests/nat/FailingAllocation.h"
#include "text/JsonWriter.h"

#include <gtest/gtest.h>

#include <asio/io_context.hpp>

#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <map>
#include <string>

namespace AgentTest {
namespace {

const std::string changes =
    R"({"jsonrpc": "2.0", "id": 1, "method": "apply", "params": {"lines": [)"
    R"("vrf blue id 4 multicast on", "route blue static 10.0.0.1/32 239.1.1.1/32 oifs Ethernet4",)"
    R"("route red static 10.0.0.1/32 239.1.1.1/32 oifs Ethernet1 Ethernet2",)"
    R"("request mgroup intf Ethernet5 vrf red vlan 10 source 10.0.0.1 group 239.1.1.1",)"
    R"("request mroute intf Ethernet5 vrf blue vlan 10 source any group 239.1.1.1"]}})";

// What became of the changes when one allocation failed.
enum Outcome : int { noneFailed, refused, untold, cutOff, fatal, wrong };

class Subject {
  public:
    Subject() {
        host_.load(KESTREL_LIB_DIR "/libKestrelNatMulticastMounter.so");
        host_.start();
        for (const char* line :
             {"vrf red id 3 multicast on", "route red static 10.0.0.1/32 239.1.1.1/32 oifs Ethernet3",
              "request mroute intf Ethernet5 vrf red vlan 10 source 10.0.0.1 group 239.1.1.1"})
            language_.run(line, false, [](const Text::Tell&) {});
    }

    std::string apply() {
        std::string answer;
        rpc_.serve(1, changes, answer);
        return answer;
    }

    std::string state() {
        std::string all;
        for (const char* line : {"show vrfs", "show routes", "show requests", "show mroute", "show mgroup"})
            language_.run(line, false, [&](const Text::Tell& tell) {
                Text::JsonWriter writer(all);
                tell(writer);
            });
        return all;
    }

  private:
    asio::io_context loop_;
    Agent::Host host_;
    Agent::Operations operations_{host_};
    Agent::Language language_{operations_, [] {}};
    Agent::AnswerLog log_{host_.stores(), operations_.names()};
    Agent::ControlService service_{loop_, operations_, language_, log_};
    Agent::Worker worker_{loop_};
    Agent::JsonRpc rpc_{service_, worker_, [](Agent::ClientId) {}};
};

// @param failing the allocation that fails, counted from 0.
Outcome outcomeOf(Subject& subject, std::size_t failing, const std::string& before,
                  const std::string& after) {
    FailingAllocation::failAfter(failing);
    std::string answerText;
    try {
        answerText = subject.apply();
    } catch (const std::bad_alloc&) {
        FailingAllocation::stop();
        const std::string state = subject.state();
        return state == before || state == after ? cutOff : wrong;
    }
    const bool hasFailed = FailingAllocation::stop();
    const Json answer = Json::parse(answerText);
    const std::string state = subject.state();
    if (answer.contains("result"))
        return !hasFailed && state == after ? noneFailed : wrong;
    const std::string message = answer.at("error").at("message").text();
    if (message == "out of memory: nothing was changed")
        return state == before ? refused : wrong;
    if (message == "out of memory: it was carried out, but what came of it can't be told")
        return state == after ? untold : wrong;
    return wrong;
}

// The same in a copy of the process.
Outcome copysOutcome(Subject& subject, std::size_t failing, const std::string& before,
                     const std::string& after) {
    const Agent::Fd said(::memfd_create("said", MFD_CLOEXEC));
    const pid_t child = ::fork();
    if (child == 0) {
        ::alarm(60);
        ::prctl(PR_SET_DUMPABLE, 0);
        ::dup2(said.get(), STDERR_FILENO);
        Agent::sayLastWords();
        try {
            ::_exit(outcomeOf(subject, failing, before, after));
        } catch (const std::exception& error) {
            ::dprintf(STDERR_FILENO, "%s", error.what());
            ::_exit(wrong);
        }
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    std::string words(65536, '\0');
    words.resize(
        static_cast<std::size_t>(std::max<ssize_t>(::pread(said.get(), words.data(), words.size(), 0), 0)));
    if (WIFEXITED(status)) {
        EXPECT_NE(WEXITSTATUS(status), wrong) << words;
        return static_cast<Outcome>(WEXITSTATUS(status));
    }
    const bool saysWhy = words.find("memory for a change that is being carried out") != std::string::npos ||
                         words.find("exception left a reactor: std::bad_alloc") != std::string::npos;
    const bool isFatal = WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT;
    EXPECT_TRUE(isFatal && saysWhy && words.find("last trace records:") != std::string::npos)
        << status << words;
    return isFatal ? fatal : wrong;
}

class OutOfMemoryTest : public testing::TestWithParam<bool> {};

TEST_P(OutOfMemoryTest, AListIsRefusedOrCarriedOutWhollyOrTheAgentEndsWithItsLastWords) {
    State::toggleOverrideIs(Agent::Host::sourceToggle, GetParam());
    std::string after;
    {
        Subject first;
        first.apply();
        after = first.state();
    }
    Subject subject;
    const std::string before = subject.state();
    ASSERT_NE(before, after);
    std::map<Outcome, int> counts;
    for (std::size_t failing = 0; counts[noneFailed] == 0; ++failing) {
        const Outcome outcome = copysOutcome(subject, failing, before, after);
        ++counts[outcome];
        ASSERT_NE(outcome, wrong) << "allocation " << failing;
    }
    for (const Outcome outcome : {refused, untold, fatal})
        EXPECT_GT(counts[outcome], 0) << outcome;
    EXPECT_LT(counts[cutOff], 10);
}

INSTANTIATE_TEST_SUITE_P(Sources, OutOfMemoryTest, testing::Bool(),
                         [](const auto& given) { return given.param ? "Lumen" : "Quill"; });

} // namespace
} // namespace AgentTest
