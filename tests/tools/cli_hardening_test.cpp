// The command line against hostile input: every bad line answered on its own line with the
// run going on, no crash on deep or huge input, refused module files, output files that appear
// whole or not at all, and failed writes of standard output reported.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <elf.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "common/test_support.h"

namespace quorv {
namespace {

namespace fs = std::filesystem;

const std::string CLI = std::string(QUORV_CLI_PATH) + " --module " + QUORV_MODULE_PATH;
const std::string PERSPECTIVE = " camera --class net.quorv.render.cameraclass.perspective";
const std::string GGX = " bsdf eval --class net.quorv.render.bsdflegacyclass.ggxbrdf";
const std::string EXAMPLE = std::string(QUORV_SOURCE_DIR) + "/data/ies/example_spot.ies";

// A folder of its own per test, removed at the end.
struct TempDir {
    fs::path path;
    TempDir() {
        char name[] = "/tmp/quorv-cli-XXXXXX";
        path = mkdtemp(name);
    }
    ~TempDir() { fs::remove_all(path); }
    std::string operator/(const std::string& f) const { return (path / f).string(); }
};

std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void WriteFile(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
}

std::vector<std::string> Lines(const std::string& text) {
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string l; std::getline(in, l);) out.push_back(l);
    return out;
}

// Runs `command` with `input` on stdin; gives stdout and the exit code (-1 for a signal).
std::string RunWithInput(const std::string& command, const std::string& input, int* status) {
    TempDir dir;
    WriteFile(dir / "in", input);
    return test::RunCommand(command + " < " + dir / "in", status);
}

// Each bad line is followed by a good one: the answers must pair up one to one.
void ExpectEachLineAnswered(const std::string& command, const std::vector<std::string>& bad,
                            const std::string& good, const std::string& goodAnswer) {
    std::string input;
    for (const std::string& b : bad) input += b + "\n" + good + "\n";
    int status = -2;
    std::vector<std::string> out = Lines(RunWithInput(command, input, &status));
    ASSERT_EQ(status, 0) << command;
    ASSERT_EQ(out.size(), 2 * bad.size()) << command;
    for (size_t i = 0; i < bad.size(); ++i) {
        EXPECT_EQ(out[2 * i].rfind("{\"error\":", 0), 0u) << bad[i].substr(0, 200) << " -> " << out[2 * i];
        EXPECT_LE(out[2 * i].size(), 400u) << "the message quotes too much of " << bad[i].substr(0, 80);
        EXPECT_EQ(out[2 * i + 1], goodAnswer) << "after " << bad[i].substr(0, 200);
    }
}

std::string Nested(const std::string& open, const std::string& close, int depth) {
    std::string s;
    for (int i = 0; i < depth; ++i) s += open;
    for (int i = 0; i < depth; ++i) s += close;
    return s;
}

TEST(CommandLineInput, WrongTypesAndRangesGiveAnErrorLineAndTheRunGoesOn) {
    const std::string deep = Nested("[", "]", 70000);
    ExpectEachLineAnswered(
        CLI + PERSPECTIVE,
        {R"({"op":"Init","flags":"x"})", R"({"op":"Init","flags":1.5})", R"({"op":"Init","flags":-1})",
         R"({"op":"Init","flags":2})", R"({"op":"Init","params":[1]})",
         R"({"op":"Init","params":{"net.quorv.render.camera.cameraparameters.screenresolution":"x"}})",
         R"({"op":"SetMatrix","matrix":{"offset":"x"}})", R"({"op":7})", R"([1,2])",
         R"({"op":"CreateScreenRay","screen":[1,2],"ray":{"rayIndex":99999999999999}})",
         R"({"op":"CreateScreenRay","screen":[1,2],"ray":{"rayIndex":1.5}})",
         R"({"op":"CreateScreenRay","screen":[1,2],"ray":{"rayFlagsB":256}})",
         R"({"op":"CreateScreenRay","screen":[1,2],"ray":{"rayWord":-1}})",
         R"({"op":"CreateScreenRay","screen":[1,2],"ray":)" + deep + "}",
         R"({"op":"Init","params":)" + Nested("{\"a\":", "}", 70000) + "}",
         R"({"op":"VisibilityTest","point":{"x":1}})", "1e400", "[1,2",
         std::string("{\"op\":\"GetFeatures\"}\0junk", 26), "{\"op\":\"" + std::string(5000, 'Q') + "\"}",
         "{\"op\":\"GetFeatures\"" + std::string((1 << 20) + 10, ' ') + "}"},
        R"({"op":"GetFeatures"})", R"({"features":2})");

    ExpectEachLineAnswered(
        CLI + GGX,
        {R"({"op":"SampleF","wo":"x","sample":1})", R"({"op":"SampleF","wo":[0,0,1],"sample":65536})",
         R"({"op":"SampleF","wo":[0,0,1],"sample":1e20})",
         R"({"op":"SampleF","wo":[0,0,1],"sample":{"u0":0.5,"count":99999999999}})",
         R"({"op":"SampleF","wo":[0,0,1],"sample":{"u0":0.5,"count":-1}})",
         R"({"op":"ComputeBSDFFrame","n":[0,0,1],"fast":1})", R"({"op":"ComputeMIPAngle","angle":[1]})",
         R"({"op":"Init","params":{"BSDF_PARAM_ROUGHNESS":"x"}})",
         R"({"op":"Init","params":{"BSDF_PARAM_ORENNAYAR_SIMPLE":1}})",
         R"({"op":"ComputeBSDF","wo":[0,0,1],"wi":)" + deep + "}"},
        R"({"op":"PdfIndirect","wo":[0,0,1],"wi":[0,0,1]})",
        Lines(RunWithInput(CLI + GGX, R"({"op":"PdfIndirect","wo":[0,0,1],"wi":[0,0,1]})", nullptr))[0]);

    ExpectEachLineAnswered(CLI + " ies intensity " + EXAMPLE,
                           {R"({"direction":"x"})", R"({"direction":[1,2]})", R"([1,0,"x"])",
                            R"({"direction":)" + deep + "}", std::string("[0,0,-1]\0[1,1,1]", 16)},
                           "[0,0,-1]",
                           Lines(RunWithInput(CLI + " ies intensity " + EXAMPLE, "[0,0,-1]", nullptr))[0]);
}

TEST(CommandLineInput, MessagesSayWhatIsWrong) {
    int status;
    std::vector<std::string> out = Lines(RunWithInput(
        CLI + PERSPECTIVE,
        std::string("1e400\n{\"op\":\"Init\",\"flags\":3}\n") + Nested("[", "]", 65) + "\n" +
            Nested("[", "]", 64) + "\n{\"op\":\"" + std::string(1000, 'x') + "\"}\n",
        &status));
    ASSERT_EQ(out.size(), 5u);
    EXPECT_EQ(out[0], R"({"error":"number out of range in 1e400"})");
    EXPECT_EQ(out[1], R"({"error":"\"flags\" must be 0 or 1"})");
    EXPECT_EQ(out[2], R"({"error":"JSON nested deeper than 64 levels"})");
    // 64 levels is still JSON: it is parsed and refused as a line that is not an operation.
    EXPECT_EQ(out[3], R"({"error":"each line must be an object with a string \"op\""})");
    EXPECT_EQ(out[4], "{\"error\":\"unknown op \\\"" + std::string(200, 'x') + "...\\\"\"}");
}

