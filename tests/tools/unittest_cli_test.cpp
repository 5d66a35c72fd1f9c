// quorv unittest and quorv speedtest through the built library: listing, the per-case lines,
// JSON lines, the exit codes and the timing class's lines with and without statistics.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "common/test_support.h"

namespace quorv {
namespace {

const std::string CLI = std::string(QUORV_CLI_PATH) + " --module " + QUORV_MODULE_PATH;
const std::string STATISTICS = " --config g_runUnitTestRenderStatistics=true";
const std::string BSDFTEST = " net.quorv.unittest.bsdftest";
const std::string SPEEDTEST = " net.quorv.speedtestclass.speedtestbsdftest";

std::vector<std::string> Lines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string l; std::getline(in, l);) lines.push_back(l);
    return lines;
}

TEST(UnitTestCommand, ListsRunsAndAnswersInJson) {
    int status = -1;
    EXPECT_EQ(test::RunCommand(CLI + " unittest list", &status), "net.quorv.unittest.bsdftest\n");
    EXPECT_EQ(status, 0);
    EXPECT_EQ(test::RunCommand(CLI + " speedtest list --json", &status),
              "[\"net.quorv.speedtestclass.speedtestbsdftest\"]\n");

    EXPECT_EQ(test::RunCommand(CLI + " unittest run" + BSDFTEST + " --case 13", &status),
              "BlurryTorrance BSDF with cache: GGX distribution  passed\n");
    EXPECT_EQ(status, 0);

    const std::vector<std::string> lines =
        Lines(test::RunCommand(CLI + " unittest run" + BSDFTEST + " --json", &status));
    EXPECT_EQ(status, 0);
    ASSERT_EQ(lines.size(), 18u);
    const nlohmann::json first = nlohmann::json::parse(lines[0]);
    EXPECT_EQ(first,
              (nlohmann::json{{"label", "Lambert BSDF"}, {"passed", true}, {"message", ""}}));
    EXPECT_EQ(nlohmann::json::parse(lines[17])["label"],
              "BlurryTorrance BSDF: Anisotropic distribution");

    const std::string unknown =
        test::RunCommand(CLI + " unittest run net.quorv.unittest.none 2>&1", &status);
    EXPECT_EQ(status, 1);
    EXPECT_NE(unknown.find("net.quorv.unittest.none"), std::string::npos) << unknown;

    const std::string help = test::RunCommand(std::string(QUORV_CLI_PATH) + " --help", &status);
    EXPECT_NE(help.find("unittest"), std::string::npos);
    EXPECT_NE(help.find("speedtest"), std::string::npos);
}

// The module's comparison class passes on every input the command can give it, so the failure
// lines come from the fixture module's classes, whose outcome is fixed.
TEST(UnitTestCommand, AFailedCasePrintsItsMessageAndExitsOne) {
    const std::string fixture = std::string(QUORV_CLI_PATH) + " --module " +
                                QUORV_UNITTEST_FIXTURE_PATH + " unittest run net.quorv.unittest.";
    int status = -1;
    EXPECT_EQ(test::RunCommand(fixture + "fixture.failing 2>/dev/null", &status),
              "Fixture case 1  passed\nFixture case 2  FAILED: expected 1, got 2\n");
    EXPECT_EQ(status, 1);

    const std::vector<std::string> lines =
        Lines(test::RunCommand(fixture + "fixture.failing --json 2>/dev/null", &status));
    EXPECT_EQ(status, 1);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(nlohmann::json::parse(lines[1]), (nlohmann::json{{"label", "Fixture case 2"},
                                                               {"passed", false},
                                                               {"message", "expected 1, got 2"}}));
    // The failed case's line says it all: nothing more on stderr.
    EXPECT_EQ(test::RunCommand(fixture + "fixture.failing 2>&1 >/dev/null", &status), "");

    // An error before any case is judged has no case line: it goes to stderr.
    EXPECT_EQ(test::RunCommand(fixture + "fixture.broken 2>/dev/null", &status), "");
    EXPECT_EQ(status, 1);
    const std::string error = test::RunCommand(fixture + "fixture.broken 2>&1", &status);
    EXPECT_EQ(error.rfind("quorv: ", 0), 0u) << error;
    EXPECT_NE(error.find("Fixture could not start its cases"), std::string::npos) << error;
}

TEST(SpeedTestCommand, JsonWithAndWithoutStatistics) {
    int status = -1;
    // Statistics off: one time per run; nothing else on stdout.
    std::vector<std::string> lines = Lines(test::RunCommand(
        CLI + " speedtest run" + SPEEDTEST + " --case 0 --iterations 10 --json 2>/dev/null",
        &status));
    EXPECT_EQ(status, 0);
    ASSERT_EQ(lines.size(), 4u);
    nlohmann::json j = nlohmann::json::parse(lines[1]);
    EXPECT_EQ(j["label"], "Lambert BSDF Horizona SampleF");
    EXPECT_TRUE(j.contains("time"));
    EXPECT_FALSE(j.contains("mean"));

    // Statistics on: the three figures per run on stdout, the printed lines on stderr.
    lines =
        Lines(test::RunCommand(CLI + STATISTICS + " speedtest run" + SPEEDTEST +
                                   " --case 1 --sample-size 2 --iterations 10 --json 2>/dev/null",
                               &status));
    EXPECT_EQ(status, 0);
    ASSERT_EQ(lines.size(), 4u);
    j = nlohmann::json::parse(lines[3]);
    EXPECT_EQ(j["label"], "OrenNayar BSDF Horizona ComputeBSDF");
    for (const char* k : {"mean", "variance", "stddev"}) EXPECT_TRUE(j.contains(k)) << k;
    const std::vector<std::string> printed = Lines(
        test::RunCommand(CLI + STATISTICS + " speedtest run" + SPEEDTEST +
                             " --case 1 --sample-size 2 --iterations 10 --json 2>&1 >/dev/null",
                         &status));
    ASSERT_EQ(printed.size(), 9u);
    EXPECT_EQ(printed[1], "| Sample size: 2");
    EXPECT_EQ(printed[5].rfind("OrenNayar BSDF Legacy SampleF: ", 0), 0u) << printed[5];

    test::RunCommand(CLI + " speedtest run" + SPEEDTEST + " --iterations 0 2>&1", &status);
    EXPECT_NE(status, 0);
}

}  // namespace
}  // namespace quorv
