// Plays the examples of docs/control-protocol.md against the real agent and holds its answers against the
// document.
#include "tests/agent/AgentProcess.h"

#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <string>
#include <vector>

namespace AgentTest {
namespace {

struct Transcript {
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

Transcript documented() {
    Transcript transcript;
    std::ifstream file(std::string(KESTREL_SOURCE_DIR) + "/docs/control-protocol.md");
    for (std::string line; std::getline(file, line);)
        if (line.starts_with("-> ") || line.starts_with("<- "))
            transcript.take(Json::parse(line.substr(3)));
    return transcript;
}

TEST(ControlProtocolDocument, ItsExamplesAreWhatTheAgentAnswers) {
    const Transcript wanted = documented();
    ASSERT_GE(wanted.requests.size(), 10U) << "the document has its examples";
    const TemporaryFolder folder;
    const AgentProcess agent(folder, {"--toggle", "KestrelNatMfibLumen=on"});
    TestClient client(agent.socket());
    Transcript actual;
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
