// quorv preview through the built command line, render module and provider module.
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <vector>

#include "common/test_support.h"
#include "quorv/image.h"
#include "quorv/ref.h"
#include "quorv/url.h"

namespace quorv {
namespace {

using Json = nlohmann::json;

// `global` goes before the subcommand: --threads, --config.
std::string Cli(const std::string& global = "") {
    return std::string(QUORV_CLI_PATH) + " " + global + " --module " + QUORV_MODULE_PATH +
           " preview --providers-module " + QUORV_PREVIEWPROVIDERS_MODULE_PATH + " ";
}

// The samples of an EXR picture as the host's image loader reads them (the file also holds its
// time of writing); empty when it cannot be read.
std::vector<Float32> ReadPicture(const std::filesystem::path& path) {
    Result<Url> url = Url::FromText(path.string());
    if (url.IsError()) return {};
    Result<ImageTextureObject*> loaded =
        ImageTextureInterface::Load(url.GetValue().GetObject(), 0.0, nullptr, nullptr);
    if (loaded.IsError()) return {};
    Ref<ImageTextureObject> picture = Ref<ImageTextureObject>::Adopt(loaded.GetValue());
    const ImageObject* image = ImageTextureInterface::GetFirstImage(picture.Get());
    const Int w = ImageInterface::GetWidth(image), h = ImageInterface::GetHeight(image);
    Result<PixelReadHandler*> handler =
        ImageInterface::GetPixelHandler(image, FindPixelFormat("rgba.f32"), nullptr);
    if (handler.IsError()) return {};
    Ref<PixelReadHandler> read = Ref<PixelReadHandler>::Adopt(handler.GetValue());
    std::vector<Float32> samples(static_cast<size_t>(w * h * 4));
    for (Int y = 0; y < h; ++y) read->read(read.Get(), 0, y, w, samples.data() + y * w * 4);
    return samples;
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
    // The end of a is answered after its last delivery line (the line comes first, then the
    // request counts as ended).
    const std::vector<std::string> all = Lines(out);
    Int lastOfA = -1, waitedA = -1;
    for (size_t i = 0; i < all.size(); ++i) {
        if (all[i].find(R"("event":"delivered")") != std::string::npos &&
            all[i].find(R"("name":"a")") != std::string::npos) {
            lastOfA = Int(i);
        }
        if (all[i] == R"({"ended":true,"waited":"a"})") waitedA = Int(i);
    }
    EXPECT_LT(lastOfA, waitedA) << out;
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

// The job system's width (--threads) sizes the preview queue (its width less one, or one with
// "g_useonethreadtorenderpreview") and the number of tasks per level (half the queue, at least
// one, at most eight); the provider is told the queue's width; the ball's pictures are the same
// to the bit whatever the width.
TEST_F(PreviewCli, TheJobSystemWidthSizesTheQueueAndChangesNoBit) {
    struct Row {
        std::string global;
        int queueThreads;  // written out: max(threads, 2) - 1, or 1
        int limit;         // min(max(queueThreads / 2, 1), 8)
    };
    const std::vector<Row> rows = {
        {"--threads 1", 1, 1},   {"--threads 2", 1, 1},
        {"--threads 4", 3, 1},   {"--threads 5", 4, 2},
        {"--threads 40", 39, 8}, {"--threads 40 --config g_useonethreadtorenderpreview=true", 1, 1},
    };
    std::vector<Float32> reference;
    for (size_t k = 0; k < rows.size(); ++k) {
        const Row& row = rows[k];
        const std::filesystem::path picture = dir / ("ball" + std::to_string(k) + ".exr");
        int status = -1;
        const std::string out = test::RunCommand(
            Cli(row.global) +
                "render --provider materialball --size 24x16 --no-progress "
                "--param net.quorv.previewproviders.materialball.iterations=4 -o " +
                picture.string(),
            &status);
        ASSERT_EQ(status, 0) << row.global << "\n" << out;
        const std::vector<std::string> lines = Lines(out);
        ASSERT_EQ(lines.size(), 4u) << out;
        for (const std::string& l : lines) {
            EXPECT_EQ(Json::parse(l)["metadata"]["net.quorv.previewproviders.materialball.threads"],
                      row.queueThreads)
                << row.global;
        }
        const std::vector<Float32> samples = ReadPicture(picture);
        ASSERT_EQ(samples.size(), 24u * 16u * 4u) << picture;
        if (k == 0) reference = samples;
        EXPECT_EQ(std::memcmp(samples.data(), reference.data(), samples.size() * sizeof(Float32)),
                  0)
            << row.global << ": the picture differs";

        // limit + 1 gated requests: the scheduler starts `limit` iterations, the rest waits.
        const std::string input = dir / ("limit" + std::to_string(k) + ".jsonl");
        {
            std::ofstream f(input);
            for (int i = 0; i <= row.limit; ++i) {
                f << R"({"op":"submit","name":"r)" << i
                  << R"(","provider":"scripted","size":[2,2],"gate":"g","params":{"net.quorv.previewproviders.scripted.count":1}})"
                  << "\n";
            }
            f << R"({"op":"queues"})"
              << "\n"
              << R"({"op":"open","gate":"g"})"
              << "\n"
              << R"({"op":"wait"})"
              << "\n";
        }
        const std::string runOut = test::RunCommand(Cli(row.global) + "run < " + input, &status);
        ASSERT_EQ(status, 0) << runOut;
        bool listed = false;
        int delivered = 0;
        for (const std::string& l : Lines(runOut)) {
            const Json j = Json::parse(l);
            if (j.contains("event")) ++delivered;
            if (!j.contains("queues")) continue;
            for (const Json& q : j["queues"]) {
                if (q["name"] != "Preview Image Queue") continue;
                listed = true;
                EXPECT_EQ(q["threads"], row.queueThreads) << row.global;
                EXPECT_EQ(q["queued"].get<int>() + q["running"].get<int>(), row.limit)
                    << row.global << ": " << l;
            }
        }
        EXPECT_TRUE(listed) << runOut;
        EXPECT_EQ(delivered, row.limit + 1) << runOut;
    }
}

