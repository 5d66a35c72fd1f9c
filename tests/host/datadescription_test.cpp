// Data descriptions of registered folders: entries in file order, defaults typed by the
// entry's data type, identifiers, the current language with its fallback to "en", and errors
// that name the id, the category and the file.
#include "quorv/datadescription.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "host/src/host_internal.h"
#include "quorv/host/warnings.h"

namespace quorv {
namespace {

constexpr const char* IDENTIFIER = descriptionkey::IDENTIFIER;
constexpr const char* DEFAULT = descriptionkey::DEFAULTVALUE;

class DescriptionFolder : public ::testing::Test {
protected:
    void SetUp() override {
        static int counter = 0;
        const std::string name =
            "quorv-descriptions-" + std::to_string(::getpid()) + "-" + std::to_string(++counter);
        dir = std::filesystem::temp_directory_path() / name;
        id = "net.quorv.test." + name;
        std::filesystem::create_directories(dir);
        ASSERT_TRUE(host::RegisterDescriptionFolder(id, dir.string()).IsOk());
    }
    void TearDown() override {
        EXPECT_TRUE(host::UnregisterDescriptionFolder(id));
        host::SetResourceOptions("", "en");
        std::filesystem::remove_all(dir);
    }
    // Writes FOLDER/`path` (e.g. "data/x.json").
    std::string Write(const std::string& path, const std::string& text) {
        const std::filesystem::path file = dir / path;
        std::filesystem::create_directories(file.parent_path());
        std::ofstream(file) << text;
        return file.string();
    }
    Result<DescriptionObject*> Load(const char* id, const char* category,
                                    const LanguageObject* language = nullptr) {
        return DataDescriptionDatabaseInterface::LoadDescription(LiteralId(id), LiteralId(category),
                                                                 language);
    }
    std::vector<DataDictionary> Entries(const char* id, const char* category = "data") {
        Result<DescriptionObject*> loaded = Load(id, category);
        EXPECT_TRUE(loaded.IsOk()) << ErrorToString(loaded.GetErrorPointer());
        if (loaded.IsError()) return {};
        const Description d(loaded.GetValue());
        return DataDescriptionInterface::GetEntries(d.Get()).GetValue();
    }
    static std::string Message(const ErrorObject* e) { return e && e->message ? e->message : ""; }
    // The message of loading `id` of category "data", which must fail with an illegal argument.
    std::string LoadError(const char* id) {
        Result<DescriptionObject*> r = Load(id, "data");
        EXPECT_TRUE(r.IsError()) << id;
        if (r.IsOk()) {
            DataDescriptionInterface::Free(r.GetValue());
            return "";
        }
        EXPECT_EQ(r.GetErrorPointer()->kind, ERRORKIND::ILLEGALARGUMENT);
        return Message(r.GetErrorPointer());
    }

    std::filesystem::path dir;
    std::string id;
};

TEST_F(DescriptionFolder, EntriesWithoutIdentifierAreRefusedNamingIdCategoryAndFile) {
    const std::string missing =
        Write("data/net.quorv.test.noid.json", R"({"entries": [{"a": 1, "b": 2}, {"x": 3}]})");
    const std::string empty = Write("data/net.quorv.test.emptyid.json",
                                    R"({"entries": [{"net.quorv.description.base.identifier": "k"},
                              {"net.quorv.description.base.identifier": ""}]})");
    EXPECT_EQ(LoadError("net.quorv.test.noid"),
              "Cannot load description net.quorv.test.noid of category data from " + missing +
                  ": entry 0 has no identifier");
    EXPECT_EQ(LoadError("net.quorv.test.emptyid"),
              "Cannot load description net.quorv.test.emptyid of category data from " + empty +
                  ": entry 1 has no identifier");
}

