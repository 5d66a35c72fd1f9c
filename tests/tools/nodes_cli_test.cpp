// quorv nodes through the built library: the exchange table and a node world session.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "common/test_support.h"

namespace {

const std::string CLI = QUORV_CLI_PATH;
const std::string DATA = std::string(QUORV_TEST_DATA_DIR) + "/nodes";

std::vector<nlohmann::json> Lines(const std::string& out) {
    std::vector<nlohmann::json> lines;
    std::istringstream in(out);
    for (std::string line; std::getline(in, line);) lines.push_back(nlohmann::json::parse(line));
    return lines;
}

TEST(NodesCli, ExchangeListsTheInputsOfTheDescription) {
    int status = -1;
    const std::string out =
        quorv::test::RunCommand(CLI + " nodes exchange --json --descriptions " + DATA, &status);
    ASSERT_EQ(status, 0) << out;
    const nlohmann::json rows = nlohmann::json::parse(out);
    ASSERT_EQ(rows.size(), 5u);
    EXPECT_EQ(rows[0]["key"], "net.quorv.viewport.color");
    EXPECT_EQ(rows[0]["value"], nlohmann::json({0.8, 0.25, 0.125}));
    EXPECT_EQ(rows[1]["type"], "float64");
    EXPECT_EQ(rows[1]["value"], 0.0);
    // Without the folder the load fails and the command says so.
    quorv::test::RunCommand(CLI + " nodes exchange 2>/dev/null", &status);
    EXPECT_NE(status, 0);
}

TEST(NodesCli, WorldSessionPrintsEventsThenOneResultPerLine) {
    const std::string session =
        "printf '%s\\n' "
        "'{\"send\":\"activenodespacechanged\",\"data\":\"s.a\"}' "
        "'{\"send\":\"activenodespacechanged\",\"data\":\"s.a\"}' "
        "'{\"send\":\"activenodespacechanged\",\"data\":7}' "
        "'{\"state\":true}' | ";
    int status = -1;
    const std::vector<nlohmann::json> lines =
        Lines(quorv::test::RunCommand(session + CLI + " nodes world", &status));
    ASSERT_EQ(status, 0);
    ASSERT_EQ(lines.size(), 8u);
    EXPECT_EQ(lines[2]["space"], "");  // the callNow observers come first
    EXPECT_EQ(lines[3]["space"], "s.a");
    EXPECT_EQ(lines[4]["ok"], true);
    EXPECT_EQ(lines[5]["ok"], true);  // the same id again tells no one
    EXPECT_TRUE(lines[6].contains("error"));
    EXPECT_EQ(lines[7]["activespace"], "s.a");
}

}  // namespace
