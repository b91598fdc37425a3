// Plays the examples of docs/control-protocol.md against the real agent and holds its answers against the
// document.
#include "tests/agent/AgentProcess.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <fstream>
#include <map>
#include <string>
#include <vector>

namespace {

using nlohmann::json;

// Whether `actual` has all that `wanted` says; "..." stands for anything.
bool holds(const json& wanted, const json& actual) {
    if (wanted == "...")
        return true;
    if (wanted.is_object() && actual.is_object()) {
        for (const auto& [name, value] : wanted.items())
            if (!actual.contains(name) || !holds(value, actual[name]))
                return false;
        return true;
    }
    if (wanted.is_array() && actual.is_array() && wanted.size() == actual.size()) {
        for (std::size_t i = 0; i < wanted.size(); ++i)
            if (!holds(wanted[i], actual[i]))
                return false;
        return true;
    }
    return wanted == actual;
}

struct Transcript {
    std::map<int, json> requests;
    std::map<int, json> answers;
    std::vector<json> notifications;

    void take(const json& message) {
        if (!message.contains("id"))
            notifications.push_back(message);
        else
            (message.contains("method") ? requests : answers)[message["id"].get<int>()] = message;
    }
};

Transcript documented() {
    Transcript transcript;
    std::ifstream file(std::string(KESTREL_SOURCE_DIR) + "/docs/control-protocol.md");
    for (std::string line; std::getline(file, line);)
        if (line.starts_with("-> ") || line.starts_with("<- "))
            transcript.take(json::parse(line.substr(3)));
    return transcript;
}

TEST(ControlProtocolDocument, ItsExamplesAreWhatTheAgentAnswers) {
    const Transcript wanted = documented();
    ASSERT_GE(wanted.requests.size(), 10U) << "the document has its examples";
    const AgentTest::TemporaryFolder folder;
    const AgentTest::AgentProcess agent(folder, {"--toggle", "KestrelNatMfibLumen=on"});
    AgentTest::TestClient client(agent.socket());
    Transcript actual;
    for (const auto& [id, request] : wanted.requests) {
        client.send(request.dump() + "\n");
        while (!actual.answers.contains(id)) {
            const auto line = client.line();
            ASSERT_TRUE(line.has_value()) << request;
            actual.take(json::parse(*line));
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