TEST(CommandLineInput, OptionsRefuseTrailingTextAndDeepValues) {
    TempDir dir;
    int status = -2;
    for (const char* wo : {"0.5,0,0.866junk", "0.5,0,0.866,1", "0.5,,1", "0.5,0", " 0.5,0,1"}) {
        std::string err = test::RunCommand(CLI + " bsdf plot --class net.quorv.render.bsdflegacyclass.ggxbrdf"
                                           " --wo '" + std::string(wo) + "' -o " + dir / "p.png 2>&1",
                                           &status);
        EXPECT_EQ(status, 1) << wo;
        EXPECT_NE(err.find("is not X,Y,Z"), std::string::npos) << err;
        EXPECT_FALSE(fs::exists(dir / "p.png"));
    }
    std::string err = test::RunCommand(
        CLI + PERSPECTIVE + " --param 'net.quorv.render.camera.cameraparameters.screenresolution=" +
            Nested("[", "]", 60000) + "' 2>&1 </dev/null",
        &status);
    EXPECT_EQ(status, 1);
    EXPECT_NE(err.find("JSON nested deeper than 64 levels"), std::string::npos) << err.substr(0, 300);
}

TEST(CommandLineOutput, FailedWritesOfStandardOutputExitNonZero) {
    int status = -2;
    std::string err = test::RunCommand(CLI + " ies text " + EXAMPLE + " 2>&1 >/dev/full", &status);
    EXPECT_EQ(status, 1);
    EXPECT_NE(err.find("cannot write standard output: No space left on device"), std::string::npos) << err;
    RunWithInput(CLI + " ies intensity " + EXAMPLE + " >/dev/full 2>/dev/null", "[0,0,1]\n[0,0,1]\n", &status);
    EXPECT_EQ(status, 1);
    test::RunCommand(CLI + " classes --json >/dev/full 2>/dev/null", &status);
    EXPECT_EQ(status, 1);
}

