// The plug-in against the naive model: random operations on VRFs, tables, routes, requests and groups,
// everything compared after each.
#include "state/Trace.h"
#include "tests/model/ModelDriver.h"
#include "tests/model/ProductUnderTest.h"

#include <gtest/gtest.h>

#include <memory>

namespace {

TEST(Model, ThePlugInDoesWhatTheNaiveModelDoes) {
    State::traceSinkIs([](void*, const State::TraceRecord&) {},
                       nullptr); // groups without requests are told often
    Model::ModelDriver driver(Model::productSource(),
                              [] { return std::make_unique<Model::ProductUnderTest>(); });
    const auto report = driver.run(Model::Settings::fromEnvironment());
    EXPECT_FALSE(report.has_value()) << *report;
}

} // namespace
