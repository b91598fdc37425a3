// The one grammar of scenario files, preloaded state and kestrelctl lines (Grammar.h): state commands
// (StateCommands.h), `expect` and `mark` (Expectations.h), `show` (ShowCommands.h), `get`, `trace`.
//
// The application owns it; operations and the hook outlive it.
#pragma once

#include "agent/Expectations.h"
#include "agent/Grammar.h"

#include <functional>
#include <iosfwd>
#include <string>
#include <string_view>

namespace Agent {

class ScenarioGrammar final : public Grammar {
  public:
    /// What the grammar needs of others: `settle` does deferred work (the software chip's) before an
    /// expectation is held against the state; `status` is what `show status` shows.
    struct Hooks {
        std::function<void()> settle = [] {};
        std::function<nlohmann::json()> status;
    };

    /// @param out where a played scenario tells what happens.
    ScenarioGrammar(Operations& operations, Hooks hooks, std::ostream& out);

    nlohmann::json run(std::string_view line, bool raw) override;
    std::string text(const nlohmann::json& result) const override;
    LineChanges changes(std::span<const std::string> lines, bool raw) override;
    void preload(const std::string& file) override;
    void check(const std::string& file) override;
    void play(const std::string& file, std::function<void(bool held)> done) override;

  private:
    nlohmann::json runOther(std::vector<std::string> words);
    nlohmann::json get(WordReader& words) const;
    nlohmann::json trace(WordReader& words) const;
    bool playLine(const std::string& file, std::size_t number, const std::string& line);

    Operations& operations_;
    Hooks hooks_;
    std::ostream& out_;
    Expectations expectations_;
};

} // namespace Agent
