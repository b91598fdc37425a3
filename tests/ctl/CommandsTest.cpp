// kestrelctl's commands against a fake agent: what it sends, what it prints, and how it ends.
#include "tests/ctl/FakeAgent.h"

#include "ctl/CommandLine.h"

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

namespace CtlTest {
namespace {

/// Answers every `command` by one text and one result.
std::string answerCommand(const Json& request) {
    return resultLine(request, {{"result", {{"z", 1}, {"a", 2}}}, {"text", "the text"}});
}

FakeAgent::Answer always(const Json& result) {
    return [result](const Json& request) { return resultLine(request, result); };
}

TEST(Commands, AskInTheirWordsAndPrintWhatComes) {
    const std::string row = R"([{"key":"red","value":{"vrfId":3}}])";
    const std::string nested = R"({"name":"x","in":{"y":1}})";
    const std::string outline = "name: x\nin:\n  y: 1\n";
    const std::string worded = R"({"result":{"z":1,"a":2},"text":"the text"})";
    const std::string levels = R"({"levels":[{"facility":"Agent","level":0,"loaded":true},)"
                               R"({"facility":"NatVrfDirSm","level":8,"loaded":true}]})";
    const std::string levelLines = "Agent        0\nNatVrfDirSm  8\n";
    const std::string records = R"({"records":[{"n":7,"time":1,"level":8,"facility":"NatVrfDirSm",)"
                                R"("file":"a/B.cpp","line":12,"function":"B::f","message":"B::f one two"}]})";
    const auto line = [](const std::string& text) { return Json{{"line", text}, {"text", true}}.dump(); };
    struct Case {
        std::vector<std::string> arguments;
        std::string params;
        std::string result;
        std::string out;
        std::string method = "command";
    };
    const Case cases[] = {
        {{"vrf", "red", "id", "3", "multicast", "on"},
         line("vrf red id 3 multicast on"),
         worded,
         "the text\n"},
        {{"expect", "trace", "a \"b\""}, line(R"(expect trace "a \"b\"")"), worded, "the text\n"},
        {{"set", "p", "a", R"(["x","y"])"}, line(R"(set p a "[\"x\",\"y\"]")"), worded, "the text\n"},
        {{"del", "p", "a", "-5"}, line("del p a -5"), worded, "the text\n"},
        {{"set", "p", "a", "--", "--json"}, line("set p a --json"), worded, "the text\n"},
        {{"mark"}, line("mark"), worded, "the text\n"},
        // Options may stand anywhere.
        {{"--json", "vrf", "red", "--raw"},
         R"({"line":"vrf red","raw":true})",
         worded,
         "{\"z\":1,\"a\":2}\n"},
        {{"vrf", "--raw", "--json", "red"},
         R"({"line":"vrf red","raw":true})",
         worded,
         "{\"z\":1,\"a\":2}\n"},
        {{"get", "p"}, R"({"path":"p"})", nested, outline, "get"},
        {{"get", "p", "a", "red"},
         R"({"path":"p","attribute":"a","key":"red"})",
         row,
         "red = {\"vrfId\":3}\n",
         "get"},
        {{"get", "p", "a", R"({"vrfId":3})"},
         R"({"path":"p","attribute":"a","key":{"vrfId":3}})",
         R"(["Ethernet1",{"vrfId":3}])",
         "Ethernet1\n{\"vrfId\":3}\n",
         "get"},
        {{"get", "p", "a", "--limit", "5", "--after", "7"},
         R"({"path":"p","attribute":"a","limit":5,"after":7})",
         "[]",
         "",
         "get"},
        {{"get", "p", "a", "--json"}, R"({"path":"p","attribute":"a"})", row, row + "\n", "get"},
        {{"get", "p", "a"}, R"({"path":"p","attribute":"a"})", "true", "true\n", "get"},
        {{"trace"}, "{}", levels, levelLines, "trace"},
        {{"trace", "Agent", "8"}, R"({"facility":"Agent","level":8})", levels, levelLines, "trace"},
        {{"trace", "--last", "5"},
         R"({"last":5})",
         records,
         "7 NatVrfDirSm 8 a/B.cpp:12 B::f one two\n",
         "trace"},
        {{"status"}, "{}", nested, outline, "status"},
        {{"schema"}, "{}", nested, outline, "schema"},
        {{"schema", "L3::VrfId"}, R"({"type":"L3::VrfId"})", nested, outline, "schema"},
        {{"kernel"}, "{}", nested, outline, "kernel"},
        {{"kernel", "verify"}, R"({"verify":true})", nested, outline, "kernel"},
    };
    Json result;
    const FakeAgent agent([&](const Json& request) { return resultLine(request, result); });
    for (const Case& each : cases) {
        SCOPED_TRACE(::testing::PrintToString(each.arguments));
        result = Json::parse(each.result);
        const Outcome run = runCtl(agent, each.arguments);
        EXPECT_EQ(run.status, 0) << run.err;
        EXPECT_EQ(run.out, each.out);
        EXPECT_EQ(agent.requests().back().at("method"), each.method);
        EXPECT_EQ(agent.requests().back().at("params").dump(), each.params);
    }
    result = Json::parse(worded);
    EXPECT_EQ(runCtl({"show", "mroute", "--socket", agent.path()}).out, "the text\n");
}

TEST(Lines, WhatTheAgentRefusesIsToldOnStandardErrorWithItsPlace) {
    const Json error{{"code", -32602},
                     {"message", "no attribute oif"},
                     {"data", {{"path", "a/b"}, {"attribute", "oif"}, {"field", "x"}}}};
    const FakeAgent agent([&](const Json& request) { return errorLine(request, error); });
    const Outcome run = runCtl(agent, {"set", "a/b", "oif", "1"});
    EXPECT_EQ(run.status, Ctl::exitFailed);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, "kestrelctl: no attribute oif (path a/b, field x)\n");
    EXPECT_EQ(runCtl(agent, {"set", "a/b", "oif", "1", "--json"}).err, error.dump() + "\n");
}

TEST(Usage, FaultsAreStatus2AndNobodyIsAsked) {
    const FakeAgent agent(answerCommand);
    const std::vector<std::vector<std::string>> cases{
        {},
        {"frobnicate"},
        {"vrf"},
        {"vrf", "red", "--bogus"},
        {"show", "mroute", "--raw"},
        {"mark", "more"},
        {"get"},
        {"get", "p", "a", "k", "more"},
        {"get", "p", "--limit", "0"},
        {"get", "p", "--limit", "many"},
        {"apply"},
        {"trace", "Facility"},
        {"trace", "Facility", "10"},
        {"trace", "--last", "x"},
        {"trace", "Facility", "3", "--last", "5"},
        {"kernel", "check"},
        {"watch", "--since", "instance"},
        {"watch", "--since", ":5"},
        {"watch", "--since", "a:b:"},
        {"wait"},
        {"wait", "vrfs", "=", "1"},
        {"wait", "mroute", "intf", "Ethernet1"},
        {"wait", "mroute", "=", "none", "timeout", "soon"},
    };
    for (const auto& arguments : cases) {
        const Outcome run = runCtl(agent, arguments);
        EXPECT_EQ(run.status, Ctl::exitUsage) << ::testing::PrintToString(arguments);
        EXPECT_EQ(run.out, "");
        EXPECT_EQ(run.err.find("kestrelctl: "), 0U) << run.err;
    }
    EXPECT_TRUE(agent.requests().empty());
    EXPECT_EQ(runCtl({"frobnicate"}).err,
              "kestrelctl: there is no command 'frobnicate'; kestrelctl --help lists them\n");
}

TEST(Usage, EveryCommandHasHelp) {
    const Outcome all = runCtl({"--help"});
    EXPECT_EQ(all.status, 0);
    for (const std::string command :
         {"vrf", "no", "route", "request", "group", "egress", "expect", "show", "status", "mark", "set",
          "del", "get", "watch", "wait", "apply", "trace", "schema", "kernel"}) {
        EXPECT_NE(all.out.find("  " + command + " "), std::string::npos) << command;
        const Outcome help = runCtl({command, "--help"});
        EXPECT_EQ(help.status, 0);
        EXPECT_NE(help.out.find("Usage:"), std::string::npos);
        EXPECT_NE(help.out.find(" " + command), std::string::npos) << command << help.out;
        EXPECT_EQ(help.err, "");
    }
    EXPECT_EQ(runCtl({"--version"}).out.find("kestrelctl "), 0U);
}

TEST(Connection, AnAbsentOrDeadAgentIsNamedByItsSocket) {
    const std::string folder = std::filesystem::temp_directory_path() / "kestrelctl-test-absent";
    std::filesystem::create_directories(folder);
    const std::string path = folder + "/agent.sock";
    std::filesystem::remove(path);
    const Outcome absent = runCtl({"--socket", path, "status"});
    EXPECT_EQ(absent.status, Ctl::exitFailed);
    EXPECT_EQ(absent.err,
              "kestrelctl: no agent at " + path + ": there is no such socket; --socket names another\n");

    const int leftover = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.data(), path.size());
    ASSERT_EQ(::bind(leftover, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    ::close(leftover);
    EXPECT_EQ(runCtl({"--socket", path, "status"}).err,
              "kestrelctl: no agent at " + path + ": the one that made the socket has gone\n");
    std::filesystem::remove_all(folder);

    EXPECT_NE(runCtl({"--socket", std::string(200, 'x'), "status"}).err.find("1 to 107 bytes"),
              std::string::npos);
}

TEST(Connection, AnAgentThatGoesOrSpeaksNonsenseIsToldApart) {
    std::string say;
    const FakeAgent agent([&say](const Json&) { return say; });
    const auto errorOf = [&](const std::string& answer) {
        say = answer;
        const Outcome run = runCtl(agent, {"mark"});
        EXPECT_EQ(run.status, Ctl::exitFailed);
        EXPECT_EQ(run.out, "");
        return run.err;
    };
    const std::string lost = "kestrelctl: the agent at " + agent.path() + " is lost: ";
    EXPECT_EQ(errorOf(""), lost + "it closed the connection\n");
    EXPECT_EQ(errorOf("HTTP/1.1 400 Bad Request\n"), lost + "it speaks another language\n");
    EXPECT_EQ(errorOf(R"({"jsonrpc":"2.0","id":99,"result":1})"
                      "\n"),
              lost + "it answers another question\n");
    // One client too many: refused as a whole, without an id.
    EXPECT_EQ(errorOf(R"({"jsonrpc":"2.0","id":null,"error":{"code":-32002,"message":"full"}})"
                      "\n"),
              "kestrelctl: full\n");
}

TEST(Connection, ResultsThatCanNotBeWrittenAreAFailure) {
    const FakeAgent agent(answerCommand);
    std::ofstream full("/dev/full");
    std::ostringstream err;
    EXPECT_EQ(Ctl::run({"--socket", agent.path(), "mark"}, full, err), Ctl::exitFailed);
    EXPECT_EQ(err.str(), "kestrelctl: the result can't be written\n");
}

class ApplyTest : public testing::Test {
  protected:
    ApplyTest() { std::filesystem::create_directories(folder); }
    ~ApplyTest() override { std::filesystem::remove_all(folder); }

    std::string write(const std::string& text) const {
        std::ofstream(file, std::ios::binary) << text;
        return file;
    }

    const std::string folder =
        std::filesystem::temp_directory_path() / ("kestrelctl-apply-" + std::to_string(::getpid()));
    const std::string file = folder + "/state";
};

TEST_F(ApplyTest, SendsTheFilesLinesAndPrintsTheAnswersThatChanged) {
    const FakeAgent agent(always(Json::parse(
        R"({"changed":2,"answers":[{"path":"api/mroute/resp","attribute":"mrouteResp","key":{"intf":"Ethernet5",)"
        R"("vrfId":3,"vlanId":10,"sourceIp":"10.0.0.1","groupIp":"239.1.1.1","type":0},"value":["Ethernet1"]}]})")));
    const std::string answer = "mroute (10.0.0.1, 239.1.1.1) in 3 for Ethernet5 vlan 10: Ethernet1\n";
    const std::string lines =
        "# a VRF\n\nvrf red id 3\nroute red static 10.0.0.1/32 239.1.1.1/32 oifs Ethernet1";
    EXPECT_EQ(runCtl(agent, {"apply", write(lines)}).out, answer);
    EXPECT_EQ(
        agent.requests().back().at("params").dump(),
        R"({"lines":["# a VRF","","vrf red id 3","route red static 10.0.0.1/32 239.1.1.1/32 oifs Ethernet1"]})");

    std::istringstream input("vrf red id 3\n");
    std::streambuf* before = std::cin.rdbuf(input.rdbuf());
    EXPECT_EQ(runCtl(agent, {"apply", "-", "--dry-run", "--raw"}).out, answer);
    std::cin.rdbuf(before);
    EXPECT_EQ(agent.requests().back().at("params").dump(),
              R"({"lines":["vrf red id 3"],"dryRun":true,"raw":true})");
}

TEST_F(ApplyTest, ARefusedLineIsNamedByFileAndNumber) {
    const Json data{{"line", 2}, {"text", "rout"}};
    Json error{{"code", -32602}, {"message", "expected a command, not 'rout'"}, {"data", data}};
    const FakeAgent agent([&](const Json& request) { return errorLine(request, error); });
    const std::string told = "kestrelctl: " + file + ":2: expected a command, not 'rout'\n";
    const Outcome run = runCtl(agent, {"apply", write("vrf red\nrout\n")});
    EXPECT_EQ(run.status, Ctl::exitFailed);
    EXPECT_EQ(run.err, told);
    error["message"] = "line 2: expected a command, not 'rout'";
    EXPECT_EQ(runCtl(agent, {"apply", file}).err, told) << "the number stands there once";
    EXPECT_EQ(runCtl(agent, {"apply", file, "--json"}).err, error.dump() + "\n");
    error.erase("data");
    EXPECT_EQ(runCtl(agent, {"apply", file}).err.find("kestrelctl: " + file + ": line 2"), 0U);
}

TEST_F(ApplyTest, ADryRunThatForetellsTheAgentsEndFails) {
    const FakeAgent agent(always({{"assertion", "vrfId != 0"}}));
    const Outcome run = runCtl(agent, {"apply", write("vrf red\n"), "--dry-run"});
    EXPECT_EQ(run.status, Ctl::exitFailed);
    EXPECT_EQ(run.err, "kestrelctl: this would end the agent: vrfId != 0\n");
    EXPECT_EQ(runCtl(agent, {"apply", file, "--dry-run", "--json"}).out, "{\"assertion\":\"vrfId != 0\"}\n");
}

TEST_F(ApplyTest, AFileThatCanNotBeSentIsSaidToBeSo) {
    const FakeAgent agent(answerCommand);
    EXPECT_EQ(runCtl(agent, {"apply", folder + "/none"}).err,
              "kestrelctl: " + folder + "/none: can't be opened\n");
    EXPECT_EQ(runCtl(agent, {"apply", folder}).err, "kestrelctl: " + folder + ": can't be read\n");
    EXPECT_EQ(runCtl(agent, {"apply", write("vrf red\nvrf \xff\n")}).err,
              "kestrelctl: " + file + ":2: not UTF-8\n");
    const Outcome large = runCtl(agent, {"apply", write(std::string(5'000'000, '#'))});
    EXPECT_NE(large.err.find("the agent takes 4194304"), std::string::npos) << large.err;
    EXPECT_TRUE(agent.requests().empty());
}

} // namespace
} // namespace CtlTest
