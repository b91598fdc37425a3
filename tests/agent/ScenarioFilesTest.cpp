// Plays each scenario file of tests/scenarios and the tour with the real agent, for both sources of routes; a
// file named X.lumen.scn or X.quill.scn for that source alone.
#include "tests/agent/AgentProcess.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

struct Play {
    fs::path file;
    bool isLumen;
};

void PrintTo(const Play& play, std::ostream* out) {
    *out << play.file.filename();
}

std::vector<Play> plays() {
    std::vector<Play> all{{fs::path(KESTREL_SOURCE_DIR) / "examples/tour.scn", true},
                          {fs::path(KESTREL_SOURCE_DIR) / "examples/tour.scn", false}};
    for (const auto& entry : fs::directory_iterator(fs::path(KESTREL_SOURCE_DIR) / "tests/scenarios")) {
        const std::string only = entry.path().stem().extension().string();
        for (const bool isLumen : {true, false})
            if (entry.path().extension() == ".scn" && only != (isLumen ? ".quill" : ".lumen"))
                all.push_back({entry.path(), isLumen});
    }
    return all;
}

std::string nameOf(const testing::TestParamInfo<Play>& info) {
    std::string name = info.param.file.stem().string() + (info.param.isLumen ? "_on_Lumen" : "_on_Quill");
    for (char& c : name)
        c = c == '-' || c == '.' ? '_' : c;
    return name;
}

AgentTest::Finished played(const fs::path& file, bool isLumen) {
    const AgentTest::TemporaryFolder folder;
    const std::string toggle = std::string("KestrelNatMfibLumen=") + (isLumen ? "on" : "off");
    return AgentTest::runAgent({"--socket", folder.file("s"), "--software-chip", "--toggle", toggle, "--play",
                                file.string(), "--exit"});
}

class ScenarioFiles : public testing::TestWithParam<Play> {};

TEST_P(ScenarioFiles, Holds) {
    const AgentTest::Finished play = played(GetParam().file, GetParam().isLumen);
    EXPECT_EQ(play.status, 0) << play.err;
}

INSTANTIATE_TEST_SUITE_P(All, ScenarioFiles, testing::ValuesIn(plays()), nameOf);

TEST(ScenarioPlay, GoesOnAfterAnExpectationThatFailsAndNamesEachFaultyLine) {
    const AgentTest::TemporaryFolder folder;
    const std::string file =
        AgentTest::writeFile(folder, "failing.scn",
                             "\xef\xbb\xbfvrf red id 3 multicast on\n"
                             "request mroute intf E5 vrf red vlan 10 source 10.0.0.1 group 239.1.1.1\n"
                             "expect mroute intf E5 vrf red vlan 10 source 10.0.0.1 group 239.1.1.1 = E1 E2\n"
                             "route red static 10.0.0.1/32 nonsense oifs E1\n"
                             "frobnicate\n");
    const AgentTest::Finished play = played(file, true);
    EXPECT_NE(play.status, 0);
    for (const char* text :
         {".scn:3: mroute answer: expected E1 E2, but it is none", ".scn:4: ", ".scn:5: ", "frobnicate"})
        EXPECT_NE(play.err.find(text), std::string::npos) << play.err;
    EXPECT_EQ(play.err.find(".scn:1:"), std::string::npos) << play.err;
}

} // namespace
