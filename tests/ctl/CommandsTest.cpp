// kestrelctl's commands against a fake agent: what it sends, what it prints, and how it ends.
#include "tests/ctl/FakeAgent.h"

#include "ctl/CommandLine.h"
#include "ctl/Commands.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace CtlTest {
namespace {

const std::string worded = R"({"result": {"z": 1, "a": [2.5, "\u00e9"]}, "text": "the text\n"})";

// Answers every `command` by one text and one result.
std::string answerCommand(const Request& request) {
    return resultLine(request, worded);
}

TEST(Commands, AreLinesWhoseTextIsPrinted) {
    struct Case {
        std::vector<std::string> arguments;
        std::string line; // as JSON
    };
    const Case cases[] = {
        {{"vrf", "red", "id", "3", "multicast", "on"}, R"("vrf red id 3 multicast on")"},
        {{"expect", "trace", "a \"b\""}, R"("expect trace \"a \\\"b\\\"\"")"},
        {{"set", "p", "a", R"(["x","y"])"}, R"("set p a \"[\\\"x\\\",\\\"y\\\"]\"")"},
        {{"del", "p", "a", "-5"}, R"("del p a -5")"},
        {{"set", "p", "a", "--", "--json"}, R"("set p a --json")"},
        {{"mark"}, R"("mark")"},
        {{"show", "mroute"}, R"("show mroute")"},
        {{"get", "p"}, R"("get p")"},
        {{"get", "p", "a", R"({"vrfId":3})"}, R"("get p a \"{\\\"vrfId\\\":3}\"")"},
        {{"get", "--after", "7", "p", "a", "--limit", "5"}, R"("get p a limit 5 after 7")"},
        {{"get", "p", "a", "--after", "Ethernet 1"}, R"("get p a after \"Ethernet 1\"")"},
        {{"show", "--after", "1:a b", "mroute", "--limit", "5"}, R"("show mroute limit 5 after \"1:a b\"")"},
        {{"trace"}, R"("trace")"},
        {{"trace", "Agent", "8"}, R"("trace Agent 8")"},
        {{"trace", "--last", "5"}, R"("trace last 5")"},
        {{"trace", "last", "5"}, R"("trace last 5")"},
        {{"status"}, R"("status")"},
        {{"schema"}, R"("schema")"},
        {{"schema", "L3::VrfId"}, R"("schema L3::VrfId")"},
        {{"kernel"}, R"("kernel")"},
        {{"kernel", "verify"}, R"("kernel verify")"},
    };
    const FakeAgent agent(answerCommand);
    for (const Case& each : cases) {
        SCOPED_TRACE(::testing::PrintToString(each.arguments));
        const Outcome run = runCtl(agent, each.arguments);
        EXPECT_EQ(run.status, 0) << run.err;
        EXPECT_EQ(run.out, "the text\n");
        EXPECT_EQ(agent.requests().back().method, "command");
        EXPECT_EQ(agent.requests().back().params, R"({"line":)" + each.line + R"(,"text":true})");
    }
    EXPECT_EQ(runCtl({"show", "mroute", "--socket", agent.path()}).out, "the text\n");
}

TEST(Commands, FetchPageAfterPage) {
    struct Case {
        std::vector<std::string> arguments;
        std::vector<std::string> pages; // answers to the lines, in order: a result and its text, or an error
        std::vector<std::string> lines; // as JSON
        std::string text;
    };
    const std::string tooLarge = R"({"code":-32002,"message":"too large","data":{"field":"limit"}})";
    const Case cases[] = {
        {{"show", "mroute"},
         {R"({"result":{"rows":[1],"more":"1:a b"},"text":"VRF\na b\nmore: after \"1:a b\"\n"})",
          R"({"result":{"rows":[1],"more":"2:c"},"text":"VRF\nc\nmore: after 2:c\n"})",
          R"({"result":{"rows":[1]},"text":"VRF\nd\n"})"},
         {R"("show mroute")", R"("show mroute after \"1:a b\"")", R"("show mroute after 2:c")"},
         "VRF\na b\nc\nd\n"},
        {{"show", "mroute", "limit", "1"},
         {R"({"result":{"rows":[1],"more":"1:a"},"text":"VRF\na\nmore: after 1:a\n"})"},
         {R"("show mroute limit 1")"},
         "VRF\na\nmore: after 1:a\n"},
        {{"trace", "--last", "5"},
         {R"({"result":{"records":[7,8,9],"more":9},"text":"g\nh\ni\nmore: after 9\n"})",
          R"({"result":{"records":[10],"more":10},"text":"j\nmore: after 10\n"})",
          R"({"result":{"records":[11]},"text":"k\n"})"},
         {R"("trace last 5")", R"("trace last 2 after 9")", R"("trace last 1 after 10")"},
         "g\nh\ni\nj\nk\n"},
        {{"get", "p", "a"},
         {tooLarge, R"({"result":[{"key":{"n":1},"value":2}],"text":"x = 2\n"})",
          R"({"result":[],"text":""})"},
         {R"("get p a")", R"("get p a limit 1000")", R"("get p a limit 1000 after \"{\\\"n\\\":1}\"")"},
         "x = 2\n"},
        {{"get", "p", "a", "--after", "x"},
         {tooLarge, R"({"result":["y"],"text":"y\n"})", R"({"result":[],"text":""})"},
         {R"("get p a after x")", R"("get p a limit 1000 after x")",
          R"("get p a limit 1000 after \"\\\"y\\\"\"")"},
         "y\n"},
    };
    for (const Case& each : cases) {
        SCOPED_TRACE(::testing::PrintToString(each.arguments));
        std::size_t asked = 0;
        const FakeAgent agent([&](const Request& request) {
            const std::string& page = each.pages.at(asked++);
            return page.starts_with(R"({"code")") ? errorLine(request, page) : resultLine(request, page);
        });
        const Outcome run = runCtl(agent, each.arguments);
        EXPECT_EQ(run.status, 0) << run.err;
        EXPECT_EQ(run.out, each.text);
        ASSERT_EQ(agent.requests().size(), each.lines.size());
        for (std::size_t i = 0; i < each.lines.size(); ++i)
            EXPECT_EQ(agent.requests()[i].params, R"({"line":)" + each.lines[i] + R"(,"text":true})");
    }

    // What has no pages is refused, a page of it as well.
    const FakeAgent refusing([&](const Request& request) { return errorLine(request, tooLarge); });
    EXPECT_EQ(runCtl(refusing, {"get", "p"}).status, Ctl::exitFailed);
    EXPECT_EQ(runCtl(refusing, {"get", "p", "a"}).status, Ctl::exitFailed);
    EXPECT_EQ(refusing.requests().size(), 3U);
    // As they come, one a line.
    bool isFirst = true;
    const FakeAgent agent([&](const Request& request) {
        return resultLine(request, std::exchange(isFirst, false) ? R"({"result":{"rows":[1],"more":"a"}})"
                                                                 : R"({"result":{"rows":[2]}})");
    });
    EXPECT_EQ(runCtl(agent, {"show", "mroute", "--json"}).out,
              "{\"rows\":[1],\"more\":\"a\"}\n{\"rows\":[2]}\n");
}

