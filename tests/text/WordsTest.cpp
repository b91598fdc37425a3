// Lines as words, the words that somebody may have meant, the verbs with which lines begin, and the socket's path.
#include "text/Words.h"
#include "text/Nearest.h"
#include "text/SocketPath.h"
#include "text/Verbs.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace TextTest {
namespace {

TEST(Words, AreQuotedOnlyWhereTheLineWouldReadOtherwise) {
    EXPECT_EQ(Text::joinWords({"route", "red", "10.0.0.1/32", "=", "a,b:c"}),
              "route red 10.0.0.1/32 = a,b:c");
    EXPECT_EQ(Text::joinWords({"a b", "", "#", R"({"k":"\"})", "t\tb", "\xc3\xa9"}),
              "\"a b\" \"\" \"#\" \"{\\\"k\\\":\\\"\\\\\\\"}\" \"t\tb\" \xc3\xa9");
    EXPECT_EQ(Text::joinWords({}), "");
}

TEST(Words, ComeBackFromTheirLine) {
    const std::vector<std::string> words{"a", "b c", "", "#", "\"", "\\", "t\tn\nr\r", "a#b", R"(["x","y"])"};
    EXPECT_EQ(Text::splitWords(Text::joinWords(words)), words);
    EXPECT_EQ(Text::splitWords("  a\tb\"c d\"e  # f \"\r"), (std::vector<std::string>{"a", "bc de"}));
    EXPECT_TRUE(Text::splitWords(" \t# only a comment").empty());
    EXPECT_THROW(Text::splitWords("a \"b c"), std::invalid_argument);
}

TEST(Nearest, IsTheWordThatWasMeantOrNone) {
    constexpr std::string_view known[] = {"show", "set", "status", "static", "no"};
    const auto nearest = [&](std::string_view word) { return Text::nearest(word, known); };
    EXPECT_EQ(nearest("shwo"), "show");
    EXPECT_EQ(nearest("sat"), "set");
    EXPECT_EQ(nearest("stat"), "status") << "the first of two that begin so";
    EXPECT_EQ(nearest("statik"), "static") << "one letter is nearer than two";
    EXPECT_EQ(nearest("n"), "no");
    for (const std::string word : {"", "x", "ton", "frobnicate"})
        EXPECT_EQ(nearest(word), "") << word;
    EXPECT_EQ(nearest(std::string(4'000'000, 's')), "");
    EXPECT_EQ(Text::suggestion("shwo", known), "; did you mean \"show\"?");
    EXPECT_EQ(Text::suggestion("frobnicate", known), "");
}

TEST(Verbs, HaveASummaryAndFormsThatBeginWithThem) {
    for (const Text::VerbHelp& verb : Text::verbs()) {
        SCOPED_TRACE(verb.name);
        EXPECT_EQ(Text::verb(verb.name), &verb) << "no other has its name";
        EXPECT_FALSE(verb.summary.empty() || verb.summary.ends_with('.'));
        ASSERT_TRUE(verb.forms.ends_with('\n'));
        for (std::string_view forms = verb.forms; !forms.empty(); forms.remove_prefix(forms.find('\n') + 1))
            EXPECT_EQ(Text::splitWords(forms.substr(0, forms.find('\n'))).at(0), verb.name);
    }
    EXPECT_EQ(Text::verb("vr"), nullptr);
}

TEST(SocketPath, IsTheUsersOwnUnlessItIsRoots) {
    ::setenv("XDG_RUNTIME_DIR", "/run/user/7", 1);
    EXPECT_EQ(Text::defaultSocketPath(true), "/run/kestrel-nat.sock");
    EXPECT_EQ(Text::defaultSocketPath(false), "/run/user/7/kestrel-nat.sock");
    ::unsetenv("XDG_RUNTIME_DIR");
    EXPECT_THROW(Text::defaultSocketPath(false), std::runtime_error);
    EXPECT_EQ(Text::defaultSocketPath(true), "/run/kestrel-nat.sock");
}

} // namespace
// The page is what help tells, verb by verb.
TEST(GrammarPage, HasEveryVerbAsHelpTellsIt) {
    std::ifstream file(KESTREL_SOURCE_DIR "/docs/grammar.md");
    const std::string page(std::istreambuf_iterator<char>(file), {});
    std::size_t at = 0;
    for (const Text::VerbHelp& verb : Text::verbs()) {
        std::vector<std::string> parts{"### " + std::string(verb.name) + "\n", std::string(verb.summary)};
        std::istringstream forms{std::string(verb.forms)};
        for (std::string form; std::getline(forms, form);)
            parts.push_back("\n" + form.substr(2) + "\n");
        parts.emplace_back(verb.notes);
        for (const std::string& part : parts) {
            const std::size_t found = page.find(part, at);
            ASSERT_NE(found, std::string::npos)
                << "docs/grammar.md lacks, behind what comes before it: " << part;
            at = found + part.size() - 1;
        }
    }
}

} // namespace TextTest
