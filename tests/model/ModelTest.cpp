// The plug-in against the naive model: random operations on VRFs, tables, routes, requests and groups,
// everything compared after each; and what the random operations are worth.
#include "state/Hash.h"
#include "state/Trace.h"
#include "tests/model/ModelDriver.h"
#include "tests/model/NaiveModel.h"
#include "tests/model/OperationSource.h"
#include "tests/model/ProductUnderTest.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <memory>

namespace {

using namespace Model;

// Under two seeds of the process's tables, since no order may depend on one.
TEST(Model, ThePlugInDoesWhatTheNaiveModelDoes) {
    State::traceSinkIs([](void*, const State::TraceRecord&) {},
                       nullptr); // groups without requests are told often
    Settings settings = Settings::fromEnvironment();
    settings.operations /= 2;
    for (const std::uint32_t seed : {0U, State::processHashSeed() | 1U}) {
        State::processHashSeedIs(seed);
        ModelDriver driver(productSource(), [] { return std::make_unique<ProductUnderTest>(); });
        const auto report = driver.run(settings);
        EXPECT_FALSE(report.has_value()) << *report;
    }
}

// Without these situations the comparison would agree about little.
TEST(Model, TheOperationsReachTheSituationsThatMatter) {
    for (const Source source : {Source::quill, Source::lumen}) {
        NaiveModel model(source);
        OperationSource operations(7);
        std::size_t full = 0, bothTypes = 0, outlived = 0, emptyMatcher = 0, allVrfs = 0, sharedGroup = 0;
        for (int count = 0; count < 20'000; ++count) {
            apply(operations.draw(model), model);
            const Observation& seen = model.observe();
            for (const auto& [key, names] : seen.mrouteAnswers) {
                full += names.empty() ? 0 : 1;
                outlived += model.stores().mrouteRequests.has(key) ? 0 : 1;
                bothTypes += model.started() && seen.answersByType.begin()->second.has(key) &&
                                     (seen.answersByType.begin() + 1)->second.has(key)
                                 ? 1
                                 : 0;
            }
            for (const auto& [vrfId, watched] : seen.watched)
                emptyMatcher += watched == Watched() ? 1 : 0;
            allVrfs +=
                model.stores().egressFromAllVrfs && seen.vrfIds.size() > 1 && !seen.mrouteAnswers.empty();
            for (const auto& [flow, requesters] : seen.mgroupRequesters)
                sharedGroup += requesters.size() > 1 ? 1 : 0;
        }
        for (const std::size_t times : {full, bothTypes, outlived, emptyMatcher, allVrfs, sharedGroup})
            EXPECT_GT(times, 500U);
    }
}

} // namespace
