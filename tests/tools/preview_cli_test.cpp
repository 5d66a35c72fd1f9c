// quorv preview through the built command line, render module and provider module.
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <vector>

#include "common/test_support.h"

namespace quorv {
namespace {

using Json = nlohmann::json;

std::string Cli() {
    return std::string(QUORV_CLI_PATH) + " --module " + QUORV_MODULE_PATH +
           " preview --providers-module " + QUORV_PREVIEWPROVIDERS_MODULE_PATH + " ";
}

std::vector<std::string> Lines(const std::string& out) {
    std::vector<std::string> lines;
    size_t start = 0;
    for (size_t nl; (nl = out.find('\n', start)) != std::string::npos; start = nl + 1)
        lines.push_back(out.substr(start, nl - start));
    return lines;
}

// Width and height from a PNG's header chunk (big-endian words at bytes 16 and 20).
std::pair<int, int> PngSize(const std::string& path) {
    std::ifstream f(path, std::ios::binary);
    unsigned char h[24] = {};
    f.read(reinterpret_cast<char*>(h), 24);
    auto word = [&](int at) {
        return (h[at] << 24) | (h[at + 1] << 16) | (h[at + 2] << 8) | h[at + 3];
    };
    return {word(16), word(20)};
}

class PreviewCli : public ::testing::Test {
protected:
    void SetUp() override {
        dir = std::filesystem::temp_directory_path() /
              ("quorv_preview_" + std::to_string(::getpid()) + "_" +
               ::testing::UnitTest::GetInstance()->current_test_info()->name());
        std::filesystem::create_directories(dir);
    }
    void TearDown() override { std::filesystem::remove_all(dir); }
    std::filesystem::path dir;
};

TEST_F(PreviewCli, ProvidersAreListed) {
    int status = -1;
    const std::string out = test::RunCommand(Cli() + "providers --json", &status);
    EXPECT_EQ(status, 0);
    const Json j = Json::parse(out);
    EXPECT_EQ(j["providers"], Json::array({"net.quorv.previewproviders.materialball",
                                           "net.quorv.previewproviders.scripted"}))
        << out;
}

TEST_F(PreviewCli, RenderPrintsEachDeliveryAndWritesPictureAndStrip) {
    int status = -1;
    const std::string out = test::RunCommand(
        Cli() +
            "render --provider materialball --size 24x16 --no-progress --bsdf "
            "net.quorv.render.bsdflegacyclass.lambertbrdf --bsdf-param BSDF_PARAM_ROUGHNESS=0.5 "
            "--param net.quorv.previewproviders.materialball.iterations=5 -o " +
            (dir / "ball.png").string() + " --strip " + (dir / "strip.png").string(),
        &status);
    EXPECT_EQ(status, 0) << out;
    const std::vector<std::string> lines = Lines(out);
    ASSERT_EQ(lines.size(), 5u) << out;
    const int widths[] = {3, 6, 12, 24, 24};
    for (size_t i = 0; i < lines.size(); ++i) {
        const Json j = Json::parse(lines[i]);
        EXPECT_EQ(j["index"], i);
        EXPECT_EQ(j["count"], 5);
        EXPECT_EQ(j["images"][0]["width"], widths[i]) << lines[i];
        EXPECT_TRUE(j["ms"].is_number());
        EXPECT_EQ(j["metadata"]["net.quorv.nodes.previewimagerequest.iterationindex"], i);
    }
    EXPECT_EQ(PngSize((dir / "ball.png").string()), std::make_pair(24, 16));
    // Five iterations side by side, each at the largest size.
    EXPECT_EQ(PngSize((dir / "strip.png").string()), std::make_pair(5 * 24, 16));
}

TEST_F(PreviewCli, UpscaleFlipAndScriptedFailures) {
    int status = -1;
    std::string out = test::RunCommand(
        Cli() +
            "render --provider scripted --size 8x4 --no-progress --upscale --flip --wait inf "
            "--param 'net.quorv.previewproviders.scripted.sizes=\"2x1,4x2\"'",
        &status);
    EXPECT_EQ(status, 0) << out;
    std::vector<std::string> lines = Lines(out);
    ASSERT_EQ(lines.size(), 3u) << out;
    for (const std::string& l : lines) EXPECT_EQ(Json::parse(l)["images"][0]["width"], 8) << l;

    out = test::RunCommand(
        Cli() +
            "render --provider scripted --size 4x4 --no-progress "
            "--param 'net.quorv.previewproviders.scripted.fail=\"compute:1\"' 2>&1",
        &status);
    EXPECT_EQ(status, 1);
    lines.clear();
    for (const std::string& l : Lines(out))
        if (!l.empty() && l[0] == '{') lines.push_back(l);
    // Step 0 delivered, then the job's error ends the task.
    ASSERT_EQ(lines.size(), 2u) << out;
    EXPECT_EQ(Json::parse(lines[0])["index"], 0);
    EXPECT_NE(Json::parse(lines[1])["error"].get<std::string>().find(
                  "Scripted failure in ComputeIteration"),
              std::string::npos)
        << out;
}

TEST_F(PreviewCli, BadOptionsAreNamed) {
    struct Case {
        std::string args, expected;
    };
    for (const Case& c :
         {Case{"render --provider scripted --size 0x4", "--size must be WxH"},
          Case{"render --provider nothing --size 4x4",
               "No class net.quorv.previewproviders.nothing"},
          Case{"render --provider materialball --size 4x4 --bsdf-param ROUGH=1",
               "Unknown BSDF parameter key ROUGH"},
          Case{"render --provider materialball --size 4x4 --param net.quorv.none=1",
               "Unknown parameter key"},
          Case{"render --provider scripted --size 4x4 --wait x", "--wait takes seconds"},
          Case{"render --provider scripted --size 4x4 --no-progress -o /nonexistent/dir/x.png",
               "Cannot write /nonexistent/dir/x.png"}}) {
        int status = -1;
        const std::string out = test::RunCommand(Cli() + c.args + " 2>&1", &status);
        EXPECT_EQ(status, 1) << c.args;
        EXPECT_NE(out.find(c.expected), std::string::npos) << c.args << "\n" << out;
    }
}

TEST_F(PreviewCli, RunAnswersEachLineAndPrintsEvents) {
    const std::string input = dir / "in.jsonl";
    std::ofstream(input)
        << R"({"op":"submit","name":"a","provider":"scripted","size":[2,2],"gate":"g","params":{"net.quorv.previewproviders.scripted.count":2}})"
        << "\n"
        << R"({"op":"submit","name":"b","provider":"scripted","size":"2x2","gate":"g"})"
        << "\n"
        << R"({"op":"cancel","name":"b"})"
        << "\n"
        << R"({"op":"open","gate":"g"})"
        << "\n"
        << R"({"op":"wait","name":"a"})"
        << "\n"
        << R"({"op":"submit","name":"b"})"
        << "\n"
        << R"({"op":"wait"})"
        << "\n"
        << R"({"op":"drop","name":"a"})"
        << "\n"
        << R"({"op":"drop","name":"a"})"
        << "\n"
        << R"({"op":"submit","name":"c","provider":"scripted","size":[0,1]})"
        << "\n"
        << R"({"op":"submit","name":"c","provider":"scripted"})"
        << "\n"
        << R"({"op":"frobnicate"})"
        << "\n"
        << "[1,2\n"
        << R"({"op":"progress"})"
        << "\n";
    int status = -1;
    const std::string out = test::RunCommand(Cli() + "run --timeline < " + input, &status);
    EXPECT_EQ(status, 0) << out;
    int deliveredA = 0, deliveredB = 0, errors = 0;
    std::vector<std::string> answers;
    std::vector<std::string> timeline;
    for (const std::string& l : Lines(out)) {
        if (l.empty() || l[0] != '{') {
            timeline.push_back(l);
            continue;
        }
        const Json j = Json::parse(l);
        if (j.contains("event")) {
            EXPECT_EQ(j["event"], "delivered") << l;
            (j["name"] == "a" ? deliveredA : deliveredB)++;
        } else {
            answers.push_back(l);
            if (j.contains("error")) ++errors;
        }
    }
    EXPECT_EQ(deliveredA, 2) << out;
    EXPECT_EQ(deliveredB, 3) << "b cancelled before it ran, then submitted again: " << out;
    ASSERT_EQ(answers.size(), 14u) << out;
    EXPECT_EQ(answers[2], R"({"cancelled":"b"})");
    EXPECT_EQ(answers[4], R"({"ended":true,"waited":"a"})");
    EXPECT_EQ(answers[7], R"({"dropped":"a"})");
    EXPECT_EQ(answers[8], R"({"error":"no request named a"})");
    EXPECT_NE(answers[9].find("Invalid Image Size"), std::string::npos) << answers[9];
    EXPECT_NE(answers[10].find("is required"), std::string::npos) << answers[10];
    EXPECT_NE(answers[11].find("unknown op"), std::string::npos) << answers[11];
    EXPECT_NE(answers[12].find("not JSON"), std::string::npos) << answers[12];
    EXPECT_EQ(errors, 5);
    // A header and one row per request: a, b and the refused c.
    ASSERT_EQ(timeline.size(), 4u) << out;
    EXPECT_EQ(timeline[1].rfind("a ", 0), 0u);
    EXPECT_NE(timeline[1].find('|'), std::string::npos) << timeline[1];
}

}  // namespace
}  // namespace quorv
