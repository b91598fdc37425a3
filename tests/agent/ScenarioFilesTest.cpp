// Plays each scenario file of tests/scenarios and the tour with the real agent, for both sources of routes; a
// file named X.lumen.scn or X.quill.scn for that source alone.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
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
        for (const bool isLumen : {true, false}) {
            if (entry.path().extension() == ".scn" && only != (isLumen ? ".quill" : ".lumen")) {
                all.push_back({entry.path(), isLumen});
            }
        }
    }
    return all;
}

std::string nameOf(const testing::TestParamInfo<Play>& info) {
    std::string name = info.param.file.stem().string() + (info.param.isLumen ? "_on_Lumen" : "_on_Quill");
    for (char& c : name) {
        c = c == '-' || c == '.' ? '_' : c;
    }
    return name;
}

// Runs the agent over a scenario file; its exit status, and what it said on standard error.
int playStatus(const fs::path& file, bool isLumen, std::string& said) {
    const fs::path folder = fs::path(testing::TempDir()) / ("scenario-" + std::to_string(getpid()));
    fs::create_directories(folder);
    const std::string command =
        std::string(KESTREL_BIN_DIR) + "/kestrel-agent --socket " + (folder / "s").string() +
        " --software-chip --toggle KestrelNatMfibLumen=" + (isLumen ? "on" : "off") + " --play " +
        file.string() + " --exit >" + (folder / "out").string() + " 2>" + (folder / "err").string();
    const int status = std::system(command.c_str());
    std::stringstream text;
    text << std::ifstream(folder / "err").rdbuf();
    said = text.str();
    fs::remove_all(folder);
    return status;
}

class ScenarioFiles : public testing::TestWithParam<Play> {};

TEST_P(ScenarioFiles, Holds) {
    std::string said;
    EXPECT_EQ(playStatus(GetParam().file, GetParam().isLumen, said), 0) << said;
}

INSTANTIATE_TEST_SUITE_P(All, ScenarioFiles, testing::ValuesIn(plays()), nameOf);

TEST(ScenarioPlay, AnExpectationThatFailsIsToldWithBothSidesAndFileAndLine) {
    const fs::path file = fs::path(testing::TempDir()) / ("failing-" + std::to_string(getpid()) + ".scn");
    std::ofstream(file) << "vrf red id 3 multicast on\n"
                           "request mroute intf E5 vrf red vlan 10 source 10.0.0.1 group 239.1.1.1\n"
                           "expect mroute intf E5 vrf red vlan 10 source 10.0.0.1 group 239.1.1.1 = E1 E2\n"
                           "route red static 10.0.0.1/32 nonsense oifs E1\n"
                           "frobnicate\n";
    std::string said;
    EXPECT_NE(playStatus(file, true, said), 0);
    EXPECT_NE(said.find(".scn:3: mroute answer: expected E1 E2, but it is none"), std::string::npos) << said;
    EXPECT_NE(said.find(".scn:4: "), std::string::npos) << said;
    EXPECT_NE(said.find(".scn:5: "), std::string::npos) << said;
    EXPECT_NE(said.find("frobnicate"), std::string::npos) << said;
}

} // namespace