// Pictures are encoded in memory and published by rename: a failed write leaves the old file
// and no temporary behind; concurrent writers of one name leave one writer's whole file.
TEST(CommandLineOutput, PicturesAppearWholeOrNotAtAll) {
    TempDir dir;
    const std::string target = dir / "web.png";
    const std::string preview = CLI + " ies preview " + EXAMPLE + " --size ";
    int status = -2;
    test::RunCommand(preview + "48 -o " + target, &status);
    ASSERT_EQ(status, 0);
    const std::string before = ReadFile(target);
    ASSERT_EQ(before.substr(1, 3), "PNG");

    // A file size limit of one block makes every larger write fail, as a full disk does.
    std::string err = test::RunCommand("trap '' XFSZ; ulimit -f 1; " + preview + "512 -o " + target + " 2>&1",
                                       &status);
    EXPECT_EQ(status, 1);
    EXPECT_NE(err.find("Cannot write " + target + ": File too large"), std::string::npos) << err;
    EXPECT_EQ(ReadFile(target), before);

    err = test::RunCommand(CLI + " bsdf plot --class net.quorv.render.bsdflegacyclass.ggxbrdf -o " +
                               dir / "missing/lobe.png 2>&1",
                           &status);
    EXPECT_EQ(status, 1);
    EXPECT_EQ(err.find("peak"), std::string::npos) << "a failed plot must not report its picture";

    // Four writers of different sizes at once: the result is exactly one of their pictures.
    std::vector<std::string> alone;
    const int sizes[] = {40, 56, 72, 88};
    for (int s : sizes) {
        test::RunCommand(preview + std::to_string(s) + " -o " + dir / "alone.png", &status);
        alone.push_back(ReadFile(dir / "alone.png"));
    }
    std::string all = "true";
    for (int s : sizes) all += " & " + preview + std::to_string(s) + " -o " + target;
    test::RunCommand("( " + all + "; wait )", &status);
    const std::string result = ReadFile(target);
    EXPECT_NE(std::find(alone.begin(), alone.end(), result), alone.end());

    int entries = 0;
    for (const auto& e : fs::directory_iterator(dir.path)) entries += e.path().filename().string()[0] == '.';
    EXPECT_EQ(entries, 0) << "a temporary file was left behind";
}

TEST(ModuleFiles, DamagedFilesAreRefusedNamingThePath) {
    TempDir dir;
    const std::string whole = ReadFile(QUORV_MODULE_PATH);
    ASSERT_GT(whole.size(), 150000u);
    WriteFile(dir / "cut.so", whole.substr(0, 150000));
    // The same cut with the section table forgotten: the segment check must catch it alone.
    std::string noSections = whole.substr(0, 150000);
    Elf64_Ehdr header;
    std::memcpy(&header, noSections.data(), sizeof(header));
    header.e_shoff = 0;
    header.e_shnum = 0;
    std::memcpy(noSections.data(), &header, sizeof(header));
    WriteFile(dir / "nosections.so", noSections);
    WriteFile(dir / "text.so", "hello");
    std::string otherMachine = whole;
    otherMachine[18] = static_cast<char>(EM_ARM);
    otherMachine[19] = 0;
    WriteFile(dir / "arm.so", otherMachine);

    struct Case {
        std::string path, reason;
    } cases[] = {{dir / "cut.so", "truncated or damaged"},
                 {dir / "nosections.so", "truncated: a segment ends at byte"},
                 {dir / "text.so", "not an ELF file"},
                 {dir / "arm.so", "an ELF file for another machine"},
                 {dir.path.string(), "Is a directory"},
                 {dir / "absent.so", "No such file or directory"}};
    for (const Case& c : cases) {
        int status = -2;
        std::string err = test::RunCommand(std::string(QUORV_CLI_PATH) + " --module " + c.path + " classes 2>&1",
                                           &status);
        EXPECT_EQ(status, 1) << c.path;
        EXPECT_NE(err.find("Cannot load module " + c.path + ": " + c.reason), std::string::npos) << err;
    }
}

