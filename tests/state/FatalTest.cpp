// The end of the process on a broken invariant, seen from outside.
#include "state/Fatal.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

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

TEST(FatalDeathTest, TheEndPrintsWhatWasWrongAndThenTheLastWords) {
    const auto assertion = [] { DirSm().handleVrf({}); };
    const auto exception = [] { State::fatalException("what"); };
    const std::string what = "exception left a reactor: what\n";
    struct Hook {
        State::FatalHook hook;
        void* context;
    };
    struct Case {
        std::vector<Hook> hooks;
        std::function<void()> end;
        std::string errors;
    };
    const std::string text(10000, 'x'); // whole, also where it is longer than any buffer
    const Case cases[] = {
        {{}, assertion, assertionText},
        {{}, [&] { State::fatalException(text.c_str()); }, "exception left a reactor: " + text + "\n"},
        {{{print, first}, {print, second}, {print, first}},
         assertion,
         assertionText + "first words\nsecond words\n"},
        {{{fail, nullptr}, {print, second}}, exception, what + assertionText}, // a failure ends them
        {{{raise, nullptr}, {print, second}},
         exception,
         what + "an exception left the last words\nsecond words\n"},
        {{{print, first}, {print, second}},
         [] {
             State::fatalHookDel(print, first);
             State::fatalException("what");
         },
         what + "second words\n"},
    };
    for (const Case& each : cases) {
        const auto body = [&] {
            for (const auto& [hook, context] : each.hooks)
                State::fatalHookIs(hook, context);
            each.end();
        };
        EXPECT_EXIT(body(), testing::KilledBySignal(SIGABRT), testing::Eq(each.errors));
    }
    FATAL_ASSERT(true, "true"); // what holds does nothing
}

TEST(FatalDeathTest, LastWordsAreLimited) {
    EXPECT_EXIT(
        for (char words[9] = {}; char& word
             : words) { State::fatalHookIs(print, &word); },
        testing::KilledBySignal(SIGABRT), "hookCount < hookCapacity && \"too many last words\"' failed");
}

} // namespace FatalTest
