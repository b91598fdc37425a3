// The configuration of the kernel source: what is read from it, and what is said of one that is wrong.
#include "agent/kernel/KernelConfig.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cstdio>
#include <fstream>
#include <sstream>

namespace Agent::Kernel::Test {
namespace {

std::vector<std::string> problemsOf(const std::string& text) {
    std::vector<std::string> problems;
    try {
        parseKernelConfig(text, "kernel.json");
    } catch (const KernelConfigError& error) {
        std::istringstream lines(error.what());
        for (std::string line; std::getline(lines, line);)
            problems.push_back(line);
    }
    return problems;
}

TEST(KernelConfig, ReadsVrfsWithDefaults) {
    KernelConfig config = parseKernelConfig(R"({"vrfs": [
        {"name": "default"},
        {"name": "red", "id": 16777215, "table": 100, "routeType": "static"},
        {"name": "blå", "id": 1, "table": 999999999, "routeType": "sparse"}]})",
                                            "kernel.json");
    KernelConfig expected{
        {{.name = "default", .id = 0, .table = 253, .routeType = std::nullopt},
         {.name = "red", .id = 16777215, .table = 100, .routeType = RouteType::staticRoutes},
         {.name = "blå", .id = 1, .table = 999999999, .routeType = RouteType::sparse}}};
    EXPECT_EQ(config, expected);
    EXPECT_TRUE(parseKernelConfig("\xef\xbb\xbf{\"vrfs\": []}", "kernel.json").vrfs.empty());
    EXPECT_EQ(parseKernelConfig(R"({"vrfs": [{"name": "default", "id": 0, "table": 7}]})", "").vrfs[0].table,
              7u);
}

TEST(KernelConfig, NamesFileVrfAndFieldOfWhatIsWrong) {
    std::string red = R"("name": "red", "id": 3, "table": 100)";
    std::string in = "kernel.json: VRF \"red\" (entry 1): field ";
    struct Case {
        std::string vrf;
        std::string problem;
    } cases[] = {
        {R"("name": "red", "id": 16777216, "table": 100)",
         in + R"("id" is 16777216, not a whole number from 0 to 16777215)"},
        {R"("name": "red", "id": -1, "table": 100)",
         in + R"("id" is -1, not a whole number from 0 to 16777215)"},
        {R"("name": "red", "id": 1.5, "table": 100)",
         in + R"("id" is 1.5, not a whole number from 0 to 16777215)"},
        {R"("name": "red", "id": "3", "table": 100)",
         in + R"("id" is "3", not a whole number from 0 to 16777215)"},
        {R"("name": "red", "id": 0, "table": 100)", in + R"("id" is 0, which belongs to the VRF "default")"},
        {R"("name": "red", "table": 100)", in + R"("id" is missing)"},
        {R"("name": "red", "id": 3)", in + R"("table" is missing)"},
        {R"("name": "red", "id": 3, "table": 0)",
         in + R"("table" is 0, not a whole number from 1 to 999999999)"},
        {R"("name": "red", "id": 3, "table": 4294967396)",
         in + R"("table" is 4294967396, not a whole number from 1 to 999999999)"},
        {red + R"(, "routeType": "dense")",
         in + R"("routeType" is "dense", not one of "static", "sparse", "by-protocol")"},
        {red + R"(, "routetype": "static")", in + R"("routetype" is unknown)"},
        {red + R"(, "id": 3)", R"(kernel.json: VRF entry 1: field "id" is given twice)"},
        {R"("id": 3, "table": 100)", R"(kernel.json: VRF entry 1: field "name" is missing)"},
        {R"("name": 5, "id": 3, "table": 100)",
         R"(kernel.json: VRF entry 1: field "name" is 5, not a string)"},
        {R"("name": "", "id": 3, "table": 100)", R"(kernel.json: VRF entry 1: field "name" is empty)"},
        {R"("name": "a/b", "id": 3, "table": 100)", R"(kernel.json: VRF entry 1: field "name" contains "/")"},
        {R"("name": "a\tb", "id": 3, "table": 100)",
         R"(kernel.json: VRF entry 1: field "name" contains a control byte)"},
        {R"("name": ")" + std::string(101, 'x') + R"(", "id": 3, "table": 100)",
         R"(kernel.json: VRF entry 1: field "name" has 101 bytes, more than 100)"},
        {R"("name": "default", "id": 3)",
         R"(kernel.json: VRF "default" (entry 1): field "id" is 3, but the default VRF has 0)"},
    };
    for (const Case& one : cases)
        EXPECT_EQ(problemsOf("{\"vrfs\": [{" + one.vrf + "}]}"), std::vector<std::string>{one.problem})
            << one.vrf;
}

TEST(KernelConfig, NoTwoVrfsShareANameAnIdOrATable) {
    std::vector<std::string> expected = {
        R"(kernel.json: VRF "red" (entry 3): field "name" is that of entry 2 too)",
        R"(kernel.json: VRF "blue" (entry 4): field "id" is 3, which VRF "red" has)",
        R"(kernel.json: VRF "blue" (entry 4): field "table" is 253, which VRF "default" mirrors)",
    };
    EXPECT_EQ(problemsOf(R"({"vrfs": [{"name": "default"}, {"name": "red", "id": 3, "table": 100},
                              {"name": "red", "id": 4, "table": 101}, {"name": "blue", "id": 3, "table": 253}]})"),
              expected);
}

TEST(KernelConfig, WhatIsNoConfigurationAtAll) {
    for (const char* text : {"[]", "{}", R"({"vrfs": {}})", "null", "3"})
        EXPECT_EQ(problemsOf(text),
                  std::vector<std::string>{"kernel.json: is not an object with a list \"vrfs\""});
    EXPECT_EQ(problemsOf(R"({"vrfs": [], "vrf": 1})"),
              std::vector<std::string>{"kernel.json: field \"vrf\" is unknown"});
    EXPECT_EQ(problemsOf(R"({"vrfs": [3]})"),
              std::vector<std::string>{"kernel.json: VRF entry 1: is not an object"});
    for (const char* text : {"", "{\"vrfs\": [}", "{\"vrfs\": [{\"name\": \"\xff\"}]}"}) {
        std::vector<std::string> problems = problemsOf(text);
        ASSERT_EQ(problems.size(), 1u) << text;
        EXPECT_EQ(problems[0].find("kernel.json: is not JSON: "), 0u) << problems[0];
        EXPECT_NE(problems[0].find("(line 1, column "), std::string::npos) << problems[0];
    }
}

TEST(KernelConfig, ReadsAFileOrSaysWhyNot) {
    std::string path = testing::TempDir() + "kernel-config-test.json";
    std::ofstream(path) << R"({"vrfs": [{"name": "default"}]})";
    EXPECT_EQ(readKernelConfig(path).vrfs.size(), 1u);
    std::remove(path.c_str());
    auto problemOf = [](const std::string& file) -> std::string {
        try {
            readKernelConfig(file);
        } catch (const KernelConfigError& error) {
            return error.what();
        }
        return "";
    };
    EXPECT_EQ(problemOf(path), path + ": can't be read: No such file or directory");
    ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
    for (const std::string& odd : {std::string("/"), std::string("/dev/zero"), path})
        EXPECT_EQ(problemOf(odd), odd + ": is no regular file");
    std::remove(path.c_str());
}

} // namespace
} // namespace Agent::Kernel::Test