// After cancelall a submit still answers, but its task never starts: its wait runs out and
// nothing is delivered. The progress entry goes with the stop.
TEST_F(PreviewCli, CancelAllStopsEveryTask) {
    const std::string input = dir / "in.jsonl";
    std::ofstream(input)
        << R"({"op":"submit","name":"a","provider":"scripted","size":[2,2],"gate":"g"})"
        << "\n"
        << R"({"op":"progress"})"
        << "\n"
        << R"({"op":"cancelall","wait":true})"
        << "\n"
        << R"({"op":"progress"})"
        << "\n"
        << R"({"op":"submit","name":"b","provider":"scripted","size":[2,2],"wait":0.02})"
        << "\n"
        << R"({"op":"wait","name":"b","timeout":0.05})"
        << "\n"
        << R"({"op":"queues"})"
        << "\n";
    int status = -1;
    const std::string out = test::RunCommand(Cli() + "run < " + input, &status);
    EXPECT_EQ(status, 0) << out;
    std::vector<Json> answers;
    for (const std::string& l : Lines(out)) {
        const Json j = Json::parse(l);
        EXPECT_FALSE(j.contains("event")) << "nothing is delivered: " << l;
        answers.push_back(j);
    }
    ASSERT_EQ(answers.size(), 7u) << out;
    EXPECT_EQ(answers[1]["entries"].size(), 1u) << out;
    EXPECT_EQ(answers[2], Json::parse(R"({"cancelledAll":true})"));
    EXPECT_EQ(answers[3]["entries"].size(), 0u) << out;
    EXPECT_EQ(answers[4], Json::parse(R"({"submitted":"b"})"));
    EXPECT_EQ(answers[5], Json::parse(R"({"ended":false,"waited":"b"})"));
    for (const Json& q : answers[6]["queues"]) {
        if (q["name"] == "Preview Image Queue") {
            EXPECT_EQ(q["queued"].get<int>() + q["running"].get<int>(), 0) << answers[6];
        }
    }
    EXPECT_EQ(answers[6]["requests"]["b"]["delivered"], 0);
}

}  // namespace
}  // namespace quorv
