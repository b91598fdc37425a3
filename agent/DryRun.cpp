// The dry run of Operations.h: the changes are checked here and carried out in a forked child, with the
// plug-in that it inherits.
#include "agent/ForkedRun.h"
#include "agent/JsonDatum.h"
#include "agent/JsonRpc.h"
#include "agent/OperationError.h"
#include "agent/Operations.h"

#include <nlohmann/json.hpp>

namespace Agent {

namespace {

std::string toText(const ApplyResult& result) {
    nlohmann::json answers = nlohmann::json::array();
    for (const AnswerChange& change : result.answers)
        answers.push_back(toJson(change));
    const nlohmann::json all = {{"changed", result.changed}, {"answers", std::move(answers)}};
    return all.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

DryRunResult fromText(const std::string& text) {
    const auto all = nlohmann::json::parse(text);
    DryRunResult result;
    result.changed = all.at("changed");
    for (const auto& change : all.at("answers"))
        result.answers.push_back(toAnswerChange(change));
    return result;
}

} // namespace

DryRunResult Operations::dryRun(std::span<const Change> changes) {
    checkAll(changes);
    const ForkedResult run =
        runForked([&] { return toText(carryOutAll(changes)); }, std::chrono::milliseconds(dryRunLimitMs));
    if (run.isOverdue) {
        throw OperationError(RpcCode::limitReached, "the dry run took more than " +
                                                        std::to_string(dryRunLimitMs / 1000) +
                                                        " seconds and was ended");
    }
    if (run.result)
        return fromText(*run.result);
    DryRunResult result;
    result.fatal = run.end;
    return result;
}

} // namespace Agent