TEST_F(DescriptionFolder, DefaultsAreTypedByTheEntrysDataType) {
    Write("data/net.quorv.test.typed.json", R"({"entries": [
        {"net.quorv.description.base.identifier": "b", "net.quorv.description.data.base.datatype": "bool", "net.quorv.description.data.base.defaultvalue": true},
        {"net.quorv.description.base.identifier": "i32", "net.quorv.description.data.base.datatype": "int32", "net.quorv.description.data.base.defaultvalue": -7},
        {"net.quorv.description.base.identifier": "i64", "net.quorv.description.data.base.datatype": "int64", "net.quorv.description.data.base.defaultvalue": 8589934592},
        {"net.quorv.description.base.identifier": "f32", "net.quorv.description.data.base.datatype": "float32", "net.quorv.description.data.base.defaultvalue": 0.1},
        {"net.quorv.description.base.identifier": "f64", "net.quorv.description.data.base.datatype": "float64", "net.quorv.description.data.base.defaultvalue": 2},
        {"net.quorv.description.base.identifier": "s", "net.quorv.description.data.base.datatype": "net.quorv.string", "net.quorv.description.data.base.defaultvalue": "text"},
        {"net.quorv.description.base.identifier": "id", "net.quorv.description.data.base.datatype": "net.quorv.id", "net.quorv.description.data.base.defaultvalue": "net.quorv.some.id"},
        {"net.quorv.description.base.identifier": "v", "net.quorv.description.data.base.datatype": "net.quorv.parametrictype.vec<3,float64>", "net.quorv.description.data.base.defaultvalue": [1, 2.5, -3]},
        {"net.quorv.description.base.identifier": "c", "net.quorv.description.data.base.datatype": "net.quorv.parametrictype.col<3,float64>", "net.quorv.description.data.base.defaultvalue": [0.5, 0.25, 0.125]},
        {"net.quorv.description.base.identifier": "v2", "net.quorv.description.data.base.datatype": "net.quorv.parametrictype.vec<2,float64>", "net.quorv.description.data.base.defaultvalue": [4, 5]},
        {"net.quorv.description.base.identifier": "unknown", "net.quorv.description.data.base.datatype": "net.quorv.no.such.type", "net.quorv.description.data.base.defaultvalue": 3}
    ]})");
    const std::vector<DataDictionary> e = Entries("net.quorv.test.typed");
    ASSERT_EQ(e.size(), 11u);
    auto value = [&](size_t i) { return e[i].GetData(DEFAULT); };
    ASSERT_NE(value(0).Get<Bool>(), nullptr);
    EXPECT_TRUE(*value(0).Get<Bool>());
    ASSERT_NE(value(1).Get<Int32>(), nullptr);
    EXPECT_EQ(*value(1).Get<Int32>(), -7);
    ASSERT_NE(value(2).Get<Int>(), nullptr);
    EXPECT_EQ(*value(2).Get<Int>(), Int(1) << 33);
    ASSERT_NE(value(3).Get<Float32>(), nullptr);
    EXPECT_EQ(*value(3).Get<Float32>(), 0.1f);  // the float nearest 0.1, not the double
    ASSERT_NE(value(4).Get<Float64>(), nullptr) << "an integer in the file, a float64 entry";
    EXPECT_EQ(*value(4).Get<Float64>(), 2.0);
    ASSERT_NE(value(5).Get<std::string>(), nullptr);
    EXPECT_EQ(*value(5).Get<std::string>(), "text");
    ASSERT_NE(value(6).Get<Id>(), nullptr);
    EXPECT_EQ(*value(6).Get<Id>(), Id::Intern("net.quorv.some.id"));
    ASSERT_NE(value(7).Get<Vector64>(), nullptr);
    EXPECT_EQ(value(7).Get<Vector64>()->y, 2.5);
    EXPECT_EQ(value(7).Get<Vector64>()->z, -3.0);
    ASSERT_NE(value(8).Get<Color64>(), nullptr) << "a colour, not a vector of the same form";
    EXPECT_EQ(value(8).Get<Color64>()->b, 0.125);
    ASSERT_NE(value(9).Get<Vector2d64>(), nullptr);
    EXPECT_EQ(value(9).Get<Vector2d64>()->y, 5.0);
    // A type the host doesn't know: the value keeps the type of its JSON form.
    ASSERT_NE(value(10).Get<Int>(), nullptr);
    EXPECT_EQ(*value(10).Get<Int>(), 3);
    // The identifier, the type id and the classification are ids.
    EXPECT_EQ(e[0].Get<Id>(IDENTIFIER, Id()), Id::Intern("b"));
    EXPECT_EQ(e[0].Get<Id>(descriptionkey::DATATYPE, Id()), Id::Intern("bool"));
}

TEST_F(DescriptionFolder, ADefaultThatDoesNotFitItsTypeNamesEntryAndType) {
    const std::string file = Write("data/net.quorv.test.misfit.json", R"({"entries": [
        {"net.quorv.description.base.identifier": "ok", "net.quorv.description.data.base.datatype": "int32", "net.quorv.description.data.base.defaultvalue": 1},
        {"net.quorv.description.base.identifier": "bad", "net.quorv.description.data.base.datatype": "int32", "net.quorv.description.data.base.defaultvalue": "one"}
    ]})");
    EXPECT_EQ(LoadError("net.quorv.test.misfit"),
              "Cannot load description net.quorv.test.misfit of category data from " + file +
                  ", entry 1: value \"one\" does not fit data type int32");
}

