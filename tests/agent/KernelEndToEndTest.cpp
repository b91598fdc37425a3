// Runs kernel-end-to-end.sh, the story of a router, for both sources of routes.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

// What a command prints, on either stream, and its status behind it.
std::string outputOf(const std::string& command) {
    std::string output;
    FILE* pipe = popen((command + " 2>&1; echo status=$?").c_str(), "r");
    char buffer[4096];
    while (std::fgets(buffer, sizeof buffer, pipe) != nullptr)
        output += buffer;
    pclose(pipe);
    return output;
}

class KernelEndToEnd : public testing::TestWithParam<const char*> {};

TEST_P(KernelEndToEnd, AnswersFollowTheKernel) {
    if (std::getenv("KESTREL_REQUIRE_NETNS") == nullptr &&
        outputOf("unshare -rn true").find("status=0") == std::string::npos)
        GTEST_SKIP() << "network namespaces cannot be made here";
    const std::string output =
        outputOf(std::string("unshare -rn sh ") + KESTREL_SOURCE_DIR + "/tests/agent/kernel-end-to-end.sh " +
                 KESTREL_BIN_DIR + " " + GetParam());
    EXPECT_NE(output.find("held\nstatus=0"), std::string::npos) << output;
}

INSTANTIATE_TEST_SUITE_P(BothSources, KernelEndToEnd, testing::Values("on", "off"),
                         [](const auto& toggle) { return std::string("Lumen_") + toggle.param; });

} // namespace