TEST(Commands, PrintTheResultAsItCameWhereThatIsWanted) {
    const FakeAgent agent(answerCommand);
    // Options may stand anywhere.
    const std::vector<std::vector<std::string>> cases{{"--json", "vrf", "red", "--raw"},
                                                      {"vrf", "--raw", "--json", "red"}};
    for (const auto& arguments : cases) {
        EXPECT_EQ(runCtl(agent, arguments).out, "{\"z\":1,\"a\":[2.5,\"\u00e9\"]}\n");
        EXPECT_EQ(agent.requests().back().params, R"({"line":"vrf red","raw":true})");
    }
}

TEST(Lines, WhatTheAgentRefusesIsToldOnStandardErrorWithItsPlace) {
    std::string error = R"({"code":-32602,"message":"no attribute oif",)"
                        R"("data":{"path":"a/b","attribute":"oif","field":"x"}})";
    const FakeAgent agent([&](const Request& request) { return errorLine(request, error); });
    const Outcome run = runCtl(agent, {"set", "a/b", "oif", "1"});
    EXPECT_EQ(run.status, Ctl::exitFailed);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, "kestrelctl: no attribute oif (path a/b, field x)\n");
    EXPECT_EQ(runCtl(agent, {"set", "a/b", "oif", "1", "--json"}).err, error + "\n");

    error = R"({"code":-32602,"message":"expected a VRF, not '7'","data":{"word":2}})";
    const Outcome misspelt = runCtl(agent, {"vrf", "7"});
    EXPECT_EQ(misspelt.status, Ctl::exitUsage) << "a word of the command line is wrong";
    EXPECT_EQ(misspelt.err, "kestrelctl: expected a VRF, not '7'\n");
}