TEST_F(DescriptionFolder, OfTwoEntriesWithOneIdentifierTheLaterWinsInTheEarliersPlace) {
    Write("data/net.quorv.test.twice.json", R"({"entries": [
        {"net.quorv.description.base.identifier": "a", "net.quorv.description.data.base.defaultvalue": 1},
        {"net.quorv.description.base.identifier": "b", "net.quorv.description.data.base.defaultvalue": 2},
        {"net.quorv.description.base.identifier": "a", "net.quorv.description.data.base.defaultvalue": 3}
    ]})");
    const std::vector<DataDictionary> e = Entries("net.quorv.test.twice");
    ASSERT_EQ(e.size(), 2u);
    EXPECT_EQ(e[0].Get<Id>(IDENTIFIER, Id()), Id::Intern("a"));
    EXPECT_EQ(e[0].Get<Int>(DEFAULT, 0), 3);
    EXPECT_EQ(e[1].Get<Id>(IDENTIFIER, Id()), Id::Intern("b"));
    Result<DescriptionObject*> loaded = Load("net.quorv.test.twice", "data");
    ASSERT_TRUE(loaded.IsOk());
    const Description d(loaded.GetValue());
    EXPECT_EQ(DataDescriptionInterface::GetEntry(d.Get(), LiteralId("a")).Get<Int>(DEFAULT, 0), 3);
    EXPECT_TRUE(DataDescriptionInterface::GetEntry(d.Get(), LiteralId("none")).IsNull());
}

TEST_F(DescriptionFolder, TextsComeInTheCurrentLanguageAndFallBackToEnglish) {
    const char* NAME = "net.quorv.description.string.base.translatedstring";
    auto text = [&](const char* t) {
        return std::string(R"({"entries": [{"net.quorv.description.base.identifier": "n", ")") +
               NAME + "\": \"" + t + "\"}]}";
    };
    Write("string/en/net.quorv.test.both.json", text("English"));
    Write("string/de/net.quorv.test.both.json", text("Deutsch"));
    Write("string/en/net.quorv.test.enonly.json", text("Only English"));
    auto translated = [&](const char* id) -> std::string {
        Result<LanguageObject*> language = ResourceInterface::GetCurrentLanguage();
        EXPECT_TRUE(language.IsOk());
        Result<DescriptionObject*> loaded = Load(id, "string", language.GetValue());
        LanguageInterface::Free(language.GetValue());
        if (loaded.IsError()) return "error: " + Message(loaded.GetErrorPointer());
        const Description d(loaded.GetValue());
        return DataDescriptionInterface::GetEntry(d.Get(), LiteralId("n"))
            .Get<std::string>(NAME, "?");
    };
    EXPECT_EQ(translated("net.quorv.test.both"), "English");
    host::SetResourceOptions("", "de");
    Result<LanguageObject*> de = ResourceInterface::GetCurrentLanguage();
    ASSERT_TRUE(de.IsOk());
    char name[8];
    EXPECT_EQ(LanguageInterface::GetName(de.GetValue(), name, sizeof(name)), 2);
    EXPECT_STREQ(name, "de");
    LanguageInterface::Free(de.GetValue());
    EXPECT_EQ(translated("net.quorv.test.both"), "Deutsch");
    EXPECT_EQ(translated("net.quorv.test.enonly"), "Only English");
    host::SetResourceOptions("", "fr");
    EXPECT_EQ(translated("net.quorv.test.both"), "English") << "no fr folder at all";
    // Nowhere: the error lists both files it tried, each once though a second database names
    // the same folder.
    host::SetResourceOptions("", "de");
    const std::string twice = id + ".twice";
    ASSERT_TRUE(host::RegisterDescriptionFolder(twice, dir.string()).IsOk());
    EXPECT_EQ(translated("net.quorv.test.none"),
              "error: Cannot load description net.quorv.test.none of category string: no file " +
                  (dir / "string/de/net.quorv.test.none.json").string() + ", " +
                  (dir / "string/en/net.quorv.test.none.json").string());
    EXPECT_TRUE(host::UnregisterDescriptionFolder(twice));
}

TEST_F(DescriptionFolder, MalformedFilesNameIdCategoryAndFile) {
    const std::string what = "Cannot load description net.quorv.test.bad of category data from ";
    struct Case {
        const char* text;
        const char* why;
    };
    const Case cases[] = {
        {"{", "not an object with an array \"entries\""},
        {R"({"entries": {}})", "not an object with an array \"entries\""},
        {R"({"entries": [3]})", "entry 0 is no object"},
        {R"({"entries": [{"net.quorv.description.base.identifier": 5}]})",
         "entry 0 has no identifier"},
        {R"({"entries": [{"net.quorv.description.base.identifier": "a", "net.quorv.description.data.base.datatype": 7}]})",
         "net.quorv.description.data.base.datatype of an entry is not a text"},
    };
    for (const Case& c : cases) {
        const std::string file = Write("data/net.quorv.test.bad.json", c.text);
        EXPECT_EQ(LoadError("net.quorv.test.bad"), what + file + ": " + c.why) << c.text;
    }
    // An id is a file name, never a path.
    EXPECT_EQ(LoadError("../x"),
              "Cannot load description ../x of category data: the id is not a file name");
}

}  // namespace
}  // namespace quorv