TEST(ModuleFiles, ReadFailuresAreIoErrorsNamingThePath) {
    TempDir dir;
    int status = -2;
    std::string err = test::RunCommand(CLI + " ies info " + dir.path.string() + " 2>&1", &status);
    EXPECT_EQ(status, 1);
    EXPECT_EQ(err, "quorv: " + dir.path.string() + ": Cannot read " + dir.path.string() + ": Is a directory\n");
    // An endless source is refused at the read limit, not read until memory runs out.
    err = test::RunCommand(CLI + " ies info /dev/zero 2>&1", &status);
    EXPECT_EQ(status, 1);
    EXPECT_EQ(err, "quorv: /dev/zero: Cannot read /dev/zero: larger than 268435456 bytes\n");
    // A file url is percent-decoded: "%20" is the blank of the name.
    fs::copy_file(EXAMPLE, dir / "a b.ies");
    test::RunCommand(CLI + " ies info 'file://" + dir.path.string() + "/a%20b.ies'", &status);
    EXPECT_EQ(status, 0);
    err = test::RunCommand(CLI + " ies info 'file://" + dir.path.string() + "/a%2' 2>&1", &status);
    EXPECT_EQ(status, 1);
    EXPECT_NE(err.find("has a bad percent escape"), std::string::npos) << err;
}

// h = h*31 + byte over the text, 43 bits, the length from bit 44: computed here on its own.
TEST(CommandLineIds, IdWordsMatchAnIndependentHash) {
    auto word = [](const std::string& t) {
        unsigned long long h = 0;
        for (unsigned char c : t) h = (h * 31 + c) % (1ull << 43);
        return h | (static_cast<unsigned long long>(t.size()) << 44);
    };
    int status = -2;
    std::vector<std::string> out =
        Lines(test::RunCommand(std::string(QUORV_CLI_PATH) + " id net.quorv.render.interface.ies a", &status));
    ASSERT_EQ(status, 0);
    ASSERT_EQ(out.size(), 2u);
    char expected[32];
    std::snprintf(expected, sizeof(expected), "0x%016llx", word("net.quorv.render.interface.ies"));
    EXPECT_EQ(out[0].substr(0, 18), expected);
    EXPECT_NE(out[0].find(" 30  net.quorv.render.interface.ies"), std::string::npos) << out[0];
    std::string json = test::RunCommand(CLI + " classes --json", &status);
    std::snprintf(expected, sizeof(expected), "0x%016llx", word("net.quorv.render.cameraclass.perspective"));
    EXPECT_NE(json.find(expected), std::string::npos);
}

TEST(CommandLineOps, CameraWithoutInitAndBSDFReset) {
    int status = -2;
    std::vector<std::string> out = Lines(RunWithInput(
        CLI + PERSPECTIVE + " --no-init",
        R"({"op":"GetFeatures"})" "\n" R"({"op":"Init","flags":1})" "\n" R"({"op":"GetFeatures"})" "\n", &status));
    ASSERT_EQ(out.size(), 3u);
    EXPECT_EQ(out[1], R"({"ok":true})");
    EXPECT_EQ(out[2], R"({"features":10})");
    out = Lines(RunWithInput(CLI + GGX + " --param BSDF_PARAM_ROUGHNESS=0.5",
                             R"({"op":"Reset"})" "\n", &status));
    EXPECT_EQ(out, std::vector<std::string>{R"({"ok":true})"});
}

}  // namespace
}  // namespace quorv
