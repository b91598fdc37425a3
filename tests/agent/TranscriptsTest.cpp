// Transcripts of the control protocol, played against a real agent: the examples of docs/control-protocol.md, and each
// file of tests/transcripts on an agent of its own. A line there is
//
//     -> METHOD PARAMETERS     a request
//     <- RESULT                what it must yield, as far as is said here
//     <! CODE DATA TEXT        or the error, its data as far as is said here, its message with TEXT in it
#include "tests/agent/AgentProcess.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

namespace AgentTest {
namespace {

namespace fs = std::filesystem;

const std::vector<std::string> options{"--toggle", "KestrelNatMfibLumen=on", "--software-chip"};

// Cuts a line behind its first JSON object, or what else comes in front of a blank.
std::pair<std::string, std::string> cut(const std::string& line) {
    std::size_t end = line.starts_with('{') ? line.find("} ") : line.find(' ');
    end = end == std::string::npos ? line.size() : end + (line[end] == '}' ? 1 : 0);
    return {line.substr(0, end), line.substr(std::min(end + 1, line.size()))};
}

class Transcripts : public testing::TestWithParam<fs::path> {};

TEST_P(Transcripts, Hold) {
    const TemporaryFolder folder;
    const AgentProcess agent(folder, options);
    RpcClient client = agent.client();
    std::ifstream file(GetParam());
    std::string method;
    std::string parameters;
    int exchanges = 0;
    for (std::string line; std::getline(file, line);) {
        SCOPED_TRACE(testing::Message() << method << " " << parameters << "\n" << line);
        const std::string rest = line.substr(std::min<std::size_t>(3, line.size()));
        if (line.starts_with("-> ")) {
            std::tie(method, parameters) = cut(rest);
        } else if (line.starts_with("<- ")) {
            const Json result = client.result(method, Json::parse(parameters));
            EXPECT_TRUE(holds(Json::parse(rest), result)) << result;
            ++exchanges;
        } else if (line.starts_with("<! ")) {
            const auto [code, more] = cut(rest);
            const auto [data, text] = cut(more);
            const Json error = client.error(method, Json::parse(parameters));
            EXPECT_EQ(error.at("code"), std::stoi(code)) << error;
            EXPECT_TRUE(holds(Json::parse(data), error.contains("data") ? error.at("data") : json("{}")))
                << error;
            EXPECT_NE(error.at("message").text().find(text), std::string::npos) << error;
            ++exchanges;
        } else {
            EXPECT_TRUE(line.empty() || line.starts_with('#'));
        }
    }
    EXPECT_GT(exchanges, 0);
}

std::vector<fs::path> files() {
    const fs::directory_iterator folder(KESTREL_SOURCE_DIR "/tests/transcripts");
    return {begin(folder), end(folder)};
}

INSTANTIATE_TEST_SUITE_P(All, Transcripts, testing::ValuesIn(files()), [](const auto& file) {
    std::string name = file.param.stem().string();
    std::replace(name.begin(), name.end(), '-', '_');
    return name;
});

// ---- the document, whose examples are whole messages

struct Messages {
    std::map<std::uint64_t, Json> requests;
    std::map<std::uint64_t, Json> answers;
    std::vector<Json> notifications;

    void take(const Json& message) {
        if (!message.contains("id"))
            notifications.push_back(message);
        else
            (message.contains("method") ? requests : answers)[message.at("id").number()] = message;
    }
};

Messages documented() {
    Messages messages;
    std::ifstream file(KESTREL_SOURCE_DIR "/docs/control-protocol.md");
    for (std::string line; std::getline(file, line);)
        if (line.starts_with("-> ") || line.starts_with("<- "))
            messages.take(Json::parse(line.substr(3)));
    return messages;
}

TEST(ControlProtocolDocument, ItsExamplesAreWhatTheAgentAnswers) {
    const Messages wanted = documented();
    ASSERT_GE(wanted.requests.size(), 10U) << "the document has its examples";
    const TemporaryFolder folder;
    const AgentProcess agent(folder, {"--toggle", "KestrelNatMfibLumen=on"});
    TestClient client(agent.socket());
    Messages actual;
    for (const auto& [id, request] : wanted.requests) {
        client.send(request.dump() + "\n");
        while (!actual.answers.contains(id)) {
            const auto line = client.line();
            ASSERT_TRUE(line.has_value()) << request;
            actual.take(Json::parse(*line));
        }
    }
    for (const auto& [id, request] : wanted.requests) {
        ASSERT_TRUE(wanted.answers.contains(id)) << request;
        EXPECT_TRUE(holds(wanted.answers.at(id), actual.answers[id]))
            << request << "\ndocumented " << wanted.answers.at(id) << "\nanswered   " << actual.answers[id];
    }
    ASSERT_EQ(actual.notifications.size(), wanted.notifications.size());
    for (std::size_t i = 0; i < wanted.notifications.size(); ++i)
        EXPECT_TRUE(holds(wanted.notifications[i], actual.notifications[i])) << actual.notifications[i];
}

} // namespace
} // namespace AgentTest
