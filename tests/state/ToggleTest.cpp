// Feature toggles: where their values come from, and what an operator is told about a file that is no toggle
// file.
#include "state/Toggle.h"

#include "tests/state/TraceFixture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <utility>

namespace {

class ToggleTest : public TraceTest {
  protected:
    ToggleTest() {
        directory_ =
            std::filesystem::path(testing::TempDir()) / ("toggles." + std::to_string(std::random_device()()));
        std::filesystem::create_directories(directory_);
        State::toggleDirectoryIs(directory_.string());
    }
    ~ToggleTest() override {
        State::toggleDirectoryIs("");
        std::filesystem::remove_all(directory_);
    }

    void write(std::string_view text) { std::ofstream(path(), std::ios::binary) << text; }
    std::string path() const { return (directory_ / "Test.json").string(); }
    static bool get(std::string_view name, bool defaultValue) {
        return State::getToggleState(name, "Test.json", defaultValue);
    }

    std::filesystem::path directory_;
};

TEST_F(ToggleTest, FileDecidesElseDefault) {
    EXPECT_TRUE(get("On", true)); // no file
    EXPECT_FALSE(get("On", false));
    write(" {\t\"On\" : true,\r\n\"Off\":false, \"a \\\"q\\\" \\\\ \\/ \\u00e9\\u20AC\\ud83d\\ude00\\n\": "
          "true}\n");
    EXPECT_TRUE(get("On", false));
    EXPECT_FALSE(get("Off", true));
    EXPECT_TRUE(get("a \"q\" \\ / \xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80\n", false));
    EXPECT_TRUE(get("Absent", true));
    EXPECT_FALSE(get("Absent", false));
    write("\xef\xbb\xbf{\"On\": true}");
    EXPECT_TRUE(get("On", false));
    write("{ }");
    EXPECT_FALSE(get("On", false));
    EXPECT_EQ(lines_.size(), 0U);
}

TEST_F(ToggleTest, MalformedFileCountsAsAbsentAndIsReported) {
    const std::pair<std::string, std::string> files[] = {
        {"", "line 1 column 1: expected '{'"},
        {"{}\xef\xbb\xbf", "line 1 column 3: unexpected text after the object"},
        {"{\"On\": true", "line 1 column 12: expected ',' or '}'"},
        {"{\n  \"On\": true\n  \"Off\": false\n}", "line 3 column 3: expected ',' or '}'"},
        {"{\"On\": true,}", "line 1 column 13: expected a name in quotes"},
        {"{On: true}", "line 1 column 2: expected a name in quotes"},
        {"{\"On\" true}", "line 1 column 7: expected ':'"},
        {"{\"On\": 1}", "line 1 column 8: expected true or false"},
        {"{\"On\": TRUE}", "line 1 column 8: expected true or false"},
        {"{\"On\": truest}", "line 1 column 12: expected ',' or '}'"},
        {"{\"On\": true} // why", "line 1 column 14: unexpected text after the object"},
        {"{\"On\": true,\n\"On\": true}", "line 2 column 1: duplicate name \"On\""},
        {"{\"On: true}", "line 1 column 12: the name has no closing quote"},
        {"{\"O\nn\": true}", "line 1 column 4: control character in a name"},
        {"{\"On\\x\": true}", "line 1 column 5: unknown escape"},
        {"{\"On\\", "line 1 column 5: unknown escape"},
        {"{\"On\\u12\": true}", "line 1 column 5: unknown escape"},
        {"{\"On\\u-123\": true}", "line 1 column 5: unknown escape"},
        {"{\"On\\ude00\": true}", "line 1 column 11: half of a surrogate pair"},
        {"{\"On\\ud83d\\u0041\": true}", "line 1 column 17: half of a surrogate pair"},
    };
    for (const auto& [text, complaint] : files) {
        SCOPED_TRACE(text);
        write(text);
        lines_.clear();
        EXPECT_TRUE(get("On", true));
        EXPECT_FALSE(get("On", false));
        const std::string message = "toggle file " + path() + " ignored, " + complaint;
        EXPECT_EQ(messages(lines_), Texts({message, message}));
        EXPECT_TRUE(lines_[0].level == 0 && lines_[0].facility == "State");
    }
}

TEST_F(ToggleTest, FileThatCannotBeReadIsReported) {
    const std::string complaint = "toggle file " + path() + " ignored, it cannot be read: ";
    std::filesystem::create_symlink(path(), path()); // a link to itself
    EXPECT_TRUE(get("On", true));
    std::filesystem::remove(path());
    std::filesystem::create_directory(path());
    EXPECT_TRUE(get("On", true));
    EXPECT_EQ(messages(lines_), Texts({complaint + std::strerror(ELOOP), complaint + std::strerror(EISDIR)}));
}

TEST_F(ToggleTest, OverridesWinAndAnswersAreRemembered) {
    write("{\"InFile\": false, \"Overridden\": false}");
    State::toggleOverrideIs("Overridden", false);
    State::toggleOverrideIs("Overridden", true);
    EXPECT_FALSE(get("InFile", true));
    EXPECT_TRUE(get("Overridden", false));
    EXPECT_TRUE(get("Unset", true));
    State::toggleOverrideIs("InFile", true);
    EXPECT_TRUE(get("InFile", true));

    Texts seen;
    for (const State::ToggleStatus& toggle : State::toggles()) {
        const bool isDefault = toggle.origin == State::ToggleOrigin::defaultValue;
        const bool isOverridden = toggle.origin == State::ToggleOrigin::overridden;
        if (toggle.value && toggle.file == "Test.json" && (isDefault || isOverridden))
            seen.push_back(toggle.name + (isDefault ? " default" : ""));
    }
    for (const char* each : {"InFile", "Overridden", "Unset default"})
        EXPECT_EQ(std::ranges::count(seen, each), 1) << each;
}

TEST_F(ToggleTest, DirectoryComesFromCallElseEnvironmentElseEtc) {
    EXPECT_EQ(State::toggleDirectory(), directory_.string());
    State::toggleDirectoryIs("");
    ::setenv("KESTREL_TOGGLE_DIR", "/nowhere", 1);
    EXPECT_EQ(State::toggleDirectory(), "/nowhere");
    ::setenv("KESTREL_TOGGLE_DIR", "", 1);
    EXPECT_EQ(State::toggleDirectory(), "/etc/kestrel-nat");
    ::unsetenv("KESTREL_TOGGLE_DIR");
    EXPECT_EQ(State::toggleDirectory(), "/etc/kestrel-nat");
}

} // namespace
