// The plug-in against the naive model: random operations on VRFs, tables, routes, requests and groups,
// everything compared after each, to the last trace line; and what the random operations are worth.
#include "state/Hash.h"
#include "tests/model/ModelDriver.h"
#include "tests/model/NaiveModel.h"
#include "tests/model/OperationSource.h"
#include "tests/model/ProductUnderTest.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstddef>
#include <map>
#include <set>
#include <string>

namespace {

using namespace Model;

// Under two seeds of the process's tables, since no order may depend on one.
TEST(Model, ThePlugInDoesWhatTheNaiveModelDoes) {
    Settings settings = Settings::fromEnvironment();
    settings.operations /= 2;
    for (const std::uint32_t seed : {0U, State::processHashSeed() | 1U}) {
        State::processHashSeedIs(seed);
        const auto report = disagreementOfModelAndPlugIn(settings);
        EXPECT_FALSE(report.has_value()) << *report;
    }
}

// In a child, so that the next can be tried. What the model takes for fatal and isn't would never be compared.
TEST(Model, WhatTheModelTakesForFatalEndsThePlugIn) {
    NaiveModel model(productSource());
    ProductUnderTest product;
    OperationSource operations(Settings::fromEnvironment().seed);
    for (std::size_t fatal = 0; fatal < 60;) {
        const Operation operation = operations.draw(model.world());
        const Outcome outcome = model.apply(operation);
        if (outcome == Outcome::done)
            product.apply(operation);
        if (outcome != Outcome::fatal)
            continue;
        ++fatal;
        EXPECT_EXIT(product.apply(operation), testing::KilledBySignal(SIGABRT), "")
            << line(productSource(), operation);
    }
}

// Without these situations the comparison would agree about little.
TEST(Model, TheOperationsReachTheSituationsThatMatter) {
    for (const Source source : {Source::quill, Source::lumen}) {
        NaiveModel model(source);
        OperationSource operations(7);
        std::map<std::string, std::size_t> times;
        for (int count = 0; count < 20'000;) {
            if (model.apply(operations.draw(model.world())) != Outcome::done)
                continue;
            ++count;
            const Observation& seen = model.observe();
            const Stores& stores = model.world().stores;
            for (const auto& [key, names] : seen.mrouteAnswers) {
                times["a full answer"] += names.empty() ? 0U : 1U;
                times["an answer without a request"] += stores.mrouteRequests.has(key) ? 0U : 1U;
                times["both types answer"] += model.world().isLoaded &&
                                              seen.answersByType.begin()->second.has(key) &&
                                              (seen.answersByType.begin() + 1)->second.has(key);
            }
            for (const auto& [vrfId, watched] : seen.watched)
                times["an empty matcher"] += watched == Watched();
            times["all VRFs answer"] +=
                stores.egressFromAllVrfs && seen.vrfIds.size() > 1 && !seen.mrouteAnswers.empty();
            for (const auto& [flow, requesters] : seen.mgroupRequesters)
                times["requesters share a group"] += requesters.size() > 1;
            std::set<std::uint32_t> vrfIds;
            for (const auto& [vrf, vrfId] : seen.vrfIds) {
                times["an added VRF whose entry went or waits"] += stores.vrfStatus.get(vrf) != vrfId;
                times["VRFs share an identifier"] += !vrfIds.insert(vrfId).second;
            }
            times["a chip answers"] += stores.hasChip && !seen.groupConfig.empty();
            for (const std::string& said : seen.said) {
                times["an interface without a name"] +=
                    said.ends_with("oif intf: ") || said.ends_with("oifIndexIntf: ");
                times["started over state"] += said.ends_with("doInit") && !seen.mrouteAnswers.empty();
            }
        }
        for (const auto& [situation, count] : times)
            EXPECT_GT(count, situation == "started over state" ? 15U : 200U) << situation;
        EXPECT_EQ(times.size(), 11U);
    }
}

} // namespace
