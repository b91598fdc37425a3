// The end of the process on a broken invariant, seen from outside.
#include "state/Fatal.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>
#include <stdexcept>
#include <string>

namespace FatalTest {

struct VrfName {};

class DirSm {
  public:
    void handleVrf(const VrfName& vrfName) const;

  private:
    bool isAdded_ = true;
};

constexpr unsigned assertionLine = __LINE__ + 2;
void DirSm::handleVrf(const VrfName&) const {
    FATAL_ASSERT(!isAdded_,
                 "!mrouteRouteMap()->vrfNameToIdHas( vrfName ) && \"vrfId should not change here\"");
}

const std::string assertionText = std::string(__FILE__) + ":" + std::to_string(assertionLine) +
                                  ": void FatalTest::DirSm::handleVrf(const FatalTest::VrfName&) const: "
                                  "Assertion `!mrouteRouteMap()->vrfNameToIdHas( vrfName ) && "
                                  "\"vrfId should not change here\"' failed.\n";

// A pattern for exactly this text, from the first to the last character.
std::string exactly(const std::string& text) {
    std::string pattern = "^";
    for (const char c : text) {
        if (std::string_view("\\^$.|?*+()[]{}").find(c) != std::string_view::npos)
            pattern += '\\';
        pattern += c;
    }
    return pattern + "$";
}

void print(void* text) {
    std::fprintf(stderr, "%s\n", static_cast<const char*>(text));
}
void fail(void*) {
    DirSm().handleVrf({});
}
void raise(void*) {
    throw std::runtime_error("in the last words");
}
char first[] = "first words";
char second[] = "second words";

// Runs `body` in a child process, which must end by SIGABRT with exactly `errors` on its standard error.
template <class Body>
void expectEnd(Body body, const std::string& errors) {
    EXPECT_EXIT(body(), testing::KilledBySignal(SIGABRT), exactly(errors));
}

TEST(FatalDeathTest, AssertionPrintsTextFileLineAndFunction) {
    expectEnd([] { DirSm().handleVrf({}); }, assertionText);
    FATAL_ASSERT(true, "true"); // what holds does nothing
}

TEST(FatalDeathTest, ExceptionOutOfAReactorPrintsItsText) {
    expectEnd([] { State::fatalException("VrfId::value > 0x00ffffff not allowed"); },
              "exception left a reactor: VrfId::value > 0x00ffffff not allowed\n");
    const std::string text(10000, 'x'); // whole, also where it is longer than any buffer
    expectEnd([&] { State::fatalException(text.c_str()); }, "exception left a reactor: " + text + "\n");
}

TEST(FatalDeathTest, LastWordsFollowInTheirOrder) {
    expectEnd(
        [] {
            State::fatalHookIs(print, first);
            State::fatalHookIs(print, second);
            State::fatalHookIs(print, first);
            DirSm().handleVrf({});
        },
        assertionText + "first words\nsecond words\n");
    expectEnd(
        [] {
            State::fatalHookIs(print, first);
            State::fatalHookIs(print, second);
            State::fatalHookDel(print, first);
            State::fatalException("what");
        },
        "exception left a reactor: what\nsecond words\n");
}

TEST(FatalDeathTest, FailureInTheLastWordsEndsThem) {
    expectEnd(
        [] {
            State::fatalHookIs(fail, nullptr);
            State::fatalHookIs(print, second);
            State::fatalException("what");
        },
        "exception left a reactor: what\n" + assertionText);
    expectEnd(
        [] {
            State::fatalHookIs(raise, nullptr);
            State::fatalHookIs(print, second);
            State::fatalException("what");
        },
        "exception left a reactor: what\nan exception left the last words\nsecond words\n");
}

TEST(FatalDeathTest, LastWordsAreLimited) {
    EXPECT_EXIT(
        for (char words[9] = {}; char& word
             : words) { State::fatalHookIs(print, &word); },
        testing::KilledBySignal(SIGABRT), "hookCount < hookCapacity && \"too many last words\"' failed");
}

} // namespace FatalTest
