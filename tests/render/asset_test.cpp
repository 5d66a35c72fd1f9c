// Asset path translation of the built module, on a temporary folder tree.
#include "render/frame/asset.h"

#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <thread>

#include "common/test_support.h"

namespace quorv {
namespace {

namespace fs = std::filesystem;

// base/
//   both.png         also in tex/
//   tex/both.png, tex/only_tex.png
//   folder.png/      a folder
//   link.png         a link to both.png
// outside.png        beside base/
class Assets : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_NE(test::LoadModuleOnce(QUORV_MODULE_PATH), nullptr);
        root = fs::temp_directory_path() / ("quorv_assets_" + std::to_string(::getpid()));
        fs::remove_all(root);
        fs::create_directories(root / "base" / "tex");
        fs::create_directories(root / "base" / "folder.png");
        for (const char* f :
             {"base/both.png", "base/tex/both.png", "base/tex/only_tex.png", "outside.png"})
            std::ofstream(root / f) << "x";
        fs::create_symlink(root / "base" / "both.png", root / "base" / "link.png");
        base = Url::FromText((root / "base").string()).GetValue();
        assets = AssetManagementRef::Create().GetValue();
        ASSERT_TRUE(assets.Init(base).IsOk());
    }
    void TearDown() override { fs::remove_all(root); }

    static Url Relative(const std::string& name) {
        return Url::FromText("relative:///" + name).GetValue();
    }
    // The path found, or the error's message.
    std::string Find(const std::string& name, ASSET_TYPE type) const {
        Result<Url> r = assets.TranslatePath(Relative(name), type);
        if (r.IsError()) return std::string("error: ") + r.GetErrorPointer()->message;
        return r.GetValue().GetPath();
    }
    std::string In(const std::string& p) const { return (root / p).string(); }

    fs::path root;
    Url base;
    AssetManagementRef assets;
};

TEST_F(Assets, DefaultEntriesSearchTheBaseThenTexInOrder) {
    // A texture request tries "relative:///" before "relative:///tex".
    EXPECT_EQ(Find("both.png", ASSET_TYPE::TEXTURE), In("base/both.png"));
    EXPECT_EQ(Find("only_tex.png", ASSET_TYPE::TEXTURE), In("base/tex/only_tex.png"));
    // "ANY" sees only the "ANY" entries, "SCENE" too.
    EXPECT_EQ(Find("only_tex.png", ASSET_TYPE::ANY), "error: Asset not found.");
    EXPECT_EQ(Find("only_tex.png", ASSET_TYPE::SCENE), "error: Asset not found.");
    EXPECT_EQ(Find("both.png", ASSET_TYPE::SCENE), In("base/both.png"));
    Result<Url> missing = assets.TranslatePath(Relative("nothing.png"), ASSET_TYPE::ANY);
    ASSERT_TRUE(missing.IsError());
    EXPECT_TRUE(missing.GetErrorPointer()->id == "net.quorv.error.io");
    EXPECT_STREQ(missing.GetErrorPointer()->subject, "relative:///nothing.png");
}

TEST_F(Assets, FoldersAndLinksAreNotFilesAndDotDotMayLeave) {
    EXPECT_EQ(Find("folder.png", ASSET_TYPE::ANY), "error: Asset not found.");
    EXPECT_EQ(Find("link.png", ASSET_TYPE::ANY), "error: Asset not found.");
    EXPECT_EQ(Find("../outside.png", ASSET_TYPE::ANY), In("base/../outside.png"));
}

TEST_F(Assets, OtherSchemesComeBackUncheckedAndEntriesStayAsTheyWere) {
    const Url absolute = Url::FromText("/no/such/file.png").GetValue();
    Result<Url> r = assets.TranslatePath(absolute, ASSET_TYPE::TEXTURE);
    ASSERT_TRUE(r.IsOk());
    EXPECT_EQ(r.GetValue().GetObject(), absolute.GetObject());  // the same url, a reference added
    EXPECT_TRUE(assets.TranslatePath(Url(), ASSET_TYPE::ANY).IsOk());  // a null url too
    const std::string baseText = base.ToText();
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(Find("only_tex.png", ASSET_TYPE::TEXTURE), In("base/tex/only_tex.png"));
    EXPECT_EQ(base.ToText(), baseText);
}

TEST_F(Assets, AddedPathsComeAfterTheDefaultsAndASecondInitMovesTheBase) {
    ASSERT_TRUE(
        assets.AddSearchPath(Url::FromText(root.string()).GetValue(), ASSET_TYPE::SCENE, true)
            .IsOk());
    EXPECT_EQ(Find("outside.png", ASSET_TYPE::SCENE), In("outside.png"));
    EXPECT_EQ(Find("outside.png", ASSET_TYPE::TEXTURE), "error: Asset not found.");
    // A second Init moves the base and keeps the entries.
    ASSERT_TRUE(assets.Init(Url::FromText((root / "base" / "tex").string()).GetValue()).IsOk());
    EXPECT_EQ(Find("both.png", ASSET_TYPE::TEXTURE), In("base/tex/both.png"));
    EXPECT_EQ(Find("outside.png", ASSET_TYPE::SCENE), In("outside.png"));
}

TEST_F(Assets, WithAnEmptyBaseCandidatesStayRelativeAndAreNeverFiles) {
    AssetManagementRef bare = AssetManagementRef::Create().GetValue();
    ASSERT_TRUE(bare.Init(Url()).IsOk());
    Result<Url> r = bare.TranslatePath(Relative(In("base/both.png")), ASSET_TYPE::ANY);
    ASSERT_TRUE(r.IsError());
    EXPECT_STREQ(r.GetErrorPointer()->message, "Asset not found.");
}

TEST_F(Assets, TranslationOnManyThreads) {
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 200; ++i) {
                if (Find(i % 2 ? "both.png" : "only_tex.png", ASSET_TYPE::TEXTURE) !=
                    In(i % 2 ? "base/both.png" : "base/tex/only_tex.png"))
                    ++wrong;
            }
        });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(wrong.load(), 0);
}

}  // namespace
}  // namespace quorv
