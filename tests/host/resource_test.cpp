// Translated texts from the resource folder.
#include "quorv/resource.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "host/src/host_internal.h"

namespace quorv {
namespace {

constexpr const char* GLOBAL = "net.quorv.exchange.globalstrings";

// The folder the build copies beside bin/ is the default of a host started without a folder.
TEST(Resource, TheShippedTextIsFoundBesideTheProgram) {
    const std::filesystem::path dir = host::GetResourceDirectory();
    EXPECT_EQ(dir.filename(), "resources");
    Result<std::string> text =
        ResourceInterface::LoadResourceString(GLOBAL, "net.quorv.exchange.globalstrings.baking");
    ASSERT_TRUE(text.IsOk()) << ErrorToString(text.GetErrorPointer());
    EXPECT_EQ(text.GetValue(), "Baking previews");
}

TEST(Resource, MissingFilesAndKeysAreErrorsNamingBoth) {
    auto expectError = [](Result<std::string> r, const char* id, const char* key, const char* why) {
        ASSERT_TRUE(r.IsError());
        EXPECT_EQ(r.GetErrorPointer()->kind, ERRORKIND::ILLEGALARGUMENT);
        const std::string m = r.GetErrorPointer()->message;
        EXPECT_NE(m.find(id), std::string::npos) << m;
        EXPECT_NE(m.find(key), std::string::npos) << m;
        EXPECT_NE(m.find(why), std::string::npos) << m;
    };
    expectError(ResourceInterface::LoadResourceString("net.quorv.nosuchtable", "some.key"),
                "net.quorv.nosuchtable", "some.key", "no file");
    expectError(ResourceInterface::LoadResourceString(GLOBAL, "net.quorv.nosuchkey"), GLOBAL,
                "net.quorv.nosuchkey", "no such key");
    // A resource id is a file name, never a path out of the folder.
    expectError(ResourceInterface::LoadResourceString("../../etc/passwd", "k"), "../../etc/passwd",
                "k", "not a file name");
    EXPECT_TRUE(ResourceInterface::LoadResourceString(nullptr, "k").IsError());
}

class ResourceFolder : public ::testing::Test {
protected:
    void SetUp() override {
        dir = std::filesystem::temp_directory_path() /
              ("quorv-resources-" + std::to_string(::getpid()));
        std::filesystem::create_directories(dir / "strings" / "en");
        std::filesystem::create_directories(dir / "strings" / "de");
        Write("en/table.json", R"({"a": "A in en", "b": "B in en", "n": 3})");
        Write("en/only_en.json", R"({"a": "only en"})");
        Write("de/table.json", R"({"a": "A auf de"})");
        Write("de/broken.json", R"({"a": )");
    }
    void TearDown() override { std::filesystem::remove_all(dir); }
    void Write(const std::string& name, const std::string& text) {
        std::ofstream(dir / "strings" / name) << text;
    }
    Result<std::string> Load(const char* language, const char* id, const char* key) {
        return host::LoadResourceStringFrom(dir.string(), language, id, key);
    }
    std::filesystem::path dir;
};

TEST_F(ResourceFolder, ALanguageWithoutTheFileFallsBackToEnglish) {
    EXPECT_EQ(Load("de", "table", "a").GetValue(), "A auf de");
    EXPECT_EQ(Load("de", "only_en", "a").GetValue(), "only en") << "no de file: en";
    EXPECT_EQ(Load("fr", "table", "a").GetValue(), "A in en") << "no fr folder: en";
    EXPECT_EQ(Load("en", "table", "b").GetValue(), "B in en");
    // The fallback is by file: a key missing from an existing de file is missing.
    EXPECT_TRUE(Load("de", "table", "b").IsError());
    // A value that is no text, and a file that is no JSON, are errors.
    EXPECT_TRUE(Load("en", "table", "n").IsError());
    Result<std::string> broken = Load("de", "broken", "a");
    ASSERT_TRUE(broken.IsError());
    EXPECT_NE(std::string(broken.GetErrorPointer()->message).find("not a JSON object"),
              std::string::npos);
}

// The service reads a table once per folder and language: a later change of the file is seen
// only after the options are set again, and a file that was missing is looked for again.
TEST_F(ResourceFolder, TheServiceKeepsWhatItReadUntilTheOptionsChange) {
    const std::string previous = host::GetResourceDirectory();
    host::SetResourceOptions(dir.string(), "de");
    auto load = [](const char* id, const char* key) {
        Result<std::string> r = ResourceInterface::LoadResourceString(id, key);
        return r.IsOk() ? r.GetValue() : "error: " + std::string(r.GetErrorPointer()->message);
    };
    EXPECT_EQ(load("table", "a"), "A auf de");
    Write("de/table.json", R"({"a": "changed"})");
    EXPECT_EQ(load("table", "a"), "A auf de");
    EXPECT_EQ(load("later", "a").substr(0, 6), "error:");
    Write("en/later.json", R"({"a": "now here"})");
    EXPECT_EQ(load("later", "a"), "now here");
    // The key decides, not the table: a missing key of a kept table names the file.
    EXPECT_EQ(load("table", "zz"),
              "error: Cannot load resource string zz of table: no such key in " +
                  (dir / "strings" / "de" / "table.json").string());
    host::SetResourceOptions(dir.string(), "de");
    EXPECT_EQ(load("table", "a"), "changed");
    host::SetResourceOptions(previous, "en");
}

}  // namespace
}  // namespace quorv
