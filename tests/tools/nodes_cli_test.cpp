// quorv nodes through the built library: spaces made from a file, the exchange of a space, and
// node world sessions (renderers, preferences, parameters, spaces, errors).
#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "common/test_support.h"

namespace {

using nlohmann::json;

const std::string CLI = QUORV_CLI_PATH;
const std::string DATA = std::string(QUORV_TEST_DATA_DIR) + "/nodes";
const std::string SPACES = DATA + "/spaces.json";
constexpr const char* DEFAULT_EXCHANGE = "net.quorv.nodes.class.materialexchange.default";
constexpr const char* VIEWPORT = "net.quorv.nodespace.exchange.bundle.viewportmaterial";

std::vector<json> Lines(const std::string& out) {
    std::vector<json> lines;
    std::istringstream in(out);
    for (std::string line; std::getline(in, line);) {
        lines.push_back(json::parse(line, nullptr, false));
        EXPECT_FALSE(lines.back().is_discarded()) << line;
    }
    return lines;
}

bool StartsWith(const json& j, const std::string& prefix) {
    return j.is_string() && j.get<std::string>().rfind(prefix, 0) == 0;
}

std::string Quorv(const std::string& arguments, int* status) {
    return quorv::test::RunCommand(CLI + " " + arguments, status);
}

// A session: the lines go to `quorv [global] nodes world ARGS` on stdin.
std::vector<json> Session(const std::vector<std::string>& lines, const std::string& arguments,
                          const std::string& global = "") {
    const std::string file =
        testing::TempDir() + "/quorv-nodes-session-" + std::to_string(::getpid()) + ".jsonl";
    {
        std::ofstream out(file);
        for (const std::string& l : lines) out << l << "\n";
    }
    int status = -1;
    const std::string out =
        Quorv(global + " nodes world " + arguments + " < " + file + " 2>/dev/null", &status);
    std::remove(file.c_str());
    EXPECT_EQ(status, 0) << out;
    return Lines(out);
}

// ---- spaces ---------------------------------------------------------------------------------

TEST(NodesCli, SpacesOfAFileAreMadeInitedAndRegistered) {
    int status = -1;
    const std::string table = Quorv("nodes spaces --spaces " + SPACES + " 2>/dev/null", &status);
    ASSERT_EQ(status, 0) << table;
    const std::string both = std::string(VIEWPORT) + ", net.quorv.material.portbundle.zenthrax";
    EXPECT_EQ(table, std::string("space id | name | exchange class | bundle ids\n") +
                         "net.quorv.test.space.named | Named | " + DEFAULT_EXCHANGE + " | " +
                         VIEWPORT + "\n" +
                         "net.quorv.test.space.bundles | net.quorv.test.space.bundles | " +
                         DEFAULT_EXCHANGE + " | " + VIEWPORT + "\n" +
                         "com.zenthrax3d.zenthrax4q7v.class.nodespace | "
                         "com.zenthrax3d.zenthrax4q7v.class.nodespace | " +
                         DEFAULT_EXCHANGE + " | " + both + "\n");
    // Init's warning, for the space that gave bundle ids but no exchange class, on stderr.
    const std::string warnings =
        Quorv("nodes spaces --spaces " + SPACES + " 2>&1 >/dev/null", &status);
    EXPECT_EQ(warnings,
              "quorv: warning: Warning for net.quorv.test.space.bundles: overwriting specified "
              "NODESPACE::MATERIALEXCHANGEBUNDLEIDS because fallback "
              "NODESPACE::MATERIALEXCHANGECLASS is defined\n");
    const json rows =
        json::parse(Quorv("nodes spaces --json --spaces " + SPACES + " 2>/dev/null", &status));
    ASSERT_EQ(status, 0);
    ASSERT_EQ(rows.size(), 3u);
    EXPECT_EQ(rows[1]["bundleids"], json::array({VIEWPORT}));
    EXPECT_EQ(rows[2]["bundleids"],
              json::array({VIEWPORT, "net.quorv.material.portbundle.zenthrax"}));
}

TEST(NodesCli, BadSpacesFilesAreErrorsNamingTheFileAndTheSpace) {
    const std::string dir = testing::TempDir();
    struct Case {
        const char* text;
        const char* message;  // after the error id, with FILE for the file
    };
    const Case cases[] = {
        {"{", "FILE: line is not JSON: {"},
        {R"({"class": "a.b"})", "FILE: not a JSON array of spaces"},
        {R"([{"data": {}}])", "FILE: space 0: \"class\" must be a non-empty id"},
        {R"([{"class": "a.b", "data": {"net.quorv.nodes.nodespace.materialexchangeclass": "no.such"}}])",
         "FILE: space 0 (a.b): No class no.such in registry "
         "net.quorv.nodes.registry.materialexchanges"},
        {R"([{"class": "a.b", "data": {"net.quorv.nodes.nodespace.materialexchangebundleids": "x"}}])",
         "FILE: space 0 (a.b): net.quorv.nodes.nodespace.materialexchangebundleids must be an "
         "array of ids: \"x\""},
        {R"([{"class": "a.b"}, {"class": "a.b"}])",
         "FILE: space 1 (a.b): Entry a.b already in registry "
         "net.quorv.nodes.registry.materialnodespaces"},
    };
    int n = 0;
    for (const Case& c : cases) {
        const std::string file = dir + "/quorv-bad-spaces-" + std::to_string(n++) + ".json";
        std::ofstream(file) << c.text;
        int status = -1;
        const std::string err = Quorv("nodes spaces --spaces " + file + " 2>&1 >/dev/null", &status);
        EXPECT_EQ(status, 1) << c.text;
        std::string expected = std::string("quorv: net.quorv.error.illegalargument: ") + c.message;
        expected.replace(expected.find("FILE"), 4, file);
        EXPECT_EQ(err.rfind(expected, 0), 0u) << c.text << "\n" << err;
        std::remove(file.c_str());
    }
    int status = -1;
    const std::string missing = Quorv("nodes spaces --spaces /no/such/file 2>&1 >/dev/null", &status);
    EXPECT_EQ(status, 1);
    EXPECT_EQ(missing.rfind("quorv: net.quorv.error.illegalargument: Cannot read spaces file "
                            "/no/such/file (",
                            0),
              0u)
        << missing;
}

// ---- exchange -------------------------------------------------------------------------------

TEST(NodesCli, TheExchangeOfASpaceListsTheInputsAndLeavesTheRequestAlone) {
    int status = -1;
    const std::string out = Quorv("nodes exchange --json --descriptions " + DATA + " --spaces " +
                                    SPACES + " --space net.quorv.test.space.named",
                                &status);
    ASSERT_EQ(status, 0) << out;
    const json r = json::parse(out);
    EXPECT_EQ(r["space"], "net.quorv.test.space.named");
    EXPECT_EQ(r["exchangeclass"], DEFAULT_EXCHANGE);
    const json& rows = r["parameters"];
    ASSERT_EQ(rows.size(), 5u);
    EXPECT_EQ(rows[0]["key"], "net.quorv.viewport.color");
    EXPECT_EQ(rows[0]["type"], "net.quorv.parametrictype.col<3,float64>");
    EXPECT_EQ(rows[0]["value"], json({0.8, 0.25, 0.125}));
    EXPECT_EQ(rows[1]["key"], "net.quorv.viewport.roughness");
    EXPECT_EQ(rows[1]["type"], "float64");
    EXPECT_EQ(rows[1]["value"], 0.0);
    EXPECT_EQ(r["request"]["before"], r["request"]["after"]);
    // Without a space: the default exchange; without the folder the load fails and says so.
    const json plain = json::parse(Quorv("nodes exchange --json --descriptions " + DATA, &status));
    EXPECT_EQ(plain["space"], nullptr);
    EXPECT_EQ(plain["parameters"], rows);
    const std::string err = Quorv("nodes exchange 2>&1 >/dev/null", &status);
    EXPECT_EQ(status, 1);
    EXPECT_NE(err.find("net.quorv.nodespace.exchange.bundle.viewportmaterial of category data"),
              std::string::npos)
        << err;
    Quorv("nodes exchange --spaces " + SPACES + " --space no.such 2>/dev/null", &status);
    EXPECT_EQ(status, 1);
    Quorv("nodes exchange --spaces " + SPACES + " 2>/dev/null", &status);
    EXPECT_NE(status, 0) << "--spaces needs --space";
}

// ---- world ----------------------------------------------------------------------------------

TEST(NodesCli, WorldRenderersAreInsertedRenamedErasedAndNamed) {
    const std::vector<json> l =
        Session({R"({"send": "notifyrendererinserted", "data": ["r.a", "Alpha"]})",
                 R"({"send": "notifyrendererinserted", "data": ["r.a", "Alpha 2"]})",
                 R"({"send": "notifyrendererinserted", "data": ["r.b", "Beta"]})",
                 R"({"send": "notifyrenderererased", "data": "r.b"})",
                 R"({"send": "notifyrenderererased", "data": "r.never"})", R"({"state": true})"},
                "");
    ASSERT_EQ(l.size(), 3u + 5 * 2 + 1);
    EXPECT_EQ(
        l[0],
        json({{"event", "renderers"}, {"observer", "renderers"}, {"renderers", json::array()}}));
    auto event = [](const char* id, bool inserted) {
        return json({{"event", "renderers"},
                     {"observer", "renderers"},
                     {"renderers", json::array({{{"renderer", id}, {"inserted", inserted}}})}});
    };
    EXPECT_EQ(l[3], event("r.a", true));
    EXPECT_EQ(l[4], json({{"ok", true}}));
    EXPECT_EQ(l[5], event("r.a", true)) << "a rename is reported as inserted again";
    EXPECT_EQ(l[9], event("r.b", false));
    EXPECT_EQ(l[11], event("r.never", false)) << "an unknown one erased is still reported";
    EXPECT_EQ(l[13]["renderers"], json::array({{{"renderer", "r.a"}, {"name", "Alpha 2"}}}));
}

TEST(NodesCli, WorldPreferencesReachWatchersOfTheChangedEntry) {
    const std::vector<json> l = Session(
        {R"({"observe": "preferences", "name": "w", "watch": {"preferences": [[7, 3]]}})",
         R"({"send": "notifyactivepreferenceschanged", "data": {"PREFERENCES_CHANGED": true, "PREFERENCES": {"1": 2.0, "7": {"3": 1}}}})",
         R"({"send": "notifyactivepreferenceschanged", "data": {"PREFERENCES_CHANGED": true, "PREFERENCES": {"1": 5.0, "7": {"3": 1}}}})",
         R"({"send": "notifyactivepreferenceschanged", "data": {"PREFERENCES_CHANGED": false, "RENDERDATA_CHANGED": false, "PREFERENCES": {}}})",
         R"({"send": "notifyactivepreferenceschanged", "data": 4})", R"({"state": true})"},
        "");
    ASSERT_EQ(l.size(), 3u + 1 + 3 + 2 + 1 + 1 + 1);
    EXPECT_EQ(l[1]["preferences"], json::object());  // callNow before any message
    EXPECT_EQ(l[3], json({{"ok", true}}));
    // First message: the catch-all "preferences" observer, then "w" (7/3 absent before).
    EXPECT_EQ(l[4]["observer"], "preferences");
    EXPECT_EQ(l[5]["observer"], "w");
    EXPECT_EQ(l[5]["preferences"], json({{"1", 2.0}, {"7", {{"3", 1}}}}));
    EXPECT_EQ(l[6], json({{"ok", true}}));
    // Second: 7/3 unchanged, so only the catch-all hears of it.
    EXPECT_EQ(l[7]["observer"], "preferences");
    EXPECT_EQ(l[8], json({{"ok", true}}));
    EXPECT_EQ(l[9], json({{"ok", true}})) << "both flags false: nobody told";
    ASSERT_TRUE(l[10].contains("error"));
    EXPECT_NE(l[10]["error"].get<std::string>().find("Data type mismatch"), std::string::npos);
    EXPECT_EQ(l[11]["preferences"], json({{"1", 5.0}, {"7", {{"3", 1}}}}));
}

TEST(NodesCli, WorldParametersAndTheActiveSpace) {
    const std::vector<json> l =
        Session({R"({"send": "activenodespacechanged", "data": "s.a"})",
                 R"({"send": "activenodespacechanged", "data": "s.a"})", R"({"parameters": true})",
                 R"({"send": "unload"})", R"({"parameters": true})"},
                "--descriptions " + DATA);
    ASSERT_EQ(l.size(), 3u + 2 + 1 + 3);
    EXPECT_EQ(l[2]["space"], "");
    EXPECT_EQ(l[3], json({{"event", "nodespace"}, {"observer", "nodespace"}, {"space", "s.a"}}));
    EXPECT_EQ(l[5], json({{"ok", true}})) << "the same id again tells no one";
    EXPECT_EQ(l[6]["parameters"]["net.quorv.viewport.layers"], 3);
    EXPECT_EQ(l[7], json({{"ok", true}}));
    EXPECT_TRUE(StartsWith(l[8]["error"],
                           "net.quorv.error.illegalstate: Illegal state: Condition _isActive == "
                           "true not fulfilled.  ("))
        << l[8];
}

TEST(NodesCli, WorldSpacesTheirObserversAndTranslatedNames) {
    const std::string args = "--descriptions " + DATA + " --spaces " + SPACES;
    const std::vector<json> l = Session(
        {R"({"observe": "spacedata", "name": "n", "space": "net.quorv.test.space.named"})",
         R"({"space": "net.quorv.test.space.named", "set": {"net.quorv.nodes.nodespace.spacename": "Renamed"}})",
         R"({"drop": "n"})",
         R"({"space": "net.quorv.test.space.named", "set": {"net.quorv.test.extra": 4}})",
         R"({"spacename": "net.quorv.test.spacedescription"})"},
        args);
    // Three kinds, then a callNow observer of each of the three spaces.
    ASSERT_EQ(l.size(), 6u + 1 + 3 + 1 + 2 + 1);
    EXPECT_EQ(l[3]["observer"], "spacedata:net.quorv.test.space.named");
    EXPECT_EQ(l[3]["data"]["net.quorv.nodes.nodespace.spacename"], "Named");
    EXPECT_EQ(l[6], json({{"ok", true}}));
    // SetData calls the observers, the ones of the session's start first.
    EXPECT_EQ(l[7]["observer"], "spacedata:net.quorv.test.space.named");
    EXPECT_EQ(l[8]["observer"], "n");
    EXPECT_EQ(l[8]["data"]["net.quorv.nodes.nodespace.spacename"], "Renamed");
    EXPECT_EQ(l[9]["data"]["net.quorv.nodes.nodespace.spacename"], "Renamed");
    EXPECT_EQ(l[9]["data"]["net.quorv.test.extra"], 3) << "set writes over the present data";
    EXPECT_EQ(l[10], json({{"ok", true}}));
    EXPECT_EQ(l[11]["observer"], "spacedata:net.quorv.test.space.named") << "n was dropped";
    EXPECT_EQ(l[12]["data"]["net.quorv.test.extra"], 4);
    EXPECT_EQ(l[13],
              json({{"spacename", "net.quorv.test.spacedescription"}, {"name", "Test Space"}}));
    // In German, and where German lacks a description, in English.
    const std::vector<json> de = Session({R"({"spacename": "net.quorv.test.spacedescription"})",
                                          R"({"spacename": "net.quorv.test.namelessdescription"})"},
                                         "--descriptions " + DATA, "--language de");
    ASSERT_EQ(de.size(), 5u);
    EXPECT_EQ(de[3]["name"], "Testraum");
    EXPECT_EQ(de[4]["name"], "") << "only an English description, without a name entry";
}

TEST(NodesCli, WorldBadLinesAreErrorObjectsAndTheRunGoesOn) {
    const std::vector<json> l = Session(
        {"not json", R"({"what": 1})", R"({"observe": "colours", "name": "x"})",
         R"({"observe": "preferences", "name": "x", "watch": {"preferences": [[1]]}})",
         R"({"observe": "spacedata", "name": "x", "space": "no.such"})", R"({"space": "no.such"})",
         R"({"send": "notifyrenderererased", "data": 3})",
         R"({"send": "notifyactivepreferenceschanged", "data": {"1": 18446744073709551615}})",
         R"({"spacename": "net.quorv.test.absent"})", R"({"drop": "never"})",
         R"({"send": "somethingelse"})"},
        "--descriptions " + DATA);
    ASSERT_EQ(l.size(), 3u + 11);
    for (size_t i = 3; i < 3 + 9; ++i) EXPECT_TRUE(l[i].contains("error")) << l[i];
    EXPECT_EQ(l[4]["error"], "unknown request");
    EXPECT_TRUE(StartsWith(l[5]["error"],
                           "net.quorv.error.illegalargument: Unknown observer kind colours ("))
        << l[5];
    EXPECT_EQ(l[6]["error"], "\"preferences\" must be a list of integer pairs");
    EXPECT_EQ(l[8]["error"], "No node space no.such");
    EXPECT_EQ(l[12], json({{"ok", false}}));
    EXPECT_EQ(l[13], json({{"ok", true}})) << "unknown messages are ignored";
    int status = -1;
    Quorv("--language ../x nodes world < /dev/null 2>/dev/null", &status);
    EXPECT_NE(status, 0);
}

}  // namespace