TEST(Usage, FaultsAreStatus2AndNobodyIsAsked) {
    const FakeAgent agent(answerCommand);
    const std::vector<std::vector<std::string>> cases{
        {},
        {"frobnicate"},
        {"vrf"},
        {"vrf", "red", "--bogus"},
        {"show", "mroute", "--raw"},
        {"get"},
        {"get", "p", "--limit", "0"},
        {"get", "p", "a", "--after", "\xff"},
        {"get", "p", "--limit", "many"},
        {"set", "p", "a", "\xff"},
        {"apply"},
        {"watch", "more"},
        {"trace", "--last", "x"},
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
    EXPECT_EQ(runCtl({"shwo", "mroute"}).err,
              "kestrelctl: there is no command 'shwo'; did you mean \"show\"?\n");
    EXPECT_EQ(runCtl({"get", "p", "--limti=5"}).err,
              "kestrelctl: there is no option '--limti'; did you mean \"--limit\"?\n");
    EXPECT_EQ(runCtl({"--jsn", "status"}).err,
              "kestrelctl: there is no option '--jsn'; did you mean \"--json\"?\n");
    EXPECT_EQ(runCtl({"vrf", "red", "--frobnicate"}).err,
              "kestrelctl: there is no option '--frobnicate'; kestrelctl vrf --help lists them\n");
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
    const TemporaryFolder folder;
    const std::string path = folder.file("agent.sock");
    const Outcome absent = runCtl({"--socket", path, "status"});
    EXPECT_EQ(absent.status, Ctl::exitFailed);
    EXPECT_EQ(absent.err,
              "kestrelctl: no agent at " + path + ": there is no such socket; --socket names another\n");

    ::close(boundSocket(SOCK_STREAM, path)); // what one leaves that was killed
    EXPECT_EQ(runCtl({"--socket", path, "status"}).err,
              "kestrelctl: no agent at " + path + ": the one that made the socket has gone\n");
    EXPECT_NE(runCtl({"--socket", std::string(200, 'x'), "status"}).err.find("1 to 107 bytes"),
              std::string::npos);
}

TEST(Connection, AnAgentThatGoesOrSpeaksNonsenseIsToldApart) {
    std::string say;
    const FakeAgent agent([&say](const Request&) { return say; });
    const std::string lost = "the agent at " + agent.path() + " is lost: ";
    const std::pair<std::string, std::string> cases[] = {
        {"", lost + "it closed the connection"},
        {"HTTP/1.1 400 Bad Request\n", lost + "it speaks another language"},
        {"[1]\n", lost + "it speaks another language"},
        {"{\"jsonrpc\":\"2.0\",\"id\":1,\"result\":{},\"\xff\":1}\n", lost + "it speaks another language"},
        {resultLine({.id = 1}, R"({"text":1})"),
         "the agent speaks another language: its message lacks a proper \"text\""},
        {resultLine({.id = 99}, "1"), lost + "it answers another question"},
        // One client too many: refused as a whole, without an id.
        {"{\"jsonrpc\":\"2.0\",\"id\":null,\"error\":{\"code\":-32002,\"message\":\"full\"}}\n", "full"},
    };
    for (const auto& [answer, error] : cases) {
        say = answer;
        const Outcome run = runCtl(agent, {"mark"});
        EXPECT_EQ(run.status, Ctl::exitFailed);
        EXPECT_EQ(run.out, "");
        EXPECT_EQ(run.err, "kestrelctl: " + error + "\n");
    }
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
    std::string write(const std::string& text) const {
        std::ofstream(file, std::ios::binary) << text;
        return file;
    }

    const TemporaryFolder folder;
    const std::string file = folder.file("state");
};

TEST_F(ApplyTest, SendsTheFilesLinesAndPrintsTheAnswersThatChanged) {
    const FakeAgent agent([](const Request& request) {
        return resultLine(request,
                          R"({"changed":2,"answers":[{"value":["Ethernet1"],"text":"the answer"}]})");
    });
    const std::string lines =
        "\xef\xbb\xbf# a VRF\n\nvrf red id 3\nroute red static 10.0.0.1/32 239.1.1.1/32 oifs Ethernet1";
    EXPECT_EQ(runCtl(agent, {"apply", write(lines)}).out, "the answer\n");
    EXPECT_EQ(
        agent.requests().back().params,
        R"({"lines":["# a VRF","","vrf red id 3","route red static 10.0.0.1/32 239.1.1.1/32 oifs Ethernet1"],"text":true})");

    std::istringstream input("vrf red id 3\n");
    std::streambuf* before = std::cin.rdbuf(input.rdbuf());
    EXPECT_EQ(runCtl(agent, {"apply", "-", "--dry-run", "--raw"}).out, "the answer\n");
    std::cin.rdbuf(before);
    EXPECT_EQ(agent.requests().back().params,
              R"({"lines":["vrf red id 3"],"dryRun":true,"raw":true,"text":true})");
}

TEST_F(ApplyTest, ARefusedLineIsNamedByFileAndNumber) {
    const std::string message = "expected a command, not 'rout'";
    const auto errorOf = [](const std::string& text, const std::string& more) {
        return R"({"code":-32602,"message":")" + text + "\"" + more + "}";
    };
    const std::string data = R"(,"data":{"line":2,"word":1,"text":"rout"})";
    std::string error = errorOf(message, data);
    const FakeAgent agent([&](const Request& request) { return errorLine(request, error); });
    const std::string told = "kestrelctl: " + file + ":2: expected a command, not 'rout'\n";
    const Outcome run = runCtl(agent, {"apply", write("vrf red\nrout\n")});
    EXPECT_EQ(run.status, Ctl::exitFailed);
    EXPECT_EQ(run.err, told);
    error = errorOf("line 2: " + message, data);
    EXPECT_EQ(runCtl(agent, {"apply", file}).err, told) << "the number stands there once";
    EXPECT_EQ(runCtl(agent, {"apply", file, "--json"}).err, error + "\n");
    error = errorOf("line 2: " + message, "");
    EXPECT_EQ(runCtl(agent, {"apply", file}).err.find("kestrelctl: " + file + ": line 2"), 0U);
}

TEST_F(ApplyTest, ADryRunThatForetellsTheAgentsEndFails) {
    const FakeAgent agent(
        [](const Request& request) { return resultLine(request, R"({"assertion":"vrfId != 0"})"); });
    const Outcome run = runCtl(agent, {"apply", write("vrf red\n"), "--dry-run"});
    EXPECT_EQ(run.status, Ctl::exitFailed);
    EXPECT_EQ(run.err, "kestrelctl: this would end the agent: vrfId != 0\n");
    EXPECT_EQ(runCtl(agent, {"apply", file, "--dry-run", "--json"}).out, "{\"assertion\":\"vrfId != 0\"}\n");
}

TEST_F(ApplyTest, AFileThatCanNotBeSentIsSaidToBeSo) {
    const FakeAgent agent(answerCommand);
    const std::string none = folder.file("none");
    EXPECT_EQ(runCtl(agent, {"apply", none}).err, "kestrelctl: " + none + ": can't be opened\n");
    const std::string itself = folder.file("");
    EXPECT_EQ(runCtl(agent, {"apply", itself}).err, "kestrelctl: " + itself + ": can't be read\n");
    EXPECT_EQ(runCtl(agent, {"apply", write("vrf red\nvrf \xff\n")}).err,
              "kestrelctl: " + file + ":2: not UTF-8\n");
    const Outcome large = runCtl(agent, {"apply", write(std::string(5'000'000, '#'))});
    EXPECT_NE(large.err.find("the agent takes 4194304"), std::string::npos) << large.err;
    EXPECT_TRUE(agent.requests().empty());
}

} // namespace
} // namespace CtlTest
